/*
 * Plain-function getters of the object record. Bad arguments go to the
 * platform's own error stack, under the getter family's name.
 */
#include <stdio.h>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_object.h"

#define KOLV_GETTER_SOURCE "include/kolvvessaobjectgetter"

// The report names the test as the family always has: the pointer tests
// with NULL expanded ("__null != szBuf"), the object test as written.
#define KOLV_GETTER_TEST(cond)                                                                                         \
    (__builtin_expect(!(cond), 0) ? (kolv::FailArgument(KOLV_GETTER_SOURCE, __LINE__, #cond), true) : false)
#define KOLV_GETTER_TEST_EXPANDED(cond) KOLV_GETTER_TEST(cond)

namespace {

int GetText(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject,
            std::string (KOLV_VESSA_OBJECT::*pfnGet)() const) {
    if (KOLV_GETTER_TEST_EXPANDED(NULL != szBuf)) return -1;
    if (KOLV_GETTER_TEST(0 < cbBuf)) return -1;
    if (KOLV_GETTER_TEST(NULL != pObject)) return -1;
    snprintf(szBuf, cbBuf, "%s", (pObject->*pfnGet)().c_str());
    return 0;
}

int GetJson(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject,
            Json::Value (KOLV_VESSA_OBJECT::*pfnGet)() const) {
    if (KOLV_GETTER_TEST_EXPANDED(NULL != szBuf)) return -1;
    if (KOLV_GETTER_TEST(0 < cbBuf)) return -1;
    if (KOLV_GETTER_TEST(NULL != pObject)) return -1;
    snprintf(szBuf, cbBuf, "%s", kolv::JsonToString((pObject->*pfnGet)()).c_str());
    return 0;
}

template <typename T> int GetNumber(T *pVal, const KOLV_VESSA_OBJECT *pObject, T (KOLV_VESSA_OBJECT::*pfnGet)() const) {
    if (KOLV_GETTER_TEST_EXPANDED(NULL != pVal)) return -1;
    if (KOLV_GETTER_TEST(NULL != pObject)) return -1;
    *pVal = (pObject->*pfnGet)();
    return 0;
}

} // namespace

extern "C" {

int KOLVVessaObjectItemGetNameSpace(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetText(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_ns);
}

int KOLVVessaObjectItemGetID(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetText(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_id);
}

int KOLVVessaObjectItemGetCategory(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetText(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_category);
}

int KOLVVessaObjectItemGetVersion(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetText(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_version);
}

int KOLVVessaObjectItemGetPerm(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetText(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_perm);
}

int KOLVVessaObjectItemGetCommitMsg(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_commit_msg);
}

int KOLVVessaObjectItemGetParentID(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetText(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_parent_id);
}

int KOLVVessaObjectItemGetOwner(unsigned long *pVal, const KOLV_VESSA_OBJECT *pObject) {
    return GetNumber(pVal, pObject, &KOLV_VESSA_OBJECT::get_owner);
}

int KOLVVessaObjectItemGetMetaText(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_metatext);
}

int KOLVVessaObjectItemGetText(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_text);
}

int KOLVVessaObjectItemGetMetaBinary_info(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_metabinary_info);
}

int KOLVVessaObjectItemGetBinary_info(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_binary_info);
}

int KOLVVessaObjectItemGetPath_info(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_path_info);
}

int KOLVVessaObjectItemGetACL(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_acl);
}

int KOLVVessaObjectItemGetCreateTime(long *pVal, const KOLV_VESSA_OBJECT *pObject) {
    return GetNumber(pVal, pObject, &KOLV_VESSA_OBJECT::get_ctime);
}

int KOLVVessaObjectItemGetModifyTime(long *pVal, const KOLV_VESSA_OBJECT *pObject) {
    return GetNumber(pVal, pObject, &KOLV_VESSA_OBJECT::get_mtime);
}

int KOLVVessaObjectItemGetExtraInfo(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject) {
    return GetJson(szBuf, cbBuf, pObject, &KOLV_VESSA_OBJECT::get_extra_info);
}

} // extern "C"
