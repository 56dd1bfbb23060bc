/*
 * Deleting many objects of one namespace: every object is checked first,
 * the file store deletes them on worker threads, the index forgets those
 * it deleted, and their children are deleted too ("recursive") or moved
 * to their owner's root.
 */
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_batch.h"
#include "object/object_internal.h"

namespace {

using kolv::BatchOwnerRule;

bool DeleteFromStore(KOLVVESSA_BACKEND_OP *pBackendFs, KOLV_VESSA_OBJECT *pObj) {
    if (KOLV_APPEND_IF(!pBackendFs->Delete(pObj->m_param))) return false;
    return true;
}

// The ids of the chain the file store let go of, in chain order.
Json::Value DeletedIds(const KOLV_VESSA_OBJECT *pHead, const Json::Value &jsResult) {
    Json::Value jIds(Json::arrayValue);
    for (const KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next) {
        if (jsResult.get(p->get_id(), false).asBool()) jIds.append(p->get_id());
    }
    return jIds;
}

// Only what the file store deleted leaves the index: an object that is
// still on disk keeps its row.
bool RemoveFromIndex(const Json::Value &jParm) {
    if (0 == jParm["id"].size()) return true;
    KOLVVESSA_BACKEND_OP *pBackendPgsql = NULL;
    if (KOLV_FAIL_IF(1010, NULL == (pBackendPgsql = RegisterBackend::New("pgsql")))) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> guardPgsql(pBackendPgsql);
    if (KOLV_APPEND_IF(!pBackendPgsql->Delete(jParm))) return false;
    return true;
}

// The objects of one call, without their children. False when the call
// is refused or the index cannot be updated; the objects' own failures
// are the false members of jsResult.
bool DeleteLevel(KOLV_VESSA_OBJECT_LIST &list, const Json::Value &jParm, Json::Value &jsResult, BatchOwnerRule rule,
                 Json::Value &jDeleted) {
    list.clear();
    if (!kolv::CheckBatchMembers(jParm)) return false;
    KOLV_VESSA_OBJECT *&m_head = list.m_head;
    auto PreCheck = [rule](const Json::Value &j, KOLV_VESSA_OBJECT **ppHead) {
        return kolv::PreCheck(j, ppHead, rule);
    };
    if (KOLV_APPEND_IF(!PreCheck(jParm, &m_head))) return false;
    if (!jsResult.isObject()) jsResult = Json::Value(Json::objectValue);
    jDeleted = Json::Value(Json::arrayValue);
    if (NULL == list.m_head) return true;
    kolv::BatchHooks hooks(jParm["ns"].asString(), "delete");
    hooks.Pre(jParm, list.m_head);
    if (!kolv::RunBatch(list.m_head, DeleteFromStore, jsResult)) return false;
    Json::Value jIndexParm(jParm);
    jIndexParm["id"] = jDeleted = DeletedIds(list.m_head, jsResult);
    if (!RemoveFromIndex(jIndexParm)) return false;
    // The post-hook sees the objects as they were: nothing is left of
    // them to read.
    hooks.Post(jParm, list.m_head);
    return true;
}

// Listed as the system, so that nothing a child's sharing hides is left
// behind.
bool ListChildren(const std::string &strNs, const Json::Value &jParents, std::vector<std::string> &vIds) {
    return kolv::ListChildIds(strNs, jParents, UID_ROOT, vIds);
}

Json::Value ChildRequest(const Json::Value &jParm, const std::vector<std::string> &vIds) {
    Json::Value jChild(Json::objectValue);
    jChild["ns"] = jParm["ns"];
    jChild["requester"] = jParm["requester"];
    jChild["id"] = Json::Value(Json::arrayValue);
    for (const std::string &strId : vIds)
        jChild["id"].append(strId);
    return jChild;
}

void LogChildNotDeleted(const std::string &strId, uid_t requester) {
    KOLVVessaErrSyslog();
    KOLV_OBJECT_SYSLOG("Failed to delete id:[%s] by requester [%u]", strId.c_str(), (unsigned)requester);
}

// One level of children: all at once, or one by one when one of them
// refuses the whole call, so that a child that cannot be deleted does not
// keep its siblings. Gives the ids deleted.
Json::Value DeleteChildren(const Json::Value &jParm, const std::vector<std::string> &vChildren, BatchOwnerRule rule) {
    const uid_t requester = (uid_t)jParm["requester"].asInt64();
    Json::Value jDeleted(Json::arrayValue), jsResult(Json::objectValue);
    KOLV_VESSA_OBJECT_LIST list;
    if (DeleteLevel(list, ChildRequest(jParm, vChildren), jsResult, rule, jDeleted)) {
        for (const std::string &strId : vChildren) {
            if (!jsResult.get(strId, false).asBool()) LogChildNotDeleted(strId, requester);
        }
        return jDeleted;
    }
    jDeleted = Json::Value(Json::arrayValue);
    for (const std::string &strId : vChildren) {
        Json::Value jOne(Json::arrayValue), jOneResult(Json::objectValue);
        if (DeleteLevel(list, ChildRequest(jParm, {strId}), jOneResult, rule, jOne) && jOne.size()) {
            jDeleted.append(strId);
        } else {
            LogChildNotDeleted(strId, requester);
        }
    }
    return jDeleted;
}

// Level by level over the index, without recursion on the stack. The
// visited set stops a parent_id cycle left in the index.
void DeleteDescendants(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead, Json::Value jLevel,
                       BatchOwnerRule rule) {
    std::set<std::string> setVisited;
    for (const KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next)
        setVisited.insert(p->get_id());
    while (0 < jLevel.size()) {
        std::vector<std::string> vListed, vChildren;
        if (!ListChildren(jParm["ns"].asString(), jLevel, vListed)) {
            KOLVVessaErrSyslog();
            return;
        }
        for (const std::string &strId : vListed) {
            if (setVisited.insert(strId).second) vChildren.push_back(strId);
        }
        if (vChildren.empty()) return;
        jLevel = DeleteChildren(jParm, vChildren, rule);
    }
}

// The children of the deleted objects go to their owner's root. The move
// is the system's: the children may be shared with others, and whoever
// deleted the parent is not asked about them.
void ResetParentOfChildren(const Json::Value &jParm, const Json::Value &jDeleted) {
    std::vector<std::string> vChildren;
    if (!ListChildren(jParm["ns"].asString(), jDeleted, vChildren)) {
        KOLVVessaErrSyslog();
        return;
    }
    if (vChildren.empty()) return;
    Json::Value jSetParm = ChildRequest(jParm, vChildren);
    jSetParm["reset_parent_id"] = true;
    jSetParm["requester"] = 0;
    KOLV_VESSA_OBJECT_LIST list;
    Json::Value jsResult(Json::objectValue);
    if (KOLV_APPEND_IF(!list.Set(jSetParm, jsResult))) KOLVVessaErrSyslog();
    for (const std::string &strId : vChildren) {
        if (!jsResult.get(strId, false).asBool()) {
            KOLV_OBJECT_SYSLOG("Failed to reset parent_id of id:[%s]", strId.c_str());
        }
    }
}

bool BatchDelete(KOLV_VESSA_OBJECT_LIST &list, const Json::Value &jParm, Json::Value &jsResult, BatchOwnerRule rule) {
    return KOLV_NO_THROW_AS(false, 1007, "batch delete rejected", [&]() -> bool {
        Json::Value jDeleted;
        if (!DeleteLevel(list, jParm, jsResult, rule, jDeleted)) return false;
        if (0 == jDeleted.size()) return true;
        // The objects themselves are gone from both stores; what becomes
        // of their children does not make the call fail.
        if (jParm.get("recursive", false).asBool()) {
            DeleteDescendants(jParm, list.m_head, jDeleted, rule);
        } else {
            ResetParentOfChildren(jParm, jDeleted);
        }
        return true;
    });
}

} // namespace

bool KOLV_VESSA_OBJECT_LIST::Delete(const Json::Value &jParm, Json::Value &jsResult) {
    return BatchDelete(*this, jParm, jsResult, BatchOwnerRule::OwnerOnly);
}

namespace kolv {

bool BatchDeleteAsSystem(const Json::Value &jParm, Json::Value &jsResult) {
    KOLV_VESSA_OBJECT_LIST list;
    return BatchDelete(list, jParm, jsResult, BatchOwnerRule::SystemAnyOwner);
}

} // namespace kolv
