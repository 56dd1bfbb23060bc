/*
 * Clean-up by user: every object of one owner, or every object whose
 * owner is no longer a local user, listed through the index and deleted
 * one namespace at a time through the multi-object delete.
 */
#include <sys/types.h>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_batch.h"

namespace {

// The listing both clean-ups start from: every namespace, rows only.
Json::Value CleanupRequest(const Json::Value &jFilter) {
    Json::Value jsParam(Json::objectValue);
    jsParam["requester"] = 0;
    jsParam["ns"] = "*";
    jsParam["field"]["metatext"] = false;
    jsParam["field"]["text"] = false;
    jsParam["filter"] = jFilter;
    return jsParam;
}

// The listed ids by namespace, each namespace's ids in list order.
Json::Value IdsByNamespace(const KOLV_VESSA_OBJECT_LIST &list) {
    Json::Value jByNs(Json::objectValue);
    for (const KOLV_VESSA_OBJECT *p = list.m_head; p; p = p->m_next)
        jByNs[p->get_ns()].append(p->get_id());
    return jByNs;
}

// Lists what jsParam selects and deletes it, one multi-object delete per
// namespace. The delete is the system's own, which takes the objects
// whatever became of their owner: gone, expired or without a home, the
// owner could not pass the usual pre-check, and that is when his objects
// are cleaned up.
bool ListAndDelete(Json::Value jsParam) {
    KOLV_VESSA_OBJECT_LIST list;
    unsigned int uTotal = 0;
    if (KOLV_APPEND_IF(0 > list.ListObject(jsParam, uTotal))) return false;
    if (!list.m_head) return true;
    jsParam.removeMember("field");
    jsParam.removeMember("filter");
    jsParam["id"] = Json::Value(Json::arrayValue);
    Json::Value jByNs = IdsByNamespace(list);
    // One namespace's failure does not stop the others, deliberately: the
    // outcome of each delete is not looked at.
    for (const std::string &strNs : jByNs.getMemberNames()) {
        jsParam["ns"] = strNs;
        jsParam["id"] = jByNs[strNs];
        Json::Value jsResult(Json::objectValue);
        kolv::BatchDeleteAsSystem(jsParam, jsResult);
    }
    list.clear();
    return true;
}

// Enumeration callback: the uid of one existing local user.
int GetExistLocalUser(const KOLVUSER *pUser, void *pArg) {
    Json::Value *pjsParam = static_cast<Json::Value *>(pArg);
    if (KOLV_APPEND_IF(!pUser || !pjsParam)) return -1;
    pjsParam->append((Json::UInt)pUser->uid);
    return 0;
}

bool DeleteByUid(uid_t uid) {
    // Root's objects and an unknown uid are never cleaned up this way.
    if (KOLV_FAIL_IF(1015, UID_ERR == uid || UID_ROOT == uid)) return false;
    Json::Value jFilter(Json::objectValue);
    jFilter["owner_uid"] = (Json::UInt)uid;
    return ListAndDelete(CleanupRequest(jFilter));
}

bool DeleteOrphans() {
    Json::Value jsParam = CleanupRequest(Json::Value(Json::objectValue));
    jsParam["filter"]["_not_owner_"] = Json::Value(Json::arrayValue);
    if (KOLV_APPEND_IF(0 >
                       TRABUserInfoEnum(AUTH_LOCAL, NULL, 0, -1, GetExistLocalUser, &jsParam["filter"]["_not_owner_"])))
        return false;
    return ListAndDelete(jsParam);
}

} // namespace

bool KOLVVessaObjectDeleteByUid(uid_t uid) {
    return KOLV_NO_THROW(false, [&]() -> bool { return DeleteByUid(uid); });
}

bool KOLVVessaObjectDeleteNonExistDirSvsUid(void) {
    return KOLV_NO_THROW(false, [&]() -> bool { return DeleteOrphans(); });
}
