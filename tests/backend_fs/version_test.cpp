/*
 * Versions through the file store: create and set write valid git
 * repositories (checked with the git command line), reads give each
 * version its own content, the version operations list, get and compare,
 * and two processes writing one object at once lose nothing.
 */
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::ReadFile;
using kolvtest::StackText;
using objtest::J;

const char kReadVersion[] = "kolv::git::ReadVersion(m_jPathInfo[KOLVVES_VERSION].asCString(), szVersion, {\"text\", "
                            "\"binary_info\"}, files, jCommitInfo)";

/* The file store called directly, as alice on "note". */
class VersionStoreTest : public objtest::ObjectStoreTest {
  protected:
    static Json::Value Req(Json::Value j) {
        j["ns"] = "note";
        j["requester"] = kAlice;
        return j;
    }
    std::string Create(const Json::Value &jText) {
        Json::Value j = Req(J(R"({"owner":1101,"mtime":1000,"category":"memo",
                                   "commit_msg":{"tag":"first","listable":true}})"));
        j["text"] = jText;
        std::string strId;
        EXPECT_TRUE(KOLVVESSA_BACKEND_FS().Create(j, strId, m_ver)) << StackText();
        return strId;
    }
    /* Set on strBase; false and the stack left for the caller on failure. */
    static bool Set(const std::string &strId, const std::string &strBase, Json::Value j, std::string &strVer) {
        j = Req(j);
        j["id"] = strId;
        j["version"] = strVer = strBase;
        return KOLVVESSA_BACKEND_FS().Set(j, strVer);
    }
    static bool Get(const std::string &strId, const char *szField, const char *szVersion, KOLV_VESSA_OBJECT &obj) {
        Json::Value j = Req(Json::Value());
        j["id"] = strId;
        j["field"] = J(szField);
        if (szVersion) j["version"] = szVersion;
        return KOLVVESSA_BACKEND_FS().Get(j, &obj);
    }
    Json::Value GitInfo(const std::string &strId) const { return J(ReadFile(ObjectDir(strId) + "/git_info.json")); }
    std::string TextFile(const std::string &strId, const char *szName) const {
        return ReadFile(ObjectDir(strId) + "/version/text/" + Enc(szName));
    }
    bool ScratchEmpty() const {
        std::string strOut;
        kolvtest::RunCommand("ls -A '" + m_sys.Repo() + "/@tmp' 2>/dev/null", &strOut);
        return strOut.empty();
    }
    /* A "binary_files" member of one item. */
    static Json::Value Binary(const char *szName, const std::string &strFormat, const std::string &strPathOrId) {
        Json::Value j;
        j["binary_files"][0]["name"] = szName;
        j["binary_files"][0]["format"] = strFormat;
        j["binary_files"][0]["object" == strFormat ? "id" : "path"] = strPathOrId;
        return j;
    }

    std::string m_ver;
};

