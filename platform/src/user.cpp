/*
 * Users and groups: the platform config's "users" table first, then NSS.
 */
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "kolvplatform/kolv_platform.h"
#include "platform_config.h"

namespace {

using kolvplatform::PlatformConfig;
using kolvplatform::TableUser;

/* What the platform reports of a user, whichever source it comes from. */
struct UserRecord {
    uid_t uid = 0;
    gid_t gid = 0;
    bool blExpired = false;
    std::string strName;
    std::string strMail;
};

UserRecord FromTable(const TableUser &user) {
    UserRecord rec;
    rec.uid = user.uid;
    rec.gid = user.gid;
    rec.blExpired = user.blExpired;
    rec.strName = user.strName;
    rec.strMail = user.strMail;
    return rec;
}

UserRecord FromPasswd(const struct passwd &pw) {
    UserRecord rec;
    rec.uid = pw.pw_uid;
    rec.gid = pw.pw_gid;
    rec.strName = pw.pw_name;
    return rec;
}

/* getpwuid_r / getpwnam_r with a growing buffer. */
bool NssLookup(const char *szName, uid_t uid, UserRecord *pRec) {
    long cbHint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(cbHint > 0 ? static_cast<size_t>(cbHint) : 1024);
    for (;;) {
        struct passwd pw, *pResult = nullptr;
        int r = szName ? getpwnam_r(szName, &pw, buf.data(), buf.size(), &pResult)
                       : getpwuid_r(uid, &pw, buf.data(), buf.size(), &pResult);
        if (r == ERANGE && buf.size() < (1U << 20)) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (r != 0 || !pResult) return false;
        *pRec = FromPasswd(pw);
        return true;
    }
}

/* The user by name (szName) or uid: the table wins over NSS. */
bool FindUser(const PlatformConfig &config, const char *szName, uid_t uid, UserRecord *pRec) {
    const TableUser *pTable = szName ? config.FindName(szName) : config.FindUid(uid);
    if (pTable) {
        *pRec = FromTable(*pTable);
        return true;
    }
    return NssLookup(szName, uid, pRec);
}

KOLVUSER *NewUser(const UserRecord &rec) {
    if (rec.strName.size() >= sizeof(KOLVUSER::szName) || rec.strMail.size() >= sizeof(KOLVUSER::szMail)) {
        errno = ENAMETOOLONG;
        return NULL;
    }
    KOLVUSER *pUser = static_cast<KOLVUSER *>(calloc(1, sizeof(KOLVUSER)));
    if (!pUser) return NULL;
    pUser->uid = rec.uid;
    pUser->gid = rec.gid;
    pUser->expired = rec.blExpired ? 1 : 0;
    memcpy(pUser->szName, rec.strName.c_str(), rec.strName.size() + 1);
    memcpy(pUser->szMail, rec.strMail.c_str(), rec.strMail.size() + 1);
    return pUser;
}

int GetUser(const char *szName, uid_t uid, KOLVUSER **ppUser) {
    if (!ppUser) {
        errno = EINVAL;
        return -1;
    }
    *ppUser = NULL;
    try {
        UserRecord rec;
        if (!FindUser(kolvplatform::LoadPlatformConfig(), szName, uid, &rec)) {
            errno = ENOENT;
            return -1;
        }
        *ppUser = NewUser(rec);
        return *ppUser ? 0 : -1;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
}

/* The password database is enumerated through one process-wide cursor. */
std::mutex gPwentMutex;

/* NSS users of uid 1000 and above, nobody (65534) left out. */
std::vector<UserRecord> NssLocalUsers() {
    std::vector<UserRecord> users;
    std::lock_guard<std::mutex> guard(gPwentMutex);
    std::vector<char> buf(4096);
    setpwent();
    for (;;) {
        struct passwd pw, *pResult = nullptr;
        int r = getpwent_r(&pw, buf.data(), buf.size(), &pResult);
        if (r == ERANGE && buf.size() < (1U << 20)) {
            // The entry is retried with the larger buffer.
            buf.resize(buf.size() * 2);
            continue;
        }
        if (r != 0 || !pResult) break;
        if (pw.pw_uid >= 1000 && pw.pw_uid != 65534) users.push_back(FromPasswd(pw));
    }
    endpwent();
    return users;
}

} // namespace

extern "C" {

int KOLVUserGetByUID(uid_t uid, KOLVUSER **ppUser) {
    return GetUser(nullptr, uid, ppUser);
}

int KOLVUserGet(const char *szName, KOLVUSER **ppUser) {
    if (!szName || !*szName) {
        if (ppUser) *ppUser = NULL;
        errno = EINVAL;
        return -1;
    }
    return GetUser(szName, 0, ppUser);
}

void KOLVUserFree(KOLVUSER *pUser) {
    free(pUser);
}

int TRABUserInfoEnum(int authType, const char *szFilter, int offset, int limit, TRAB_USER_ENUM_CB cb, void *pArg) {
    (void)szFilter;
    (void)offset;
    (void)limit;
    if (!cb || (authType != AUTH_LOCAL && authType != AUTH_DOMAIN && authType != AUTH_LDAP)) {
        errno = EINVAL;
        return -1;
    }
    // No domain or directory server on plain Linux: those lists are empty.
    if (authType != AUTH_LOCAL) return 0;
    try {
        PlatformConfig config = kolvplatform::LoadPlatformConfig();
        // Users that cannot be listed are not users that are gone: a
        // caller deciding what to remove by this list must not go on.
        if (config.blBroken) {
            errno = EIO;
            return -1;
        }
        std::vector<UserRecord> users;
        std::set<uid_t> seen;
        for (const TableUser &user : config.users) {
            if (seen.insert(user.uid).second) users.push_back(FromTable(user));
        }
        for (UserRecord &rec : NssLocalUsers()) {
            if (seen.insert(rec.uid).second) users.push_back(std::move(rec));
        }
        // The callback runs without any lock held.
        int n = 0;
        for (const UserRecord &rec : users) {
            KOLVUSER *pUser = NewUser(rec);
            if (!pUser) continue;
            int r = cb(pUser, pArg);
            KOLVUserFree(pUser);
            if (r < 0) return -1;
            ++n;
        }
        return n;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
}

TRABCSzList *TRABGroupInfoListGet(const char *szUser, BOOL blReserved) {
    (void)blReserved;
    if (!szUser || !*szUser) {
        errno = EINVAL;
        return NULL;
    }
    try {
        PlatformConfig config = kolvplatform::LoadPlatformConfig();
        std::vector<gid_t> gids;
        if (const TableUser *pTable = config.FindName(szUser)) {
            gids.push_back(pTable->gid);
            gids.insert(gids.end(), pTable->groups.begin(), pTable->groups.end());
        } else {
            UserRecord rec;
            if (!NssLookup(szUser, 0, &rec)) {
                errno = ENOENT;
                return NULL;
            }
            gids.push_back(rec.gid);
            int n = 32;
            std::vector<gid_t> supplementary;
            for (;;) {
                supplementary.resize(static_cast<size_t>(n));
                int nWas = n;
                if (getgrouplist(szUser, rec.gid, supplementary.data(), &n) >= 0) break;
                if (n <= nWas) n = nWas * 2;
                if (n > 65536) return NULL;
            }
            supplementary.resize(static_cast<size_t>(n));
            gids.insert(gids.end(), supplementary.begin(), supplementary.end());
        }
        TRABCSzList *pList = TRABCSzListAlloc(static_cast<int>(gids.size()));
        if (!pList) return NULL;
        std::set<gid_t> seen;
        for (gid_t gid : gids) {
            if (!seen.insert(gid).second) continue;
            char szGid[16];
            snprintf(szGid, sizeof(szGid), "%u", static_cast<unsigned>(gid));
            if (TRABCSzListPush(&pList, szGid) < 0) {
                TRABCSzListFree(pList);
                return NULL;
            }
        }
        return pList;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return NULL;
    }
}

} // extern "C"
