// Users, owners and the repository location, on the demo users and the
// "homes" share of the test sysroot.
#include <string>
#include <thread>
#include <vector>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kCarol;
using kolvtest::kDave;
using kolvtest::kEve;
using kolvtest::ParseJson;

constexpr uid_t kUnknown = 4242;
const char *const kHomeOff = "FALSE == KOLVServiceUserHomeIsEnabled(authType, NULL)";

class Users : public kolvtest::SysrootTest {
  protected:
    // Sets the user-home switches of domain and directory users.
    void SetUserHome(bool blDomain, bool blDirectory) {
        Json::Value jConfig = kolvtest::Sysroot::DefaultPlatformConfig();
        jConfig["user_home"]["domain"] = blDomain;
        jConfig["user_home"]["directory"] = blDirectory;
        m_sys.WritePlatformConfig(jConfig);
    }
};

TEST_F(Users, FactsOfKnownUnknownAndAnonymous) {
    Json::Value jInfo;
    ASSERT_TRUE(KOLVVessaGetUserInfo(kAlice, jInfo, true));
    EXPECT_EQ(ParseJson(R"({"name":"alice","mail":"alice@example.com","exist":true,"expire":false,"gid":100})"), jInfo);
    EXPECT_TRUE(KOLVVessaCheckUID(kAlice));

    std::string strName, strMail = "kept";
    unsigned int gid = 0;
    ASSERT_TRUE(KOLVVessaGetUserInfo(kUnknown, jInfo, false));
    EXPECT_EQ(ParseJson(R"({"name":"Deleted user #4242","mail":"","exist":false,"expire":true,"gid":-1})"), jInfo);
    EXPECT_FALSE(KOLVVessaCheckUID(kUnknown));
    EXPECT_FALSE(KOLVVessaGetUserInfo(kUnknown, jInfo, true));
    EXPECT_EQ(Json::Value(Json::objectValue), jInfo);
    EXPECT_FALSE(KOLVVessaGetUserName(kUnknown, strName, true));
    EXPECT_TRUE(strName.empty());
    ASSERT_TRUE(KOLVVessaGetGID(kUnknown, gid, false));
    EXPECT_EQ((unsigned)-1, gid);

    ASSERT_TRUE(KOLVVessaGetUserNameAndMail(UID_ERR, strName, strMail, false));
    EXPECT_EQ("Anonymous", strName);
    EXPECT_EQ("kept", strMail);
    EXPECT_FALSE(KOLVVessaGetUserName(UID_ERR, strName, true));
    ASSERT_TRUE(KOLVVessaGetUserInfo(UID_ERR, jInfo, false));
    EXPECT_EQ("Anonymous", jInfo["name"].asString());
    EXPECT_TRUE(jInfo["expire"].asBool());
    EXPECT_FALSE(KOLVVessaCheckUID(UID_ERR));

    // The platform forgets alice; this process keeps what it saw.
    Json::Value jConfig = kolvtest::Sysroot::DefaultPlatformConfig();
    jConfig["users"] = Json::Value(Json::arrayValue);
    m_sys.WritePlatformConfig(jConfig);
    ASSERT_TRUE(KOLVVessaGetUserName(kAlice, strName, true));
    EXPECT_EQ("alice", strName);
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kAlice));
}

TEST_F(Users, OwnerTestAndItsCache) {
    EXPECT_FAILS(KOLVVessaObjectOwnerIsValid(UID_ROOT), 1007, "UID_ROOT == owner || UID_ERR == owner");
    EXPECT_FAILS(KOLVVessaObjectOwnerIsValid(UID_ERR), 1007, "UID_ROOT == owner || UID_ERR == owner");
    EXPECT_FAILS(KOLVVessaObjectOwnerIsValid(kUnknown), 1022, "!KOLVVessaGetUserInfo(owner, jsInfo, true)");
    EXPECT_FAILS(KOLVVessaObjectOwnerIsValid(kCarol), 1030, "jsInfo[\"expire\"].asBool()");
    // Domain users depend on the domain switch, off in the default config.
    EXPECT_FAILS(KOLVVessaObjectOwnerIsValid(kDave), 1011, kHomeOff);
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kEve));
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kAlice));

    // Answers are kept, failures included, and a kept failure reports
    // nothing new; switching the settings later changes nothing.
    SetUserHome(true, false);
    KOLVVessaErrSetEx(1016, "marker", 1, "marker");
    for (uid_t uid : {UID_ROOT, kUnknown, kCarol, kDave})
        EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(uid)) << uid;
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kEve));
    EXPECT_TRUE(kolvtest::ErrIs(1016, "marker"));
    EXPECT_EQ(1u, KOLVVessaErrMsgGet().size());
}

