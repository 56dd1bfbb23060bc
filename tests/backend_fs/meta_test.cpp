/*
 * basic.json and metatext.json through the backend's Set and Get: the
 * per-key merge by request time, the ACL exception, deletion by null, and
 * concurrent writers of one object.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ParseJson;
using kolvtest::ReadFile;

class MetaTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        KOLVVESSA_BACKEND_FS fs;
        Json::Value jParm;
        jParm["ns"] = "note";
        jParm["owner"] = kolvtest::kAlice;
        ASSERT_TRUE(fs.mf_init(jParm, true)) << kolvtest::StackText();
        ASSERT_TRUE(fs.mf_CreatePath()) << kolvtest::StackText();
        m_strId = fs.m_jParm["id"].asString();
        m_strBase = fs.m_jPathInfo["id_path"].asString();
    }

    Json::Value Request(long long mtime) const {
        Json::Value j;
        j["ns"] = "note";
        j["id"] = m_strId;
        j["version"] = "";
        if (mtime >= 0) j["mtime"] = (Json::Int64)mtime;
        return j;
    }

    bool Set(const Json::Value &jParm) const {
        std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
        std::string strVer = "unchanged";
        bool bl = pFs->Set(jParm, strVer);
        EXPECT_EQ("unchanged", strVer); // no versioned field, no commit
        return bl;
    }

    Json::Value File(const char *szName) const { return ParseJson(ReadFile(m_strBase + "/" + szName)); }

    std::string m_strId;
    std::string m_strBase;
};

TEST_F(MetaTest, OlderRequestsNeverOverwriteNewerKeys) {
    Json::Value jReq = Request(100);
    jReq["category"] = "todo";
    jReq["acl"]["enabled"] = false;
    jReq["metatext"]["a"] = 1;
    jReq["metatext"]["b"] = 2;
    ASSERT_TRUE(Set(jReq)) << kolvtest::StackText();
    Json::Value jBasic = File("basic.json");
    EXPECT_EQ("todo", jBasic["basic"]["category"].asString());
    EXPECT_EQ(100, jBasic["auto_mtime"]["category"].asInt64());
    EXPECT_EQ(100, jBasic["auto_mtime"]["acl"].asInt64());

    // Older: known keys stay, new keys come in, the ACL applies regardless.
    jReq = Request(50);
    jReq["category"] = "done";
    jReq["acl"]["enabled"] = true;
    jReq["metatext"]["a"] = 9;
    jReq["metatext"]["c"] = 3;
    ASSERT_TRUE(Set(jReq)) << kolvtest::StackText();
    jBasic = File("basic.json");
    EXPECT_EQ("todo", jBasic["basic"]["category"].asString());
    EXPECT_TRUE(jBasic["basic"]["acl"]["enabled"].asBool());
    Json::Value jMeta = File("metatext.json");
    EXPECT_EQ(1, jMeta["metatext"]["a"].asInt());
    EXPECT_EQ(3, jMeta["metatext"]["c"].asInt());
    EXPECT_EQ(50, jMeta["auto_mtime"]["c"].asInt64());

    // Equal times lose: the first writer of a second keeps the key.
    jReq = Request(100);
    jReq["metatext"]["b"] = 7;
    ASSERT_TRUE(Set(jReq));
    EXPECT_EQ(2, File("metatext.json")["metatext"]["b"].asInt());

    // A newer null removes the key; its time stays behind.
    jReq = Request(200);
    jReq["metatext"]["a"] = Json::Value();
    jReq["metatext"]["b"] = "new";
    ASSERT_TRUE(Set(jReq));
    jMeta = File("metatext.json");
    EXPECT_FALSE(jMeta["metatext"].isMember("a"));
    EXPECT_EQ(200, jMeta["auto_mtime"]["a"].asInt64());
    EXPECT_EQ("new", jMeta["metatext"]["b"].asString());

    // A request without a time is stamped with the current one.
    time_t before = time(NULL);
    jReq = Request(-1);
    jReq["metatext"]["d"] = 4;
    ASSERT_TRUE(Set(jReq));
    EXPECT_LE((long long)before, File("metatext.json")["auto_mtime"]["d"].asInt64());

    // Read back into a record, without touching the version store.
    Json::Value jGet;
    jGet["ns"] = "note";
    jGet["id"] = m_strId;
    jGet["field"]["ver"] = false;
    jGet["field"]["mtime"] = false;
    jGet["field"]["metatext"] = true;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
    KOLV_VESSA_OBJECT object;
    ASSERT_TRUE(pFs->Get(jGet, &object)) << kolvtest::StackText();
    EXPECT_EQ("todo", object.get_category());
    EXPECT_TRUE(object.get_acl()["enabled"].asBool());
    Json::Value jText = object.get_metatext();
    EXPECT_EQ(3u, jText.size());
    EXPECT_EQ("new", jText["b"].asString());
    EXPECT_EQ(kolvtest::kAlice, object.get_owner());
}

TEST_F(MetaTest, EmptyMetatextCreatesAnEmptyMember) {
    Json::Value jReq = Request(10);
    jReq["metatext"] = Json::Value(Json::objectValue);
    ASSERT_TRUE(Set(jReq)) << kolvtest::StackText();
    Json::Value jMeta = File("metatext.json");
    ASSERT_TRUE(jMeta["metatext"].isObject());
    EXPECT_EQ(0u, jMeta["metatext"].size());

    // A null for a key that is not there is nothing to remove.
    jReq["metatext"]["ghost"] = Json::Value();
    ASSERT_TRUE(Set(jReq));
    EXPECT_FALSE(File("metatext.json")["metatext"].isMember("ghost"));
}

TEST_F(MetaTest, SetOfAMissingObjectFailsWithoutMakingIt) {
    Json::Value jReq = Request(10);
    jReq["id"] = "1101_FFFF";
    jReq["metatext"]["a"] = 1;
    EXPECT_FALSE(Set(jReq));
    EXPECT_EQ(1008, KOLVVessaErrCodeGet());
    EXPECT_EQ("!TRABCFileCheckDir(m_jPathInfo[KOLVVES_ID_PATH].asCString())", kolvtest::OriginMsg());
    EXPECT_FALSE(TRABCFileExist((m_sys.Repo() + "/note/1101_FFFF").c_str()));

    jReq.removeMember("version");
    EXPECT_FALSE(Set(jReq));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jParm.isMember(\"version\")", kolvtest::OriginMsg());
}

TEST_F(MetaTest, CreateWritesTheFilesOfANewObject) {
    Json::Value jParm;
    jParm["ns"] = "note";
    jParm["owner"] = kolvtest::kBob;
    jParm["mtime"] = 77;
    jParm["category"] = "memo";
    jParm["metatext"]["k"] = "v";
    jParm["version"] = "abc";
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
    std::string strId, strVer;
    EXPECT_FALSE(pFs->Create(jParm, strId, strVer));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("jParm.isMember(\"version\")", kolvtest::OriginMsg());
    std::string strList;
    ASSERT_EQ(0, kolvtest::RunCommand("ls '" + m_sys.Repo() + "/note'", &strList));
    EXPECT_EQ(m_strId + "\n", strList); // only the object made for every test

    jParm.removeMember("version");
    ASSERT_TRUE(pFs->Create(jParm, strId, strVer)) << kolvtest::StackText();
    std::string strBase = m_sys.Repo() + "/note/" + strId;
    EXPECT_EQ(0u, strId.find("1102_"));
    Json::Value jBasic = ParseJson(ReadFile(strBase + "/basic.json"));
    EXPECT_EQ("memo", jBasic["basic"]["category"].asString());
    EXPECT_EQ(77, jBasic["auto_mtime"]["category"].asInt64());
    EXPECT_EQ("v", ParseJson(ReadFile(strBase + "/metatext.json"))["metatext"]["k"].asString());
    // The object's lock file is its owner's like the rest of the folder.
    struct stat st;
    ASSERT_EQ(0, stat((strBase + "/.lock").c_str(), &st));
    if (0 == geteuid()) {
        EXPECT_EQ(kolvtest::kBob, st.st_uid);
    }

    // The unversioned units read back together.
    Json::Value jGet;
    jGet["ns"] = "note";
    jGet["id"] = strId;
    jGet["field"]["ver"] = false;
    jGet["field"]["mtime"] = false;
    jGet["field"]["metatext"] = true;
    jGet["field"]["metabinary_info"] = true;
    KOLV_VESSA_OBJECT object;
    ASSERT_TRUE(pFs->Get(jGet, &object)) << kolvtest::StackText();
    EXPECT_EQ("memo", object.get_category());
    EXPECT_EQ("v", object.get_metatext()["k"].asString());
    EXPECT_EQ(Json::Value(Json::objectValue), object.get_metabinary_info());
    EXPECT_EQ(kolvtest::kBob, object.get_owner());
}

TEST_F(MetaTest, ConcurrentWritersNeverLoseKeys) {
    const int kMerges = 500;
    pid_t rgPid[2];
    for (int child = 0; child < 2; ++child) {
        rgPid[child] = fork();
        ASSERT_LE(0, rgPid[child]);
        if (0 != rgPid[child]) continue;
        int failures = 0;
        for (int i = 0; i < kMerges; ++i) {
            Json::Value jReq = Request(1000 + i);
            jReq["metatext"]["p" + std::to_string(child) + "_" + std::to_string(i)] = i;
            std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
            std::string strVer;
            if (!pFs->Set(jReq, strVer)) ++failures;
        }
        _exit(failures ? 1 : 0);
    }
    for (pid_t pid : rgPid) {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status));
    }
    Json::Value jMeta = File("metatext.json");
    EXPECT_EQ(2u * kMerges, jMeta["metatext"].size());
    for (int child = 0; child < 2; ++child) {
        for (int i = 0; i < kMerges; ++i) {
            std::string strKey = "p" + std::to_string(child) + "_" + std::to_string(i);
            ASSERT_TRUE(jMeta["metatext"].isMember(strKey)) << strKey;
        }
    }
}

} // namespace
