/*
 * Versions through the file store: create and set write valid git
 * repositories (checked with the git command line), reads give each
 * version its own content, the version operations list, get and compare,
 * and two processes writing one object at once lose nothing.
 */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <set>
#include <thread>
#include <string>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_version.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::ParseJson;
using kolvtest::ReadFile;

class VersionStoreTest : public kolvtest::SysrootTest {
  protected:
    Json::Value Request(long long mtime) {
        Json::Value j;
        j["ns"] = "note";
        j["owner"] = kAlice;
        j["requester"] = kAlice;
        j["mtime"] = (Json::Int64)mtime;
        return j;
    }

    std::string Create(const Json::Value &jText, long long mtime = 1000) {
        Json::Value j = Request(mtime);
        j["category"] = "memo";
        j["text"] = jText;
        j["commit_msg"]["tag"] = "first";
        j["commit_msg"]["listable"] = true;
        KOLVVESSA_BACKEND_FS fs;
        std::string strId, strVer;
        EXPECT_TRUE(fs.Create(j, strId, strVer)) << kolvtest::StackText();
        m_ver = strVer;
        return strId;
    }

    /* Set on strBase; false and the stack left for the caller on failure. */
    bool Set(const std::string &strId, const std::string &strBase, Json::Value j, std::string &strVer) {
        j["ns"] = "note";
        j["requester"] = kAlice;
        j["id"] = strId;
        j["version"] = strBase;
        strVer = strBase;
        KOLVVESSA_BACKEND_FS fs;
        return fs.Set(j, strVer);
    }

    bool Get(const std::string &strId, const Json::Value &jField, const char *szVersion, KOLV_VESSA_OBJECT &obj) {
        Json::Value j = Request(0);
        j["id"] = strId;
        j["field"] = jField;
        if (szVersion) j["version"] = szVersion;
        KOLVVESSA_BACKEND_FS fs;
        return fs.Get(j, &obj);
    }

    std::string Dir(const std::string &strId) { return m_sys.Repo() + "/note/" + strId; }

    std::string Git(const std::string &strId, const std::string &strArgs) {
        return kolvtest::Git(Dir(strId) + "/version", strArgs);
    }
    void ExpectValidAndClean(const std::string &strId) { kolvtest::ExpectCleanRepo(Dir(strId) + "/version"); }

    bool ScratchEmpty() {
        std::string strOut;
        kolvtest::RunCommand("ls -A '" + m_sys.Repo() + "/@tmp' 2>/dev/null", &strOut);
        return strOut.empty();
    }

    std::string Enc(const std::string &strName) {
        std::string strOut;
        KOLVVessaEncode(strName, strOut);
        return strOut;
    }

    Json::Value GitInfo(const std::string &strId) { return ParseJson(ReadFile(Dir(strId) + "/git_info.json")); }

    std::string SrcFile(const std::string &strName, const std::string &strContent) {
        std::string strPath = m_sys.Root() + "/" + strName;
        kolvtest::WriteFile(strPath, strContent);
        return strPath;
    }

    Json::Value Binary(const std::string &strName, const std::string &strFormat, const std::string &strPathOrId) {
        Json::Value j;
        j["name"] = strName;
        j["format"] = strFormat;
        j["object" == strFormat ? "id" : "path"] = strPathOrId;
        Json::Value jArr(Json::arrayValue);
        jArr.append(j);
        return jArr;
    }

    std::string m_ver;
};

