/*
 * The file store against its own users. Each object's folders belong to
 * its owner, who can plant links in them, and every request names files
 * of the requester's choosing; the store runs as root. Whatever is
 * planted or sent, no file outside the object changes (content and
 * modification time), nothing of such a file is revealed, the answer is
 * the expected code, and the object stays readable.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "object/object_test_util.h"

namespace {

using kolvtest::RunCommand;
using kolvtest::StackText;
using objtest::J;

class HostileStoreTest : public objtest::ObjectStoreTest {
  protected:
    void SetUp() override {
        ObjectStoreTest::SetUp();
        // Root's files: a plain one, one in JSON that names secrets the way
        // the store's files would, and a folder. Old times, so that any
        // write shows.
        m_strVictim = m_sys.Path("/victim");
        ASSERT_EQ(0, RunCommand("mkdir -p " + m_strVictim + "/dir && cd " + m_strVictim +
                                " && echo '\"secret\"' > file && echo '\"secret\"' > dir/a && echo "
                                "'{\"basic\":{\"category\":\"secret\"},\"metatext\":{\"secret\":1},"
                                "\"auto_mtime\":{}}' > json && chmod 600 file json dir/a && chmod 700 dir && "
                                "touch -d @1000000 file json dir/a dir"));
        m_strSrc = m_sys.Path("/tmp/src.bin");
        kolvtest::WriteFile(m_strSrc, "attachment");
        m_strBobs = Create(kolvtest::kBob, J(R"({"text":{"t":"bob's"}})"));
        Json::Value jAlices = J(R"({"text":{"t":"one"},"metatext":{"m":"one"},
                                    "binary_files":[{"name":"b.bin","format":"raw"}],
                                    "metabinary_files":[{"name":"b.bin","format":"raw"}]})");
        jAlices["binary_files"][0]["path"] = m_strSrc;
        jAlices["metabinary_files"][0]["path"] = m_strSrc;
        m_strID = Create(kolvtest::kAlice, jAlices);
        ASSERT_TRUE(Read(m_strVer)) << StackText();
    }

    /* Everything below strPath: names, kinds, sizes, times, owners, modes
     * and contents ("" when it is not there). */
    static std::string Snapshot(const std::string &strPath) {
        std::string strOut;
        RunCommand("cd '" + strPath +
                       "' 2>/dev/null && find . -printf '%p %y %s %T@ %U %m\\n' | sort && find . -type f "
                       "-exec md5sum {} + | sort",
                   &strOut);
        return strOut;
    }
    std::string Outside() const { return Snapshot(m_strVictim) + Snapshot(ObjectDir(m_strBobs)); }
    /* str with "@V@" root's folder, "@BOB@" bob's object, "@SRC@" the source. */
    std::string Fill(std::string str) const {
        for (const auto &name :
             {std::make_pair("@V@", m_strVictim), {"@BOB@", ObjectDir(m_strBobs)}, {"@SRC@", m_strSrc}})
            for (size_t pos; std::string::npos != (pos = str.find(name.first));)
                str.replace(pos, strlen(name.first), name.second);
        return str;
    }

    /* alice reads her object whole; its version in strVer. Nothing of
     * root's files may show in it. */
    bool Read(std::string &strVer) {
        Json::Value jGet = GetParm(m_strID, kolvtest::kAlice);
        jGet["field"] = KOLVVessaObjectFieldAll();
        KOLV_VESSA_OBJECT obj;
        if (!obj.Get(jGet)) return false;
        std::string strSeen = obj.get_category() + obj.get_text().toStyledString() +
                              obj.get_metatext().toStyledString() + obj.get_binary_info().toStyledString() +
                              obj.get_metabinary_info().toStyledString();
        EXPECT_EQ(std::string::npos, strSeen.find("secret")) << strSeen;
        strVer = obj.get_version();
        return true;
    }

    /* alice's set on her latest version with the members of jExtra. */
    bool Set(const Json::Value &jExtra, unsigned requester = kolvtest::kAlice) {
        Json::Value jParm = GetParm(m_strID, requester);
        for (const std::string &strName : jExtra.getMemberNames())
            jParm[strName] = jExtra[strName];
        jParm["version"] = m_strVer;
        KOLV_VESSA_OBJECT obj;
        return obj.Set(jParm);
    }

    std::string m_strVictim, m_strSrc, m_strBobs, m_strID, m_strVer;
};

