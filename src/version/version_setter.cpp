/*
 * Plain-function setters of the version record. Bad arguments go to the
 * platform's own error stack, under the setter family's name.
 */
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_version.h"

#define KOLV_VERSION_SETTER_SOURCE "include/kolvvessaobjectversionsetter"

// The report names the test as the family always has: the text argument
// with NULL expanded ("__null != szVal"), the record test as written
// ("NULL != pVer").
#define KOLV_SETTER_TEST(cond)                                                                                         \
    (__builtin_expect(!(cond), 0) ? (kolv::FailArgument(KOLV_VERSION_SETTER_SOURCE, __LINE__, #cond), true) : false)
#define KOLV_SETTER_TEST_EXPANDED(cond) KOLV_SETTER_TEST(cond)

namespace {

typedef KOLV_VESSA_OBJECT_VERSION Version;

int SetText(Version *pVer, const char *szVal, void (Version::*pfnSet)(const std::string &)) {
    if (KOLV_SETTER_TEST_EXPANDED(NULL != szVal)) return -1;
    if (KOLV_SETTER_TEST(NULL != pVer)) return -1;
    (pVer->*pfnSet)(szVal);
    return 0;
}

// A JSON member takes parsed text only: text that does not parse is a bad
// argument and leaves the member as it was.
int SetJson(Version *pVer, const char *szVal, void (Version::*pfnSet)(const Json::Value &)) {
    if (KOLV_SETTER_TEST_EXPANDED(NULL != szVal)) return -1;
    if (KOLV_SETTER_TEST(NULL != pVer)) return -1;
    kolv::KolvJson jVal;
    if (KOLV_SETTER_TEST(jVal.fromString(szVal))) return -1;
    (pVer->*pfnSet)(jVal);
    return 0;
}

template <typename T> int SetNumber(Version *pVer, T val, void (Version::*pfnSet)(T)) {
    if (KOLV_SETTER_TEST(NULL != pVer)) return -1;
    (pVer->*pfnSet)(val);
    return 0;
}

} // namespace

extern "C" {

int KOLVVessaObjectVersionItemSetNameSpace(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal) {
    return SetText(pVer, szVal, &Version::set_ns);
}

int KOLVVessaObjectVersionItemSetID(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal) {
    return SetText(pVer, szVal, &Version::set_id);
}

int KOLVVessaObjectVersionItemSetVersion(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal) {
    return SetText(pVer, szVal, &Version::set_version);
}

int KOLVVessaObjectVersionItemSetCommitMsg(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal) {
    return SetJson(pVer, szVal, &Version::set_commit_msg);
}

int KOLVVessaObjectVersionItemSetLastVersion(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal) {
    return SetJson(pVer, szVal, &Version::set_last_version);
}

int KOLVVessaObjectVersionItemSetExtraInfo(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal) {
    return SetJson(pVer, szVal, &Version::set_extra_info);
}

int KOLVVessaObjectVersionItemSetAuthor(KOLV_VESSA_OBJECT_VERSION *pVer, unsigned long val) {
    return SetNumber(pVer, val, &Version::set_author);
}

int KOLVVessaObjectVersionItemSetModifyTime(KOLV_VESSA_OBJECT_VERSION *pVer, long val) {
    return SetNumber(pVer, val, &Version::set_mtime);
}

} // extern "C"
