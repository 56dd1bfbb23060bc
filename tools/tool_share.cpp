/*
 * The sharing verb: one ACL change of one object, with the user or group
 * given by number or by name.
 */
#include <grp.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tool_verbs.h"

#define KOLV_TOOL_FILE "tools/tool_share"

namespace kolvtool {

namespace {

// A text that is a plain decimal number fitting a uid or gid.
bool DecimalId(const std::string &str, Json::UInt &id) {
    if (str.empty() || str.size() > 10 || str.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long long ull = strtoull(str.c_str(), NULL, 10);
    if (ull >= 0xFFFFFFFFull) return false;
    id = (Json::UInt)ull;
    return true;
}

bool UserByName(const std::string &strName, Json::UInt &uid) {
    KOLVUSER *pUser = NULL;
    if (0 == KOLVUserGet(strName.c_str(), &pUser) && pUser) {
        uid = (Json::UInt)pUser->uid;
        KOLVUserFree(pUser);
        return true;
    }
    return DecimalId(strName, uid);
}

// Groups have names in the system's group database only; the platform's
// user table knows them by number.
bool GroupByName(const std::string &strName, Json::UInt &gid) {
    long cb = sysconf(_SC_GETGR_R_SIZE_MAX);
    std::vector<char> buf(cb > 0 ? (size_t)cb : 16384);
    struct group grp, *pGrp = NULL;
    if (0 == getgrnam_r(strName.c_str(), &grp, buf.data(), buf.size(), &pGrp) && pGrp) {
        gid = (Json::UInt)pGrp->gr_gid;
        return true;
    }
    return DecimalId(strName, gid);
}

} // namespace

bool ResolvePrincipal(Json::Value &jParm) {
    struct Principal {
        const char *szKey;
        bool (*pfnByName)(const std::string &, Json::UInt &);
        const char *szKind;
    };
    for (const Principal &principal : {Principal{"uid", UserByName, "user"}, Principal{"gid", GroupByName, "group"}}) {
        if (!jParm.isMember(principal.szKey) || !jParm[principal.szKey].isString()) continue;
        const std::string strName = jParm[principal.szKey].asString();
        Json::UInt id = 0;
        if (!principal.pfnByName(strName, id)) {
            KOLVVessaErrSetEx(1022, KOLV_TOOL_FILE, __LINE__, "no %s [%s]", principal.szKind, strName.c_str());
            return false;
        }
        jParm[principal.szKey] = id;
    }
    return true;
}

bool RunShare(const Json::Value &jReq, Json::Value &jOut) {
    Json::Value jParm = jReq;
    if (!ResolvePrincipal(jParm)) return false;
    KOLV_VESSA_OBJECT object;
    if (!object.Sharing(jParm)) return false;
    jOut = ObjectJson(object);
    return true;
}

} // namespace kolvtool