TEST_F(HostileStoreTest, LinksPlantedInTheObjectAreNeverWrittenThrough) {
    const std::string B = Enc("b.bin");
    const char *szBasic = R"({"ctime":5})";
    const char *szMeta = R"({"metatext":{"m":"two"}})";
    const char *szMetaBinary = R"({"metabinary_files":[{"name":"b.bin","format":"raw","path":"@SRC@"}]})";
    // Refused where it is read (before the set writes) or where it is written.
    const std::string strJsonLink = "1003 ENOENT != errno|1002 0 > fdLock";
    const struct {
        const char *szWhat;
        std::string strPlant, strUndo; // shell commands in the object's folder; @V@ is root's folder
        const char *szRequest;
        std::string strFails; // "" when the set succeeds, else "CODE ORIGIN", alternatives joined by "|"
    } rgCase[] = {
        // Temporary names are random and made with O_EXCL, so a planted one
        // is an unrelated file (the old fixed names: tests/common/json_test.cpp).
        {".basic.json.*", "for n in 0 1 2; do ln -s @V@/file .basic.json.$n; ln -s @V@/file .metatext.json.$n; done",
         "rm -f .basic.json.? .metatext.json.?", R"({"ctime":6,"metatext":{"m":"x"}})", ""},
        // A JSON file that is a link is neither read nor written through.
        {"basic.json", "mv basic.json b.real && ln -s @V@/json basic.json", "rm basic.json && mv b.real basic.json",
         szBasic, strJsonLink},
        {"metatext.json", "mv metatext.json m.real && ln -s @V@/json metatext.json",
         "rm metatext.json && mv m.real metatext.json", szMeta, strJsonLink},
        {"dangling .lock", "rm .lock && ln -s @V@/created .lock", "rm -f .lock", szMeta, "1001 0 > fd.get()"},
        // Links in the version's work tree, and a version folder that is a
        // link: tests/backend_fs/git_test.cpp (PlantedLinksNeverLeadOutsideTheObject).
        // A file of the meta binary store that is a link is replaced by a
        // file, or the set fails.
        {"meta binary file", "ln -sf @V@/file metabinary/" + B, "! test -L metabinary/" + B, szMetaBinary, ""},
        {"meta binary info", "cp metabinary_info/" + B + " i.real && ln -sf @V@/json metabinary_info/" + B,
         "mv -f i.real metabinary_info/" + B, szMetaBinary,
         "1003 !ReadInfoFile(strPath, strName, jOut)|1002 0 > fdLock"},
        {"metabinary folder", "mv metabinary mb.real && ln -s @V@/dir metabinary",
         "rm metabinary && mv mb.real metabinary", szMetaBinary,
         "1003 !kolv::fs::CopyFromFd(fdAsRequester.get(), item.strFile)"},
    };
    const std::string strObject = ObjectDir(m_strID), strOutside = Outside();
    long long mtime = time(NULL) + 100;
    for (const auto &c : rgCase) {
        SCOPED_TRACE(c.szWhat);
        ASSERT_EQ(0, RunCommand("cd " + strObject + " && " + Fill(c.strPlant)));
        Json::Value jRequest = J(Fill(c.szRequest));
        jRequest["mtime"] = (Json::Int64)mtime++;
        bool blOk = Set(jRequest);
        if (c.strFails.empty()) {
            EXPECT_TRUE(blOk) << StackText();
        } else {
            EXPECT_FALSE(blOk);
            std::string strHave = std::to_string(KOLVVessaErrCodeGet()) + " " + kolvtest::OriginMsg();
            EXPECT_NE(std::string::npos, ("|" + c.strFails + "|").find("|" + strHave + "|")) << strHave;
        }
        std::string strVer; // read while the link is still there
        Read(strVer);
        EXPECT_EQ(strOutside, Outside());
        EXPECT_EQ(0, RunCommand("cd " + strObject + " && " + Fill(c.strUndo)));
        EXPECT_TRUE(Read(m_strVer)) << StackText();
    }
    // The meta binary set took effect in the object itself.
    EXPECT_EQ("attachment", kolvtest::ReadFile(strObject + "/metabinary/" + B));
    kolvtest::ExpectCleanRepo(strObject + "/version");
}

