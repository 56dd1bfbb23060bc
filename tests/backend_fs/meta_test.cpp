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
using kolvtest::StackText;

const char *const kMd5Hello = "5d41402abc4b2a76b9719d911017c592";

/* One object of alice's, made for every test. */
class MetaTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        KOLVVESSA_BACKEND_FS fs;
        ASSERT_TRUE(fs.mf_init(ParseJson(R"({"ns":"note","owner":1101})"), true)) << StackText();
        ASSERT_TRUE(fs.mf_CreatePath()) << StackText();
        m_strId = fs.m_jParm["id"].asString();
        m_jPathInfo = fs.m_jPathInfo;
    }

    /* A set request at mtime (none when negative). */
    Json::Value Request(long long mtime) const {
        Json::Value j = ParseJson(R"({"ns":"note","version":""})");
        j["id"] = m_strId;
        if (mtime >= 0) j["mtime"] = (Json::Int64)mtime;
        return j;
    }
    static bool Set(const Json::Value &jParm) {
        std::string strVer = "unchanged";
        bool bl = std::unique_ptr<KOLVVESSA_BACKEND_OP>(CreateFsBackend())->Set(jParm, strVer);
        EXPECT_EQ("unchanged", strVer); // no versioned field, no commit
        return bl;
    }
    /* The unversioned units of strId (this test's object when empty) as
     * they read back into a record. */
    Json::Value Get(const Json::Value &jMetaBinary = true, const std::string &strId = "") const {
        Json::Value jGet = ParseJson(R"({"ns":"note","field":{"ver":false,"mtime":false,"metatext":true}})");
        jGet["id"] = strId.empty() ? m_strId : strId;
        jGet["field"]["metabinary_info"] = jMetaBinary;
        KOLV_VESSA_OBJECT object;
        EXPECT_TRUE(std::unique_ptr<KOLVVESSA_BACKEND_OP>(CreateFsBackend())->Get(jGet, &object)) << StackText();
        Json::Value j;
        j["owner"] = (Json::Int)object.get_owner();
        j["category"] = object.get_category();
        j["acl"] = object.get_acl();
        j["metatext"] = object.get_metatext();
        j["metabinary_info"] = object.get_metabinary_info();
        return j;
    }
    Json::Value File(const char *szName) const {
        return ParseJson(ReadFile(m_jPathInfo["id_path"].asString() + "/" + szName));
    }

    /* Meta binary items: a source file with content, the item, the request. */
    std::string Source(const std::string &strName, const std::string &strContent) const {
        kolvtest::WriteFile(m_sys.Path("/" + strName), strContent);
        return m_sys.Path("/" + strName);
    }
    static Json::Value Item(const std::string &strName, const std::string &strFormat, const std::string &strPath) {
        Json::Value j;
        j["name"] = strName;
        j["format"] = strFormat;
        if (!strPath.empty()) j["path"] = strPath;
        return j;
    }
    bool SetItems(long long mtime, std::initializer_list<Json::Value> items) const {
        Json::Value jParm = Request(mtime);
        for (const Json::Value &jItem : items)
            jParm["metabinary_files"].append(jItem);
        return Set(jParm);
    }
    /* The stored file and its record, by the encoding callers use. */
    std::string FileOf(const std::string &strName) const {
        std::string str;
        EXPECT_TRUE(KOLVVessaEncode(strName, str));
        return m_jPathInfo["metabinary"].asString() + "/" + str;
    }
    Json::Value InfoOf(const std::string &strName) const {
        std::string str;
        EXPECT_TRUE(KOLVVessaEncode(strName, str));
        return ParseJson(ReadFile(m_jPathInfo["metabinary_info"].asString() + "/" + str));
    }

    std::string m_strId;
    Json::Value m_jPathInfo;
};

