/*
 * The git layer alone: repositories written by it are checked with the git
 * command line (fsck, log, status), versions are read back, branched,
 * listed, compared and checked out elsewhere.
 */
#include <fcntl.h>
#include <git2/errors.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "kolvvessa/kolvvessa_git.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ReadFile;
using kolvtest::WriteFile;

using kolvtest::Hash;

class GitLayerTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        m_repo = m_sys.Root() + "/obj/version";
        m_src = m_sys.Root() + "/src";
        ASSERT_EQ(0, kolvtest::RunCommand("mkdir -p '" + m_repo + "' '" + m_src + "'"));
    }

    /* Writes a source file and returns its path. */
    std::string Src(const std::string &strName, const std::string &strContent) {
        std::string strPath = m_src + "/" + strName;
        WriteFile(strPath, strContent);
        return strPath;
    }

    std::string Git(const std::string &strArgs) { return kolvtest::Git(m_repo, strArgs); }
    void ExpectValidAndClean() { kolvtest::ExpectCleanRepo(m_repo); }

    std::string Msg(int n) { return "{\"author_uid\":1101,\"commit_msg\":{\"n\":" + std::to_string(n) + "}}"; }

    /* A commit on szParent that writes text/a = strContent at mtime. */
    std::string CommitText(const std::string &strParent, const std::string &strContent, long long mtime, int n) {
        Hash add({{"text/a", Src("a" + std::to_string(n), strContent)}});
        std::string strVer;
        EXPECT_EQ(0, GitCommit(m_repo.c_str(), strParent.c_str(), mtime, add.get(), nullptr, nullptr, "alice",
                               "alice@example.com", Msg(n).c_str(), strVer));
        return strVer;
    }

    std::string Create() {
        Hash add({{"text/a", Src("a", "\"one\"")}, {"binary/b", Src("b", "BIN")}, {"binary_info/b", Src("bi", "{}")}});
        Hash del({{"text/none", "delete"}});
        std::string strVer;
        EXPECT_EQ(0, GitCreateRepository(m_repo.c_str(), 100, add.get(), del.get(), "alice", "alice@example.com",
                                         Msg(0).c_str(), strVer));
        return strVer;
    }

    std::string m_repo, m_src;
};

TEST_F(GitLayerTest, CreateAndCommitWriteValidRepositories) {
    std::string strV1 = Create();
    EXPECT_TRUE(std::regex_match(strV1, std::regex("[0-9a-f]{40}")));
    ExpectValidAndClean();
    EXPECT_EQ("\"one\"", ReadFile(m_repo + "/text/a"));
    EXPECT_EQ("BIN", ReadFile(m_repo + "/binary/b"));

    Json::Value jInfo;
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), NULL, jInfo));
    EXPECT_EQ(strV1, jInfo["version"].asString());
    EXPECT_EQ("alice", jInfo["auther"].asString());
    EXPECT_EQ("alice@example.com", jInfo["email"].asString());
    EXPECT_EQ(100, jInfo["mtime"].asInt64());
    EXPECT_EQ(0, jInfo["msg"]["commit_msg"]["n"].asInt());
    EXPECT_EQ(Json::Value(Json::arrayValue), jInfo["parent"]);

    // Modify text/a, add text/c, rename binary/b, delete binary_info/b and
    // a path that is not there.
    Hash add({{"text/a", Src("a2", "\"two\"")}, {"text/c", Src("c", "3")}});
    Hash del({{"binary_info/b", "delete"}, {"text/missing", "delete"}});
    Hash ren({{"binary/b", "binary/b2"}});
    std::string strV2;
    ASSERT_EQ(0, GitCommit(m_repo.c_str(), strV1.c_str(), 200, add.get(), del.get(), ren.get(), "bob",
                           "bob@example.com", Msg(1).c_str(), strV2));
    EXPECT_NE(strV1, strV2);
    ExpectValidAndClean();
    EXPECT_EQ("binary/b2\ntext/a\ntext/c\n", Git("ls-files"));
    EXPECT_EQ("\"two\"", ReadFile(m_repo + "/text/a"));
    EXPECT_EQ(strV2 + "\n", Git("rev-parse HEAD"));
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), strV2.c_str(), jInfo));
    EXPECT_EQ("bob", jInfo["auther"].asString());
    EXPECT_EQ(strV1, jInfo["parent"][0].asString());

    // Deleting every file of a directory drops the directory.
    std::string strV3;
    Hash delAll({{"binary/b2", "delete"}});
    ASSERT_EQ(0, GitCommit(m_repo.c_str(), strV2.c_str(), 400, nullptr, delAll.get(), nullptr, "bob", "bob@example.com",
                           Msg(3).c_str(), strV3));
    ExpectValidAndClean();
    EXPECT_EQ("text\n", Git("ls-tree --name-only HEAD"));
    EXPECT_FALSE(TRABCFileExist((m_repo + "/binary/b2").c_str()));
}