// A "path" is opened as the requester would open it himself (uid, primary
// and supplementary groups, along the whole path); only regular files are
// taken, and a FIFO or device never blocks. A set with "binary_files" and
// no "text" makes a version holding the file.
TEST_F(HostileStoreTest, PathSourcesAreOpenedAsTheRequesterAndBinaryOnlySetsKeepThem) {
    if (0 != geteuid()) GTEST_SKIP() << "needs root to give files away";
    const std::string D = m_sys.Path("/tmp/src");
    ASSERT_EQ(0, RunCommand("mkdir -p " + D + "/alices " + D + "/bobs " + D + "/grp " + D + "/other && cd " + D +
                            " && echo secret > root-only && chmod 600 root-only && mkfifo fifo && chmod 666 fifo"
                            " && echo mine > alices/own && chmod 600 alices/own && ln -s ../root-only alices/link"
                            " && chown -R 1101 alices && chmod 700 alices && echo bob > bobs/f && chown 1102 bobs"
                            " && chmod 700 bobs && echo grp > grp/f && echo other > other/f"
                            " && chown -R 1102:2001 grp && chown -R 1102:2002 other && chmod 750 grp other"
                            " && chmod 640 grp/f other/f"));
    const struct {
        std::string strPath;
        unsigned requester;
        const char *szContent; // NULL: refused
    } rgCase[] = {
        {"/etc/shadow", kolvtest::kAlice, NULL},
        {D + "/root-only", kolvtest::kAlice, NULL},
        {D + "/alices/link", kolvtest::kAlice, NULL}, // her own link to root's file
        {D + "/bobs/f", kolvtest::kAlice, NULL},      // in bob's 0700 folder
        {D + "/other/f", kolvtest::kAlice, NULL},     // a group she is not in
        {"/dev/zero", kolvtest::kAlice, NULL},
        {D + "/fifo", kolvtest::kAlice, NULL},
        {D, kolvtest::kAlice, NULL},
        {D + "/alices/own", kolvtest::kAlice, "mine\n"},
        {D + "/grp/f", kolvtest::kAlice, "grp\n"}, // through her group 2001
        {D + "/root-only", 0, "secret\n"},         // the system reads any
    };
    const std::string strFile = Enc("f"), strObject = ObjectDir(m_strID), strOutside = Outside();
    long long mtime = time(NULL) + 100;
    for (const auto &c : rgCase) {
        SCOPED_TRACE(c.strPath + " as " + std::to_string(c.requester));
        Json::Value jBinary, jMeta;
        jBinary["binary_files"] = J(R"([{"name":"f","format":"raw"}])");
        jBinary["binary_files"][0]["path"] = c.strPath;
        jMeta["metabinary_files"] = jBinary["binary_files"];
        jMeta["mtime"] = (Json::Int64)mtime++;
        std::string strBefore = m_strVer, strVer;
        if (!c.szContent) {
            EXPECT_FAILS(Set(jBinary, c.requester), 1023, "0 > fdAsRequester.get()");
            EXPECT_FAILS(Set(jMeta, c.requester), 1023, "0 > fdAsRequester.get()");
            ASSERT_TRUE(Read(strVer)) << StackText();
            EXPECT_EQ(strBefore, strVer);
            EXPECT_FALSE(kolvtest::ReadFile(strObject + "/metabinary/" + strFile) == "secret\n");
            continue;
        }
        ASSERT_TRUE(Set(jBinary, c.requester)) << StackText();
        ASSERT_TRUE(Set(jMeta, c.requester)) << StackText();
        ASSERT_TRUE(Read(m_strVer)) << StackText();
        EXPECT_NE(strBefore, m_strVer);
        EXPECT_EQ(c.szContent, Git(m_strID, "show " + m_strVer + ":binary/" + strFile));
        EXPECT_EQ(c.szContent, kolvtest::ReadFile(strObject + "/metabinary/" + strFile));
    }
    EXPECT_EQ(strOutside, Outside());
}

