/*
 * Field rename and delete in the file store, called on the backend itself
 * on objects made through the object interface: a rename makes a version
 * with only the new name and never replaces a name, a delete removes the
 * object's folder and nothing its links point at, a writer racing a
 * delete never leaves half a folder. (A failure at any fault point:
 * tests/backend_fs/fault_test.cpp.)
 */
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/object_lock.h"
#include "object/object_test_util.h"

namespace {

namespace stdfs = std::filesystem;
using kolvtest::kAlice;
using kolvtest::StackText;
using objtest::J;

const char kCommit[] = "GitCommit(m_jPathInfo[KOLVVES_VERSION].asCString(), m_jParm[\"version\"].asCString(), "
                       "m_jParm[\"mtime\"].asInt64(), NULL, NULL, pRenameHash, strUserName.c_str(), "
                       "strMail.c_str(), jCommitMsg.toString().c_str(), strVer)";

/* Whether pid waits for a flock (a "->" line of /proc/locks). */
bool WaitsForLock(pid_t pid) {
    std::istringstream locks(kolvtest::ReadFile("/proc/locks"));
    for (std::string strLine; std::getline(locks, strLine);) {
        if (std::string::npos != strLine.find("->") &&
            std::string::npos != strLine.find(" " + std::to_string(pid) + " "))
            return true;
    }
    return false;
}

class RenameDeleteTest : public objtest::ObjectStoreTest {
  protected:
    void SetUp() override {
        ObjectStoreTest::SetUp();
        m_strSrc = m_sys.Path("/tmp/src.bin");
        kolvtest::WriteFile(m_strSrc, "attachment");
        m_jCreate = J(R"({"text":{"a":"A","b":"B"},"metatext":{"m":1,"n":2},
                          "binary_files":[{"name":"f.bin","format":"raw"}],
                          "metabinary_files":[{"name":"mb","format":"png"}]})");
        m_jCreate["binary_files"][0]["path"] = m_strSrc;
        m_jCreate["metabinary_files"][0]["path"] = m_strSrc;
        m_strID = Create(kAlice, m_jCreate);
    }

    bool Rename(const char *szSegment, const std::string &strOld, const std::string &strNew, std::string &strVer,
                long long mtime = 0) {
        Json::Value j = GetParm(m_strID, m_requester);
        j["segment"] = szSegment;
        j["old_field"] = strOld;
        j["new_field"] = strNew;
        j["version"] = strVer;
        if (mtime) j["mtime"] = (Json::Int64)mtime;
        KOLVVESSA_BACKEND_FS fs;
        return fs.FieldRename(j, strVer);
    }
    bool Delete() {
        KOLVVESSA_BACKEND_FS fs;
        return fs.Delete(GetParm(m_strID, kAlice));
    }
    /* What alice reads (null when she cannot): version and, by name, the
     * texts, meta texts and the md5 of each file. */
    Json::Value Read(const std::string &strVer = "") const {
        Json::Value jGet = GetParm(m_strID, kAlice);
        jGet["field"] = KOLVVessaObjectFieldAll();
        if (!strVer.empty()) jGet["version"] = strVer;
        KOLV_VESSA_OBJECT obj;
        if (!obj.Get(jGet)) return Json::Value();
        Json::Value j;
        j["version"] = obj.get_version();
        j["text"] = obj.get_text();
        j["metatext"] = obj.get_metatext();
        for (const char *szPart : {"binary_info", "metabinary_info"}) {
            Json::Value jInfo = 0 == strcmp(szPart, "binary_info") ? obj.get_binary_info() : obj.get_metabinary_info();
            for (const std::string &strName : jInfo.getMemberNames())
                j[szPart][strName] = jInfo[strName]["md5"];
        }
        return j;
    }
    /* Hidden or temporary entries in the namespace folder. */
    std::vector<std::string> Hidden() const {
        std::vector<std::string> names;
        for (const auto &ent : stdfs::directory_iterator(m_sys.Repo() + "/note"))
            if ('.' == ent.path().filename().string()[0]) names.push_back(ent.path().filename().string());
        return names;
    }
    std::string Tree() const { return Git(m_strID, "ls-tree -r --name-only HEAD"); }

    std::string m_strSrc, m_strID;
    Json::Value m_jCreate;
    unsigned m_requester = kAlice;
};