TEST_F(MetaTest, KeysMergeByRequestTime) {
    // An empty "metatext" makes an empty member; a null for a missing key
    // is nothing to remove.
    Json::Value jReq = Request(10);
    jReq["metatext"] = Json::Value(Json::objectValue);
    ASSERT_TRUE(Set(jReq)) << StackText();
    EXPECT_EQ(Json::Value(Json::objectValue), File("metatext.json")["metatext"]);
    jReq["metatext"]["ghost"] = Json::Value();
    ASSERT_TRUE(Set(jReq));
    EXPECT_EQ(Json::Value(Json::objectValue), File("metatext.json")["metatext"]);

    jReq = Request(100);
    jReq["category"] = "todo";
    jReq["acl"]["enabled"] = false;
    jReq["metatext"] = ParseJson(R"({"a":1,"b":2})");
    ASSERT_TRUE(Set(jReq)) << StackText();
    EXPECT_EQ(ParseJson(R"({"category":100,"acl":100})"), File("basic.json")["auto_mtime"]);
    // Older: known keys stay, new keys come in, the ACL applies regardless.
    jReq = Request(50);
    jReq["category"] = "done";
    jReq["acl"]["enabled"] = true;
    jReq["metatext"] = ParseJson(R"({"a":9,"c":3})");
    ASSERT_TRUE(Set(jReq)) << StackText();
    EXPECT_EQ(ParseJson(R"({"category":"todo","acl":{"enabled":true}})"), File("basic.json")["basic"]);
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
    EXPECT_EQ(ParseJson(R"({"owner":1101,"category":"todo","acl":{"enabled":true},"metatext":{"b":"new","c":3,"d":4},
                            "metabinary_info":{}})"),
              Get());
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
    ASSERT_TRUE(pFs->Create(jParm, strId, strVer)) << StackText();
    std::string strBase = m_sys.Repo() + "/note/" + strId;
    EXPECT_EQ(0u, strId.find("1102_"));
    EXPECT_EQ(ParseJson(R"({"category":77})"), ParseJson(ReadFile(strBase + "/basic.json"))["auto_mtime"]);
    // The object's lock file is its owner's like the rest of the folder.
    struct stat st;
    ASSERT_EQ(0, stat((strBase + "/.lock").c_str(), &st));
    EXPECT_TRUE(0 != geteuid() || kolvtest::kBob == st.st_uid);
    EXPECT_EQ(ParseJson(R"({"owner":1102,"category":"memo","acl":null,"metatext":{"k":"v"},"metabinary_info":{}})"),
              Get(true, strId));
}

