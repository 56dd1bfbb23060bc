/*
 * The git layer alone: repositories written by it are checked with the git
 * command line (fsck, log, status), versions are read back, branched,
 * listed, compared and written out elsewhere; links planted in the work
 * tree lead nowhere; the write lock excludes three processes.
 */
#include <fcntl.h>
#include <git2/errors.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>

#include "kolvvessa/kolvvessa_git.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ReadFile;
using kolvtest::WriteFile;

using kolvtest::Hash;
using kolvtest::RunCommand;

class GitLayerTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        m_repo = m_sys.Root() + "/obj/version";
        m_src = m_sys.Root() + "/src";
        // The work tree is its owner's, as the store makes it.
        ASSERT_EQ(0, RunCommand("mkdir -p '" + m_repo + "' '" + m_src + "' && chown 1101:100 '" + m_repo + "'"));
    }

    /* "name content" for each entry of the work tree's three folders, in
     * name order; "<other>" for the content of what is no regular file. */
    static std::string WorkTree(const std::string &strDir) {
        std::string strOut;
        RunCommand("cd '" + strDir +
                       "' && find text binary binary_info -mindepth 1 2>/dev/null | LC_ALL=C sort | while read f; do "
                       "if [ -f \"$f\" ] && [ ! -L \"$f\" ]; then echo \"$f $(cat \"$f\")\"; else echo \"$f <other>\"; "
                       "fi; done",
                   &strOut);
        return strOut;
    }

    /* Names, kinds, times and contents of everything below strDir. */
    std::string Snapshot(const std::string &strDir) {
        std::string strOut;
        RunCommand("cd '" + strDir +
                       "' && find . -printf '%p %y %T@ %s\\n' | sort && find . -type f | sort | xargs cat",
                   &strOut);
        return strOut;
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
    ExpectValidAndClean();
    EXPECT_EQ("binary/b BIN\nbinary_info/b {}\ntext/a \"one\"\n", WorkTree(m_repo));
    // Folders and files of the work tree take its owner; .git stays ours.
    struct stat st;
    for (const char *szPath : {"/text", "/binary_info", "/binary/b"}) {
        ASSERT_EQ(0, lstat((m_repo + szPath).c_str(), &st));
        EXPECT_EQ(1101u, st.st_uid) << szPath;
        EXPECT_EQ(100u, st.st_gid) << szPath;
    }
    ASSERT_EQ(0, lstat((m_repo + "/.git").c_str(), &st));
    EXPECT_EQ(0u, st.st_uid);

    // Version, time, message and parents as read back: the version front
    // end's record (tests/version/version_test.cpp).
    Json::Value jInfo;
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), NULL, jInfo));
    EXPECT_EQ("alice", jInfo["auther"].asString());
    EXPECT_EQ("alice@example.com", jInfo["email"].asString());

    // Modify text/a, add text/c, rename binary/b, delete binary_info/b and
    // a path that is not there. A write cut short (its mark in .git gone)
    // makes the next one whole: the stray goes too.
    ASSERT_EQ(0, unlink((m_repo + "/.git/kolvvessa_worktree").c_str()));
    WriteFile(m_repo + "/binary/stray", "x");
    Hash add({{"text/a", Src("a2", "\"two\"")}, {"text/c", Src("c", "3")}});
    Hash del({{"binary_info/b", "delete"}, {"text/missing", "delete"}});
    Hash ren({{"binary/b", "binary/b2"}});
    std::string strV2;
    ASSERT_EQ(0, GitCommit(m_repo.c_str(), strV1.c_str(), 200, add.get(), del.get(), ren.get(), "bob",
                           "bob@example.com", Msg(1).c_str(), strV2));
    ExpectValidAndClean();
    EXPECT_EQ("binary/b2\ntext/a\ntext/c\n", Git("ls-tree -r --name-only HEAD"));
    EXPECT_EQ("binary/b2 BIN\ntext/a \"two\"\ntext/c 3\n", WorkTree(m_repo));
    EXPECT_EQ(strV2 + "\n", Git("rev-parse HEAD"));
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), strV2.c_str(), jInfo));
    EXPECT_EQ("bob", jInfo["auther"].asString());
    // A rename shows as a deletion and a creation, either direction (each
    // kind of change by name, nothing else: tests/backend_fs/version_test.cpp).
    Hash diff, back;
    ASSERT_EQ(0, GitDiff(m_repo.c_str(), strV1.c_str(), NULL, diff.get()));
    EXPECT_EQ("deleted created", diff.Value("binary/b") + " " + diff.Value("binary/b2"));
    ASSERT_EQ(0, GitDiff(m_repo.c_str(), strV2.c_str(), strV1.c_str(), back.get()));
    EXPECT_EQ("created deleted", back.Value("binary/b") + " " + back.Value("text/c"));

    // Deleting every file of a directory drops the directory.
    std::string strV3;
    Hash delAll({{"binary/b2", "delete"}});
    ASSERT_EQ(0, GitCommit(m_repo.c_str(), strV2.c_str(), 400, nullptr, delAll.get(), nullptr, "bob", "bob@example.com",
                           Msg(3).c_str(), strV3));
    ExpectValidAndClean();
    EXPECT_EQ("text\n", Git("ls-tree --name-only HEAD"));
    EXPECT_EQ("text/a \"two\"\ntext/c 3\n", WorkTree(m_repo));
    EXPECT_FALSE(TRABCFileExist((m_repo + "/binary").c_str()));
    // Nothing keeps a git index.
    EXPECT_FALSE(TRABCFileExist((m_repo + "/.git/index").c_str()));
}

