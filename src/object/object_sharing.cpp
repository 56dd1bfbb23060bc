/*
 * Changing an object's ACL: the change is stored, indexed, and pushed down
 * to the objects below as an inherited grant, level by level, until it
 * changes nothing more.
 */
#include <time.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_perm.h"
#include "object/object_internal.h"
#include "object/object_request.h"

using kolv::prepare_acl;

namespace {

bool CheckSharingParm(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm["id"].isString() || !jParm.isMember("type") || !jParm["type"].isString() ||
                               !jParm.isMember("op") || !jParm["op"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral())) {
        return false;
    }
    if (KOLV_FAIL_IF(1007, jParm.isMember("recursive") && !jParm["recursive"].isBool())) return false;
    return kolv::CheckChangeAccess(jParm);
}

// The owner changes his ACL; anybody else needs "rw".
bool CheckSharingRight(const Json::Value &jParm, const KOLV_VESSA_OBJECT &tmpOldObj) {
    if ((unsigned long)jParm["requester"].asLargestUInt() == tmpOldObj.get_owner()) return true;
    if ("rw" != tmpOldObj.get_perm() && "owner" != tmpOldObj.get_perm()) {
        KOLV_FAIL_FMT(1023, "rw != tmpOldObj.get_perm() && owner != tmpOldObj.get_perm() [%s]",
                      tmpOldObj.get_perm().c_str());
        return false;
    }
    return true;
}

// One object's change, without its descendants, leaving the object as
// read back in obj. Gives 1 when the ACL changed and was stored, 0 when
// there was nothing to change, -1 on failure.
int ShareOne(KOLV_VESSA_OBJECT &obj, const Json::Value &jsParm) {
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return -1;
    if (!CheckSharingParm(jsParm)) return -1;
    Json::Value jParm(jsParm);
    Json::Value jGetParm = kolv::WholeObjectParm(jParm);
    KOLV_VESSA_OBJECT tmpOldObj;
    if (KOLV_APPEND_IF(!tmpOldObj.Get(jGetParm))) return -1;
    if (!CheckSharingRight(jParm, tmpOldObj)) return -1;
    jParm["acl"] = tmpOldObj.get_acl();
    int ret_change = 0;
    if (KOLV_APPEND_IF(0 > (ret_change = prepare_acl(jsParm, jParm["acl"])))) return -1;
    if (0 == ret_change) {
        if (KOLV_APPEND_IF(!obj.Get(jGetParm))) return -1;
        return 0;
    }
    jParm["commit_msg"] = Json::Value(Json::objectValue);
    jParm["mtime"] = (Json::Int64)time(NULL);
    jParm["version"] = tmpOldObj.get_version();
    kolv::NsHooks hooks(jParm["ns"].asString(), "set", false);
    hooks.Pre(jParm, &tmpOldObj);
    std::string strNewVer;
    if (KOLV_APPEND_IF(!pBackendFs->Set(jParm, strNewVer))) return -1;
    // Read back as the system, then given the requester's permission.
    jGetParm["requester"] = 0;
    if (KOLV_APPEND_IF(!obj.Get(jGetParm))) return -1;
    std::string strPerm;
    uid_t requester = (uid_t)jParm["requester"].asInt64();
    obj.set_perm(KOLVVessaObjectPermCalculate(requester, obj.get_owner(), obj.get_acl(), strPerm) ? strPerm : "NA");
    // The row from the object as read back by the system: the whole ACL,
    // whatever the requester may still see of it after the change.
    if (!kolv::IndexObject(obj)) {
        kolv::FailAppend(__FILE__, __LINE__, kolv::szIndexCall);
        return -1;
    }
    hooks.Post(jParm, &obj);
    return 1;
}

// Level by level over the index, without recursion on the stack: every
// child of an object that changed gets the change as an inherited grant;
// the walk ends below objects it did not change. A child that fails is
// logged and keeps its descendants as they are. The visited set stops a
// parent_id cycle left in the index.
void PushDown(const Json::Value &jsParm) {
    std::set<std::string> setVisited{jsParm["id"].asString()};
    std::vector<std::string> vQueue;
    if (!kolv::ListChildIds(jsParm["ns"].asString(), jsParm["id"], UID_ROOT, vQueue)) KOLVVessaErrSyslog();
    for (size_t i = 0; i < vQueue.size(); ++i) {
        const std::string strChild = vQueue[i];
        if (!setVisited.insert(strChild).second) continue;
        Json::Value jChild(jsParm);
        jChild["id"] = strChild;
        jChild["recursive"] = true;
        jChild["requester"] = 0;
        KOLV_VESSA_OBJECT child;
        int ret = ShareOne(child, jChild);
        KOLVVessaObjectLog(ret >= 0, 0, NULL, &child);
        if (ret < 0) {
            KOLV_OBJECT_SYSLOG("Failed to set perm id:[%s] by requester [%u]", strChild.c_str(), 0u);
            KOLVVessaErrSyslog();
        } else if (ret > 0 && !kolv::ListChildIds(jChild["ns"].asString(), strChild, UID_ROOT, vQueue)) {
            KOLVVessaErrSyslog();
        }
    }
}

} // namespace

bool KOLV_VESSA_OBJECT::Sharing(const Json::Value &jsParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        int ret = ShareOne(*this, jsParm);
        KOLVVessaObjectLog(ret >= 0, 0, NULL, this);
        if (ret <= 0) return 0 == ret;
        PushDown(jsParm);
        return true;
    });
}
