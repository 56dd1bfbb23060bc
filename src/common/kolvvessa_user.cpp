/*
 * Users and owners: the cached facts of a uid (name, mail, existence,
 * expiry, primary group) and the test whether a uid may own objects.
 *
 * Both caches are filled on first use and kept for the life of the
 * process: a user created, deleted or expired later keeps the facts first
 * seen. Each cache has its own lock so that concurrent lookups are safe;
 * the platform lookup itself is serialised by tUser.
 */
#include <kolvplatform/kolv_platform.h>
#include <pthread.h>
#include <stdio.h>

#include <map>
#include <mutex>
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

pthread_mutex_t tUser = PTHREAD_MUTEX_INITIALIZER;

namespace {

std::mutex g_mtxFacts;
std::map<uid_t, Json::Value> g_mapFacts;

std::mutex g_mtxOwner;
std::map<uid_t, bool> g_mapOwner;

Json::Value MakeFacts(const std::string &strName, const std::string &strMail, bool blExist, bool blExpire,
                      Json::Int64 gid) {
    Json::Value jFacts(Json::objectValue);
    jFacts["name"] = strName;
    jFacts["mail"] = strMail;
    jFacts["exist"] = blExist;
    jFacts["expire"] = blExpire;
    jFacts["gid"] = gid;
    return jFacts;
}

// The fixed facts of the anonymous requester, never cached.
Json::Value AnonymousFacts() {
    return MakeFacts("Anonymous", "", false, true, -1);
}

// Asks the platform; a uid it does not know reads as a deleted user.
Json::Value LoadFacts(uid_t uid) {
    KOLVUSER *pUser = NULL;
    pthread_mutex_lock(&tUser);
    int ret = KOLVUserGetByUID(uid, &pUser);
    pthread_mutex_unlock(&tUser);
    kolv::Owned<KOLVUSER, KOLVUserFree> user(pUser);

    if (0 != ret || NULL == pUser) {
        char szName[64];
        snprintf(szName, sizeof(szName), "Deleted user #%u", (unsigned)uid);
        return MakeFacts(szName, "", false, true, -1);
    }
    return MakeFacts(pUser->szName, pUser->szMail, true, 1 == pUser->expired, (Json::Int64)pUser->gid);
}

// The cached facts of uid, loaded on a miss. Two threads missing at once
// both ask the platform; the first answer stored is the one kept.
Json::Value CachedFacts(uid_t uid) {
    {
        std::lock_guard<std::mutex> guard(g_mtxFacts);
        auto it = g_mapFacts.find(uid);
        if (it != g_mapFacts.end()) return it->second;
    }
    Json::Value jLoaded = LoadFacts(uid);
    std::lock_guard<std::mutex> guard(g_mtxFacts);
    return g_mapFacts.emplace(uid, jLoaded).first->second;
}

// The facts of uid for a lookup: false (nothing given) when the user must
// exist and does not.
bool LookupFacts(uid_t uid, bool blMustExist, Json::Value &jFacts) {
    if (UID_ERR == uid) {
        if (blMustExist) return false;
        jFacts = AnonymousFacts();
        return true;
    }
    jFacts = CachedFacts(uid);
    return !(blMustExist && !jFacts["exist"].asBool());
}

// The authentication type the user-home switch is asked for, read off the
// login name: domain users carry a backslash, directory users an "@".
int AuthTypeOfName(const std::string &strName) {
    if (strName.empty()) return 0;
    if (std::string::npos != strName.find('\\')) return AUTH_DOMAIN;
    if (std::string::npos != strName.find('@')) return AUTH_LDAP;
    return AUTH_LOCAL;
}

// The owner test itself, reporting why it fails.
bool OwnerTest(uid_t owner) {
    if (KOLV_FAIL_IF(1007, UID_ROOT == owner || UID_ERR == owner)) return false;
    Json::Value jsInfo;
    if (KOLV_FAIL_IF(1022, !KOLVVessaGetUserInfo(owner, jsInfo, true))) return false;
    int authType = AuthTypeOfName(jsInfo["name"].asString());
    if (KOLV_FAIL_IF(1011, FALSE == KOLVServiceUserHomeIsEnabled(authType, NULL))) return false;
    if (KOLV_FAIL_IF(1030, jsInfo["expire"].asBool())) return false;
    return true;
}

} // namespace

bool KOLVVessaCheckUID(uid_t uid) {
    if (UID_ERR == uid) return false;
    return CachedFacts(uid)["exist"].asBool();
}

bool KOLVVessaGetUserInfo(uid_t uid, Json::Value &jInfo, bool blMustExist) {
    Json::Value jFacts;
    if (!LookupFacts(uid, blMustExist, jFacts)) {
        jInfo = Json::Value(Json::objectValue);
        return false;
    }
    jInfo = jFacts;
    return true;
}

bool KOLVVessaGetGID(uid_t uid, unsigned int &gid, bool blMustExist) {
    Json::Value jFacts;
    if (!LookupFacts(uid, blMustExist, jFacts)) return false;
    gid = (unsigned int)jFacts["gid"].asInt64();
    return true;
}

bool KOLVVessaGetUserName(uid_t uid, std::string &strName, bool blMustExist) {
    Json::Value jFacts;
    if (!LookupFacts(uid, blMustExist, jFacts)) return false;
    strName = jFacts["name"].asString();
    return true;
}

bool KOLVVessaGetUserNameAndMail(uid_t uid, std::string &strName, std::string &strMail, bool blMustExist) {
    Json::Value jFacts;
    if (!LookupFacts(uid, blMustExist, jFacts)) return false;
    strName = jFacts["name"].asString();
    // The anonymous requester has a name but leaves the mail untouched.
    if (UID_ERR != uid) strMail = jFacts["mail"].asString();
    return true;
}

bool KOLVVessaObjectOwnerIsValid(uid_t owner) {
    {
        // A cached false pushes no error: only the first failing test of a
        // uid reports why.
        std::lock_guard<std::mutex> guard(g_mtxOwner);
        auto it = g_mapOwner.find(owner);
        if (it != g_mapOwner.end()) return it->second;
    }
    bool blValid = OwnerTest(owner);
    std::lock_guard<std::mutex> guard(g_mtxOwner);
    return g_mapOwner.emplace(owner, blValid).first->second;
}