// The library runs for users as root: a git configuration in the home
// folder, the XDG folder or /etc must not change (or break) a version
// write. Here both personal ones do not even parse.
TEST_F(GitLayerTest, GlobalAndXdgGitConfigurationIsNeverRead) {
    const std::string strHome = m_sys.Root() + "/home", strXdg = m_sys.Root() + "/xdg";
    ASSERT_EQ(0, RunCommand("mkdir -p '" + strHome + "' '" + strXdg + "/git'"));
    WriteFile(strHome + "/.gitconfig", "[core\n\tautocrlf = true\n[include]\n\tpath = /nonexistent\n");
    WriteFile(strXdg + "/git/config", "[core]\n\tautocrlf = true\n\tbogus\n");
    const char *szHome = getenv("HOME");
    std::string strOldHome = szHome ? szHome : "";
    setenv("HOME", strHome.c_str(), 1);
    setenv("XDG_CONFIG_HOME", strXdg.c_str(), 1);
    Hash add({{"text/a", Src("crlf", "\"one\"\r\n")}});
    std::string strVer;
    int ret = GitCreateRepository(m_repo.c_str(), 100, add.get(), nullptr, "alice", "alice@example.com", Msg(0).c_str(),
                                  strVer);
    std::string strV2 = 0 == ret ? CommitText(strVer, "\"two\"\r\n", 200, 1) : "";
    if (szHome) setenv("HOME", strOldHome.c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    ASSERT_EQ(0, ret) << kolvtest::StackText();
    ExpectValidAndClean();
    // Bytes as given: no line-ending conversion.
    EXPECT_EQ("\"two\"\r\n", Git("show " + strV2 + ":text/a"));
}

TEST_F(GitLayerTest, OlderParentsBranchAndTheLatestOwnsTheWorkTree) {
    std::string strV1 = Create();
    std::string strV2 = CommitText(strV1, "\"v2\"", 200, 1);
    // On the older v1 with an older time: a branch; the work tree stays.
    std::string strOld = CommitText(strV1, "\"old\"", 150, 2);
    EXPECT_TRUE(std::regex_search(Git("branch --contains " + strOld), std::regex("branch_[0-9]+_[0-9]+_0")));
    EXPECT_EQ(strV2 + "\n", Git("rev-parse HEAD"));
    ExpectValidAndClean(); // the work tree is HEAD's

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
    CommitText(strNewest, "\"behind\"", 100, 6);
    ASSERT_EQ(0, GitGetCommitInfo(m_repo.c_str(), NULL, jLatest));
    EXPECT_EQ(strBack, jLatest["version"].asString());
    EXPECT_EQ(strBack + "\n", Git("rev-parse HEAD"));
    ExpectValidAndClean();

    // An older version written elsewhere leaves the repository alone.
    std::string strTarget = m_sys.Root() + "/scratch";
    Json::Value jInfo;
    ASSERT_EQ(0, GitLoadCommit(m_repo.c_str(), strOld.c_str(), strTarget.c_str(), jInfo));
    EXPECT_EQ(strOld, jInfo["version"].asString());
    EXPECT_EQ("\"old\"", ReadFile(strTarget + "/text/a"));
    EXPECT_EQ("BIN", ReadFile(strTarget + "/binary/b"));
    EXPECT_EQ(strBack + "\n", Git("rev-parse HEAD"));
    ExpectValidAndClean();

    // A spoilt work tree is put back by the restore.
    WriteFile(m_repo + "/text/a", "spoilt");
    WriteFile(m_repo + "/text/stray", "x");
    ASSERT_EQ(0, RunCommand("rm -r '" + m_repo + "/binary_info' && mkdir '" + m_repo + "/binary_info/'"));
    ASSERT_EQ(0, GitRestoreLastestCommit(m_repo.c_str()));
    EXPECT_EQ("binary/b BIN\nbinary_info/b {}\ntext/a \"back\"\n", WorkTree(m_repo));
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
    // Direction and filter through the file store, paging through the
    // version front end: tests/backend_fs/version_test.cpp,
    // tests/version/version_test.cpp.
}

TEST_F(GitLayerTest, FailuresReturnLibgit2Codes) {
    Json::Value jInfo;
    Hash hash;
    std::string strVer;
    std::string strMissing = m_sys.Root() + "/nowhere";
    // The codes the file store turns into 1008 and 1037 (unknown versions
    // of info, diff and commit): tests/backend_fs/version_test.cpp.
    EXPECT_EQ(GIT_ENOTFOUND, GitListCommitHistory(strMissing.c_str(), 0, 0, false, Json::Value(), jInfo));
    EXPECT_EQ(Json::Value(Json::arrayValue), jInfo);
    std::string strV1 = Create();
    EXPECT_EQ(GIT_ENOTFOUND, GitLoadCommit(m_repo.c_str(), std::string(40, 'a').c_str(), m_src.c_str(), jInfo));
    EXPECT_EQ(GIT_ERROR, GitDiff(m_repo.c_str(), NULL, NULL, hash.get()));

    // A source file that is gone; a FIFO or a link where one belongs is
    // refused without being read; a rename of a path that is not there.
    ASSERT_EQ(0, mkfifo((m_src + "/fifo").c_str(), 0600));
    ASSERT_EQ(0, symlink("/etc/passwd", (m_src + "/link").c_str()));
    for (const auto &source : {std::make_pair("/gone", GIT_ENOTFOUND), {"/fifo", GIT_ERROR}, {"/link", GIT_ERROR}}) {
        Hash add({{"text/x", m_src + source.first}});
        EXPECT_EQ(source.second,
                  GitCommit(m_repo.c_str(), strV1.c_str(), 200, add.get(), nullptr, nullptr, "a", "a@b", "{}", strVer))
            << source.first;
    }
    Hash ren({{"text/nothing", "text/other"}});
    EXPECT_EQ(GIT_ENOTFOUND,
              GitCommit(m_repo.c_str(), strV1.c_str(), 200, nullptr, nullptr, ren.get(), "a", "a@b", "{}", strVer));
    EXPECT_EQ("1\n", Git("rev-list --all --count"));
    ExpectValidAndClean();
}

TEST_F(GitLayerTest, WriteLockExcludesThreeProcessesAndStaysOnDisk) {
    Create();
    std::string strLock = m_repo + "/.git/index.lock", strHolder = m_sys.Root() + "/holder";
    EXPECT_EQ(0, GitWriteUnlock(m_repo.c_str())); // nothing held
    // Each holder makes the one marker and removes it before unlocking:
    // a marker already there means two holders at once.
    pid_t rgPid[3];
    for (pid_t &pid : rgPid) {
        if (0 == (pid = fork())) {
            int status = 0;
            for (int i = 0; i < 300 && 0 == status; i++) {
                if (0 != GitWriteLock(m_repo.c_str())) status = 2;
                int fd = open(strHolder.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
                if (0 > fd) status = 1;
                usleep(50);
                if (0 <= fd && (0 != close(fd) || 0 != unlink(strHolder.c_str()))) status = 3;
                if (0 != GitWriteUnlock(m_repo.c_str())) status = 4;
            }
            _exit(status);
        }
    }
    for (pid_t pid : rgPid) {
        int status = -1;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status)) << "status " << status;
    }
    EXPECT_TRUE(TRABCFileExist(strLock.c_str()));
    EXPECT_EQ(-1, GitWriteLock((m_sys.Root() + "/nowhere").c_str()));
    EXPECT_EQ(0, GitWriteUnlock(m_repo.c_str()));
}