TEST_F(VersionStoreTest, CreateAndSetWriteOneCommitPerChange) {
    std::string strId = Create(ParseJson(R"({"a":"one","b":{"x":1},"c":[1,2]})"));
    std::string strV1 = m_ver;
    ExpectValidAndClean(strId);
    EXPECT_EQ(
        "alice|alice@example.com|1000|{\"author_uid\":1101,\"commit_msg\":{\"listable\":true,\"tag\":\"first\"}}\n",
        Git(strId, "log --all --format='%an|%ae|%at|%B'"));
    EXPECT_EQ(ParseJson(R"({"commit_cnt":1,"listable_commit_cnt":1})"), GitInfo(strId));
    EXPECT_EQ(Json::Value("one"), ParseJson(ReadFile(Dir(strId) + "/version/text/" + Enc("a"))));

    // Reference locks a killed writer left behind do not stop the next one.
    std::string strGitDir = Dir(strId) + "/version/.git";
    ASSERT_EQ(0, kolvtest::RunCommand("cd '" + strGitDir +
                                      "' && b=$(git symbolic-ref --short HEAD) && "
                                      "touch HEAD.lock refs/heads/$b.lock"));
    std::string strV2;
    ASSERT_TRUE(Set(strId, strV1, ParseJson(R"({"mtime":2000,"text":{"a":"two","b":null}})"), strV2))
        << kolvtest::StackText();
    ExpectValidAndClean(strId);
    EXPECT_EQ("text/" + Enc("a") + "\ntext/" + Enc("c") + "\n", Git(strId, "ls-tree -r --name-only HEAD"));
    EXPECT_EQ(ParseJson(R"({"commit_cnt":2,"listable_commit_cnt":1})"), GitInfo(strId));

    // The same value again: no commit, the same version, still counted.
    std::string strV3;
    ASSERT_TRUE(Set(strId, strV2, ParseJson(R"({"mtime":3000,"text":{"a":"two"}})"), strV3));
    EXPECT_EQ(strV2, strV3);
    EXPECT_EQ("2\n", Git(strId, "rev-list --all --count"));
    EXPECT_EQ(3, GitInfo(strId)["commit_cnt"].asInt());
    EXPECT_TRUE(ScratchEmpty());

    // Latest: every text field; older: the named ones, missing names skipped.
    KOLV_VESSA_OBJECT latest, older, plain;
    ASSERT_TRUE(Get(strId, ParseJson(R"({"text":true,"commit_msg":1})"), NULL, latest)) << kolvtest::StackText();
    EXPECT_EQ(ParseJson(R"({"a":"two","c":[1,2]})"), latest.get_text());
    EXPECT_EQ(strV2, latest.get_version());
    EXPECT_EQ(2000, latest.get_mtime());
    EXPECT_TRUE(latest.get_commit_msg().isNull());
    ASSERT_TRUE(
        Get(strId, ParseJson(R"({"text":{"a":true,"b":true,"zz":true},"commit_msg":true})"), strV1.c_str(), older));
    EXPECT_EQ(ParseJson(R"({"a":"one","b":{"x":1}})"), older.get_text());
    EXPECT_EQ(strV1, older.get_version());
    EXPECT_EQ("first", older.get_commit_msg()["tag"].asString());
    EXPECT_TRUE(ScratchEmpty());
    ExpectValidAndClean(strId);
    ASSERT_TRUE(Get(strId, ParseJson(R"({"text":false})"), "", plain));
    EXPECT_TRUE(plain.get_text().isNull());
    EXPECT_EQ(strV2, plain.get_version());
    EXPECT_TRUE(ScratchEmpty());

    std::string strUnknown(40, 'a');
    EXPECT_FAILS(Get(strId, ParseJson(R"({"text":true})"), strUnknown.c_str(), older), 1008,
                 "kolv::git::ReadVersion(m_jPathInfo[KOLVVES_VERSION].asCString(), szVersion, {\"text\", "
                 "\"binary_info\"}, files, jCommitInfo)");
    EXPECT_TRUE(ScratchEmpty());
}

// git keeps no empty folders: a version without text fields has no "text"
// folder, and reading all its text must give no fields rather than fail.
TEST_F(VersionStoreTest, VersionWithoutTextReadsBackEmpty) {
    std::string strId = Create(Json::Value(Json::objectValue));
    std::string strVer;
    ASSERT_TRUE(Set(strId, m_ver, ParseJson(R"({"binary_files":[]})"), strVer)) << kolvtest::StackText();
    Json::Value jField = ParseJson(R"({"text":true})");
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(Get(strId, jField, NULL, obj)) << kolvtest::StackText();
    EXPECT_EQ(Json::Value(Json::objectValue), obj.get_text());
    ASSERT_TRUE(Get(strId, jField, m_ver.c_str(), obj)) << kolvtest::StackText();
    EXPECT_TRUE(ScratchEmpty());
}