TEST_F(GitLayerTest, OlderParentsBranchAndTheLatestOwnsTheWorkTree) {
    std::string strV1 = Create();
    std::string strV2 = CommitText(strV1, "\"v2\"", 200, 1);
    // On the older v1 with an older time: a branch; the work tree stays.
    std::string strOld = CommitText(strV1, "\"old\"", 150, 2);
    EXPECT_TRUE(std::regex_search(Git("branch --contains " + strOld), std::regex("branch_[0-9]+_[0-9]+_0")));
    EXPECT_EQ("\"v2\"", ReadFile(m_repo + "/text/a"));
    EXPECT_EQ(strV2 + "\n", Git("rev-parse HEAD"));
    ExpectValidAndClean();

    // On v1 again, newest: a second branch that takes the work tree.
    std::string strNew = CommitText(strV1, "\"new\"", 500, 3);
    EXPECT_TRUE(std::regex_search(Git("symbolic-ref HEAD"), std::regex("refs/heads/branch_[0-9]+_[0-9]+_1")));
    EXPECT_EQ("\"new\"", ReadFile(m_repo + "/text/a"));
    ExpectValidAndClean();

    // On HEAD's own tip but older than another tip: HEAD's branch moves,
    // the work tree goes on holding the latest.
    std::string strBack = CommitText(strNew, "\"back\"", 450, 4);
    Json::Value jLatest;
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), NULL, jLatest));
    EXPECT_EQ(strBack, jLatest["version"].asString());
    std::string strNewest = CommitText(strV2, "\"newest\"", 600, 5);
    std::string strBehind = CommitText(strNewest, "\"behind\"", 100, 6);
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), NULL, jLatest));
    EXPECT_EQ(strBack, jLatest["version"].asString());
    EXPECT_EQ("\"back\"", ReadFile(m_repo + "/text/a"));
    EXPECT_EQ(strBack + "\n", Git("rev-parse HEAD"));
    ExpectValidAndClean();

    // An older version checked out elsewhere leaves the repository alone.
    std::string strIndexBefore = ReadFile(m_repo + "/.git/index");
    std::string strTarget = m_sys.Root() + "/scratch";
    Json::Value jInfo;
    ASSERT_EQ(0, GitLoadCommit(m_repo.c_str(), strOld.c_str(), strTarget.c_str(), jInfo));
    EXPECT_EQ(strOld, jInfo["version"].asString());
    EXPECT_EQ("\"old\"", ReadFile(strTarget + "/text/a"));
    EXPECT_EQ("BIN", ReadFile(strTarget + "/binary/b"));
    EXPECT_EQ(strIndexBefore, ReadFile(m_repo + "/.git/index"));
    ExpectValidAndClean();

    // A spoilt work tree is put back by the restore.
    WriteFile(m_repo + "/text/a", "spoilt");
    WriteFile(m_repo + "/text/stray", "x");
    ASSERT_EQ(0, GitRestoreLastestCommit(m_repo.c_str()));
    EXPECT_EQ("\"back\"", ReadFile(m_repo + "/text/a"));
    ExpectValidAndClean();
}

TEST_F(GitLayerTest, HistoryMergesBranchesFiltersAndPages) {
    std::string strV1 = Create();
    std::string strTip = strV1;
    for (int n = 1; n <= 6; n++)
        strTip = CommitText(strTip, "\"" + std::to_string(n) + "\"", 100 + n * 10, n);
    CommitText(strV1, "\"b\"", 115, 7); // a branch from v1, between n=1 and n=2
    Json::Value jList;
    ASSERT_EQ(8, GitListCommitHistory(m_repo.c_str(), 0, 0, false, Json::Value(), jList));
    std::string strOrder;
    for (const Json::Value &j : jList)
        strOrder += std::to_string(j["msg"]["commit_msg"]["n"].asInt());
    EXPECT_EQ("65432710", strOrder);
    ASSERT_EQ(8, GitListCommitHistory(m_repo.c_str(), 0, 0, true, Json::Value(), jList));
    EXPECT_EQ(0, jList[0]["msg"]["commit_msg"]["n"].asInt());
    EXPECT_EQ(6, jList[7]["msg"]["commit_msg"]["n"].asInt());

    EXPECT_EQ(0, GitListCommitHistory(m_repo.c_str(), 3, 20, false, Json::Value(), jList));
    Json::Value jFilter;
    jFilter["n"] = 7;
    ASSERT_EQ(1, GitListCommitHistory(m_repo.c_str(), 0, 0, false, jFilter, jList));
    EXPECT_EQ(strV1, jList[0]["parent"][0].asString());
    jFilter["other"] = true;
    EXPECT_EQ(0, GitListCommitHistory(m_repo.c_str(), 0, 0, false, jFilter, jList));
}

