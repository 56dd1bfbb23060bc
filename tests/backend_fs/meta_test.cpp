/*
 * basic.json, metatext.json and the meta binary store through the
 * backend's Set and Get: the per-key merge by request time, the ACL
 * exception, deletion by null, files stored under their encoded names with
 * an info record each, and concurrent writers of one object.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ParseJson;
using kolvtest::ReadFile;

const char *const kMd5Hello = "5d41402abc4b2a76b9719d911017c592";

/* One object of alice's, made for every test. */
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
        m_jPathInfo = fs.m_jPathInfo;
    }

    /* A set request at mtime (none when negative). */
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

    /* Reads the unversioned units of strId (this test's object when empty). */
    void Get(KOLV_VESSA_OBJECT &object, const Json::Value &jMetaBinary = true, const std::string &strId = "") const {
        Json::Value jGet;
        jGet["ns"] = "note";
        jGet["id"] = strId.empty() ? m_strId : strId;
        jGet["field"] = ParseJson(R"({"ver":false,"mtime":false,"metatext":true})");
        jGet["field"]["metabinary_info"] = jMetaBinary;
        std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
        EXPECT_TRUE(pFs->Get(jGet, &object)) << kolvtest::StackText();
    }
    Json::Value MetaBinaryInfo(const Json::Value &jSelection = true) const {
        KOLV_VESSA_OBJECT object;
        Get(object, jSelection);
        return object.get_metabinary_info();
    }

    Json::Value File(const char *szName) const {
        return ParseJson(ReadFile(m_jPathInfo["id_path"].asString() + "/" + szName));
    }

    /* Meta binary items: a source file with content, and the request. */
    std::string Source(const std::string &strName, const std::string &strContent) const {
        std::string strPath = m_sys.Path("/" + strName);
        kolvtest::WriteFile(strPath, strContent);
        return strPath;
    }
    static Json::Value Item(const std::string &strName, const std::string &strFormat, const std::string &strPath) {
        Json::Value j;
        j["name"] = strName;
        j["format"] = strFormat;
        if (!strPath.empty()) j["path"] = strPath;
        return j;
    }
    bool SetItems(long long mtime, const Json::Value &jItem1, const Json::Value &jItem2 = Json::Value()) const {
        Json::Value jParm = Request(mtime);
        jParm["metabinary_files"].append(jItem1);
        if (!jItem2.isNull()) jParm["metabinary_files"].append(jItem2);
        return Set(jParm);
    }

    /* The stored file and its record, by the encoding callers use. */
    static std::string Encoded(const std::string &strName) {
        std::string str;
        EXPECT_TRUE(KOLVVessaEncode(strName, str));
        return str;
    }
    std::string FileOf(const std::string &strName) const {
        return m_jPathInfo["metabinary"].asString() + "/" + Encoded(strName);
    }
    Json::Value InfoOf(const std::string &strName) const {
        return ParseJson(ReadFile(m_jPathInfo["metabinary_info"].asString() + "/" + Encoded(strName)));
    }

    std::string m_strId;
    Json::Value m_jPathInfo;
};

TEST_F(MetaTest, KeysMergeByRequestTime) {
    // An empty "metatext" makes an empty member; a null for a missing key
    // is nothing to remove.
    Json::Value jReq = Request(10);
    jReq["metatext"] = Json::Value(Json::objectValue);
    ASSERT_TRUE(Set(jReq)) << kolvtest::StackText();
    EXPECT_EQ(Json::Value(Json::objectValue), File("metatext.json")["metatext"]);
    jReq["metatext"]["ghost"] = Json::Value();
    ASSERT_TRUE(Set(jReq));
    EXPECT_EQ(Json::Value(Json::objectValue), File("metatext.json")["metatext"]);

    jReq = Request(100);
    jReq["category"] = "todo";
    jReq["acl"]["enabled"] = false;
    jReq["metatext"] = ParseJson(R"({"a":1,"b":2})");
    ASSERT_TRUE(Set(jReq)) << kolvtest::StackText();
    Json::Value jBasic = File("basic.json");
    EXPECT_EQ("todo", jBasic["basic"]["category"].asString());
    EXPECT_EQ(ParseJson(R"({"category":100,"acl":100})"), jBasic["auto_mtime"]);

    // Older: known keys stay, new keys come in, the ACL applies regardless.
    jReq = Request(50);
    jReq["category"] = "done";
    jReq["acl"]["enabled"] = true;
    jReq["metatext"] = ParseJson(R"({"a":9,"c":3})");
    ASSERT_TRUE(Set(jReq)) << kolvtest::StackText();
    jBasic = File("basic.json");
    EXPECT_EQ("todo", jBasic["basic"]["category"].asString());
    EXPECT_TRUE(jBasic["basic"]["acl"]["enabled"].asBool());
    Json::Value jMeta = File("metatext.json");
    EXPECT_EQ(ParseJson(R"({"a":1,"b":2,"c":3})"), jMeta["metatext"]);
    EXPECT_EQ(50, jMeta["auto_mtime"]["c"].asInt64());

    // Equal times lose: the first writer of a second keeps the key.
    jReq = Request(100);
    jReq["metatext"]["b"] = 7;
    ASSERT_TRUE(Set(jReq));
    EXPECT_EQ(2, File("metatext.json")["metatext"]["b"].asInt());

    // A newer null removes the key; its time stays behind.
    jReq = Request(200);
    jReq["metatext"] = ParseJson(R"({"a":null,"b":"new"})");
    ASSERT_TRUE(Set(jReq));
    jMeta = File("metatext.json");
    EXPECT_EQ(ParseJson(R"({"b":"new","c":3})"), jMeta["metatext"]);
    EXPECT_EQ(200, jMeta["auto_mtime"]["a"].asInt64());

    // A request without a time is stamped with the current one.
    time_t before = time(NULL);
    jReq = Request(-1);
    jReq["metatext"]["d"] = 4;
    ASSERT_TRUE(Set(jReq));
    EXPECT_LE((long long)before, File("metatext.json")["auto_mtime"]["d"].asInt64());

    // Read back into a record, without touching the version store.
    KOLV_VESSA_OBJECT object;
    Get(object);
    EXPECT_EQ("todo", object.get_category());
    EXPECT_TRUE(object.get_acl()["enabled"].asBool());
    EXPECT_EQ(ParseJson(R"({"b":"new","c":3,"d":4})"), object.get_metatext());
    EXPECT_EQ(kolvtest::kAlice, object.get_owner());
}