TEST_F(VersionStoreTest, BinaryFilesByPathDeleteAndFromAnotherObject) {
    std::string strSrc = SrcFile("pic.bin", std::string(3000, 'x') + "end");
    std::string strMd5;
    kolvtest::RunCommand("md5sum '" + strSrc + "' | cut -c1-32 | tr -d '\\n'", &strMd5);
    std::string strA = Create(ParseJson(R"({"t":1})"));
    std::string strVa;
    Json::Value j = Request(2000);
    j["binary_files"] = Binary("pic", "jpg", strSrc);
    ASSERT_TRUE(Set(strA, m_ver, j, strVa)) << kolvtest::StackText();
    ExpectValidAndClean(strA);
    EXPECT_EQ(std::string(3000, 'x') + "end", ReadFile(Dir(strA) + "/version/binary/" + Enc("pic")));
    KOLV_VESSA_OBJECT objA;
    ASSERT_TRUE(Get(strA, ParseJson(R"({"text":true})"), NULL, objA));
    EXPECT_EQ("jpg", objA.get_binary_info()["pic"]["format"].asString());
    EXPECT_EQ(strMd5, objA.get_binary_info()["pic"]["md5"].asString());

    std::string strB = Create(ParseJson(R"({"t":2})"));
    std::string strVb1 = m_ver, strVb2, strVb3, strNone;
    j["binary_files"] = Binary("pic", "object", strA);
    ASSERT_TRUE(Set(strB, strVb1, j, strVb2)) << kolvtest::StackText();
    ExpectValidAndClean(strB);
    KOLV_VESSA_OBJECT objB;
    ASSERT_TRUE(Get(strB, ParseJson(R"({"binary_info":true})"), NULL, objB));
    EXPECT_EQ(ParseJson("{\"format\":\"raw\",\"md5\":\"" + strMd5 + "\"}"), objB.get_binary_info()["pic"]);
    EXPECT_EQ(ReadFile(strSrc), ReadFile(Dir(strB) + "/version/binary/" + Enc("pic")));

    j["binary_files"] = Binary("pic", "delete", "");
    ASSERT_TRUE(Set(strB, strVb2, j, strVb3));
    EXPECT_EQ("text/" + Enc("t") + "\n", Git(strB, "ls-tree -r --name-only HEAD"));
    ExpectValidAndClean(strB);

    // A source object without the file, and a source path that is gone.
    KOLVVessaErrMsgGet().clear();
    j["binary_files"] = Binary("nosuch", "object", strA);
    EXPECT_FAILS(Set(strB, strVb3, j, strNone), -1, "!TRABCFileExist(strBinaryPath.c_str())");
    j["binary_files"] = Binary("gone", "jpg", m_sys.Root() + "/gone.bin");
    EXPECT_FAILS(Set(strB, strVb3, j, strNone), 1023, "0 > fdAsRequester.get()");
    EXPECT_EQ(strVb3 + "\n", Git(strB, "rev-parse HEAD"));
    EXPECT_TRUE(ScratchEmpty());
}

TEST_F(VersionStoreTest, OlderBaseBranchesAndTheNewestStaysLatest) {
    std::string strId = Create(ParseJson(R"({"a":"v1"})"));
    std::string strV1 = m_ver, strV2, strB1, strB2;
    ASSERT_TRUE(Set(strId, strV1, ParseJson(R"({"mtime":2000,"text":{"a":"v2"}})"), strV2));
    ASSERT_TRUE(Set(strId, strV1, ParseJson(R"({"mtime":1500,"text":{"a":"b1"}})"), strB1));
    EXPECT_NE(std::string::npos, Git(strId, "branch --contains " + strB1).find("branch_"));
    EXPECT_EQ(Json::Value("v2"), ParseJson(ReadFile(Dir(strId) + "/version/text/" + Enc("a"))));
    ExpectValidAndClean(strId);
    KOLV_VESSA_OBJECT latest, branch;
    ASSERT_TRUE(Get(strId, ParseJson(R"({"text":true})"), NULL, latest));
    EXPECT_EQ(strV2, latest.get_version());
    EXPECT_EQ("v2", latest.get_text()["a"].asString());
    ASSERT_TRUE(Get(strId, ParseJson(R"({"text":true})"), strB1.c_str(), branch));
    EXPECT_EQ("b1", branch.get_text()["a"].asString());

    ASSERT_TRUE(Set(strId, strV1, ParseJson(R"({"mtime":3000,"text":{"a":"b2"}})"), strB2));
    ASSERT_TRUE(Get(strId, ParseJson(R"({"text":true})"), NULL, latest));
    EXPECT_EQ(strB2, latest.get_version());
    EXPECT_EQ(Json::Value("b2"), ParseJson(ReadFile(Dir(strId) + "/version/text/" + Enc("a"))));
    ExpectValidAndClean(strId);
    EXPECT_TRUE(ScratchEmpty());
}

