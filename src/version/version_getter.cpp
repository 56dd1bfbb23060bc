/*
 * Plain-function getters of the version record. Bad arguments go to the
 * platform's own error stack, under the getter family's name.
 */
#include <stdio.h>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_version.h"

#define KOLV_VERSION_GETTER_SOURCE "include/kolvvessaobjectversiongetter"

// The report names the test as the family always has: the pointer tests
// of the out arguments with NULL expanded ("__null != szBuf"), the record
// test as written ("NULL != pVer").
#define KOLV_GETTER_TEST(cond)                                                                                         \
    (__builtin_expect(!(cond), 0) ? (kolv::FailArgument(KOLV_VERSION_GETTER_SOURCE, __LINE__, #cond), true) : false)
#define KOLV_GETTER_TEST_EXPANDED(cond) KOLV_GETTER_TEST(cond)

namespace {

typedef KOLV_VESSA_OBJECT_VERSION Version;

int GetText(char *szBuf, size_t cbBuf, const Version *pVer, std::string (Version::*pfnGet)() const) {
    if (KOLV_GETTER_TEST_EXPANDED(NULL != szBuf)) return -1;
    if (KOLV_GETTER_TEST(0 < cbBuf)) return -1;
    if (KOLV_GETTER_TEST(NULL != pVer)) return -1;
    snprintf(szBuf, cbBuf, "%s", (pVer->*pfnGet)().c_str());
    return 0;
}

int GetJson(char *szBuf, size_t cbBuf, const Version *pVer, Json::Value (Version::*pfnGet)() const) {
    if (KOLV_GETTER_TEST_EXPANDED(NULL != szBuf)) return -1;
    if (KOLV_GETTER_TEST(0 < cbBuf)) return -1;
    if (KOLV_GETTER_TEST(NULL != pVer)) return -1;
    snprintf(szBuf, cbBuf, "%s", kolv::JsonToString((pVer->*pfnGet)()).c_str());
    return 0;
}

template <typename T> int GetNumber(T *pVal, const Version *pVer, T (Version::*pfnGet)() const) {
    if (KOLV_GETTER_TEST_EXPANDED(NULL != pVal)) return -1;
    if (KOLV_GETTER_TEST(NULL != pVer)) return -1;
    *pVal = (pVer->*pfnGet)();
    return 0;
}

} // namespace

extern "C" {

int KOLVVessaObjectVersionItemGetNameSpace(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetText(szBuf, cbBuf, pVer, &Version::get_ns);
}

int KOLVVessaObjectVersionItemGetID(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetText(szBuf, cbBuf, pVer, &Version::get_id);
}

int KOLVVessaObjectVersionItemGetVersion(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetText(szBuf, cbBuf, pVer, &Version::get_version);
}

int KOLVVessaObjectVersionItemGetCommitMsg(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetJson(szBuf, cbBuf, pVer, &Version::get_commit_msg);
}

int KOLVVessaObjectVersionItemGetLastVersion(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetJson(szBuf, cbBuf, pVer, &Version::get_last_version);
}

int KOLVVessaObjectVersionItemGetExtraInfo(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetJson(szBuf, cbBuf, pVer, &Version::get_extra_info);
}

int KOLVVessaObjectVersionItemGetAuthor(unsigned long *pVal, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetNumber(pVal, pVer, &Version::get_author);
}

int KOLVVessaObjectVersionItemGetModifyTime(long *pVal, const KOLV_VESSA_OBJECT_VERSION *pVer) {
    return GetNumber(pVal, pVer, &Version::get_mtime);
}

} // extern "C"
