// The check against a real store and index: each kind of damage made on
// purpose is found, and a repair mends what it may without touching an
// object's content or history.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>

#include "kolvvessa/kolvvessa.h"
#include "common/kolvvessa_safe_fs.h"
#include "object/object_test_util.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::Git;
using kolvtest::Psql;
using kolvtest::RunCommand;
using objtest::J;

class CheckTest : public objtest::IndexedStoreTest {
  protected:
    Json::Value Check(bool blRepair, long long safeAge = 3600) {
        Json::Value jParm, jReport;
        jParm["repair"] = blRepair;
        jParm["safe_age"] = (Json::Int64)safeAge;
        EXPECT_TRUE(KOLVVessaCheck(jParm, jReport)) << kolvtest::StackText();
        return jReport;
    }
    // The kinds found per object id (and per path for entries without an id).
    static std::multimap<std::string, std::string> Kinds(const Json::Value &jReport) {
        std::multimap<std::string, std::string> kinds;
        for (const Json::Value &j : jReport["findings"])
            kinds.emplace(j["id"].asString(), j["kind"].asString());
        return kinds;
    }
    static bool Has(const Json::Value &jReport, const std::string &strId, const std::string &strKind) {
        for (const Json::Value &j : jReport["findings"])
            if (j["id"].asString() == strId && j["kind"].asString() == strKind) return true;
        return false;
    }
    // Content and history of an object: every file outside ".git" and
    // every commit of every branch.
    std::string Snapshot(const std::string &strId) {
        std::string strFiles;
        RunCommand("cd '" + ObjectDir(strId) +
                       "' && find . -path ./version/.git -prune -o -type f ! -name '.*' -print | sort | xargs md5sum",
                   &strFiles);
        return strFiles + Git(strId, "log --format=%H --all");
    }
    static void Age(const std::string &strPath, int seconds) {
        struct timeval tv[2] = {{time(NULL) - seconds, 0}, {time(NULL) - seconds, 0}};
        ASSERT_EQ(0, lutimes(strPath.c_str(), tv)) << strPath;
    }
};

