/*
 * Reading one object for a requester: the member Get, the list form and
 * the plain function over a string hash.
 */
#include <stdlib.h>

#include <memory>

#include "common/kolvvessa_path_internal.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_perm.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

bool CheckGetParm(const Json::Value &jParm) {
    if (!kolv::CheckObjectMembers(jParm)) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("version") && !jParm["version"].isString())) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("field") && !jParm["field"].isObject())) return false;
    if (!kolv::CheckRequest(jParm)) return false;
    // The id becomes a directory name under the repository: refuse one
    // that would lead out of it before a file is touched. The rest of the
    // id rules follow with the owner checks.
    if (KOLV_FAIL_IF(1007, !kolv::IsSafePathName(jParm["id"].asString()))) return false;
    return true;
}

// Namespace switch, owner and sharing; the system requester 0 skips them.
bool CheckGetAccess(const Json::Value &jParm, uid_t &owner) {
    uid_t requester = (uid_t)jParm["requester"].asInt64();
    if (UID_ROOT != requester && KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) return false;
    if (KOLV_APPEND_IF(UID_ERR == (owner = KOLVVessaObjectGetOwnerByID(jParm["id"].asCString())))) return false;
    if (UID_ROOT == requester) return true;
    if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectOwnerIsValid(owner))) return false;
    if (requester != owner && KOLV_APPEND_IF(FALSE == KOLVVessaSharingCheck(jParm["ns"].asCString(), owner))) {
        return false;
    }
    return true;
}

} // namespace

// The working record always selects the ACL because the permission needs
// it; whether the caller sees it is decided afterwards. On failure the
// object is left cleared.
bool KOLV_VESSA_OBJECT::Get(const Json::Value &jsParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return false;
    bool blOk = KOLV_NO_THROW(false, [&]() -> bool {
        Json::Value jParm(jsParm);
        uid_t owner = UID_ERR;
        if (!CheckGetParm(jParm) || !CheckGetAccess(jParm, owner)) return false;
        bool blWantAcl = jParm.isMember("field") && jParm["field"].isMember("acl") && jParm["field"]["acl"].isBool() &&
                         jParm["field"]["acl"].asBool();
        jParm["field"]["acl"] = true;
        clear();
        if (KOLV_APPEND_IF(!pBackendFs->Get(jParm, this))) return false;
        if (KOLV_APPEND_IF(!KOLVVessaObjectPermCalculate((uid_t)jParm["requester"].asInt64(), m_impl->owner,
                                                         m_impl->acl, m_impl->perm))) {
            return false;
        }
        // A reader with "ro", or a caller who did not ask, never gets the
        // ACL; an object stored without one has an empty one.
        if (!blWantAcl || ("owner" != m_impl->perm && "rw" != m_impl->perm) || !m_impl->acl.isObject()) {
            m_impl->acl = Json::Value(Json::objectValue);
        }
        return true;
    });
    if (!blOk) clear();
    return blOk;
}

bool KOLV_VESSA_OBJECT_LIST::GetObject(const Json::Value &jParm) {
    KOLV_VESSA_OBJECT *pObj = NULL;
    if (KOLV_FAIL_IF(1014, NULL == (pObj = new KOLV_VESSA_OBJECT))) return false;
    if (KOLV_APPEND_IF(!pObj->Get(jParm))) {
        delete pObj;
        return false;
    }
    clear();
    m_head = pObj;
    return true;
}

namespace {

bool HashToGetParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    if (!kolv::HashToObjectParm(pParmHash, jParm)) return false;
    const char *pParm = NULL;
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "version"))) jParm["version"] = pParm;
    return true;
}

} // namespace

namespace kolv {

bool HashToObjectParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    const char *pParm = NULL;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "ns")))) return false;
    jParm["ns"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "id")))) return false;
    jParm["id"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "requester")))) return false;
    return kolv::HashRequester(pParm, jParm["requester"]);
}

Json::Value WholeObjectParm(const Json::Value &jParm) {
    Json::Value jGetParm(Json::objectValue);
    jGetParm["ns"] = jParm["ns"];
    jGetParm["id"] = jParm["id"];
    jGetParm["requester"] = jParm["requester"];
    jGetParm["field"] = KOLVVessaObjectFieldAll();
    return jGetParm;
}

bool CheckChangeAccess(const Json::Value &jParm) {
    if (!kolv::CheckRequest(jParm)) return false;
    if (UID_ROOT != jParm["requester"].asLargestUInt() &&
        KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) {
        return false;
    }
    if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectIDIsValid(jParm["id"].asCString()))) return false;
    return true;
}

bool GetWritableParent(const Json::Value &jParm, KOLV_VESSA_OBJECT &obj) {
    Json::Value jGetParm(Json::objectValue);
    jGetParm["ns"] = jParm["ns"];
    jGetParm["id"] = jParm["parent_id"];
    jGetParm["requester"] = jParm["requester"];
    jGetParm["field"]["acl"] = true;
    if (KOLV_APPEND_IF(!obj.Get(jGetParm))) return false;
    if (KOLV_FAIL_IF(1023, "rw" != obj.get_perm() && "owner" != obj.get_perm())) return false;
    return true;
}

} // namespace kolv

bool KOLVVessaObjectGet(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT *pObject) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return false;
    if (KOLV_FAIL_IF(1015, NULL == pObject)) return false;
    Json::Value jParm(Json::objectValue);
    if (!HashToGetParm(pParmHash, jParm)) return false;
    if (KOLV_APPEND_IF(!pObject->Get(jParm))) return false;
    return true;
}
