// Users, owners and the repository location, on the demo users and the
// "homes" share of the test sysroot.
#include <errno.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

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

constexpr uid_t kUnknown = 4242;

// Pushes a marker so that a call that reports nothing can be told apart.
void PushMarker() {
    KOLVVessaErrSetEx(1016, "marker", 1, "marker");
}

} // namespace

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
    EXPECT_EQ(
        kolvtest::ParseJson(R"({"name":"alice","mail":"alice@example.com","exist":true,"expire":false,"gid":100})"),
        jInfo);
    EXPECT_TRUE(KOLVVessaCheckUID(kAlice));

    std::string strName, strMail = "kept";
    unsigned int gid = 0;
    ASSERT_TRUE(KOLVVessaGetUserInfo(kUnknown, jInfo, false));
    EXPECT_EQ(kolvtest::ParseJson(R"({"name":"Deleted user #4242","mail":"","exist":false,"expire":true,"gid":-1})"),
              jInfo);
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
}

TEST_F(Users, FactsAreKeptOnceSeen) {
    std::string strName;
    ASSERT_TRUE(KOLVVessaGetUserName(kAlice, strName, true));
    // The platform forgets alice; this process keeps what it saw.
    Json::Value jConfig = kolvtest::Sysroot::DefaultPlatformConfig();
    jConfig["users"] = Json::Value(Json::arrayValue);
    m_sys.WritePlatformConfig(jConfig);
    ASSERT_TRUE(KOLVVessaGetUserName(kAlice, strName, true));
    EXPECT_EQ("alice", strName);
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kAlice));
}

TEST_F(Users, OwnerTestAndItsCache) {
    EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(UID_ROOT));
    EXPECT_EQ(1007, KOLVVessaErrCodeGet());
    EXPECT_EQ("UID_ROOT == owner || UID_ERR == owner", kolvtest::OriginMsg());
    EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(UID_ERR));
    EXPECT_EQ(1007, KOLVVessaErrCodeGet());

    EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(kUnknown));
    EXPECT_EQ(1022, KOLVVessaErrCodeGet());
    EXPECT_EQ("!KOLVVessaGetUserInfo(owner, jsInfo, true)", kolvtest::OriginMsg());

    EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(kCarol));
    EXPECT_EQ(1030, KOLVVessaErrCodeGet());
    EXPECT_EQ("jsInfo[\"expire\"].asBool()", kolvtest::OriginMsg());

    // Domain users depend on the domain switch, off in the default config.
    EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(kDave));
    EXPECT_EQ(1011, KOLVVessaErrCodeGet());
    EXPECT_EQ("FALSE == KOLVServiceUserHomeIsEnabled(authType, NULL)", kolvtest::OriginMsg());
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kEve));
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kAlice));

    // Answers are kept, failures included, and a kept failure reports
    // nothing new; switching the settings later changes nothing.
    SetUserHome(true, false);
    PushMarker();
    for (uid_t uid : {UID_ROOT, kUnknown, kCarol, kDave})
        EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(uid)) << uid;
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kEve));
    EXPECT_EQ(1016, KOLVVessaErrCodeGet());
    EXPECT_EQ("marker", kolvtest::StackText());
}

TEST_F(Users, AuthTypeFollowsTheName) {
    // A fresh process: domain on, directory off.
    SetUserHome(true, false);
    EXPECT_TRUE(KOLVVessaObjectOwnerIsValid(kDave));
    EXPECT_FALSE(KOLVVessaObjectOwnerIsValid(kEve));
    EXPECT_EQ(1011, KOLVVessaErrCodeGet());
    EXPECT_EQ("FALSE == KOLVServiceUserHomeIsEnabled(authType, NULL)", kolvtest::OriginMsg());
}

