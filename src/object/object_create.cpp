/*
 * Creating an object for a requester: settle the owner, check the parent
 * and inherit its ACL, let the file store write the first version, read
 * the object back and enter it into the index.
 */
#include <time.h>

#include <memory>

#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace kolv {

void AclMarkInherited(Json::Value &jAcl) {
    if (!jAcl.isObject()) return;
    if (jAcl.isMember("public") && jAcl["public"].isObject()) jAcl["public"]["inherit"] = true;
    for (const char *szKind : {"hmx_user", "hmx_group"}) {
        if (!jAcl.isMember(szKind) || !jAcl[szKind].isObject()) continue;
        for (const std::string &strKey : jAcl[szKind].getMemberNames()) {
            if (jAcl[szKind][strKey].isObject()) jAcl[szKind][strKey]["inherit"] = true;
        }
    }
}

} // namespace kolv

namespace {

// Members, then the owner: a requester other than 0 always owns what he
// creates, whatever "owner" he names.
bool CheckCreateParm(Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("category") ||
                               !jParm["category"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral())) {
        return false;
    }
    if (!kolv::CheckRequest(jParm)) return false;
    // A caller-chosen id becomes a directory name.
    if (KOLV_FAIL_IF(1007, jParm.isMember("id") &&
                               (!jParm["id"].isString() || !kolv::IsSafePathName(jParm["id"].asString())))) {
        return false;
    }
    if (UID_ROOT == jParm["requester"].asLargestUInt()) {
        if (KOLV_FAIL_IF(1007, !jParm.isMember("owner"))) return false;
        if (KOLV_FAIL_IF(1007, !jParm["owner"].isIntegral())) return false;
        if (KOLV_FAIL_IF(1007, !kolv::IsUidValue(jParm["owner"]))) return false;
    } else {
        if (KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) return false;
        jParm["owner"] = jParm["requester"];
    }
    if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectOwnerIsValid((uid_t)jParm["owner"].asInt64()))) return false;
    return true;
}

// A non-root parent must be writable by the requester; the child takes
// its owner and its whole ACL, every grant marked as inherited.
bool InheritParent(Json::Value &jParm, uid_t owner) {
    if (KOLV_FAIL_IF(1007, owner != KOLVVessaObjectGetOwnerByID(jParm["parent_id"].asString()))) return false;
    KOLV_VESSA_OBJECT obj;
    if (!kolv::GetWritableParent(jParm, obj)) return false;
    Json::Value jAcl = obj.get_acl();
    kolv::AclMarkInherited(jAcl);
    jParm["owner"] = (Json::UInt64)obj.get_owner();
    jParm["acl"] = jAcl;
    return true;
}

bool CheckCreateTypes(const Json::Value &jParm) {
    if (jParm.isMember("commit_msg") && KOLV_FAIL_IF(1007, !jParm["commit_msg"].isObject())) return false;
    if (jParm.isMember("ctime") && KOLV_FAIL_IF(1007, !jParm["ctime"].isIntegral())) return false;
    // An integral double or a count past the 64-bit range is no time.
    if (jParm.isMember("ctime") &&
        KOLV_FAIL_IF(1007, !jParm["ctime"].isInt64() || Json::realValue == jParm["ctime"].type())) {
        return false;
    }
    if (jParm.isMember("acl") && KOLV_FAIL_IF(1007, !jParm["acl"].isObject())) return false;
    if (jParm.isMember("mtime") &&
        KOLV_FAIL_IF(1007, !jParm["mtime"].isInt64() || Json::realValue == jParm["mtime"].type())) {
        return false;
    }
    if (jParm.isMember("metatext") && KOLV_FAIL_IF(1007, !jParm["metatext"].isObject())) return false;
    if (jParm.isMember("text") && KOLV_FAIL_IF(1007, !jParm["text"].isObject())) return false;
    if (jParm.isMember("metabinary_files") && KOLV_FAIL_IF(1007, !jParm["metabinary_files"].isArray())) return false;
    if (jParm.isMember("binary_files") && KOLV_FAIL_IF(1007, !jParm["binary_files"].isArray())) return false;
    return true;
}

