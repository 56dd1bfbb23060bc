/* The platform config: shares, users, groups, user-home switches, services. */
#include <grp.h>
#include <kolvplatform/kolv_platform.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "support/kolv_test_support.h"

namespace {

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
    pShare = reinterpret_cast<KOLVSHARE *>(1);
    EXPECT_LT(KOLVShareGet("photo", &pShare), 0);
    EXPECT_EQ(nullptr, pShare);

    // The config is read on each call; a missing or broken file has no shares.
    Json::Value j = kolvtest::Sysroot::DefaultPlatformConfig();
    j["shares"]["photo"] = "/volume2/photo";
    m_sys.WritePlatformConfig(j);
    ASSERT_EQ(0, KOLVShareGet("photo", &pShare));
    EXPECT_EQ(m_sys.Path("/volume2/photo"), pShare->szPath);
    KOLVShareFree(pShare);
    kolvtest::WriteFile(m_sys.Path("/usr/kolv/etc/platform.conf"), "{\"shares\": ");
    EXPECT_LT(KOLVShareGet("homes", &pShare), 0);
    ASSERT_EQ(0, unlink(m_sys.Path("/usr/kolv/etc/platform.conf").c_str()));
    EXPECT_LT(KOLVShareGet("homes", &pShare), 0);
}

TEST_F(PlatformConfig, UsersAndGroupsComeFromTheTableBeforeNss) {
    // The table's facts as the library sees them: tests/common/user_test.cpp.
    KOLVUSER *pUser = nullptr;
    ASSERT_EQ(0, KOLVUserGet("DOM\\dave", &pUser));
    EXPECT_EQ(kolvtest::kDave, pUser->uid);
    KOLVUserFree(pUser);
    ASSERT_EQ(0, KOLVUserGetByUID(0, &pUser)); // NSS
    EXPECT_STREQ("root", pUser->szName);
    EXPECT_STREQ("", pUser->szMail);
    KOLVUserFree(pUser);
    uid_t uidUnknown = 3999999;
    while (getpwuid(uidUnknown))
        ++uidUnknown;
    EXPECT_NE(0, KOLVUserGetByUID(uidUnknown, &pUser));
    EXPECT_EQ(nullptr, pUser);
    EXPECT_NE(0, KOLVUserGet("no-such-user-here", &pUser));

    // Groups: the primary first, the others once.
    EXPECT_EQ((std::vector<std::string>{"100", "2001"}), Groups("alice"));
    EXPECT_EQ((std::vector<std::string>{"100"}), Groups("carol"));
    EXPECT_EQ((std::vector<std::string>{"<null>"}), Groups("no-such-user-here"));
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

    // A table user wins over the NSS user of the same uid or name.
    Json::Value j = kolvtest::Sysroot::DefaultPlatformConfig();
    j["users"].append(kolvtest::ParseJson(R"({"uid":0,"name":"boss","gid":7,"groups":[8]})"));
    j["users"].append(kolvtest::ParseJson(R"({"uid":4242,"name":"root"})"));
    m_sys.WritePlatformConfig(j);
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

TEST_F(PlatformConfig, UserHomeSwitchesAndServices) {
    auto expect = [](bool blLocal, bool blDomain, bool blLdap) {
        EXPECT_EQ(blLocal, (bool)KOLVServiceUserHomeIsEnabled(AUTH_LOCAL, nullptr));
        EXPECT_EQ(blDomain, (bool)KOLVServiceUserHomeIsEnabled(AUTH_DOMAIN, nullptr));
        EXPECT_EQ(blLdap, (bool)KOLVServiceUserHomeIsEnabled(AUTH_LDAP, nullptr));
        EXPECT_FALSE(KOLVServiceUserHomeIsEnabled(0, nullptr));
    };
    expect(true, false, true);
    m_sys.WritePlatformConfig(kolvtest::ParseJson(R"({"user_home":{"local":false,"domain":true}})"));
    expect(false, true, false); // a missing key is off
    ASSERT_EQ(0, unlink(m_sys.Path("/usr/kolv/etc/platform.conf").c_str()));
    expect(true, false, false); // the defaults without a file
    // Only the database service is known; whether it runs is the index
    // tests' business (tests/index/index_db_test.cpp).
    EXPECT_FALSE(TRABServiceIsRunning(nullptr));
    EXPECT_FALSE(TRABServiceIsRunning("smb"));
}

} // namespace