TEST_F(VersionStoreTest, CreateAndSetWriteOneCommitPerChange) {
    std::string strId = Create(J(R"({"a":"one","b":{"x":1},"c":[1,2]})"));
    std::string strV1 = m_ver, strV2, strV3;
    kolvtest::ExpectCleanRepo(ObjectDir(strId) + "/version");
    EXPECT_EQ(
        "alice|alice@example.com|1000|{\"author_uid\":1101,\"commit_msg\":{\"listable\":true,\"tag\":\"first\"}}\n",
        Git(strId, "log --all --format='%an|%ae|%at|%B'"));
    EXPECT_EQ(J(R"({"commit_cnt":1,"listable_commit_cnt":1})"), GitInfo(strId));
    EXPECT_EQ("\"one\"", TextFile(strId, "a"));

    // Reference locks a killed writer left behind do not stop the next one.
    ASSERT_EQ(0, kolvtest::RunCommand("cd '" + ObjectDir(strId) +
                                      "/version/.git' && b=$(git symbolic-ref --short HEAD) && "
                                      "touch HEAD.lock refs/heads/$b.lock"));
    ASSERT_TRUE(Set(strId, strV1, J(R"({"mtime":2000,"text":{"a":"two","b":null}})"), strV2)) << StackText();
    kolvtest::ExpectCleanRepo(ObjectDir(strId) + "/version");
    EXPECT_EQ("text/" + Enc("a") + "\ntext/" + Enc("c") + "\n", Git(strId, "ls-tree -r --name-only HEAD"));
    EXPECT_EQ(J(R"({"commit_cnt":2,"listable_commit_cnt":1})"), GitInfo(strId));
    // The same value again: no commit, the same version, still counted.
    ASSERT_TRUE(Set(strId, strV2, J(R"({"mtime":3000,"text":{"a":"two"}})"), strV3));
    EXPECT_EQ(strV2, strV3);
    EXPECT_EQ("2\n", Git(strId, "rev-list --all --count"));
    EXPECT_EQ(3, GitInfo(strId)["commit_cnt"].asInt());

    // Latest: every text field; older: the named ones, missing names skipped.
    KOLV_VESSA_OBJECT latest, older, plain;
    ASSERT_TRUE(Get(strId, R"({"text":true,"commit_msg":1})", NULL, latest)) << StackText();
    EXPECT_EQ(J(R"({"a":"two","c":[1,2]})"), latest.get_text());
    EXPECT_EQ(strV2, latest.get_version());
    EXPECT_EQ(2000, latest.get_mtime());
    EXPECT_TRUE(latest.get_commit_msg().isNull());
    ASSERT_TRUE(Get(strId, R"({"text":{"a":true,"b":true,"zz":true},"commit_msg":true})", strV1.c_str(), older));
    EXPECT_EQ(J(R"({"a":"one","b":{"x":1}})"), older.get_text());
    EXPECT_EQ(strV1, older.get_version());
    EXPECT_EQ("first", older.get_commit_msg()["tag"].asString());
    ASSERT_TRUE(Get(strId, R"({"text":false})", "", plain));
    EXPECT_TRUE(plain.get_text().isNull());
    EXPECT_EQ(strV2, plain.get_version());
    EXPECT_FAILS(Get(strId, R"({"text":true})", std::string(40, 'a').c_str(), older), 1008, kReadVersion);
    EXPECT_TRUE(ScratchEmpty());
    kolvtest::ExpectCleanRepo(ObjectDir(strId) + "/version");

    // git keeps no empty folders: a version without text fields has no
    // "text" folder, and reading all its text gives no fields.
    std::string strEmpty = Create(Json::Value(Json::objectValue)), strVer;
    ASSERT_TRUE(Set(strEmpty, m_ver, J(R"({"binary_files":[]})"), strVer)) << StackText();
    ASSERT_TRUE(Get(strEmpty, R"({"text":true})", NULL, plain)) << StackText();
    EXPECT_EQ(Json::Value(Json::objectValue), plain.get_text());
    ASSERT_TRUE(Get(strEmpty, R"({"text":true})", m_ver.c_str(), plain)) << StackText();
    EXPECT_TRUE(ScratchEmpty());
}

TEST_F(VersionStoreTest, BinaryFilesByPathDeleteAndFromAnotherObject) {
    const std::string strSrc = m_sys.Root() + "/pic.bin", strMd5 = kolvtest::Md5(std::string(3000, 'x') + "end");
    kolvtest::WriteFile(strSrc, std::string(3000, 'x') + "end");
    std::string strA = Create(J(R"({"t":1})")), strVa;
    Json::Value j = Binary("pic", "jpg", strSrc);
    j["mtime"] = 2000;
    ASSERT_TRUE(Set(strA, m_ver, j, strVa)) << StackText();
    kolvtest::ExpectCleanRepo(ObjectDir(strA) + "/version");
    EXPECT_EQ(std::string(3000, 'x') + "end", ReadFile(ObjectDir(strA) + "/version/binary/" + Enc("pic")));
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(Get(strA, R"({"text":true})", NULL, obj));
    EXPECT_EQ(J("{\"format\":\"jpg\",\"md5\":\"" + strMd5 + "\"}"), obj.get_binary_info()["pic"]);

    std::string strB = Create(J(R"({"t":2})")), strVb2, strVb3, strNone;
    j["binary_files"] = Binary("pic", "object", strA)["binary_files"];
    ASSERT_TRUE(Set(strB, m_ver, j, strVb2)) << StackText();
    kolvtest::ExpectCleanRepo(ObjectDir(strB) + "/version");
    ASSERT_TRUE(Get(strB, R"({"binary_info":true})", NULL, obj));
    EXPECT_EQ(J("{\"format\":\"raw\",\"md5\":\"" + strMd5 + "\"}"), obj.get_binary_info()["pic"]);
    EXPECT_EQ(ReadFile(strSrc), ReadFile(ObjectDir(strB) + "/version/binary/" + Enc("pic")));
    j["binary_files"] = Binary("pic", "delete", "")["binary_files"];
    ASSERT_TRUE(Set(strB, strVb2, j, strVb3));
    EXPECT_EQ("text/" + Enc("t") + "\n", Git(strB, "ls-tree -r --name-only HEAD"));
    kolvtest::ExpectCleanRepo(ObjectDir(strB) + "/version");

    // A source object without the file (a path the requester cannot open:
    // tests/backend_fs/hostile_test.cpp, meta_test.cpp).
    KOLVVessaErrMsgGet().clear();
    j["binary_files"] = Binary("nosuch", "object", strA)["binary_files"];
    EXPECT_FAILS(Set(strB, strVb3, j, strNone), -1, "!TRABCFileExist(strBinaryPath.c_str())");
    EXPECT_EQ(strVb3 + "\n", Git(strB, "rev-parse HEAD"));
    EXPECT_TRUE(ScratchEmpty());
}