TEST_F(VersionStoreTest, VersionListGetAndDiff) {
    std::string strId = Create(ParseJson(R"({"a":"1","gone":"x"})"));
    std::vector<std::string> vVers{m_ver};
    const char *rgSets[] = {R"({"mtime":2000,"text":{"a":"2"},"commit_msg":{"tag":"x","listable":true}})",
                            R"({"mtime":3000,"text":{"a":"3"},"commit_msg":{"tag":"y"}})",
                            R"({"mtime":4000,"text":{"gone":null,"new":1},"commit_msg":{"tag":"x"}})"};
    for (const char *sz : rgSets) {
        std::string strVer;
        ASSERT_TRUE(Set(strId, vVers.back(), ParseJson(sz), strVer));
        vVers.push_back(strVer);
    }
    std::string strBin = SrcFile("f.bin", "data");
    Json::Value jBin = Request(5000);
    jBin["binary_files"] = Binary("f", "raw", strBin);
    std::string strV5;
    ASSERT_TRUE(Set(strId, vVers.back(), jBin, strV5));

    auto List = [&](const char *szJson, unsigned &total, unsigned &listable, std::vector<long> &vTimes) {
        Json::Value j = ParseJson(szJson);
        j["id"] = strId;
        KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
        KOLVVESSA_BACKEND_FS fs;
        int count = fs.VersionList(j, &pHead, total, listable);
        vTimes.clear();
        for (KOLV_VESSA_OBJECT_VERSION *p = pHead; p; p = p->m_next)
            vTimes.push_back(p->get_mtime());
        KOLVVessaObjectVersionFreeList(pHead);
        return count;
    };
    unsigned total = 0, listable = 0;
    std::vector<long> vTimes;
    EXPECT_EQ(5, List(R"({"ns":"note","sort_direction":"ASC"})", total, listable, vTimes));
    EXPECT_EQ((std::vector<long>{1000, 2000, 3000, 4000, 5000}), vTimes);
    EXPECT_EQ(5u, total);
    EXPECT_EQ(2u, listable);
    EXPECT_EQ(5, List(R"({"ns":"note","sort_direction":"asc"})", total, listable, vTimes));
    EXPECT_EQ(5000, vTimes[0]);
    EXPECT_EQ(2, List(R"({"ns":"note","offset":1,"limit":2})", total, listable, vTimes));
    EXPECT_EQ((std::vector<long>{4000, 3000}), vTimes);
    EXPECT_EQ(2, List(R"({"ns":"note","filter":{"tag":"x"}})", total, listable, vTimes));
    EXPECT_EQ((std::vector<long>{4000, 2000}), vTimes);

    Json::Value jGet = ParseJson(R"({"ns":"note"})");
    jGet["id"] = strId;
    jGet["ver"] = vVers[2];
    KOLV_VESSA_OBJECT_VERSION ver;
    KOLVVESSA_BACKEND_FS fs;
    ASSERT_TRUE(fs.VersionGet(jGet, &ver));
    EXPECT_EQ(kAlice, ver.get_author());
    EXPECT_EQ(3000, ver.get_mtime());
    EXPECT_EQ("y", ver.get_commit_msg()["tag"].asString());
    EXPECT_EQ(vVers[1], ver.get_last_version()[0].asString());

    Json::Value jDiff(Json::objectValue), jReq = jGet;
    jReq["old_version"] = vVers[0];
    ASSERT_TRUE(fs.VersionDiff(jReq, jDiff)) << kolvtest::StackText();
    EXPECT_EQ(ParseJson(R"({"text":{"a":"modified","gone":"deleted","new":"created"},"binary":{"f":"created"}})"),
              jDiff);
    jDiff = Json::Value(Json::objectValue);
    jReq["old_version"] = vVers[3];
    jReq["new_version"] = vVers[2];
    ASSERT_TRUE(fs.VersionDiff(jReq, jDiff));
    EXPECT_EQ(ParseJson(R"({"text":{"gone":"created","new":"deleted"}})"), jDiff);
}

