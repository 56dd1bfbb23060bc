/*
 * Deleting an object: only its owner or the system may; the file store
 * removes its folder, the index its row, and with "recursive" the
 * descendants the index lists under it go the same way.
 */
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

bool CheckDeleteParm(const Json::Value &jParm) {
    if (!kolv::CheckObjectMembers(jParm)) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("recursive") && !jParm["recursive"].isBool())) return false;
    if (!kolv::CheckRequest(jParm)) return false;
    return true;
}

// The namespace switch, the id, and the owner: sharing never grants
// deletion, whatever the ACL says.
bool CheckDeleteAccess(const Json::Value &jParm) {
    uid_t requester = (uid_t)jParm["requester"].asInt64();
    if (UID_ROOT != requester && KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) return false;
    if (KOLV_APPEND_IF(UID_ERR == KOLVVessaObjectGetOwnerByID(jParm["id"].asCString()))) return false;
    if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectIDIsValid(jParm["id"].asCString()))) return false;
    uid_t owner = UID_ERR;
    if (KOLV_FAIL_IF(1008, UID_ERR == (owner = KOLVVessaObjectGetOwnerByID(jParm["id"].asString())))) return false;
    if (UID_ROOT != requester && KOLV_FAIL_IF(1023, owner != requester)) return false;
    return true;
}

// The object as it stands, every field, for the hooks.
bool ReadWhole(const Json::Value &jParm, KOLV_VESSA_OBJECT &tmpOldObj) {
    Json::Value jGetParm = kolv::WholeObjectParm(jParm);
    if (KOLV_APPEND_IF(!tmpOldObj.Get(jGetParm))) return false;
    return true;
}

// The file store first, then the index. A failed index delete leaves a
// row without its object; listings still show it until the index is
// rebuilt.
bool RemoveFromStores(const Json::Value &jParm) {
    KOLVVESSA_BACKEND_OP *pBackendFs = NULL;
    if (KOLV_FAIL_IF(1010, NULL == (pBackendFs = RegisterBackend::New("fs")))) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> guardFs(pBackendFs);
    if (KOLV_APPEND_IF(!pBackendFs->Delete(jParm))) return false;
    KOLVVESSA_BACKEND_OP *pBackendPgsql = NULL;
    if (KOLV_FAIL_IF(1010, NULL == (pBackendPgsql = RegisterBackend::New("pgsql")))) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> guardPgsql(pBackendPgsql);
    if (KOLV_APPEND_IF(!pBackendPgsql->Delete(jParm))) return false;
    return true;
}

// A read that found no object folder: the object is deleted already.
bool AlreadyGone(const Json::Value &jParm) {
    return 1008 == KOLVVessaErrCodeGet() && !KOLVVessaIDIsExist(jParm["ns"].asString(), jParm["id"].asString());
}

// One object, without its descendants. The post-hook gets the object as
// it was: nothing is left of it to read afterwards. Deleting an object
// that is gone succeeds without hooks; the stores are still asked, so a
// row the index kept of it goes too, and a recursive delete that was cut
// short can be run again.
bool DeleteOne(const Json::Value &jParm) {
    if (!CheckDeleteParm(jParm) || !CheckDeleteAccess(jParm)) return false;
    KOLV_VESSA_OBJECT tmpOldObj;
    if (!ReadWhole(jParm, tmpOldObj)) return AlreadyGone(jParm) && RemoveFromStores(jParm);
    kolv::NsHooks hooks(jParm["ns"].asString(), "delete", false);
    hooks.Pre(jParm, &tmpOldObj);
    if (!RemoveFromStores(jParm)) return false;
    hooks.Post(jParm, &tmpOldObj);
    return true;
}

// What the requester sees below strParentId.
bool ListChildren(const Json::Value &jParm, const std::string &strParentId, std::vector<std::string> &vIds) {
    return kolv::ListChildIds(jParm["ns"].asString(), strParentId, (uid_t)jParm["requester"].asInt64(), vIds);
}

// Breadth first over the index, without recursion on the stack. A child
// that fails is logged and keeps its own descendants; its siblings go on.
// The visited set stops a parent_id cycle left in the index.
void DeleteDescendants(const Json::Value &jParm) {
    std::set<std::string> setVisited{jParm["id"].asString()};
    std::vector<std::string> vQueue;
    if (!ListChildren(jParm, jParm["id"].asString(), vQueue)) {
        KOLVVessaErrSyslog();
        return;
    }
    for (size_t i = 0; i < vQueue.size(); ++i) {
        const std::string strChild = vQueue[i];
        if (!setVisited.insert(strChild).second) continue;
        Json::Value jChild(Json::objectValue);
        jChild["ns"] = jParm["ns"];
        jChild["id"] = strChild;
        jChild["requester"] = jParm["requester"];
        if (KOLV_APPEND_IF(!DeleteOne(jChild)) || !ListChildren(jChild, strChild, vQueue)) {
            KOLVVessaErrSyslog();
        }
    }
}

} // namespace

bool KOLV_VESSA_OBJECT::Delete(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (!DeleteOne(jParm)) return false;
        // The object itself is gone from both stores; a descendant that
        // could not be deleted does not make the call fail.
        if (jParm.isMember("recursive") && jParm["recursive"].asBool()) DeleteDescendants(jParm);
        return true;
    });
}

namespace {

// Calls the member the way the plain entry reports it.
class DeleteEntry : public KOLV_VESSA_OBJECT {
  public:
    bool Run(const Json::Value &jParm) {
        if (KOLV_APPEND_IF(!KOLV_VESSA_OBJECT::Delete(jParm))) return false;
        return true;
    }
};

// "recursive" as text: "true"/"1" or "false"/"0"; any other text is a bad
// request rather than a silent no.
bool HashToDeleteParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    if (!kolv::HashToObjectParm(pParmHash, jParm)) return false;
    const char *pParm = NULL;
    if (NULL == (pParm = TRABCSzHashGetValue(pParmHash, "recursive"))) return true;
    std::string strRecursive(pParm);
    if (KOLV_FAIL_IF(1007,
                     "true" != strRecursive && "1" != strRecursive && "false" != strRecursive && "0" != strRecursive)) {
        return false;
    }
    jParm["recursive"] = ("true" == strRecursive || "1" == strRecursive);
    return true;
}

} // namespace

bool KOLVVessaObjectDelete(TRABSZHASH *pParmHash) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return false;
    Json::Value jParm(Json::objectValue);
    if (!HashToDeleteParm(pParmHash, jParm)) return false;
    return DeleteEntry().Run(jParm);
}