TEST_F(RenameDeleteTest, RenameMovesOneNameAndNeverReplaces) {
    const Json::Value j0 = Read();
    std::string strVer = j0["version"].asString();
    const std::string strGitInfo = kolvtest::ReadFile(ObjectDir(m_strID) + "/git_info.json");

    // A text field: a new version with only the new name; the old version
    // still reads the old name; renames are not counted.
    ASSERT_TRUE(Rename("text", "a", "c", strVer)) << StackText();
    EXPECT_NE(j0["version"].asString(), strVer);
    EXPECT_EQ("binary/" + Enc("f.bin") + "\nbinary_info/" + Enc("f.bin") + "\ntext/" + Enc("b") + "\ntext/" + Enc("c") +
                  "\n",
              Tree());
    EXPECT_EQ(J(R"({"b":"B","c":"A"})"), Read()["text"]);
    EXPECT_EQ(j0["text"], Read(j0["version"].asString())["text"]);
    EXPECT_EQ(strGitInfo, kolvtest::ReadFile(ObjectDir(m_strID) + "/git_info.json"));

    // A binary file moves with its info record; the system may rename, an
    // unknown user may not.
    m_requester = 4242;
    EXPECT_FAILS(Rename("binary", "f.bin", "g.bin", strVer), 1022,
                 "!KOLVVessaGetUserNameAndMail(requester, strUserName, strMail, true)");
    m_requester = 0;
    ASSERT_TRUE(Rename("binary", "f.bin", "g.bin", strVer)) << StackText();
    m_requester = kAlice;
    EXPECT_EQ("binary/" + Enc("g.bin") + "\nbinary_info/" + Enc("g.bin") + "\ntext/" + Enc("b") + "\ntext/" + Enc("c") +
                  "\n",
              Tree());
    EXPECT_EQ(j0["binary_info"]["f.bin"], Read()["binary_info"]["g.bin"]);
    kolvtest::ExpectCleanRepo(ObjectDir(m_strID) + "/version");

    // Refused, changing nothing: an old name not in the base version, a
    // new name taken (also the name itself), a bad segment, no object.
    const std::string strHead = Tree(), strLatest = strVer;
    EXPECT_FAILS(Rename("text", "a", "d", strVer), 1008, kCommit);
    EXPECT_FAILS(Rename("text", "b", "c", strVer), 1037, kCommit);
    EXPECT_FALSE(Rename("version", "b", "d", strVer));
    EXPECT_EQ(1007, KOLVVessaErrCodeGet());
    EXPECT_EQ(0u, kolvtest::OriginMsg().find("bad segement, param=")) << StackText();
    EXPECT_EQ(strLatest, strVer);
    EXPECT_EQ(strHead, Tree());
    EXPECT_EQ(J(R"({"b":"B","c":"A"})"), Read()["text"]);

    // Meta text: onto an existing key nothing changes; otherwise the key
    // moves and carries the request's time.
    const std::string strMetaFile = ObjectDir(m_strID) + "/metatext.json";
    const std::string strMetaBefore = kolvtest::ReadFile(strMetaFile);
    EXPECT_FAILS(Rename("metatext", "m", "n", strVer), 1007, "jObj[KOLVVES_META_TEXT_KEY].isMember(strNew)");
    EXPECT_FAILS(Rename("metatext", "x", "y", strVer), 1008, "!jObj[KOLVVES_META_TEXT_KEY].isMember(strOld)");
    EXPECT_EQ(strMetaBefore, kolvtest::ReadFile(strMetaFile));
    ASSERT_TRUE(Rename("metatext", "m", "k", strVer, 4000000000LL)) << StackText();
    EXPECT_EQ(strLatest, strVer);
    Json::Value jMeta = J(kolvtest::ReadFile(strMetaFile));
    EXPECT_EQ(J(R"({"k":1,"n":2})"), jMeta["metatext"]);
    EXPECT_EQ(4000000000LL, jMeta["auto_mtime"]["k"].asInt64());

    // Meta binary: the file and its record under the new name, stamped.
    const std::string strMb = ObjectDir(m_strID) + "/metabinary/", strMbInfo = ObjectDir(m_strID) + "/metabinary_info/";
    ASSERT_TRUE(Rename("metabinary", "mb", "mc", strVer, 4000000001LL)) << StackText();
    EXPECT_FALSE(stdfs::exists(strMb + Enc("mb")) || stdfs::exists(strMbInfo + Enc("mb")));
    Json::Value jInfo = J(kolvtest::ReadFile(strMbInfo + Enc("mc")));
    EXPECT_EQ("mc", jInfo["name"].asString());
    EXPECT_EQ(4000000001LL, jInfo["mtime"].asInt64());
    EXPECT_EQ(j0["metabinary_info"]["mb"], Read()["metabinary_info"]["mc"]);
    EXPECT_FAILS(Rename("metabinary", "mc", "mc", strVer), 1007, "kolv::fs::Exists(strNewInfo)");
    EXPECT_FAILS(Rename("metabinary", "mb", "md", strVer), 1008, "!kolv::fs::Exists(strInfoPath)");

    // Gone: a rename never brings the object back.
    ASSERT_TRUE(Delete()) << StackText();
    EXPECT_FAILS(Rename("metatext", "k", "j", strVer), 1008,
                 "!kolv::fs::IsDir(m_jPathInfo[KOLVVES_ID_PATH].asString())");
    EXPECT_FALSE(stdfs::exists(ObjectDir(m_strID)));
}