TEST_F(HostileStoreTest, FoldersAboveObjectsAreTheStoresAndAnObjectsItsOwners) {
    if (0 != geteuid()) GTEST_SKIP() << "needs root to give folders away";
    auto expectOwned = [](const std::string &strPath, uid_t uid) {
        struct stat st;
        ASSERT_EQ(0, lstat(strPath.c_str(), &st)) << strPath;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << strPath;
        EXPECT_EQ(uid, st.st_uid) << strPath;
        if (0 == uid) {
            EXPECT_EQ(0755u, st.st_mode & 07777) << strPath;
        } else {
            EXPECT_EQ(100u, st.st_gid) << strPath;
        }
    };
    // The first object here was bob's: the folders above it are still root's.
    for (const std::string &strDir : {m_sys.Repo(), m_sys.Repo() + "/note", m_sys.Repo() + "/@tmp"})
        expectOwned(strDir, geteuid());
    for (const char *szSub : {"", "/version", "/version/text", "/metabinary", "/metabinary_info"}) {
        expectOwned(ObjectDir(m_strID) + szSub, kolvtest::kAlice);
        expectOwned(ObjectDir(m_strBobs) + szSub, kolvtest::kBob);
    }
    // A namespace folder that an earlier store left to its first user is
    // taken back by the next create.
    ASSERT_EQ(0, RunCommand("chown 1102 '" + m_sys.Repo() + "/note' && chmod 777 '" + m_sys.Repo() + "/note'"));
    Create(kolvtest::kAlice);
    expectOwned(m_sys.Repo() + "/note", geteuid());
}

// A create's binary files are staged in the scratch folder (text goes to
// the repository from memory). Where the scratch folder cannot be made,
// the create fails before the namespace sees anything, and the id can be
// made once it can. (A failure at any other step:
// tests/backend_fs/fault_test.cpp.)
TEST_F(HostileStoreTest, ACreateWithoutItsScratchFolderLeavesNothing) {
    const std::string strTmp = m_sys.Repo() + "/@tmp", strNs = m_sys.Repo() + "/note";
    std::string strBefore, strAfter;
    RunCommand("ls -A '" + strNs + "'", &strBefore);
    Json::Value jParm = J(R"({"ns":"note","category":"memo","text":{"t":"x"},"metatext":{"m":"x"},
                              "binary_files":[{"name":"b.bin","format":"raw"}]})");
    jParm["requester"] = kolvtest::kAlice;
    jParm["id"] = KOLVVessaObjectGenerateID(kolvtest::kAlice);
    jParm["binary_files"][0]["path"] = m_strSrc;
    ASSERT_EQ(0, RunCommand("rm -rf '" + strTmp + "' && touch '" + strTmp + "'"));
    KOLV_VESSA_OBJECT obj;
    EXPECT_FAILS(obj.Create(jParm), 1032, "strScratch.empty()");
    ASSERT_EQ(0, RunCommand("rm '" + strTmp + "'"));
    RunCommand("ls -A '" + strNs + "'", &strAfter);
    EXPECT_EQ(strBefore, strAfter);
    EXPECT_TRUE(obj.Create(jParm)) << StackText();
}
} // namespace