TEST_F(Users, ConcurrentFirstLookupsAgree) {
    // Threads race to fill the empty caches; every one sees the same facts.
    std::vector<std::thread> threads;
    std::vector<int> vWrong(8, 0);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t, &vWrong] {
            std::string strName, strRepo;
            for (uid_t uid : {kAlice, kolvtest::kBob, kCarol, kEve}) {
                if (!KOLVVessaGetUserName(uid, strName, true)) ++vWrong[t];
            }
            if (!KOLVVessaObjectOwnerIsValid(kAlice) || KOLVVessaObjectOwnerIsValid(kCarol)) ++vWrong[t];
            if (!KOLVVessaGetRepoPath(strRepo)) ++vWrong[t];
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

TEST_F(Repository, ObjectDirectoryAndMetaBinary) {
    std::string strRepo;
    ASSERT_TRUE(KOLVVessaGetRepoPath(strRepo));
    EXPECT_EQ(m_sys.Repo(), strRepo);

    std::string strID = KOLVVessaObjectGenerateID(kAlice);
    EXPECT_FALSE(KOLVVessaIDIsExist("note", strID));
    ASSERT_EQ(0, kolvtest::RunCommand("mkdir -p '" + strRepo + "/note/" + strID + "/metabinary'"));
    EXPECT_TRUE(KOLVVessaIDIsExist("note", strID));

    std::string strPath;
    std::string strWant = strRepo + "/note/" + strID + "/metabinary/{100}G{104}1{98}WI{117}{99}G5{110}";
    EXPECT_FALSE(KOLVVessaGetMetaBinaryPath("note", strID, "thumb.png", strPath));
    EXPECT_EQ(strWant, strPath);
    EXPECT_EQ("FALSE == TRABCFileExist(strPath.c_str())", KOLVVessaErrMsgGet()[0]["msg"].asString());
    kolvtest::WriteFile(strWant, "png");
    EXPECT_TRUE(KOLVVessaGetMetaBinaryPath("note", strID, "thumb.png", strPath));

    EXPECT_FALSE(KOLVVessaGetMetaBinaryPath("note", strID, "", strPath));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("NULL == szIn || 0 == nIn\n"
              "!KOLVVessaEncode((const unsigned char *)strName.c_str(), (size_t)strName.length(), strEncodedFilename)",
              kolvtest::StackText());
}

TEST_F(Repository, UnsafeNamesAreRefused) {
    std::string strPath = "untouched";
    for (const char *szID : {"1026_../../x", "1026_a/b", "..", ""}) {
        EXPECT_FALSE(KOLVVessaIDIsExist("note", szID)) << szID;
        EXPECT_EQ(1007, KOLVVessaErrCodeGet());
        EXPECT_EQ("!kolv::IsSafePathName(strID)", kolvtest::OriginMsg());
        EXPECT_FALSE(KOLVVessaGetMetaBinaryPath("note", szID, "f", strPath)) << szID;
        EXPECT_EQ("!kolv::IsSafePathName(strID)", kolvtest::OriginMsg());
    }
    for (const char *szNs : {"..", "a/b", "", "."}) {
        EXPECT_FALSE(KOLVVessaIDIsExist(szNs, "1026_1")) << szNs;
        EXPECT_EQ(1007, KOLVVessaErrCodeGet());
        EXPECT_EQ("!kolv::IsSafePathName(strNs)", kolvtest::OriginMsg());
        EXPECT_FALSE(KOLVVessaGetMetaBinaryPath(szNs, "1026_1", "f", strPath)) << szNs;
        EXPECT_EQ("!kolv::IsSafePathName(strNs)", kolvtest::OriginMsg());
        EXPECT_EQ("", KOLVVessaAppPrivName(szNs));
    }
    EXPECT_EQ("untouched", strPath);
}

TEST_F(Repository, BrokenHomesShareStopsLaterCallers) {
    Json::Value jConfig = kolvtest::Sysroot::DefaultPlatformConfig();
    jConfig["shares"].removeMember("homes");
    m_sys.WritePlatformConfig(jConfig);
    // The share mutex stays locked after the failure, so look from a
    // child that nobody else has to use afterwards.
    pid_t pid = fork();
    if (0 == pid) {
        std::string strRepo;
        int ret = 0;
        if (KOLVVessaGetRepoPath(strRepo)) ret |= 1;
        if (1000 != KOLVVessaErrCodeGet()) ret |= 2;
        if ("0 > KOLVShareGet(SZK_SECTION_HOMES, &pShare)" != kolvtest::OriginMsg()) ret |= 4;
        if (EBUSY != pthread_mutex_trylock(&tShare)) ret |= 8;
        _exit(ret);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(Repository, AppPrivilegeOfNamespace) {
    std::string strDir = m_sys.Path("/usr/local/libexec/kolvvessa/");
    kolvtest::WriteFile(strDir + "note.lib", R"({"app priv":"NOTE_APP"})");
    kolvtest::WriteFile(strDir + "num.lib", R"({"app priv":7})");
    kolvtest::WriteFile(strDir + "bad.lib", R"({"app priv":)");
    EXPECT_EQ("NOTE_APP", KOLVVessaAppPrivName("note"));
    for (const char *szNs : {"num", "bad", "missing"})
        EXPECT_EQ("", KOLVVessaAppPrivName(szNs)) << szNs;
}
