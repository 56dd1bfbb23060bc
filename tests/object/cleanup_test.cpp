/*
 * Clean-up by user: every object of one owner, and every object of owners
 * who are no longer local users, gone from the file store and the index
 * while everybody else's objects stay.
 */
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::StackText;

class CleanupTest : public objtest::IndexedStoreTest {
  protected:
    void SetUp() override {
        objtest::IndexedStoreTest::SetUp();
        Json::Value j;
        j["Access"]["enable"] = true;
        j["Access"]["enable_ns_note"] = true;
        j["Access"]["enable_ns_todo"] = true;
        m_sys.WriteSettings(j);
    }
    // An object of requester in ns, under strParent when given.
    std::string Make(unsigned requester, const std::string &strNs, const std::string &strParent = "") {
        Json::Value jParm;
        jParm["ns"] = strNs;
        jParm["category"] = "memo";
        jParm["requester"] = requester;
        jParm["acl"]["enabled"] = false;
        if (!strParent.empty()) jParm["parent_id"] = strParent;
        KOLV_VESSA_OBJECT obj;
        if (!obj.Create(jParm)) ADD_FAILURE() << "create failed: " << StackText();
        return obj.get_id();
    }
    // A book with a note under it in "note" and one in "todo", made by uid
    // in a child process: this process, like a maintenance tool, never
    // sees uid as a valid owner.
    std::vector<std::pair<std::string, std::string>> MakeElsewhere(unsigned uid) {
        const std::string strIds = m_sys.Path("/tmp/made.ids");
        pid_t pid = fork();
        if (0 == pid) {
            std::string strBook = Make(uid, "note");
            kolvtest::WriteFile(strIds, strBook + " " + Make(uid, "note", strBook) + " " + Make(uid, "todo"));
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        EXPECT_TRUE(0 < pid && pid == waitpid(pid, &status, 0) && 0 == status);
        std::istringstream iss(kolvtest::ReadFile(strIds));
        std::vector<std::pair<std::string, std::string>> vMade = {{"note", ""}, {"note", ""}, {"todo", ""}};
        for (auto &obj : vMade)
            iss >> obj.second;
        return vMade;
    }
    // The platform's users, with uid changed by change (or left out when
    // it gives false).
    void ChangeUser(unsigned uid, const std::function<bool(Json::Value &)> &change) {
        Json::Value jConfig = kolvtest::Sysroot::DefaultPlatformConfig();
        Json::Value jUsers(Json::arrayValue);
        for (Json::Value jUser : jConfig["users"]) {
            if (jUser["uid"].asUInt() != uid || change(jUser)) jUsers.append(jUser);
        }
        jConfig["users"] = jUsers;
        m_sys.WritePlatformConfig(jConfig);
    }
    bool OnDisk(const std::string &strNs, const std::string &strID) const {
        struct stat st;
        return 0 == lstat((m_sys.Repo() + "/" + strNs + "/" + strID).c_str(), &st);
    }
};

TEST_F(CleanupTest, ByUidRefusesRootAndNoUserAndTakesEveryNamespaceOfThatOwnerOnly) {
    // Refused before anything is listed: with no index server at all the
    // refusal is still the uid's.
    std::string strHost = getenv("PGHOST");
    setenv("PGHOST", "/nonexistent", 1);
    EXPECT_FAILS(KOLVVessaObjectDeleteByUid(UID_ROOT), 1015, "UID_ERR == uid || UID_ROOT == uid");
    EXPECT_FAILS(KOLVVessaObjectDeleteByUid(UID_ERR), 1015, "UID_ERR == uid || UID_ROOT == uid");
    setenv("PGHOST", strHost.c_str(), 1);

    // alice's account has expired: her objects cannot be read as hers
    // any more, and still go.
    std::vector<std::pair<std::string, std::string>> vAlice = MakeElsewhere(kAlice);
    ChangeUser(kAlice, [](Json::Value &jUser) { return (jUser["expired"] = true).asBool(); });
    std::string strBobs = Make(kBob, "note");
    std::string strBobsTodo = Make(kBob, "todo");
    ASSERT_EQ("5", Rows("TRUE"));

    // A user without objects: nothing to do, nothing touched.
    ASSERT_TRUE(KOLVVessaObjectDeleteByUid(kolvtest::kEve)) << StackText();
    ASSERT_EQ("5", Rows("TRUE"));

    ASSERT_TRUE(KOLVVessaObjectDeleteByUid(kAlice)) << StackText();
    EXPECT_EQ("0", Rows("owner = 1101"));
    for (const auto &obj : vAlice)
        EXPECT_FALSE(OnDisk(obj.first, obj.second)) << obj.first << "/" << obj.second;
    EXPECT_EQ("2", Rows("owner = 1102"));
    EXPECT_TRUE(OnDisk("note", strBobs));
    EXPECT_TRUE(OnDisk("todo", strBobsTodo));
}

// bob leaves the appliance; his objects, which nobody can read any more,
// still go, while alice's stay. A listing that fails, or a user table that
// cannot be read, deletes nothing.
TEST_F(CleanupTest, OrphansOfARemovedUserGoAndTheOthersStay) {
    std::vector<std::pair<std::string, std::string>> vBob = MakeElsewhere(kBob);
    std::string strAlices = Make(kAlice, "note");
    ASSERT_EQ("4", Rows("TRUE"));

    kolvtest::WriteFile(m_sys.Path("/usr/kolv/etc/platform.conf"), "{\"users\":[");
    EXPECT_FALSE(KOLVVessaObjectDeleteNonExistDirSvsUid());
    EXPECT_EQ("4", Rows("TRUE"));
    ChangeUser(kBob, [](Json::Value &) { return false; });
    // The index cannot be listed: nothing is deleted.
    KOLVFaultArm(1);
    EXPECT_FALSE(KOLVVessaObjectDeleteNonExistDirSvsUid());
    EXPECT_TRUE(KOLVFaultFired());
    EXPECT_EQ("4", Rows("TRUE"));

    ASSERT_TRUE(KOLVVessaObjectDeleteNonExistDirSvsUid()) << StackText();
    EXPECT_EQ("0", Rows("owner = 1102"));
    for (const auto &obj : vBob)
        EXPECT_FALSE(OnDisk(obj.first, obj.second)) << obj.first << "/" << obj.second;
    EXPECT_EQ("1", Rows("owner = 1101"));
    EXPECT_TRUE(OnDisk("note", strAlices));
}

} // namespace