bool PrepareCreateParm(Json::Value &jParm) {
    uid_t owner = (uid_t)jParm["owner"].asInt64();
    if (jParm.isMember("id")) {
        if (KOLV_FAIL_IF(1007, owner != KOLVVessaObjectGetOwnerByID(jParm["id"].asString()))) return false;
        if (KOLV_FAIL_IF(KOLV_ERR_ID_EXISTS, KOLVVessaIDIsExist(jParm["ns"].asString(), jParm["id"].asString()))) {
            return false;
        }
    }
    if (!jParm.isMember("parent_id")) {
        jParm["parent_id"] = KOLVVessaObjectDefaultID(owner);
    } else if (KOLV_FAIL_IF(1007, !jParm["parent_id"].isString())) {
        return false;
    }
    if (KOLVVessaObjectDefaultID(owner) != jParm["parent_id"].asString() && !InheritParent(jParm, owner)) return false;
    if (!CheckCreateTypes(jParm)) return false;
    // Without a caller's "ctime" the object was created now: the time of
    // the request when it gives one, else the clock.
    if (!jParm.isMember("ctime")) {
        const Json::Value &jMtime = jParm.get("mtime", Json::Value()); // never adds a member
        jParm["ctime"] = jMtime.isIntegral() ? jMtime.asInt64() : (Json::Int64)time(NULL);
    }
    return true;
}

} // namespace

// Nothing is written before the backend's Create, so a failed check
// leaves no trace on disk. A failed index write is logged and does not
// undo the object.
bool KOLV_VESSA_OBJECT::Create(const Json::Value &jsParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        Json::Value jParm(jsParm);
        if (!CheckCreateParm(jParm)) return false;
        if (KOLV_APPEND_IF(!PrepareCreateParm(jParm))) return false;
        if (!kolv::CheckBinarySources(jParm)) return false;
        kolv::NsHooks hooks(jParm["ns"].asString(), "create", true);
        hooks.Pre(jParm, this);
        std::string strNewID, strNewVer;
        if (KOLV_APPEND_IF(!pBackendFs->Create(jParm, strNewID, strNewVer))) return false;
        Json::Value jGetParm(Json::objectValue);
        jGetParm["ns"] = jParm["ns"];
        jGetParm["id"] = strNewID;
        jGetParm["requester"] = jParm["requester"];
        jGetParm["version"] = strNewVer;
        jGetParm["field"] = KOLVVessaObjectFieldAll();
        if (KOLV_APPEND_IF(!Get(jGetParm))) {
            // All or nothing: a caller told that no object was made can
            // make the same id again, so the one just made goes.
            std::string strRepo;
            if (KOLVVessaGetRepoPath(strRepo))
                kolv::fs::RemoveTree(strRepo + "/" + jParm["ns"].asString() + "/" + strNewID);
            return false;
        }
        hooks.Post(jParm, this);
        // The object in hand is the row, unless a post hook may have
        // changed the object again.
        bool blIndexed = hooks.HasPost() ? KOLVVessaObjectIndex(strNewID.c_str(), jParm["ns"].asCString(),
                                                                (uid_t)jParm["requester"].asInt64())
                                         : kolv::IndexObject(*this);
        if (!blIndexed) {
            kolv::FailAppend(__FILE__, __LINE__,
                             "!KOLVVessaObjectIndex(strNewID.c_str(), jParm[\"ns\"].asCString(), "
                             "(uid_t)jParm[\"requester\"].asInt64())");
            KOLV_OBJECT_SYSLOG("Failed to record create action of KOLV_VESSA_OBJECT in db. ns=[%s] category=[%s]",
                               jParm["ns"].asCString(), jParm["category"].asCString());
        }
        return true;
    });
}

bool KOLV_VESSA_OBJECT::Create(const Json::Value &jsParm, std::string &strNewID, std::string &strNewVer) {
    KOLV_VESSA_OBJECT tmpNewObj;
    if (KOLV_APPEND_IF(!tmpNewObj.Create(jsParm))) return false;
    strNewID = tmpNewObj.get_id();
    strNewVer = tmpNewObj.get_version();
    return true;
}
