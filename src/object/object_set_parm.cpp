/*
 * Preparing a change of an object: what may change, a move to another
 * parent (with the ACL it inherits there), and the types of the fields.
 */
#include <time.h>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_field.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"

namespace {

bool get_basic(uid_t owner, const std::string &strNs, const std::string &strID, Json::Value &jOut) {
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    if (KOLV_FAIL_IF(1022, !KOLVVessaCheckUID(owner))) return false;
    std::string strPath = strRepo + "/" + strNs + "/" + strID + "/" + KOLVVES_BASIC;
    kolv::KolvJson jBasic;
    if (KOLV_FAIL_IF(1003, !jBasic.fromFile(strPath))) return false;
    jOut = jBasic;
    return true;
}

// The object's own grants stay; grants it inherited from the old parent
// go, and the new parent's grants come in as inherited where the object
// has none of its own.
Json::Value MovedAcl(const Json::Value &jOldAcl, const Json::Value &jParentAcl) {
    Json::Value jAcl = jOldAcl.isObject() ? jOldAcl : Json::Value(Json::objectValue);
    Json::Value jInherit = jParentAcl.isObject() ? jParentAcl : Json::Value(Json::objectValue);
    kolv::AclMarkInherited(jInherit);
    auto isInherited = [](const Json::Value &j) { return j.isObject() && j.get("inherit", false).asBool(); };
    if (jAcl.isMember("public") && isInherited(jAcl["public"])) jAcl.removeMember("public");
    if (jInherit.isMember("public") && !jAcl.isMember("public")) jAcl["public"] = jInherit["public"];
    for (const char *szKind : {"hmx_user", "hmx_group"}) {
        if (!jAcl[szKind].isObject()) jAcl[szKind] = Json::Value(Json::objectValue);
        for (const std::string &strKey : jAcl[szKind].getMemberNames()) {
            if (isInherited(jAcl[szKind][strKey])) jAcl[szKind].removeMember(strKey);
        }
        if (!jInherit.isMember(szKind) || !jInherit[szKind].isObject()) continue;
        for (const std::string &strKey : jInherit[szKind].getMemberNames()) {
            if (!jAcl[szKind].isMember(strKey)) jAcl[szKind][strKey] = jInherit[szKind][strKey];
        }
    }
    if (!jAcl.isMember("enabled") && jInherit.isMember("enabled")) jAcl["enabled"] = jInherit["enabled"];
    return jAcl;
}

// A move is stamped later than the parent's last change, so that a move
// in the same second as the creation is not lost to the stored stamp.
bool StampMove(Json::Value &jParm, uid_t owner) {
    Json::Value jBasic;
    if (KOLV_APPEND_IF(!get_basic(owner, jParm["ns"].asString(), jParm["id"].asString(), jBasic))) return false;
    if (KOLV_FAIL_IF(1016, !jBasic.isMember("auto_mtime"))) return false;
    if (KOLV_FAIL_IF(1016, !jBasic["auto_mtime"].isMember("parent_id"))) return false;
    if (!jParm.isMember("mtime")) {
        Json::Int64 stamp = jBasic["auto_mtime"]["parent_id"].asInt64() + 1;
        jParm["mtime"] = (Json::Int64)time(NULL) > stamp ? (Json::Int64)time(NULL) : stamp;
    }
    return true;
}

bool PrepareMove(Json::Value &jParm, const Json::Value &jAcl) {
    uid_t owner = UID_ERR;
    if (KOLV_FAIL_IF(1007, !jParm["parent_id"].isString())) return false;
    if (KOLV_APPEND_IF(UID_ERR == (owner = KOLVVessaObjectGetOwnerByID(jParm["id"].asString())))) return false;
    if (KOLV_FAIL_IF(1007, owner != KOLVVessaObjectGetOwnerByID(jParm["parent_id"].asString()))) return false;
    if (KOLV_FAIL_IF(1007, jParm["parent_id"].asString() == jParm["id"].asString())) return false;
    if (!StampMove(jParm, owner)) return false;
    Json::Value jParentAcl(Json::objectValue);
    if (KOLVVessaObjectDefaultID(owner) != jParm["parent_id"].asString()) {
        KOLV_VESSA_OBJECT obj;
        if (!kolv::GetWritableParent(jParm, obj)) return false;
        jParentAcl = obj.get_acl();
    }
    Json::Value jNewAcl = MovedAcl(jAcl, jParentAcl);
    if (jNewAcl != jAcl) jParm["acl"] = jNewAcl;
    return true;
}

bool CheckSetTypes(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, (jParm.isMember("text") || jParm.isMember("binary_files")) &&
                               (!jParm.isMember("version") || !jParm["version"].isString()))) {
        return false;
    }
    if (jParm.isMember("commit_msg") && KOLV_FAIL_IF(1007, !jParm["commit_msg"].isObject())) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("metatext") && !jParm["metatext"].isObject())) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("text") && !jParm["text"].isObject())) return false;
    if (jParm.isMember("metabinary_files") && KOLV_FAIL_IF(1007, !jParm["metabinary_files"].isArray())) return false;
    if (jParm.isMember("binary_files") && KOLV_FAIL_IF(1007, !jParm["binary_files"].isArray())) return false;
    return true;
}

} // namespace

namespace kolv {

// REQUIRES: pObj holds the object as read for the requester. The record
// keeps the caller's keys; it gains "version" (the store writes against
// the version read) and, for a move, "mtime" and the ACL inherited at the
// new place.
bool PrepareSetParm(Json::Value &jParm, const Json::Value &jAcl, const KOLV_VESSA_OBJECT *pObj) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ctime") && !jParm.isMember("parent_id") && !jParm.isMember("metatext") &&
                               !jParm.isMember("text") && !jParm.isMember("metabinary_files") &&
                               !jParm.isMember("binary_files"))) {
        return false;
    }
    if (jParm.isMember("mtime") && KOLV_FAIL_IF(1007, !jParm["mtime"].isIntegral())) return false;
    // The caller's own "acl", before a move puts the inherited one there.
    if (jParm.isMember("acl") && KOLV_FAIL_IF(1007, !jParm["acl"].isObject())) return false;
    // An integral double or a count past the 64-bit range is no time.
    if (jParm.isMember("ctime") &&
        KOLV_FAIL_IF(1007, !jParm["ctime"].isInt64() || Json::realValue == jParm["ctime"].type())) {
        return false;
    }
    if (jParm.isMember("mtime") &&
        KOLV_FAIL_IF(1007, !jParm["mtime"].isInt64() || Json::realValue == jParm["mtime"].type())) {
        return false;
    }
    if (jParm.isMember("reset_parent_id") && jParm["reset_parent_id"].isBool() && jParm["reset_parent_id"].asBool()) {
        jParm["parent_id"] = KOLVVessaObjectDefaultID(KOLVVessaObjectGetOwnerByID(jParm["id"].asString()));
    }
    if (jParm.isMember("parent_id") && !PrepareMove(jParm, jAcl)) return false;
    if (!CheckSetTypes(jParm)) return false;
    if (!jParm.isMember("version") && pObj) jParm["version"] = pObj->get_version();
    return true;
}

} // namespace kolv