TEST_F(GitLayerTest, PlantedLinksNeverLeadOutsideTheObject) {
    std::string strV1 = Create();
    std::string strRoot = m_sys.Root(), strVictim = strRoot + "/victim", strOther = strRoot + "/other/version";
    std::string strLoad = strRoot + "/load", strFresh = strRoot + "/fresh/version";
    ASSERT_EQ(0, RunCommand("mkdir -p " + strVictim + " " + strOther + " " + strLoad + " " + strFresh + " && cd " +
                            strVictim + " && echo secret > a && echo secret > file"));
    Hash addOther({{"text/a", Src("o", "\"other\"")}});
    std::string strVer;
    ASSERT_EQ(0, GitCreateRepository(strOther.c_str(), 100, addOther.get(), nullptr, "bob", "b@x", "{}", strVer));
    std::string strVictimBefore = Snapshot(strVictim), strOtherBefore = Snapshot(strOther);

    // Every exported function on one repository, their results in a row.
    auto callAll = [&](const std::string &strRepo) {
        const char *szRepo = strRepo.c_str();
        Json::Value jInfo;
        Hash diff, add({{"text/a", Src("x", "\"x\"")}});
        std::string strOut;
        int rgRet[] = {GitCommit(szRepo, strV1.c_str(), 300, add.get(), nullptr, nullptr, "a", "a@b", "{}", strOut),
                       GitCreateRepository(szRepo, 300, add.get(), nullptr, "a", "a@b", "{}", strOut),
                       GitLoadCommit(szRepo, strV1.c_str(), strLoad.c_str(), jInfo),
                       GitRestoreLastestCommit(szRepo),
                       GitGetCommitInfo(szRepo, NULL, jInfo),
                       GitDiff(szRepo, strV1.c_str(), NULL, diff.get()),
                       GitListCommitHistory(szRepo, 0, 0, false, Json::Value(), jInfo),
                       GitWriteLock(szRepo)};
        GitWriteUnlock(szRepo);
        std::string strRet;
        for (int ret : rgRet)
            strRet += std::to_string(ret) + " ";
        return strRet;
    };
    // ".git" must be a real folder of the store: refused before libgit2
    // opens anything, and so is a work tree folder that is a link.
    struct {
        const char *szWhat, *szPlant, *szUndo;
    } rgRefused[] = {
        {"a link to another repository", "mv .git .real && ln -s ../../other/version/.git .git",
         "rm .git && mv .real .git"},
        {"a file naming another repository", "mv .git .real && echo 'gitdir: ../../other/version/.git' > .git",
         "rm .git && mv .real .git"},
        {"the owner's", "chown 1101 .git", "chown 0 .git"},
    };
    for (const auto &c : rgRefused) {
        SCOPED_TRACE(c.szWhat);
        ASSERT_EQ(0, RunCommand("cd " + m_repo + " && " + c.szPlant));
        EXPECT_EQ("-1 -1 -1 -1 -1 -1 -1 -1 ", callAll(m_repo));
        ASSERT_EQ(0, RunCommand("cd " + m_repo + " && " + c.szUndo));
    }
    ASSERT_EQ(0, symlink(m_repo.c_str(), (strRoot + "/linked").c_str()));
    EXPECT_EQ("-1 -1 -1 -1 -1 -1 -1 -1 ", callAll(strRoot + "/linked"));

    // Links in the work tree. Where a folder belongs (or a non-folder):
    // the call fails before anything is committed or written. Where a file
    // belongs: replaced by a file, never followed.
    std::string strLatest = "\"one\"";
    auto commit = [&](const std::string &strText) {
        Hash add({{"text/a", Src("t", strText)}, {"binary_info/b", Src("i", "{\"md5\":1}")}});
        std::string strHead = Git("rev-parse HEAD").substr(0, 40), strNew;
        int ret = GitCommit(m_repo.c_str(), strHead.c_str(), 1000 + strText.size(), add.get(), nullptr, nullptr, "a",
                            "a@b", "{}", strNew);
        if (0 == ret) strLatest = strText;
        return ret;
    };
    auto createFresh = [&] {
        Hash add({{"text/a", Src("f", "1")}});
        return GitCreateRepository(strFresh.c_str(), 100, add.get(), nullptr, "a", "a@b", "{}", strVer);
    };
    auto load = [&] {
        Json::Value jInfo;
        return GitLoadCommit(m_repo.c_str(), strV1.c_str(), strLoad.c_str(), jInfo);
    };
    auto restore = [&] { return GitRestoreLastestCommit(m_repo.c_str()); };
    const std::string strIn = "ln -sfn " + strVictim;
    struct {
        const char *szWhat;
        std::string strDir, strPlant;
        std::function<int()> call;
        int expect;
    } rgTree[] = {
        {"commit, text is a link", m_repo, "rm -r text && " + strIn + " text", [&] { return commit("\"2\""); }, -1},
        {"commit, binary is a file", m_repo, "rm -r binary && echo x > binary", [&] { return commit("\"3\""); }, -1},
        {"restore, binary_info is a link", m_repo, "rm -r binary_info && " + strIn + " binary_info", restore, -1},
        {"create, text is a link", strFresh, strIn + " text", createFresh, -1},
        {"load, text is a link", strLoad, strIn + " text", load, -1},
        {"commit, files are links", m_repo, strIn + "/a text/a && ln -sf " + strVictim + "/file binary_info/b",
         [&] { return commit("\"4\""); }, 0},
        {"restore, files are links", m_repo, strIn + "/file binary/b2 && ln -sf " + strVictim + "/a text/a", restore,
         0},
        {"load, files are links", strLoad, "mkdir text && " + strIn + "/a text/a", load, 0},
    };
    for (const auto &c : rgTree) {
        SCOPED_TRACE(c.szWhat);
        std::string strCount = Git("rev-list --all --count");
        ASSERT_EQ(0, RunCommand("cd " + c.strDir + " && " + c.strPlant));
        EXPECT_EQ(c.expect, c.call());
        if (0 > c.expect) {
            EXPECT_EQ(strCount, Git("rev-list --all --count"));
        } else {
            EXPECT_EQ(std::string::npos, WorkTree(c.strDir).find("<other>")) << WorkTree(c.strDir);
        }
        EXPECT_FALSE(TRABCFileExist((strFresh + "/.git").c_str()));
        // Undo what a refused call left planted; the repository reads back
        // its latest version whole.
        ASSERT_EQ(0, RunCommand("cd " + c.strDir +
                                " && for d in text binary binary_info; do "
                                "if [ -L $d ] || [ -f $d ]; then rm $d; fi; done; rm -rf " +
                                strLoad + "/*"));
        ASSERT_EQ(0, restore());
        EXPECT_EQ(strLatest, Git("cat-file -p HEAD:text/a"));
        EXPECT_EQ(strLatest, ReadFile(m_repo + "/text/a"));
    }
    EXPECT_EQ("\"4\"", strLatest);
    ExpectValidAndClean();
    EXPECT_EQ(strVictimBefore, Snapshot(strVictim));
    EXPECT_EQ(strOtherBefore, Snapshot(strOther));
}

} // namespace
