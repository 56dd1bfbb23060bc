/*
 * A requester's permission on an object, from the owner and the object's
 * ACL {"enabled", "public", "hmx_user", "hmx_group"}.
 */
#include <stdio.h>

#include <exception>
#include <map>
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_perm.h"

using std::string;

// order_list is defined before the two instances that fill it: within one
// translation unit statics are initialised in the order of definition.
std::map<std::string, int> PermissionOrder::order_list;

PermissionOrder::PermissionOrder(const std::string &strPerm, int order) {
    order_list[strPerm] = order;
}

int PermissionOrder::GetOrder(const std::string &strPerm) {
    std::map<std::string, int>::const_iterator it = order_list.find(strPerm);
    return it == order_list.end() ? -1 : it->second;
}

// "owner" is deliberately not ranked: only the owner rule produces it, and
// it is never combined with a grant.
PermissionOrder rgPermRO("ro", 1);
PermissionOrder rgPermRW("rw", 2);

namespace {

// Combines added_perm into the running result final_perm, keeping the
// higher rank; equal ranks keep the earlier word.
bool max_perm(string &final_perm, const string &added_perm) {
    if (added_perm.empty()) return true;
    if (final_perm.empty()) {
        if (-1 == PermissionOrder::GetOrder(added_perm)) {
            KOLV_FAIL_FMT(1015, "-1 == PermissionOrder::GetOrder(added_perm) [%s]", added_perm.c_str());
            return false;
        }
        final_perm = added_perm;
        return true;
    }
    int order1 = -1;
    int order2 = -1;
    if (KOLV_FAIL_IF(1015, -1 == (order1 = PermissionOrder::GetOrder(final_perm)))) return false;
    if (KOLV_FAIL_IF(1015, -1 == (order2 = PermissionOrder::GetOrder(added_perm)))) return false;
    if (order1 < order2) final_perm = added_perm;
    return true;
}

// The grant to everybody; empty when the ACL has none.
bool get_public_perm(const Json::Value &acl, string &strPublicPerm) {
    if (KOLV_FAIL_IF(1015, !acl.isObject())) return false;
    if (!acl.isMember("public")) return true;
    if (KOLV_FAIL_IF(1015, !acl["public"].isObject())) return false;
    if (!acl["public"].isMember("perm")) return true;
    if (KOLV_FAIL_IF(1015, !acl["public"]["perm"].isString())) return false;
    strPublicPerm = acl["public"]["perm"].asString();
    return true;
}

// The grant to the requester by name, taken as it stands. A perm that has
// no text at all (an object, an array) is refused rather than guessed at.
bool get_user_perm(const Json::Value &acl, const char *szUid, string &strSpecificPerm) {
    if (!acl.isMember("hmx_user")) return true;
    if (KOLV_FAIL_IF(1015, !acl["hmx_user"].isObject())) return false;
    if (!acl["hmx_user"].isMember(szUid)) return true;
    if (KOLV_FAIL_IF(1015, !acl["hmx_user"][szUid].isObject())) return false;
    if (KOLV_FAIL_IF(1015, !acl["hmx_user"][szUid].isMember("perm"))) return false;
    if (KOLV_FAIL_IF(1015, !acl["hmx_user"][szUid]["perm"].isConvertibleTo(Json::stringValue))) return false;
    strSpecificPerm = acl["hmx_user"][szUid]["perm"].asString();
    return true;
}

// Folds the grants of the requester's groups (decimal gid texts, in the
// platform's order) into strSpecificPerm.
bool get_group_perm(unsigned int Requester, const Json::Value &acl, string &strSpecificPerm) {
    string strUserName;
    if (KOLV_FAIL_IF(1022, !KOLVVessaGetUserName(Requester, strUserName, true))) return false;
    TRABCSzList *pGrpList = NULL;
    if (KOLV_FAIL_IF(1021, NULL == (pGrpList = TRABGroupInfoListGet(strUserName.c_str(), FALSE)))) return false;
    kolv::SzList grpList(pGrpList);
    if (KOLV_FAIL_IF(1015, !acl["hmx_group"].isObject())) return false;

    const int cGroups = TRABCSzListCount(pGrpList);
    for (int i = 0; i < cGroups; ++i) {
        const char *szGid = TRABCSzListGet(pGrpList, i);
        if (NULL == szGid || !acl["hmx_group"].isMember(szGid)) continue;
        if (KOLV_FAIL_IF(1015, !acl["hmx_group"][szGid].isObject())) return false;
        if (KOLV_FAIL_IF(1015, !acl["hmx_group"][szGid].isMember("perm"))) return false;
        if (KOLV_FAIL_IF(1015, !acl["hmx_group"][szGid]["perm"].isConvertibleTo(Json::stringValue))) return false;
        string strGroupPerm = acl["hmx_group"][szGid]["perm"].asString();
        if (KOLV_APPEND_IF(!max_perm(strSpecificPerm, strGroupPerm))) return false;
    }
    return true;
}

// The requester's own grant combined with those of its groups; empty when
// none applies.
bool get_specific_perm(unsigned int Requester, unsigned int /* owner */, const Json::Value &acl,
                       string &strSpecificPerm) {
    if (KOLV_FAIL_IF(1015, !acl.isObject())) return false;
    char szUid[64];
    snprintf(szUid, sizeof(szUid), "%u", Requester);
    if (!get_user_perm(acl, szUid, strSpecificPerm)) return false;
    if (!acl.isMember("hmx_group")) return true;
    return get_group_perm(Requester, acl, strSpecificPerm);
}

// Only the public grant counts; nothing granted is 1023.
BOOL public_only(const Json::Value &jACL, string &strPerm) {
    string strPublicPerm;
    if (KOLV_APPEND_IF(!get_public_perm(jACL, strPublicPerm))) return FALSE;
    if (KOLV_FAIL_IF(1023, strPublicPerm.empty())) return FALSE;
    strPerm = strPublicPerm;
    return TRUE;
}

BOOL perm_calculate(unsigned int Requester, unsigned int owner, const Json::Value &jACL, string &strPerm) {
    // The owner needs no ACL, and the superuser's rule comes before the
    // object's sharing switch.
    if (Requester == owner) {
        strPerm = "owner";
        return TRUE;
    }
    if (Requester == UID_ROOT) {
        strPerm = "rw";
        return TRUE;
    }
    if (KOLV_FAIL_IF(1020, !jACL.isObject())) return FALSE;
    if (KOLV_FAIL_IF(1020, !jACL.isMember("enabled"))) return FALSE;
    if (KOLV_FAIL_IF(1020, !jACL["enabled"].isBool())) return FALSE;
    if (KOLV_FAIL_IF(1020, !jACL["enabled"].asBool())) return FALSE;

    if (Requester == UID_ERR) return public_only(jACL, strPerm);

    string strSpecificPerm;
    if (KOLV_APPEND_IF(!get_specific_perm(Requester, owner, jACL, strSpecificPerm))) return FALSE;
    // A named grant overrides the public one, even when it is lower.
    if (!strSpecificPerm.empty()) {
        strPerm = strSpecificPerm;
        return TRUE;
    }
    return public_only(jACL, strPerm);
}

} // namespace

BOOL KOLVVessaObjectPermCalculate(unsigned int requester, unsigned int owner, const Json::Value &acl,
                                  std::string &strPerm) {
    return KOLV_NO_THROW_AS(FALSE, 1016, "permission calculation",
                            [&]() -> BOOL { return perm_calculate(requester, owner, acl, strPerm); });
}