TEST_F(MetaTest, CreateWritesTheFilesOfANewObjectAndSetNeedsOne) {
    Json::Value jReq = Request(10);
    jReq["id"] = "1101_FFFF";
    jReq["metatext"]["a"] = 1;
    EXPECT_FAILS(Set(jReq), 1008, "!kolv::fs::IsDir(m_jPathInfo[KOLVVES_ID_PATH].asString())");
    EXPECT_FALSE(TRABCFileExist((m_sys.Repo() + "/note/1101_FFFF").c_str()));
    jReq.removeMember("version");
    EXPECT_FAILS(Set(jReq), 1015, "!jParm.isMember(\"version\")");

    Json::Value jParm = ParseJson(R"({"ns":"note","owner":1102,"mtime":77,"category":"memo","metatext":{"k":"v"},
                                      "version":"abc"})");
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
    std::string strId, strVer;
    EXPECT_FAILS(pFs->Create(jParm, strId, strVer), 1015, "jParm.isMember(\"version\")");
    std::string strList;
    ASSERT_EQ(0, kolvtest::RunCommand("ls '" + m_sys.Repo() + "/note'", &strList));
    EXPECT_EQ(m_strId + "\n", strList); // nothing new
    jParm.removeMember("version");
    ASSERT_TRUE(pFs->Create(jParm, strId, strVer)) << kolvtest::StackText();
    std::string strBase = m_sys.Repo() + "/note/" + strId;
    EXPECT_EQ(0u, strId.find("1102_"));
    Json::Value jBasic = ParseJson(ReadFile(strBase + "/basic.json"));
    EXPECT_EQ("memo", jBasic["basic"]["category"].asString());
    EXPECT_EQ(77, jBasic["auto_mtime"]["category"].asInt64());
    // The object's lock file is its owner's like the rest of the folder.
    struct stat st;
    ASSERT_EQ(0, stat((strBase + "/.lock").c_str(), &st));
    EXPECT_TRUE(0 != geteuid() || kolvtest::kBob == st.st_uid);

    KOLV_VESSA_OBJECT object;
    Get(object, true, strId);
    EXPECT_EQ("v", object.get_metatext()["k"].asString());
    EXPECT_EQ(Json::Value(Json::objectValue), object.get_metabinary_info());
    EXPECT_EQ(kolvtest::kBob, object.get_owner());
}

