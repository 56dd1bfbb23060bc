/* The platform config: sysroot, shares, users, groups, user-home switches,
 * services. */
#include <grp.h>
#include <kolvplatform/kolv_platform.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::kCarol;
using kolvtest::kDave;
using kolvtest::kEve;

class PlatformConfig : public kolvtest::SysrootTest {};

std::vector<std::string> Groups(const char *szUser) {
    std::vector<std::string> v;
    TRABCSzList *pList = TRABGroupInfoListGet(szUser, FALSE);
    if (!pList) return {"<null>"};
    for (int i = 0; i < TRABCSzListCount(pList); ++i)
        v.push_back(TRABCSzListGet(pList, i));
    TRABCSzListFree(pList);
    return v;
}

/* An uid that neither NSS nor the default table knows. */
uid_t UnknownUid() {
    uid_t uid = 3999999;
    while (getpwuid(uid))
        ++uid;
    return uid;
}

TEST_F(PlatformConfig, SysPathPrefixesTheSysroot) {
    char szBuf[4096];
    EXPECT_EQ(m_sys.Path("/usr/kolv/etc/x"), KOLVSysPath("/usr/kolv/etc/x", szBuf, sizeof(szBuf)));
    // Exactly the size it needs, then one byte short.
    std::string strWant = m_sys.Path("/a");
    EXPECT_NE(nullptr, KOLVSysPath("/a", szBuf, strWant.size() + 1));
    EXPECT_EQ(nullptr, KOLVSysPath("/a", szBuf, strWant.size()));
    EXPECT_EQ(nullptr, KOLVSysPath(nullptr, szBuf, sizeof(szBuf)));
    setenv("KOLV_SYSROOT", "", 1);
    EXPECT_STREQ("/usr/x", KOLVSysPath("/usr/x", szBuf, sizeof(szBuf)));
    unsetenv("KOLV_SYSROOT");
    EXPECT_STREQ("/usr/x", KOLVSysPath("/usr/x", szBuf, sizeof(szBuf)));
    setenv("KOLV_SYSROOT", m_sys.Root().c_str(), 1);
}

TEST_F(PlatformConfig, ShareIsRelocatedAndItsVolumeIsTheParent) {
    KOLVSHARE *pShare = nullptr;
    ASSERT_EQ(0, KOLVShareGet(SZK_SECTION_HOMES, &pShare));
    EXPECT_STREQ("homes", pShare->szName);
    EXPECT_EQ(m_sys.Path("/volume1/homes"), pShare->szPath);
    char szVolume[4096];
    ASSERT_EQ(0, KOLVShareBinPathGet(pShare->szPath, szVolume, sizeof(szVolume)));
    EXPECT_EQ(m_sys.Path("/volume1"), szVolume);
    KOLVShareFree(pShare);

    EXPECT_EQ(0, KOLVShareBinPathGet("/volume2/docs//", szVolume, 9));
    EXPECT_STREQ("/volume2", szVolume);
    EXPECT_LT(KOLVShareBinPathGet("/volume2/docs", szVolume, 8), 0);
    EXPECT_LT(KOLVShareBinPathGet("volume2/docs", szVolume, sizeof(szVolume)), 0);
    EXPECT_LT(KOLVShareBinPathGet(nullptr, szVolume, sizeof(szVolume)), 0);

    pShare = reinterpret_cast<KOLVSHARE *>(1);
    EXPECT_LT(KOLVShareGet("photo", &pShare), 0);
    EXPECT_EQ(nullptr, pShare);
    EXPECT_LT(KOLVShareGet(nullptr, &pShare), 0);
    EXPECT_LT(KOLVShareGet("homes", nullptr), 0);
}

TEST_F(PlatformConfig, ConfigIsReadOnEachCallAndAMissingFileHasNoShares) {
    Json::Value j = kolvtest::Sysroot::DefaultPlatformConfig();
    j["shares"]["photo"] = "/volume2/photo";
    m_sys.WritePlatformConfig(j);
    KOLVSHARE *pShare = nullptr;
    ASSERT_EQ(0, KOLVShareGet("photo", &pShare));
    EXPECT_EQ(m_sys.Path("/volume2/photo"), pShare->szPath);
    KOLVShareFree(pShare);

    ASSERT_EQ(0, unlink(m_sys.Path("/usr/kolv/etc/platform.conf").c_str()));
    EXPECT_LT(KOLVShareGet("homes", &pShare), 0);
    KOLVUSER *pUser = nullptr;
    EXPECT_NE(0, KOLVUserGetByUID(kAlice, &pUser));
    // Not JSON: the same as no file.
    kolvtest::WriteFile(m_sys.Path("/usr/kolv/etc/platform.conf"), "{\"shares\": ");
    EXPECT_LT(KOLVShareGet("homes", &pShare), 0);
}

