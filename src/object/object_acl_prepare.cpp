/*
 * One change of an ACL: sharing on or off, or a grant given or taken for
 * everybody, one user or one group. A change pushed down from an ancestor
 * ("recursive") marks its grants inherited and never weakens or removes a
 * grant made on the object itself.
 */
#include <stdio.h>

#include <functional>
#include <string>

#include "kolvvessa/kolvvessa_perm.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

// A change of the "global" switch. An unknown op changes nothing and is
// no error, unlike the ops of the grants.
int PrepareGlobal(const Json::Value &jsParm, const std::string &strOp, Json::Value &acl) {
    if ("set" == strOp) {
        if (KOLV_FAIL_IF(1007, !jsParm.isMember("enabled") || !jsParm["enabled"].isBool())) return -1;
        if (acl.isMember("enabled") && acl["enabled"] == jsParm["enabled"]) return 0;
        acl["enabled"] = jsParm["enabled"];
        return 1;
    }
    if ("delete" == strOp) {
        if (acl.empty()) return 0;
        acl = Json::Value(Json::objectValue);
        acl["enabled"] = false;
        return 1;
    }
    return 0;
}

// The member of acl[szKind] a user or group grant lives in: the uid or gid
// in decimal.
bool GrantKey(const Json::Value &jsParm, const char *szIdKey, std::string &strKey) {
    if ("uid" == std::string(szIdKey)) {
        if (KOLV_FAIL_IF(1007, !jsParm.isMember("uid"))) return false;
        if (KOLV_FAIL_IF(1007, !jsParm["uid"].isIntegral())) return false;
        // A negative number or one past the last uid names nobody.
        if (KOLV_FAIL_IF(1007, !kolv::IsUidValue(jsParm["uid"]))) return false;
    } else {
        if (KOLV_FAIL_IF(1007, !jsParm.isMember("gid"))) return false;
        if (KOLV_FAIL_IF(1007, !jsParm["gid"].isIntegral())) return false;
        if (KOLV_FAIL_IF(1007, !kolv::IsUidValue(jsParm["gid"]))) return false;
    }
    char szKey[128];
    snprintf(szKey, sizeof(szKey), "%u", (unsigned)jsParm[szIdKey].asLargestUInt());
    strKey = szKey;
    return true;
}

bool IsInherited(const Json::Value &jEntry) {
    return jEntry.isObject() && jEntry.isMember("inherit") && jEntry["inherit"].isBool() && jEntry["inherit"].asBool();
}

// pEntry is the grant there is (NULL for none); make gives the one to
// write, made when missing.
int SetGrant(const Json::Value &jsParm, bool recursive, const Json::Value *pEntry,
             const std::function<Json::Value &()> &make) {
    if (KOLV_FAIL_IF(1007, !jsParm.isMember("perm"))) return -1;
    if (KOLV_FAIL_IF(1007, !jsParm["perm"].isString())) return -1;
    if (KOLV_FAIL_IF(1007, std::string("ro") != jsParm["perm"].asString() &&
                               std::string("rw") != jsParm["perm"].asString())) {
        return -1;
    }
    const std::string strPerm = jsParm["perm"].asString();
    if (!recursive) {
        if (pEntry && pEntry->isObject() && pEntry->get("perm", "") == strPerm) return 0;
        Json::Value &jEntry = make();
        jEntry["perm"] = strPerm;
        jEntry["inherit"] = false;
        return 1;
    }
    if (pEntry && pEntry->isObject() && !IsInherited(*pEntry)) {
        // A grant made on the object itself stays unless the pushed-down
        // one ranks higher.
        int existing = PermissionOrder::GetOrder(pEntry->get("perm", "").asString());
        if (PermissionOrder::GetOrder(strPerm) <= existing) return 0;
    }
    Json::Value &jEntry = make();
    jEntry["perm"] = strPerm;
    jEntry["inherit"] = true;
    return 1;
}

// A grant for "public" (szKind NULL) or for a member of "hmx_user" or
// "hmx_group".
int PrepareGrant(const Json::Value &jsParm, const std::string &strOp, bool recursive, Json::Value &acl,
                 const char *szKind, const std::string &strKey) {
    const char *szHolder = szKind ? szKind : "";
    const std::string strMember = szKind ? strKey : "public";
    auto holder = [&]() -> Json::Value & {
        if (!szKind) return acl;
        if (!acl[szHolder].isObject()) acl[szHolder] = Json::Value(Json::objectValue);
        return acl[szHolder];
    };
    const Json::Value *pHolder = szKind ? (acl.isMember(szHolder) ? &acl[szHolder] : NULL) : &acl;
    const Json::Value *pEntry =
        pHolder && pHolder->isObject() && pHolder->isMember(strMember) ? &(*pHolder)[strMember] : NULL;
    if ("set" == strOp) {
        return SetGrant(jsParm, recursive, pEntry, [&]() -> Json::Value & {
            Json::Value &jEntry = holder()[strMember];
            if (!jEntry.isObject()) jEntry = Json::Value(Json::objectValue);
            return jEntry;
        });
    }
    if ("delete" == strOp) {
        if (!pEntry) return 0;
        if (recursive && !IsInherited(*pEntry)) return 0;
        holder().removeMember(strMember);
        return 1;
    }
    KOLV_FAIL_FMT(1007, "Unknown op [%s] for permission setting", strOp.c_str());
    return -1;
}

} // namespace

namespace kolv {

int prepare_acl(const Json::Value &jsParm, Json::Value &acl) {
    const std::string strType = jsParm["type"].asString();
    const std::string strOp = jsParm["op"].asString();
    const bool recursive = jsParm.isMember("recursive") && jsParm["recursive"].isBool() && jsParm["recursive"].asBool();
    if (!acl.isObject()) acl = Json::Value(Json::objectValue);
    if ("global" == strType) return PrepareGlobal(jsParm, strOp, acl);
    if ("public" == strType) return PrepareGrant(jsParm, strOp, recursive, acl, NULL, "");
    std::string strKey;
    if ("user" == strType) {
        if (!GrantKey(jsParm, "uid", strKey)) return -1;
        return PrepareGrant(jsParm, strOp, recursive, acl, "hmx_user", strKey);
    }
    if ("group" == strType) {
        if (!GrantKey(jsParm, "gid", strKey)) return -1;
        return PrepareGrant(jsParm, strOp, recursive, acl, "hmx_group", strKey);
    }
    KOLV_FAIL_FMT(1007, "Unknown type [%s] for permission setting", strType.c_str());
    return -1;
}

} // namespace kolv