TEST_F(Users, AuthTypeFollowsTheName) {
    // A fresh process: domain on, directory off.
    SetUserHome(true, false);
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kDave));
    EXPECT_FAILS(KOLVVessaObjectOwnerIsValid(kEve), 1011, kHomeOff);
}

TEST_F(Users, ConcurrentFirstLookupsAgree) {
    // Threads race to fill the empty caches; every one sees the same facts.
    std::vector<std::thread> threads;
    std::vector<int> vWrong(8, 0);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t, &vWrong] {
            std::string strName, strRepo;
            for (uid_t uid : {kAlice, kolvtest::kBob, kCarol, kEve})
                vWrong[t] += !KOLVVessaGetUserName(uid, strName, true);
            vWrong[t] += !KOLVVessaObjectOwnerIsValid(kAlice) || KOLVVessaObjectOwnerIsValid(kCarol);
            vWrong[t] += !KOLVVessaGetRepoPath(strRepo);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(std::vector<int>(8, 0), vWrong);
    std::string strRepo;
    ASSERT_TRUE(KOLVVessaGetRepoPath(strRepo));
    EXPECT_EQ(m_sys.Repo(), strRepo);
}

class Repository : public kolvtest::SysrootTest {};

TEST_F(Repository, ObjectDirectoryMetaBinaryAndAppPrivilege) {
    std::string strDir = m_sys.Repo() + "/note/" + KOLVVessaObjectGenerateID(kAlice);
    std::string strID = strDir.substr(strDir.rfind('/') + 1);
    EXPECT_FALSE(KOLVVessaIDIsExist("note", strID));
    ASSERT_EQ(0, kolvtest::RunCommand("mkdir -p '" + strDir + "/metabinary'"));
    EXPECT_TRUE(KOLVVessaIDIsExist("note", strID));

    std::string strPath;
    std::string strWant = strDir + "/metabinary/{100}G{104}1{98}WI{117}{99}G5{110}";
    EXPECT_FALSE(KOLVVessaGetMetaBinaryPath("note", strID, "thumb.png", strPath));
    EXPECT_EQ(strWant, strPath);
    EXPECT_EQ("FALSE == TRABCFileExist(strPath.c_str())", kolvtest::OriginMsg());
    kolvtest::WriteFile(strWant, "png");
    EXPECT_TRUE(KOLVVessaGetMetaBinaryPath("note", strID, "thumb.png", strPath));

    EXPECT_FAILS(KOLVVessaGetMetaBinaryPath("note", strID, "", strPath), 1015, "NULL == szIn || 0 == nIn");

    // Names that would leave the repository are refused.
    strPath = "untouched";
    for (const char *szID : {"1026_../../x", "1026_a/b", "..", ""}) {
        EXPECT_FAILS(KOLVVessaIDIsExist("note", szID), 1007, "!kolv::IsSafePathName(strID)");
        EXPECT_FAILS(KOLVVessaGetMetaBinaryPath("note", szID, "f", strPath), 1007, "!kolv::IsSafePathName(strID)");
    }
    for (const char *szNs : {"..", "a/b", "", "."}) {
        EXPECT_FAILS(KOLVVessaIDIsExist(szNs, "1026_1"), 1007, "!kolv::IsSafePathName(strNs)");
        EXPECT_FAILS(KOLVVessaGetMetaBinaryPath(szNs, "1026_1", "f", strPath), 1007, "!kolv::IsSafePathName(strNs)");
        EXPECT_EQ("", KOLVVessaAppPrivName(szNs));
    }
    EXPECT_EQ("untouched", strPath);

    // The app privilege named by a namespace's descriptor.
    std::string strLib = m_sys.Path("/usr/local/libexec/kolvvessa/");
    kolvtest::WriteFile(strLib + "note.lib", R"({"app priv":"NOTE_APP"})");
    kolvtest::WriteFile(strLib + "num.lib", R"({"app priv":7})");
    kolvtest::WriteFile(strLib + "bad.lib", R"({"app priv":)");
    EXPECT_EQ("NOTE_APP", KOLVVessaAppPrivName("note"));
    for (const char *szNs : {"num", "bad", "missing"})
        EXPECT_EQ("", KOLVVessaAppPrivName(szNs)) << szNs;
}

} // namespace