TEST_F(VersionStoreTest, VersionListOrderFilterDiffKindsAndFailureCodes) {
    std::string strId = Create(J(R"({"a":"1","gone":"x"})"));
    std::vector<std::string> vVers{m_ver};
    Json::Value jBin = Binary("f", "raw", m_sys.Root() + "/f.bin");
    jBin["mtime"] = 5000;
    kolvtest::WriteFile(m_sys.Root() + "/f.bin", "data");
    for (const Json::Value &jSet :
         {J(R"({"mtime":2000,"text":{"a":"2"},"commit_msg":{"tag":"x","listable":true}})"),
          J(R"({"mtime":3000,"text":{"a":"3"},"commit_msg":{"tag":"y"}})"),
          J(R"({"mtime":4000,"text":{"gone":null,"new":1},"commit_msg":{"tag":"x"}})"), jBin}) {
        vVers.emplace_back();
        ASSERT_TRUE(Set(strId, vVers[vVers.size() - 2], jSet, vVers.back())) << StackText();
    }
    // The times listed, then the count, the total and the listable total.
    auto List = [&](const char *szJson) {
        Json::Value j = J(szJson);
        j["ns"] = "note";
        j["id"] = strId;
        KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
        unsigned total = 0, listable = 0;
        int count = KOLVVESSA_BACKEND_FS().VersionList(j, &pHead, total, listable);
        std::string str;
        for (KOLV_VESSA_OBJECT_VERSION *p = pHead; p; p = p->m_next)
            str += std::to_string(p->get_mtime()) + " ";
        KOLVVessaObjectVersionFreeList(pHead);
        return str + "| " + std::to_string(count) + " " + std::to_string(total) + " " + std::to_string(listable);
    };
    EXPECT_EQ("1000 2000 3000 4000 5000 | 5 5 2", List(R"({"sort_direction":"ASC"})"));
    EXPECT_EQ("5000 4000 3000 2000 1000 | 5 5 2", List(R"({"sort_direction":"asc"})"));
    EXPECT_EQ("4000 2000 | 2 5 2", List(R"({"filter":{"tag":"x"}})"));
    EXPECT_EQ("2000 | 1 5 2", List(R"({"filter":{"tag":"x","listable":true}})")); // every member
    // Paging, totals and each record's members through the version
    // front end: tests/version/version_test.cpp.

    // Each kind of change, under the decoded names; never the info records.
    Json::Value jReq = J(R"({"ns":"note"})"), jDiff(Json::objectValue);
    jReq["id"] = strId;
    jReq["old_version"] = vVers[0];
    KOLVVESSA_BACKEND_FS fs;
    ASSERT_TRUE(fs.VersionDiff(jReq, jDiff)) << StackText();
    EXPECT_EQ(J(R"({"text":{"a":"modified","gone":"deleted","new":"created"},"binary":{"f":"created"}})"), jDiff);

    // A missing repository or version is 1008; anything else git refuses 1037.
    jReq["old_version"] = std::string(40, 'b');
    EXPECT_FAILS(fs.VersionDiff(jReq, jDiff), 1008,
                 "GitDiff(m_jPathInfo[KOLVVES_VERSION].asCString(), jRequest[\"old_version\"].asCString(), "
                 "jRequest[\"new_version\"].asCString(), pHash.get())");
    KOLV_VESSA_OBJECT_VERSION ver;
    jReq["ver"] = "not-a-version";
    EXPECT_FALSE(fs.VersionGet(jReq, &ver));
    EXPECT_EQ(1037, KOLVVessaErrCodeGet());
    jReq.removeMember("ver");
    jReq["id"] = KOLVVessaObjectGenerateID(kAlice);
    EXPECT_FAILS(fs.VersionGet(jReq, &ver), 1008,
                 "GitGetCommitInfo(m_jPathInfo[KOLVVES_VERSION].asCString(), szVersion, jCommitInfo)");
    std::string strVer;
    EXPECT_FAILS(Set(strId, std::string(40, 'c'), J(R"({"mtime":5,"text":{"a":2}})"), strVer), 1008,
                 "GitCommit(strRepoDir.c_str(), m_jParm[\"version\"].asCString(), m_jParm[\"mtime\"].asInt64(), "
                 "pAddHash, pDelHash, NULL, strName.c_str(), strMail.c_str(), jCommitMsg.toString().c_str(), "
                 "strNewVer)");
    EXPECT_FALSE(Set(strId, "zz", J(R"({"mtime":5,"text":{"a":2}})"), strVer));
    EXPECT_EQ(1037, KOLVVessaErrCodeGet());
    EXPECT_TRUE(ScratchEmpty());
    EXPECT_EQ(5, GitInfo(strId)["commit_cnt"].asInt());
}