TEST_F(MetaTest, MetaBinaryIsStoredReplacedAndDeletedByTime) {
    // Malformed items touch nothing.
    std::string strSrc = Source("hello", "hello");
    EXPECT_FAILS(SetItems(10, Item("a", "raw", strSrc), Item("b", "raw", "")), 1007,
                 "!blDelete && (!jItem[\"path\"].isString() || jItem[\"path\"].asString().empty())");
    EXPECT_FAILS(SetItems(10, Item("a", "raw", strSrc), Item("a", "delete", "")), 1007,
                 "jSeen.isMember(jItem[\"name\"].asString())");
    EXPECT_FAILS(SetItems(10, Item("", "raw", strSrc)), 1007,
                 "!jItem[\"name\"].isString() || jItem[\"name\"].asString().empty()");
    EXPECT_FAILS(SetItems(10, Item("a", "raw", m_sys.Path("/absent"))), 1023, "0 > fdAsRequester.get()");
    EXPECT_FALSE(TRABCFileExist(FileOf("a").c_str()));
    EXPECT_EQ(0u, MetaBinaryInfo().size());

    ASSERT_TRUE(SetItems(100, Item("a/b", "raw", strSrc))) << kolvtest::StackText();
    EXPECT_EQ("hello", ReadFile(FileOf("a/b")));
    EXPECT_EQ(
        ParseJson(std::string(R"({"name":"a/b","format":"raw","size":5,"mtime":100,"md5":")") + kMd5Hello + "\"}"),
        InfoOf("a/b"));

    // Newer replaces; older and equally old requests leave it alone.
    ASSERT_TRUE(SetItems(200, Item("a/b", "text/plain", Source("world", "world"))));
    EXPECT_EQ("world", ReadFile(FileOf("a/b")));
    EXPECT_EQ("7d793037a0760186574b0282f2f435e7", InfoOf("a/b")["md5"].asString());
    EXPECT_EQ("text/plain", InfoOf("a/b")["format"].asString());
    ASSERT_TRUE(SetItems(150, Item("a/b", "raw", Source("old", "old"))));
    ASSERT_TRUE(SetItems(200, Item("a/b", "raw", Source("same", "same"))));
    EXPECT_EQ("world", ReadFile(FileOf("a/b")));
    EXPECT_EQ(200, InfoOf("a/b")["mtime"].asInt64());

    // A delete obeys the same rule; deleting what is not there is no failure.
    ASSERT_TRUE(SetItems(199, Item("a/b", "delete", "")));
    EXPECT_TRUE(TRABCFileExist(FileOf("a/b").c_str()));
    ASSERT_TRUE(SetItems(300, Item("a/b", "delete", "")));
    EXPECT_FALSE(TRABCFileExist(FileOf("a/b").c_str()));
    EXPECT_EQ(0u, MetaBinaryInfo().size());
    EXPECT_TRUE(SetItems(400, Item("a/b", "delete", ""))) << kolvtest::StackText();
}

TEST_F(MetaTest, MetaBinaryNamesAreEncodedAndListedBack) {
    std::string strSrc = Source("src", "hello");
    const char *szWide = "\xC3\xA9\xE6\x96\x87"; // "é文"
    ASSERT_TRUE(SetItems(10, Item("a/b", "raw", strSrc), Item("..", "raw", strSrc))) << kolvtest::StackText();
    ASSERT_TRUE(SetItems(11, Item(szWide, "raw", strSrc))) << kolvtest::StackText();
    for (const char *szName : {"a/b", "..", szWide}) {
        std::string strEnc = Encoded(szName);
        EXPECT_EQ(std::string::npos, strEnc.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ{}")) << strEnc;
        EXPECT_EQ("hello", ReadFile(FileOf(szName))) << szName;
        // The repository's own lookup of a meta binary file agrees.
        std::string strPath;
        EXPECT_TRUE(KOLVVessaGetMetaBinaryPath("note", m_strId, szName, strPath));
        EXPECT_EQ(FileOf(szName), strPath);
    }
    Json::Value jAll = MetaBinaryInfo();
    ASSERT_EQ(3u, jAll.size());
    EXPECT_EQ(InfoOf(szWide), jAll[szWide]);
    EXPECT_EQ(kMd5Hello, jAll[".."]["md5"].asString());
    // A selection object picks names.
    Json::Value jSel = ParseJson(R"({"..":true})");
    Json::Value jSome = MetaBinaryInfo(jSel);
    ASSERT_EQ(1u, jSome.size());
    EXPECT_TRUE(jSome.isMember(".."));

    // The info record reads back by name; blAll ignores the selection.
    KOLVVESSA_BACKEND_FS fs;
    Json::Value jParm;
    jParm["ns"] = "note";
    jParm["id"] = m_strId;
    ASSERT_TRUE(fs.mf_init(jParm));
    Json::Value jInfo;
    ASSERT_TRUE(fs.mf_GetMetaBinaryInfoByName("a/b", jInfo));
    EXPECT_EQ(jAll["a/b"], jInfo);
    EXPECT_FAILS(fs.mf_GetMetaBinaryInfoByName("missing", jInfo), 1008, "!kolv::fs::Exists(strInfoPath)");
    fs.m_jParm["field"]["metabinary_info"] = jSel;
    KOLV_VESSA_OBJECT object;
    ASSERT_TRUE(fs.mf_GetMetaBinaryInfo(&object, true));
    EXPECT_EQ(3u, object.get_metabinary_info().size());
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
            failures += !pFs->Set(jReq, strVer);
        }
        _exit(failures ? 1 : 0);
    }
    for (pid_t pid : rgPid) {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status));
    }
    Json::Value jMeta = File("metatext.json");
    EXPECT_EQ(2u * kMerges, jMeta["metatext"].size()); // only these keys are ever written
}

} // namespace
