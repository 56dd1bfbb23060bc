/*
 * Changing many objects of one namespace: every object is checked and its
 * change prepared first, the file store writes the changes on worker
 * threads, and every object that changed is read back and re-indexed.
 */
#include <string>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_batch.h"
#include "object/object_internal.h"
#include "object/object_request.h"

// The failure records name the steps as the design does.
using kolv::PreCheck;
using kolv::PrepareSetParm;

namespace {

bool CheckSetMembers(const Json::Value &jParm) {
    if (!kolv::CheckBatchMembers(jParm)) return false;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ctime") && !jParm.isMember("parent_id") &&
                               !jParm.isMember("reset_parent_id") && !jParm.isMember("metatext") &&
                               !jParm.isMember("text") && !jParm.isMember("metabinary_files") &&
                               !jParm.isMember("binary_files"))) {
        return false;
    }
    if (KOLV_FAIL_IF(1007, jParm.isMember("reset_parent_id") && !jParm["reset_parent_id"].isBool())) return false;
    return true;
}

// Each object's change against its own stored ACL and version. A reset
// parent is the owner's root id, named before the preparation so that a
// request that only resets parents has something to change; the move is
// stamped later than the stored stamp there, so a reset in the same second
// as the child's creation still wins.
bool PrepareAll(const Json::Value &jParm, KOLV_VESSA_OBJECT *pHead) {
    const bool blReset = jParm.get("reset_parent_id", false).asBool();
    for (KOLV_VESSA_OBJECT *pObj = pHead; pObj; pObj = pObj->m_next) {
        if (blReset) {
            pObj->m_param["parent_id"] = KOLVVessaObjectDefaultID(KOLVVessaObjectGetOwnerByID(pObj->get_id()));
        }
        if (KOLV_APPEND_IF(!PrepareSetParm(pObj->m_param, pObj->get_acl(), pObj))) return false;
    }
    if (jParm.isMember("binary_files") && !kolv::CheckBinarySources(jParm)) return false;
    return true;
}

// Stores one object's change, then reads it back into the list and
// re-indexes it, all on the worker: an object that changed is indexed
// whatever becomes of the others. Neither the read-back nor the index
// undoes the change; their failures are logged.
bool SetInStore(KOLVVESSA_BACKEND_OP *pBackendFs, KOLV_VESSA_OBJECT *pObj) {
    const Json::Value jParm = pObj->m_param;
    std::string strNewVer = jParm["version"].asString();
    if (KOLV_APPEND_IF(!pBackendFs->Set(jParm, strNewVer))) return false;
    Json::Value jGetParm = kolv::WholeObjectParm(jParm);
    // The object read back serves the index; one that could not be read
    // is read again by the index.
    bool blRead = pObj->Get(jGetParm);
    if (KOLV_APPEND_IF(!blRead)) KOLVVessaErrSyslog();
    pObj->m_param = jParm;
    kolv::IndexChanged(jParm, strNewVer, blRead ? pObj : NULL);
    return true;
}

bool doMultiThreadSet(KOLV_VESSA_OBJECT_LIST *pList, Json::Value &jsResult) {
    return kolv::RunBatch(pList->m_head, SetInStore, jsResult);
}

} // namespace

bool KOLV_VESSA_OBJECT_LIST::Set(const Json::Value &jParm, Json::Value &jsResult) {
    return KOLV_NO_THROW_AS(false, 1007, "batch set rejected", [&]() -> bool {
        clear();
        if (!CheckSetMembers(jParm)) return false;
        if (KOLV_APPEND_IF(!PreCheck(jParm, &m_head))) return false;
        if (!PrepareAll(jParm, m_head)) {
            clear();
            return false;
        }
        if (!jsResult.isObject()) jsResult = Json::Value(Json::objectValue);
        if (NULL == m_head) return true;
        kolv::BatchHooks hooks(jParm["ns"].asString(), "set");
        hooks.Pre(jParm, m_head);
        if (KOLV_APPEND_IF(!doMultiThreadSet(this, jsResult))) return false;
        hooks.Post(jParm, m_head);
        return true;
    });
}