TEST_F(MetaTest, MetaBinaryIsStoredUnderEncodedNamesReplacedAndDeletedByTime) {
    // Malformed items touch nothing.
    std::string strSrc = Source("hello", "hello");
    EXPECT_FAILS(SetItems(10, {Item("a", "raw", strSrc), Item("b", "raw", "")}), 1007,
                 "!blDelete && (!jItem[\"path\"].isString() || jItem[\"path\"].asString().empty())");
    EXPECT_FAILS(SetItems(10, {Item("a", "raw", strSrc), Item("a", "delete", "")}), 1007,
                 "jSeen.isMember(jItem[\"name\"].asString())");
    EXPECT_FAILS(SetItems(10, {Item("", "raw", strSrc)}), 1007,
                 "!jItem[\"name\"].isString() || jItem[\"name\"].asString().empty()");
    EXPECT_FAILS(SetItems(10, {Item("a", "raw", m_sys.Path("/absent"))}), 1023, "0 > fdAsRequester.get()");
    EXPECT_FALSE(TRABCFileExist(FileOf("a").c_str()));
    EXPECT_EQ(0u, Get()["metabinary_info"].size());

    // Names that are no file names are stored under their encoded form,
    // which the repository's own lookup agrees on.
    const char *szWide = "\xC3\xA9\xE6\x96\x87"; // "é文"
    ASSERT_TRUE(SetItems(100, {Item("a/b", "raw", strSrc), Item("..", "raw", strSrc)})) << StackText();
    ASSERT_TRUE(SetItems(11, {Item(szWide, "raw", strSrc)})) << StackText();
    for (const char *szName : {"a/b", "..", szWide}) {
        std::string strFile = FileOf(szName), strPath;
        EXPECT_EQ(std::string::npos, strFile.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ{}",
                                                               m_jPathInfo["metabinary"].asString().size() + 1))
            << strFile;
        EXPECT_EQ("hello", ReadFile(strFile)) << szName;
        EXPECT_TRUE(KOLVVessaGetMetaBinaryPath("note", m_strId, szName, strPath));
        EXPECT_EQ(strFile, strPath);
    }
    EXPECT_EQ(
        ParseJson(std::string(R"({"name":"a/b","format":"raw","size":5,"mtime":100,"md5":")") + kMd5Hello + "\"}"),
        InfoOf("a/b"));
    Json::Value jAll = Get()["metabinary_info"];
    ASSERT_EQ(3u, jAll.size());
    EXPECT_EQ(InfoOf(szWide), jAll[szWide]);
    // A selection object picks names; blAll ignores the selection.
    Json::Value jSel = ParseJson(R"({"..":true})");
    EXPECT_EQ((std::vector<std::string>{".."}), Get(jSel)["metabinary_info"].getMemberNames());
    KOLVVESSA_BACKEND_FS fs;
    ASSERT_TRUE(fs.mf_init(Request(0)));
    Json::Value jInfo;
    ASSERT_TRUE(fs.mf_GetMetaBinaryInfoByName("a/b", jInfo));
    EXPECT_EQ(jAll["a/b"], jInfo);
    EXPECT_FAILS(fs.mf_GetMetaBinaryInfoByName("missing", jInfo), 1008, "!kolv::fs::Exists(strInfoPath)");
    fs.m_jParm["field"]["metabinary_info"] = jSel;
    KOLV_VESSA_OBJECT object;
    ASSERT_TRUE(fs.mf_GetMetaBinaryInfo(&object, true));
    EXPECT_EQ(3u, object.get_metabinary_info().size());

    // Newer replaces; older and equally old requests leave it alone.
    ASSERT_TRUE(SetItems(200, {Item("a/b", "text/plain", Source("world", "world"))}));
    EXPECT_EQ("world", ReadFile(FileOf("a/b")));
    EXPECT_EQ("7d793037a0760186574b0282f2f435e7", InfoOf("a/b")["md5"].asString());
    EXPECT_EQ("text/plain", InfoOf("a/b")["format"].asString());
    ASSERT_TRUE(SetItems(150, {Item("a/b", "raw", Source("old", "old"))}));
    ASSERT_TRUE(SetItems(200, {Item("a/b", "raw", Source("same", "same"))}));
    EXPECT_EQ("world", ReadFile(FileOf("a/b")));
    EXPECT_EQ(200, InfoOf("a/b")["mtime"].asInt64());
    // A delete obeys the same rule; deleting what is not there is no failure.
    ASSERT_TRUE(SetItems(199, {Item("a/b", "delete", "")}));
    EXPECT_TRUE(TRABCFileExist(FileOf("a/b").c_str()));
    ASSERT_TRUE(SetItems(300, {Item("a/b", "delete", "")}));
    EXPECT_FALSE(TRABCFileExist(FileOf("a/b").c_str()));
    EXPECT_EQ(2u, Get()["metabinary_info"].size());
    EXPECT_TRUE(SetItems(400, {Item("a/b", "delete", "")})) << StackText();
}

TEST_F(MetaTest, ConcurrentWritersNeverLoseKeys) {
    const int kMerges = 500;
    for (int child = 0; child < 2; ++child) {
        if (0 != fork()) continue;
        int failures = 0;
        for (int i = 0; i < kMerges; ++i) {
            Json::Value jReq = Request(1000 + i);
            jReq["metatext"]["p" + std::to_string(child) + "_" + std::to_string(i)] = i;
            std::string strVer;
            failures += !std::unique_ptr<KOLVVESSA_BACKEND_OP>(CreateFsBackend())->Set(jReq, strVer);
        }
        _exit(failures ? 1 : 0);
    }
    for (int child = 0; child < 2; ++child) {
        int status = 0;
        wait(&status);
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status));
    }
    // Only these keys are ever written.
    EXPECT_EQ(2u * kMerges, File("metatext.json")["metatext"].size());
}

} // namespace