TEST_F(PlatformConfig, UsersComeFromTheTableThenNss) {
    KOLVUSER *pUser = nullptr;
    ASSERT_EQ(0, KOLVUserGetByUID(kAlice, &pUser));
    EXPECT_STREQ("alice", pUser->szName);
    EXPECT_STREQ("alice@example.com", pUser->szMail);
    EXPECT_EQ(100u, pUser->gid);
    EXPECT_EQ(0, pUser->expired);
    KOLVUserFree(pUser);
    ASSERT_EQ(0, KOLVUserGetByUID(kCarol, &pUser));
    EXPECT_EQ(1, pUser->expired);
    KOLVUserFree(pUser);
    ASSERT_EQ(0, KOLVUserGet("DOM\\dave", &pUser));
    EXPECT_EQ(kDave, pUser->uid);
    KOLVUserFree(pUser);

    ASSERT_EQ(0, KOLVUserGetByUID(0, &pUser));
    EXPECT_STREQ("root", pUser->szName);
    EXPECT_STREQ("", pUser->szMail);
    EXPECT_EQ(0u, pUser->gid);
    EXPECT_EQ(0, pUser->expired);
    KOLVUserFree(pUser);
    ASSERT_EQ(0, KOLVUserGet("root", &pUser));
    EXPECT_EQ(0u, pUser->uid);
    KOLVUserFree(pUser);

    EXPECT_NE(0, KOLVUserGetByUID(UnknownUid(), &pUser));
    EXPECT_EQ(nullptr, pUser);
    EXPECT_NE(0, KOLVUserGet("no-such-user-here", &pUser));
    EXPECT_NE(0, KOLVUserGet(nullptr, &pUser));
    EXPECT_NE(0, KOLVUserGetByUID(kAlice, nullptr));
}

TEST_F(PlatformConfig, TheTableWinsOverNss) {
    Json::Value j = kolvtest::Sysroot::DefaultPlatformConfig();
    Json::Value jBoss;
    jBoss["uid"] = 0;
    jBoss["name"] = "boss";
    jBoss["gid"] = 7;
    jBoss["groups"].append(8);
    j["users"].append(jBoss);
    Json::Value jRoot;
    jRoot["uid"] = 4242;
    jRoot["name"] = "root";
    j["users"].append(jRoot);
    m_sys.WritePlatformConfig(j);

    KOLVUSER *pUser = nullptr;
    ASSERT_EQ(0, KOLVUserGetByUID(0, &pUser));
    EXPECT_STREQ("boss", pUser->szName);
    EXPECT_EQ(7u, pUser->gid);
    KOLVUserFree(pUser);
    ASSERT_EQ(0, KOLVUserGet("root", &pUser));
    EXPECT_EQ(4242u, pUser->uid);
    EXPECT_EQ(100u, pUser->gid); // the default
    KOLVUserFree(pUser);
    EXPECT_EQ((std::vector<std::string>{"7", "8"}), Groups("boss"));
    EXPECT_EQ((std::vector<std::string>{"100"}), Groups("root"));
}

TEST_F(PlatformConfig, GroupsListPrimaryThenOthersOnce) {
    EXPECT_EQ((std::vector<std::string>{"100", "2001"}), Groups("alice"));
    EXPECT_EQ((std::vector<std::string>{"100", "2002"}), Groups("bob"));
    EXPECT_EQ((std::vector<std::string>{"100"}), Groups("carol"));
    EXPECT_EQ((std::vector<std::string>{"<null>"}), Groups("no-such-user-here"));
    EXPECT_EQ(nullptr, TRABGroupInfoListGet(nullptr, FALSE));

    // An NSS user: what getgrouplist says, the primary group first.
    struct passwd *pw = getpwuid(0);
    ASSERT_NE(nullptr, pw);
    std::string strName = pw->pw_name;
    gid_t gidPrimary = pw->pw_gid;
    std::vector<gid_t> gids(256);
    int n = static_cast<int>(gids.size());
    ASSERT_GE(getgrouplist(strName.c_str(), gidPrimary, gids.data(), &n), 0);
    std::set<std::string> want;
    for (int i = 0; i < n; ++i)
        want.insert(std::to_string(gids[i]));
    std::vector<std::string> got = Groups(strName.c_str());
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(std::to_string(gidPrimary), got[0]);
    EXPECT_EQ(want, std::set<std::string>(got.begin(), got.end()));
    EXPECT_EQ(want.size(), got.size());
}

int Collect(const KOLVUSER *pUser, void *pArg) {
    static_cast<std::vector<KOLVUSER> *>(pArg)->push_back(*pUser);
    return 0;
}