/* Two processes set one object 200 times each, each on its own last
 * version, at distinct request times (even and odd seconds): every
 * reported version is in the history, and the latest version (work tree
 * and HEAD) is the one with the newest time, whatever branch it is on. */
TEST_F(VersionStoreTest, TwoProcessesSettingOneObjectLoseNothing) {
    const int kRounds = 200;
    std::string strId = Create(J(R"({"a":"start"})"));
    for (int p = 0; p < 2; p++) {
        if (0 != fork()) continue;
        std::ofstream out(m_sys.Root() + "/versions" + std::to_string(p));
        std::string strVer = m_ver, strNew;
        int cFailed = 0;
        for (int i = 0; i < kRounds; i++) {
            Json::Value j;
            j["mtime"] = 10000 + 2 * i + p;
            j["text"]["a"] = std::to_string(p) + "/" + std::to_string(i);
            bool blOk = Set(strId, strVer, j, strNew);
            cFailed += !blOk;
            out << (blOk ? (strVer = strNew) : "FAILED " + StackText()) << "\n";
        }
        out.close();
        _exit(cFailed);
    }
    for (int p = 0; p < 2; p++) {
        int status = -1;
        wait(&status);
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status))
            << ReadFile(m_sys.Root() + "/versions0") << ReadFile(m_sys.Root() + "/versions1");
    }
    std::string strAll = Git(strId, "rev-list --all");
    std::set<std::string> setAll;
    for (size_t pos = 0; pos + 40 <= strAll.size(); pos += 41)
        setAll.insert(strAll.substr(pos, 40));
    EXPECT_EQ(2u * kRounds + 1, setAll.size());
    for (int p = 0; p < 2; p++) {
        std::ifstream in(m_sys.Root() + "/versions" + std::to_string(p));
        int cLines = 0;
        for (std::string strLine; std::getline(in, strLine); cLines++)
            EXPECT_EQ(1u, setAll.count(strLine)) << strLine;
        EXPECT_EQ(kRounds, cLines);
    }
    KOLV_VESSA_OBJECT latest;
    ASSERT_TRUE(Get(strId, R"({"text":true})", NULL, latest));
    EXPECT_EQ(10000 + 2 * (kRounds - 1) + 1, latest.get_mtime());
    EXPECT_EQ("1/" + std::to_string(kRounds - 1), latest.get_text()["a"].asString());
    EXPECT_EQ(latest.get_version() + "\n", Git(strId, "rev-parse HEAD"));
    kolvtest::ExpectCleanRepo(ObjectDir(strId) + "/version");
}

/* Fifty threads of one process read older versions of one object at once
 * through the object's own entry, each read a different version from its
 * neighbour's: every read succeeds with its version's text, and no scratch
 * folder is left. */
TEST_F(VersionStoreTest, FiftyThreadsReadOlderVersionsAtOnce) {
    const int kThreads = 50, kReads = 4, kOlder = 4;
    const std::string strId = Create(J(R"({"a":"0"})"));
    std::vector<std::string> vVers{m_ver};
    for (int i = 1; i <= kOlder; i++) {
        vVers.emplace_back();
        Json::Value j;
        j["mtime"] = 2000 + i;
        j["text"]["a"] = std::to_string(i);
        ASSERT_TRUE(Set(strId, vVers[i - 1], j, vVers[i])) << StackText();
    }
    std::atomic<bool> blGo{false};
    std::atomic<int> cRead{0}, cBad{0};
    std::vector<std::thread> vThreads;
    for (int t = 0; t < kThreads; t++) {
        vThreads.emplace_back([&, t] {
            while (!blGo)
                std::this_thread::yield();
            for (int n = 0; n < kReads; n++) {
                int v = (t + n) % kOlder; // never the latest
                Json::Value j = GetParm(strId, 0);
                j["version"] = vVers[v];
                j["field"]["text"] = true;
                KOLV_VESSA_OBJECT obj;
                bool blOk =
                    obj.Get(j) && obj.get_version() == vVers[v] && obj.get_text()["a"].asString() == std::to_string(v);
                (blOk ? cRead : cBad)++;
            }
        });
    }
    blGo = true;
    for (std::thread &thread : vThreads)
        thread.join();
    EXPECT_EQ(0, cBad.load());
    EXPECT_EQ(kThreads * kReads, cRead.load());
    EXPECT_TRUE(ScratchEmpty());
}

} // namespace