TEST_F(CheckTest, EveryKindOfDamageIsFoundAndRepairedWithoutTouchingContent) {
    Json::Value jExtra;
    jExtra["text"]["body"] = "flour, water";
    std::string strMissing = Create(kolvtest::kAlice, jExtra), strDiffers = Create(kolvtest::kAlice, jExtra),
                strGone = Create(kolvtest::kAlice), strRef = Create(kolvtest::kAlice),
                strBlob = Create(kolvtest::kAlice, jExtra), strJson = Create(kolvtest::kAlice),
                strLinked = Create(kolvtest::kAlice);
    const std::string strRepo = m_sys.Repo();
    EXPECT_EQ(0u, Check(false)["findings"].size()) << Check(false).toStyledString();

    // Drift made with SQL, and an object folder removed behind the index.
    Psql("DELETE FROM object WHERE id = '" + strMissing + "';");
    Psql("UPDATE object SET category = 'tampered', acl = '{\"enabled\":true}' WHERE id = '" + strDiffers + "';");
    ASSERT_EQ(0, RunCommand("rm -rf '" + ObjectDir(strGone) + "'"));
    // A branch pointing nowhere; a blob gone from the object database.
    const std::string strGitRef = ObjectDir(strRef) + "/version/.git";
    std::string strBranch = Git(strRef, "symbolic-ref HEAD");
    strBranch.erase(strBranch.find_last_not_of("\n") + 1);
    kolvtest::WriteFile(strGitRef + "/" + strBranch, std::string(40, '7') + "\n");
    std::string strBlobId = Git(strBlob, "rev-parse HEAD:text/" + Enc("body"));
    strBlobId.erase(40);
    ASSERT_EQ(
        0, unlink((ObjectDir(strBlob) + "/version/.git/objects/" + strBlobId.substr(0, 2) + "/" + strBlobId.substr(2))
                      .c_str()));
    // A meta file that does not parse; a link planted where one belongs.
    kolvtest::WriteFile(ObjectDir(strJson) + "/metatext.json", "{\"metatext\":");
    const std::string strOutside = m_sys.Root() + "/outside";
    ASSERT_EQ(0, mkdir(strOutside.c_str(), 0755));
    kolvtest::WriteFile(strOutside + "/secret", "keep me");
    ASSERT_EQ(0, symlink((strOutside + "/secret").c_str(), (ObjectDir(strLinked) + "/metatext.json").c_str()));
    // A namespace switched off: a reindex leaves its objects out.
    Json::Value jSettings;
    jSettings["Access"]["enable"] = true;
    jSettings["Access"]["enable_ns_note"] = true;
    jSettings["Access"]["enable_ns_memo"] = true;
    m_sys.WriteSettings(jSettings);
    KOLV_VESSA_OBJECT memo;
    ASSERT_TRUE(memo.Create(J(R"({"ns":"memo","category":"memo","requester":1101,"text":{"t":"x"}})")));
    const std::string strOff = memo.get_id();
    m_sys.EnableNamespace("note");
    // Leftovers of interrupted writers: old ones, and young ones that a
    // writer may still own. The old scratch folder holds a link out.
    const std::string strOldScratch = strRepo + "/@tmp/" + strMissing + ".4242.abcdefghij";
    const std::string strYoungScratch = strRepo + "/@tmp/" + strDiffers + ".4243.abcdefghij";
    ASSERT_EQ(0, RunCommand("mkdir -p '" + strOldScratch + "/text' '" + strYoungScratch + "'"));
    ASSERT_EQ(0, symlink(strOutside.c_str(), (strOldScratch + "/text/out").c_str()));
    const std::string strHalfMade = strRepo + "/note/." + strDiffers + ".k3j4h5g6";
    ASSERT_EQ(0, RunCommand("mkdir -p '" + strHalfMade + "/version' && echo x > '" + strHalfMade + "/basic.json'"));
    const std::string strTmpObj = ObjectDir(strDiffers) + "/version/.git/objects/tmp_obj_Zq81xA";
    kolvtest::WriteFile(strTmpObj, "partial");
    const std::string strTmpJson = ObjectDir(strDiffers) + "/.basic.json.a1b2c3d4e5";
    kolvtest::WriteFile(strTmpJson, "{");
    for (const std::string &str :
         {strOldScratch + "/text/out", strOldScratch + "/text", strOldScratch, strHalfMade, strTmpObj, strTmpJson})
        Age(str, 7200);

    std::map<std::string, std::string> before;
    for (const std::string &strId : {strMissing, strDiffers, strRef, strBlob, strJson, strLinked})
        before[strId] = Snapshot(strId);

    Json::Value jReport = Check(false);
    EXPECT_TRUE(Has(jReport, strMissing, "row_missing"));
    EXPECT_TRUE(Has(jReport, strDiffers, "row_differs"));
    EXPECT_TRUE(Has(jReport, strGone, "row_orphan"));
    EXPECT_TRUE(Has(jReport, strRef, "repo_broken"));
    EXPECT_TRUE(Has(jReport, strBlob, "repo_broken"));
    EXPECT_TRUE(Has(jReport, strJson, "json_unparsable"));
    EXPECT_TRUE(Has(jReport, strLinked, "unexpected_entry"));
    EXPECT_TRUE(Has(jReport, strOff, "skipped_by_reindex"));
    // So do broken objects: their rows stand as they are.
    EXPECT_TRUE(Has(jReport, strBlob, "skipped_by_reindex"));
    EXPECT_EQ(4u, jReport["by_kind"]["leftover"].asUInt()) << jReport.toStyledString();
    EXPECT_EQ(0u, jReport["repaired"].asUInt());
    EXPECT_EQ(jReport["findings"].size(), jReport["remaining"].asUInt());
    EXPECT_EQ(7u, jReport["checked"].asUInt());
    // Without the blob walk the missing blob is still missed by nobody.
    Json::Value jNoBlobs, jNoBlobReport;
    jNoBlobs["ns"] = "note";
    jNoBlobs["id"] = strBlob;
    jNoBlobs["blobs"] = false;
    ASSERT_TRUE(KOLVVessaCheck(jNoBlobs, jNoBlobReport));
    EXPECT_EQ(1u, jNoBlobReport["checked"].asUInt());
    EXPECT_TRUE(Has(jNoBlobReport, strBlob, "repo_broken")) << jNoBlobReport.toStyledString();

    jReport = Check(true);
    EXPECT_EQ(3u + 4u, jReport["repaired"].asUInt()) << jReport.toStyledString();
    EXPECT_EQ("1", objtest::IndexedStoreTest::RowOf(strMissing));
    EXPECT_EQ("memo", Psql("SELECT category FROM object WHERE id = '" + strDiffers + "';"));
    EXPECT_EQ("0", objtest::IndexedStoreTest::RowOf(strGone));
    // Leftovers gone, the link with them but not what it pointed at; the
    // young scratch folder and the planted link stay.
    for (const std::string &str : {strOldScratch, strHalfMade, strTmpObj, strTmpJson})
        EXPECT_FALSE(kolv::fs::Exists(str)) << str;
    EXPECT_TRUE(kolv::fs::Exists(strYoungScratch));
    EXPECT_EQ("keep me", kolvtest::ReadFile(strOutside + "/secret"));
    EXPECT_TRUE(kolv::fs::Exists(ObjectDir(strLinked) + "/metatext.json"));
    for (const auto &snap : before)
        EXPECT_EQ(snap.second, Snapshot(snap.first)) << snap.first;

    // A second run has nothing left to repair; what cannot be mended stays.
    jReport = Check(true);
    EXPECT_EQ(0u, jReport["repaired"].asUInt());
    std::multiset<std::string> kinds;
    for (const auto &k : Kinds(jReport))
        kinds.insert(k.second);
    EXPECT_EQ((std::multiset<std::string>{"json_unparsable", "repo_broken", "repo_broken", "skipped_by_reindex",
                                          "skipped_by_reindex", "skipped_by_reindex", "skipped_by_reindex",
                                          "unexpected_entry"}),
              kinds)
        << jReport.toStyledString();
}

