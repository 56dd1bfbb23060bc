/*
 * Plain-function setters of the object record. Bad arguments go to the
 * platform's own error stack, under the setter family's name.
 */
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_object.h"

#define KOLV_SETTER_SOURCE "include/kolvvessaobjectsetter"

// The report names the test as the family always has: the pointer tests
// with NULL expanded ("__null != szVal"), the object test of the text
// setters as written.
#define KOLV_SETTER_TEST(cond)                                                                                         \
    (__builtin_expect(!(cond), 0) ? (kolv::FailArgument(KOLV_SETTER_SOURCE, __LINE__, #cond), true) : false)
#define KOLV_SETTER_TEST_EXPANDED(cond) KOLV_SETTER_TEST(cond)

namespace {

int SetText(KOLV_VESSA_OBJECT *pObject, const char *szVal, void (KOLV_VESSA_OBJECT::*pfnSet)(const std::string &)) {
    if (KOLV_SETTER_TEST_EXPANDED(NULL != szVal)) return -1;
    if (KOLV_SETTER_TEST(NULL != pObject)) return -1;
    (pObject->*pfnSet)(szVal);
    return 0;
}

// Text that does not parse sets the member to null.
int SetJson(KOLV_VESSA_OBJECT *pObject, const char *szVal, void (KOLV_VESSA_OBJECT::*pfnSet)(const Json::Value &)) {
    if (KOLV_SETTER_TEST_EXPANDED(NULL != szVal)) return -1;
    if (KOLV_SETTER_TEST(NULL != pObject)) return -1;
    kolv::KolvJson jVal;
    jVal.fromString(szVal);
    (pObject->*pfnSet)(jVal);
    return 0;
}

template <typename T> int SetNumber(KOLV_VESSA_OBJECT *pObject, T val, void (KOLV_VESSA_OBJECT::*pfnSet)(T)) {
    if (KOLV_SETTER_TEST_EXPANDED(NULL != pObject)) return -1;
    (pObject->*pfnSet)(val);
    return 0;
}

} // namespace

extern "C" {

int KOLVVessaObjectItemSetNameSpace(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetText(pObject, szVal, &KOLV_VESSA_OBJECT::set_ns);
}

int KOLVVessaObjectItemSetID(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetText(pObject, szVal, &KOLV_VESSA_OBJECT::set_id);
}

int KOLVVessaObjectItemSetCategory(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetText(pObject, szVal, &KOLV_VESSA_OBJECT::set_category);
}

int KOLVVessaObjectItemSetVersion(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetText(pObject, szVal, &KOLV_VESSA_OBJECT::set_version);
}

int KOLVVessaObjectItemSetPerm(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetText(pObject, szVal, &KOLV_VESSA_OBJECT::set_perm);
}

int KOLVVessaObjectItemSetCommitMsg(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_commit_msg);
}

int KOLVVessaObjectItemSetParentID(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetText(pObject, szVal, &KOLV_VESSA_OBJECT::set_parent_id);
}

int KOLVVessaObjectItemSetOwner(KOLV_VESSA_OBJECT *pObject, unsigned long val) {
    return SetNumber(pObject, val, &KOLV_VESSA_OBJECT::set_owner);
}

int KOLVVessaObjectItemSetMetaText(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_metatext);
}

int KOLVVessaObjectItemSetText(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_text);
}

int KOLVVessaObjectItemSetMetaBinaryInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_metabinary_info);
}

int KOLVVessaObjectItemSetBinaryInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_binary_info);
}

int KOLVVessaObjectItemSetPathInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_path_info);
}

int KOLVVessaObjectItemSetACL(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_acl);
}

int KOLVVessaObjectItemSetCreateTime(KOLV_VESSA_OBJECT *pObject, long val) {
    return SetNumber(pObject, val, &KOLV_VESSA_OBJECT::set_ctime);
}

int KOLVVessaObjectItemSetModifyTime(KOLV_VESSA_OBJECT *pObject, long val) {
    return SetNumber(pObject, val, &KOLV_VESSA_OBJECT::set_mtime);
}

int KOLVVessaObjectItemSetExtraInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal) {
    return SetJson(pObject, szVal, &KOLV_VESSA_OBJECT::set_extra_info);
}

} // extern "C"