TEST_F(PlatformConfig, EnumListsTableAndNssUsersOnce) {
    // A table user that NSS knows too, when there is one.
    Json::Value j = kolvtest::Sysroot::DefaultPlatformConfig();
    std::set<uid_t> nss;
    setpwent();
    while (struct passwd *pw = getpwent()) {
        if (pw->pw_uid >= 1000 && pw->pw_uid != 65534) nss.insert(pw->pw_uid);
    }
    endpwent();
    if (!nss.empty()) {
        Json::Value jUser;
        jUser["uid"] = *nss.begin();
        jUser["name"] = "table-twin";
        j["users"].append(jUser);
    }
    m_sys.WritePlatformConfig(j);

    std::vector<KOLVUSER> users;
    int n = TRABUserInfoEnum(AUTH_LOCAL, nullptr, 0, -1, Collect, &users);
    ASSERT_EQ(static_cast<int>(users.size()), n);
    std::map<uid_t, std::string> byUid;
    for (const KOLVUSER &user : users)
        EXPECT_TRUE(byUid.emplace(user.uid, user.szName).second) << user.uid;
    for (uid_t uid : {kAlice, kBob, kCarol, kDave, kEve})
        EXPECT_EQ(1u, byUid.count(uid)) << uid;
    for (uid_t uid : nss)
        EXPECT_EQ(1u, byUid.count(uid)) << uid;
    EXPECT_EQ(nss.size() + 5, byUid.size());
    EXPECT_EQ(0u, byUid.count(0));
    EXPECT_EQ(0u, byUid.count(65534));
    if (!nss.empty()) {
        EXPECT_EQ("table-twin", byUid[*nss.begin()]);
    }
    EXPECT_EQ("alice", byUid[kAlice]);
}

TEST_F(PlatformConfig, EnumStopsOnANegativeCallback) {
    int nCalls = 0;
    auto stop = [](const KOLVUSER *, void *pArg) { return ++*static_cast<int *>(pArg) == 2 ? -1 : 0; };
    EXPECT_LT(TRABUserInfoEnum(AUTH_LOCAL, nullptr, 0, -1, stop, &nCalls), 0);
    EXPECT_EQ(2, nCalls);
    EXPECT_LT(TRABUserInfoEnum(AUTH_LOCAL, nullptr, 0, -1, nullptr, nullptr), 0);
    std::vector<KOLVUSER> users;
    EXPECT_EQ(0, TRABUserInfoEnum(AUTH_DOMAIN, nullptr, 0, -1, Collect, &users));
    EXPECT_LT(TRABUserInfoEnum(12345, nullptr, 0, -1, Collect, &users), 0);
}

TEST_F(PlatformConfig, UserHomeSwitches) {
    EXPECT_TRUE(KOLVServiceUserHomeIsEnabled(AUTH_LOCAL, nullptr));
    EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(AUTH_DOMAIN, nullptr));
    EXPECT_TRUE(KOLVServiceUserHomeIsEnabled(AUTH_LDAP, nullptr));
    EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(0, nullptr));

    Json::Value j;
    j["user_home"]["local"] = false;
    j["user_home"]["domain"] = true;
    m_sys.WritePlatformConfig(j);
    EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(AUTH_LOCAL, nullptr));
    EXPECT_TRUE(KOLVServiceUserHomeIsEnabled(AUTH_DOMAIN, nullptr));
    EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(AUTH_LDAP, nullptr)); // missing key

    ASSERT_EQ(0, unlink(m_sys.Path("/usr/kolv/etc/platform.conf").c_str()));
    EXPECT_TRUE(KOLVServiceUserHomeIsEnabled(AUTH_LOCAL, nullptr));
    EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(AUTH_DOMAIN, nullptr));
    EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(AUTH_LDAP, nullptr));
}

TEST_F(PlatformConfig, ServiceIsRunning) {
    EXPECT_FALSE(TRABServiceIsRunning(nullptr));
    EXPECT_FALSE(TRABServiceIsRunning("smb"));
    if (kolvtest::HavePostgres()) {
        EXPECT_TRUE(TRABServiceIsRunning("pgsql"));
    }
    // No server where libpq looks.
    std::string strOld = getenv("PGHOST") ? getenv("PGHOST") : "";
    setenv("PGHOST", m_sys.Path("/tmp").c_str(), 1);
    EXPECT_FALSE(TRABServiceIsRunning("pgsql"));
    if (strOld.empty())
        unsetenv("PGHOST");
    else
        setenv("PGHOST", strOld.c_str(), 1);
}

TEST_F(PlatformConfig, ConcurrentLookupsAgree) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 50; ++i) {
                KOLVUSER *pUser = nullptr;
                if (KOLVUserGetByUID(kAlice, &pUser) != 0 || std::string("alice") != pUser->szName) ++failures[t];
                KOLVUserFree(pUser);
                KOLVSHARE *pShare = nullptr;
                if (KOLVShareGet("homes", &pShare) != 0) ++failures[t];
                KOLVShareFree(pShare);
                TRABCSzList *pList = TRABGroupInfoListGet("bob", FALSE);
                if (TRABCSzListCount(pList) != 2) ++failures[t];
                TRABCSzListFree(pList);
                int n = 0;
                auto count = [](const KOLVUSER *, void *pArg) { return ++*static_cast<int *>(pArg), 0; };
                if (TRABUserInfoEnum(AUTH_LOCAL, nullptr, 0, -1, count, &n) < 5) ++failures[t];
                if (!KOLVServiceUserHomeIsEnabled(AUTH_LDAP, nullptr)) ++failures[t];
            }
        });
    }
    for (std::thread &th : threads)
        th.join();
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), failures);
}

} // namespace