// kill -9 in the middle of sets, again and again: afterwards a repair
// leaves nothing to find and every object reads back.
TEST_F(CheckTest, KilledWritersLeaveNothingAfterARepair) {
    std::string rgIds[3], rgFirst[3];
    std::string strScript = "i=0; while :; do i=$((i+1));";
    for (int i = 0; i < 3; ++i) {
        const std::string &strId = rgIds[i] = Create(kolvtest::kAlice);
        KOLV_VESSA_OBJECT obj;
        ASSERT_TRUE(obj.Get(GetParm(strId, kolvtest::kAlice)));
        rgFirst[i] = obj.get_version();
        strScript += std::string(" '") + KOLV_TOOL + "' set '{\"ns\":\"note\",\"id\":\"" + strId +
                     "\",\"requester\":1101,\"version\":\"" + obj.get_version() +
                     "\",\"text\":{\"n\":'$i'},\"metatext\":{\"n\":'$i'}}' >/dev/null 2>&1;";
    }
    strScript += " done";
    for (int round = 0; round < 12; ++round) {
        pid_t pid = fork();
        ASSERT_LE(0, pid);
        if (0 == pid) {
            setpgid(0, 0);
            execl("/bin/sh", "sh", "-c", strScript.c_str(), (char *)NULL);
            _exit(127);
        }
        setpgid(pid, pid);
        usleep(40000 + 37000 * (round % 5));
        kill(-pid, SIGKILL);
        ASSERT_EQ(pid, waitpid(pid, NULL, 0));
    }
    // The writers are dead: every leftover may go at once.
    Json::Value jReport = Check(true, 0);
    EXPECT_EQ(jReport["findings"].size(), jReport["repaired"].asUInt()) << jReport.toStyledString();
    jReport = Check(false, 0);
    EXPECT_EQ(0u, jReport["findings"].size()) << jReport.toStyledString();
    int cChanged = 0;
    for (int i = 0; i < 3; ++i) {
        const std::string &strId = rgIds[i];
        KOLV_VESSA_OBJECT obj;
        Json::Value jParm = GetParm(strId, kolvtest::kAlice);
        jParm["field"] = KOLVVessaObjectFieldAll();
        EXPECT_TRUE(obj.Get(jParm)) << kolvtest::StackText();
        cChanged += rgFirst[i] != obj.get_version();
        int status = -1;
        std::string strFsck = kolvtest::Git(ObjectDir(strId) + "/version", "fsck --strict --no-dangling", &status);
        EXPECT_EQ(0, status) << strFsck;
    }
    EXPECT_LT(0, cChanged) << "the writers never got to write";
}

} // namespace
