/*
 * Changing the ACL of many objects of one namespace: every object is
 * checked first, then the single-object ACL change runs for each on the
 * worker threads (it stores, re-indexes and descends to the children by
 * itself).
 */
#include <set>
#include <string>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_batch.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

bool CheckSharingMembers(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isObject())) return false;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm.isMember("type") || !jParm["type"].isString() || !jParm.isMember("op") ||
                               !jParm["op"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral())) {
        return false;
    }
    if (KOLV_FAIL_IF(1007, !jParm["id"].isArray())) return false;
    if (!kolv::CheckRequest(jParm)) return false;
    return true;
}

// Every id in order into the list's chain; any failure empties it.
bool PreCheck(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead) {
    return kolv::PreCheck(jParm, ppHead, kolv::BatchOwnerRule::AclChange);
}

// The ACL change leaves the object, read back, in the list.
bool ShareInStore(KOLVVESSA_BACKEND_OP *, KOLV_VESSA_OBJECT *pObj) {
    const Json::Value jItem = pObj->m_param;
    bool blDone = pObj->Sharing(jItem);
    pObj->m_param = jItem;
    if (KOLV_APPEND_IF(!blDone)) {
        KOLVVessaErrSyslog();
        KOLV_OBJECT_SYSLOG("Failed to set perm id:[%s] by requester [%u]", jItem["id"].asCString(),
                           (unsigned)jItem["requester"].asInt64());
        return false;
    }
    return true;
}

bool doMultiThreadSharing(KOLV_VESSA_OBJECT_LIST *pList, Json::Value &jsResult) {
    return kolv::RunBatch(pList->m_head, ShareInStore, jsResult);
}

} // namespace

bool KOLV_VESSA_OBJECT_LIST::Sharing(const Json::Value &jParm, Json::Value &jsResult) {
    return KOLV_NO_THROW_AS(false, 1007, "batch sharing rejected", [&]() -> bool {
        clear();
        if (!CheckSharingMembers(jParm)) return false;
        if (KOLV_APPEND_IF(!PreCheck(jParm, &m_head))) return false;
        if (!jsResult.isObject()) jsResult = Json::Value(Json::objectValue);
        if (KOLV_APPEND_IF(!doMultiThreadSharing(this, jsResult))) return false;
        return true;
    });
}

bool KOLV_VESSA_OBJECT_LIST::Sharing(const Json::Value &jParm) {
    Json::Value jsResult(Json::objectValue);
    return Sharing(jParm, jsResult);
}