TEST_F(GitLayerTest, DiffReportsEachKindOfChange) {
    std::string strV1 = Create();
    Hash add({{"text/a", Src("a2", "\"changed\"")}, {"text/new", Src("n", "1")}});
    Hash del({{"binary_info/b", "delete"}});
    Hash ren({{"binary/b", "binary/moved"}});
    std::string strV2;
    ASSERT_EQ(0, GitCommit(m_repo.c_str(), strV1.c_str(), 200, add.get(), del.get(), ren.get(), "alice",
                           "alice@example.com", Msg(1).c_str(), strV2));
    Hash diff;
    ASSERT_EQ(0, GitDiff(m_repo.c_str(), strV1.c_str(), NULL, diff.get()));
    EXPECT_EQ(5, diff.Count());
    EXPECT_EQ("modified", diff.Value("text/a"));
    EXPECT_EQ("created", diff.Value("text/new"));
    EXPECT_EQ("deleted", diff.Value("binary_info/b"));
    EXPECT_EQ("deleted", diff.Value("binary/b"));
    EXPECT_EQ("created", diff.Value("binary/moved"));
    Hash back;
    ASSERT_EQ(0, GitDiff(m_repo.c_str(), strV2.c_str(), strV1.c_str(), back.get()));
    EXPECT_EQ("created", back.Value("binary/b"));
    EXPECT_EQ("deleted", back.Value("text/new"));
}

TEST_F(GitLayerTest, FailuresReturnLibgit2Codes) {
    Json::Value jInfo;
    Hash hash;
    std::string strVer;
    std::string strMissing = m_sys.Root() + "/nowhere";
    EXPECT_EQ(GIT_ENOTFOUND, GitGetCommitInfo(strMissing.c_str(), NULL, jInfo));
    EXPECT_EQ(GIT_ENOTFOUND, GitListCommitHistory(strMissing.c_str(), 0, 0, false, Json::Value(), jInfo));
    EXPECT_EQ(Json::Value(Json::arrayValue), jInfo);
    std::string strV1 = Create();
    std::string strUnknown(40, 'a');
    EXPECT_EQ(GIT_ENOTFOUND, GitGetCommitInfo(m_repo.c_str(), strUnknown.c_str(), jInfo));
    EXPECT_EQ(GIT_ENOTFOUND, GitLoadCommit(m_repo.c_str(), strUnknown.c_str(), m_src.c_str(), jInfo));
    EXPECT_EQ(GIT_ENOTFOUND, GitDiff(m_repo.c_str(), strUnknown.c_str(), NULL, hash.get()));
    int ret = GitGetCommitInfo(m_repo.c_str(), "not-a-version", jInfo);
    EXPECT_TRUE(ret < 0 && ret != GIT_ENOTFOUND) << ret;
    EXPECT_EQ(GIT_ERROR, GitDiff(m_repo.c_str(), NULL, NULL, hash.get()));
    EXPECT_EQ(GIT_ERROR, GitDiff(m_repo.c_str(), strV1.c_str(), NULL, NULL));

    // A source file that is gone, and a rename of a path that is not there.
    Hash add({{"text/x", m_src + "/gone"}});
    EXPECT_EQ(GIT_ENOTFOUND,
              GitCommit(m_repo.c_str(), strV1.c_str(), 200, add.get(), nullptr, nullptr, "a", "a@b", "{}", strVer));
    Hash ren({{"text/nothing", "text/other"}});
    EXPECT_EQ(GIT_ENOTFOUND,
              GitCommit(m_repo.c_str(), strV1.c_str(), 200, nullptr, nullptr, ren.get(), "a", "a@b", "{}", strVer));
    EXPECT_EQ("1\n", Git("rev-list --all --count"));
    ExpectValidAndClean();
}

TEST_F(GitLayerTest, WriteLockHoldsIndexLockUntilUnlocked) {
    Create();
    std::string strLock = m_repo + "/.git/index.lock";
    EXPECT_EQ(0, GitWriteUnlock(m_repo.c_str())); // nothing held
    ASSERT_EQ(0, GitWriteLock(m_repo.c_str()));
    ASSERT_TRUE(TRABCFileExist(strLock.c_str()));
    pid_t pid = fork();
    if (0 == pid) {
        int fd = open(strLock.c_str(), O_RDWR);
        _exit((fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) < 0) ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, WEXITSTATUS(status)) << "another process got the lock";
    EXPECT_EQ(0, GitWriteUnlock(m_repo.c_str()));
    EXPECT_FALSE(TRABCFileExist(strLock.c_str()));
    EXPECT_EQ(-1, GitWriteLock((m_sys.Root() + "/nowhere").c_str()));
    EXPECT_EQ(0, GitWriteUnlock(m_repo.c_str()));
}

} // namespace