TEST_F(RenameDeleteTest, DeleteRemovesTheFolderNeverWhatItsLinksPointAt) {
    const std::string strVictim = m_sys.Path("/victim");
    kolvtest::WriteFile(strVictim, "root's");
    ASSERT_EQ(0, kolvtest::RunCommand("cd " + ObjectDir(m_strID) + " && ln -s " + strVictim + " planted && ln -s " +
                                      m_sys.Path("") + " version/text/up && ln -s " + strVictim + " .lock.x"));
    // Only one object folder: never the namespace, the repository, the
    // scratch folder or a create or delete in progress.
    const std::pair<std::string, std::string> rgPlace[] = {{"note", ""},     {"note", ".."},
                                                           {"note", "x/.."}, {"@tmp", "x"},
                                                           {"note", ".x"},   {std::string("note\0x", 6), "x"}};
    for (const auto &place : rgPlace) {
        KOLVVESSA_BACKEND_FS fs;
        Json::Value j = GetParm(place.second, 0);
        j["ns"] = place.first;
        EXPECT_FALSE(fs.Delete(j)) << place.first << "/" << place.second;
        EXPECT_EQ(1007, KOLVVessaErrCodeGet()) << StackText();
    }
    ASSERT_TRUE(stdfs::exists(ObjectDir(m_strID)));
    // A FIFO planted as the lock file fails a read at once; the delete
    // goes on without the lock.
    ASSERT_EQ(0, kolvtest::RunCommand("cd " + ObjectDir(m_strID) + " && rm -f .lock && mkfifo .lock"));
    EXPECT_TRUE(Read().isNull());
    ASSERT_TRUE(Delete()) << StackText();
    EXPECT_FALSE(stdfs::exists(stdfs::symlink_status(ObjectDir(m_strID))));
    EXPECT_EQ("root's", kolvtest::ReadFile(strVictim));
    EXPECT_TRUE(stdfs::exists(m_sys.Path("/volume1")));
    EXPECT_EQ(std::vector<std::string>(), Hidden());
    EXPECT_TRUE(Delete()) << StackText();
    EXPECT_TRUE(Read().isNull());
}

TEST_F(RenameDeleteTest, DeleteWhileAnotherProcessWritesLeavesNoHalfObject) {
    for (int round = 0; round < 8 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        if (round) m_strID = Create(kAlice, J(R"({"text":{"t":"0"}})"));
        int rgPipe[2];
        ASSERT_EQ(0, pipe(rgPipe));
        pid_t pid = fork();
        ASSERT_LE(0, pid);
        if (0 == pid) {
            close(rgPipe[0]);
            for (int i = 0;; ++i) {
                Json::Value jParm = GetParm(m_strID, kAlice);
                KOLV_VESSA_OBJECT obj;
                if (obj.Get(jParm)) {
                    jParm["version"] = obj.get_version();
                    jParm["text"]["t"] = std::to_string(i);
                    jParm["metatext"]["m"] = i;
                    obj.Set(jParm);
                }
                if (1 == i && 1 != write(rgPipe[1], "x", 1)) _exit(1);
            }
        }
        close(rgPipe[1]);
        char c;
        ASSERT_EQ(1, read(rgPipe[0], &c, 1));
        close(rgPipe[0]);
        usleep(static_cast<useconds_t>(round * 700));
        EXPECT_TRUE(Delete()) << StackText();
        usleep(2000);
        kill(pid, SIGKILL);
        waitpid(pid, NULL, 0);
        // The writer never brings the object back, whole or in part.
        EXPECT_FALSE(stdfs::exists(stdfs::symlink_status(ObjectDir(m_strID))));
        EXPECT_EQ(std::vector<std::string>(), Hidden());
    }
}

TEST_F(RenameDeleteTest, AWriterThatWaitedForADeleteFailsAndMakesNothing) {
    for (int op = 0; op < 2 && !HasFailure(); ++op) {
        if (op) m_strID = Create(kAlice, m_jCreate);
        const std::string strDir = ObjectDir(m_strID), strHidden = kolv::HiddenBeside(strDir);
        std::string strVer = Read()["version"].asString();
        kolv::ObjectLock lock;
        ASSERT_TRUE(lock.Acquire(strDir, true, kAlice));
        pid_t pid = fork();
        ASSERT_LE(0, pid);
        if (0 == pid) {
            Json::Value j = GetParm(m_strID, kAlice);
            j["version"] = strVer;
            j["text"]["a"] = "new";
            KOLVVESSA_BACKEND_FS fs;
            bool blOk = op ? Rename("text", "a", "c", strVer) : fs.Set(j, strVer);
            _exit(!blOk && kolvtest::ErrIs(1008, "!IsFolderAt(fdDir.get(), strDir)") ? 0 : 1);
        }
        int status = 0;
        while (!WaitsForLock(pid) && 0 == waitpid(pid, &status, WNOHANG))
            usleep(1000);
        // What a delete does under the lock, then the writer goes on.
        ASSERT_EQ(0, rename(strDir.c_str(), strHidden.c_str()));
        lock.Release();
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status)) << (op ? "rename" : "set");
        EXPECT_FALSE(stdfs::exists(stdfs::symlink_status(strDir)));
        stdfs::remove_all(strHidden);
    }
}

} // namespace