TEST_F(VersionStoreTest, MissingRepositoryOrVersionIs1008OtherFailures1037) {
    KOLVVESSA_BACKEND_FS fs;
    KOLV_VESSA_OBJECT_VERSION ver;
    Json::Value jGet = ParseJson(R"({"ns":"note"})");
    jGet["id"] = KOLVVessaObjectGenerateID(kAlice);
    EXPECT_FAILS(fs.VersionGet(jGet, &ver), 1008,
                 "GitGetCommitInfo(m_jPathInfo[KOLVVES_VERSION].asCString(), szVersion, jCommitInfo)");

    std::string strId = Create(ParseJson(R"({"a":1})"));
    jGet["id"] = strId;
    jGet["ver"] = "not-a-version";
    EXPECT_FALSE(fs.VersionGet(jGet, &ver));
    EXPECT_EQ(1037, KOLVVessaErrCodeGet());
    Json::Value jDiff(Json::objectValue);
    jGet["old_version"] = std::string(40, 'b');
    EXPECT_FAILS(fs.VersionDiff(jGet, jDiff), 1008,
                 "GitDiff(m_jPathInfo[KOLVVES_VERSION].asCString(), jRequest[\"old_version\"].asCString(), "
                 "jRequest[\"new_version\"].asCString(), pHash.get())");

    std::string strVer;
    EXPECT_FAILS(Set(strId, std::string(40, 'c'), ParseJson(R"({"mtime":5,"text":{"a":2}})"), strVer), 1008,
                 "GitCommit(strRepoDir.c_str(), m_jParm[\"version\"].asCString(), m_jParm[\"mtime\"].asInt64(), "
                 "pAddHash, pDelHash, NULL, strName.c_str(), strMail.c_str(), jCommitMsg.toString().c_str(), "
                 "strNewVer)");
    EXPECT_FALSE(Set(strId, "zz", ParseJson(R"({"mtime":5,"text":{"a":2}})"), strVer));
    EXPECT_EQ(1037, KOLVVessaErrCodeGet());
    EXPECT_TRUE(ScratchEmpty());
    EXPECT_EQ(1, GitInfo(strId)["commit_cnt"].asInt());
}

/* Two processes set one object 200 times each, each on its own last
 * version, at distinct request times (even and odd seconds): every
 * reported version is in the history, and the work tree holds the
 * version with the newest time. */
TEST_F(VersionStoreTest, TwoProcessesSettingOneObjectLoseNothing) {
    const int kRounds = 200;
    std::string strId = Create(ParseJson(R"({"a":"start"})"));
    std::string strBase = m_ver;
    pid_t rgPid[2];
    for (int p = 0; p < 2; p++) {
        rgPid[p] = fork();
        if (0 != rgPid[p]) continue;
        std::ofstream out(m_sys.Root() + "/versions" + std::to_string(p));
        std::string strVer = strBase;
        int cFailed = 0;
        for (int i = 0; i < kRounds; i++) {
            Json::Value j;
            j["mtime"] = 10000 + 2 * i + p;
            j["text"]["a"] = std::to_string(p) + "/" + std::to_string(i);
            std::string strNew;
            bool blOk = Set(strId, strVer, j, strNew);
            cFailed += !blOk;
            out << (blOk ? (strVer = strNew) : "FAILED " + kolvtest::StackText()) << "\n";
        }
        out.close();
        _exit(cFailed);
    }
    for (pid_t pid : rgPid) {
        int status = -1;
        waitpid(pid, &status, 0);
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
        std::string strLine;
        int cLines = 0;
        while (std::getline(in, strLine)) {
            EXPECT_EQ(1u, setAll.count(strLine)) << strLine;
            cLines++;
        }
        EXPECT_EQ(kRounds, cLines);
    }
    KOLV_VESSA_OBJECT latest;
    ASSERT_TRUE(Get(strId, ParseJson(R"({"text":true})"), NULL, latest));
    EXPECT_EQ(10000 + 2 * (kRounds - 1) + 1, latest.get_mtime());
    EXPECT_EQ("1/" + std::to_string(kRounds - 1), latest.get_text()["a"].asString());
    EXPECT_EQ(latest.get_version() + "\n", Git(strId, "rev-parse HEAD"));
    ExpectValidAndClean(strId);
}

/* Fifty threads of one process read older versions of one object at once
 * through the object's own entry, each read a different version from its
 * neighbour's: every read succeeds with its version's text, and no scratch
 * folder is left. */
TEST_F(VersionStoreTest, FiftyThreadsReadOlderVersionsAtOnce) {
    const int kThreads = 50, kReads = 4, kOlder = 4;
    std::vector<std::string> vVers{Create(ParseJson(R"({"a":"0"})"))};
    const std::string strId = vVers[0];
    vVers[0] = m_ver;
    for (int i = 1; i <= kOlder; i++) {
        std::string strVer;
        Json::Value j;
        j["mtime"] = 2000 + i;
        j["text"]["a"] = std::to_string(i);
        ASSERT_TRUE(Set(strId, vVers.back(), j, strVer)) << kolvtest::StackText();
        vVers.push_back(strVer);
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
                Json::Value j;
                j["ns"] = "note";
                j["id"] = strId;
                j["requester"] = 0;
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
