// Reindex from the stored files: the row a reader builds equals the row of
// an owner's read, skipped objects say why, links are not followed, and a
// rebuild never shows a listing fewer rows than it had.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "index/index_row.h"
#include "index/index_row_store.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using objtest::J;

class ReindexTest : public objtest::ObjectStoreTest {
  protected:
    // The row of an owner's read with every field, as indexing writes it.
    static kolv::IndexRow RowOfGet(const std::string &strId) {
        KOLV_VESSA_OBJECT obj;
        Json::Value jParm = GetParm(strId, KOLVVessaObjectGetOwnerByID(strId.c_str()));
        jParm["field"] = KOLVVessaObjectFieldAll();
        EXPECT_TRUE(obj.Get(jParm)) << kolvtest::StackText();
        return kolv::IndexRowFromObject(obj);
    }
    std::string Set(const std::string &strId, unsigned requester, Json::Value jParm) {
        KOLV_VESSA_OBJECT old;
        EXPECT_TRUE(old.Get(GetParm(strId, requester))) << kolvtest::StackText();
        jParm["ns"] = "note";
        jParm["id"] = strId;
        jParm["requester"] = requester;
        jParm["version"] = old.get_version();
        std::string strVer;
        EXPECT_TRUE(KOLV_VESSA_OBJECT().Set(jParm, strVer)) << kolvtest::StackText();
        return strVer;
    }
};

void ExpectSameRow(const kolv::IndexRow &a, const kolv::IndexRow &b) {
    EXPECT_EQ(a.strId, b.strId);
    EXPECT_EQ(a.strNs, b.strNs);
    EXPECT_EQ(a.strCategory, b.strCategory);
    EXPECT_EQ(a.strParentId, b.strParentId);
    EXPECT_EQ(a.strVersion, b.strVersion);
    EXPECT_EQ(a.strCommitMsg, b.strCommitMsg);
    EXPECT_EQ(a.strAcl, b.strAcl);
    EXPECT_EQ(a.strText, b.strText);
    EXPECT_EQ(a.strMetatext, b.strMetatext);
    EXPECT_EQ(a.strBinaryInfo, b.strBinaryInfo);
    EXPECT_EQ(a.strMetabinaryInfo, b.strMetabinaryInfo);
    EXPECT_EQ(a.strExtraInfo, b.strExtraInfo);
    EXPECT_EQ(a.owner, b.owner);
    EXPECT_EQ(a.ctime, b.ctime);
    EXPECT_EQ(a.mtime, b.mtime);
}

TEST_F(ReindexTest, ReaderRowsEqualTheRowsOfAnOwnersReadAndSkippedObjectsSayWhy) {
    std::string strFile = m_sys.Path("/tmp/picture.bin"), strThumb = m_sys.Path("/tmp/thumb.png");
    kolvtest::WriteFile(strFile, "binary content");
    kolvtest::WriteFile(strThumb, "thumbnail");
    std::vector<std::string> ids;
    ids.push_back(Create(kAlice)); // text only, the default ACL
    std::string strShared = Create(kAlice, J(R"({"text":{"a":{"n":[1,2.5,"\u00e9"]},"b":"x'y"},
        "metatext":{"tag":"t","deep":{"k":null}},"commit_msg":{"why":"first"},
        "acl":{"enabled":true,"public":{"perm":"ro"},"hmx_user":{"1102":{"perm":"rw"}}}})"));
    ids.push_back(strShared);
    Json::Value jBin = J(R"({"binary_files":[{"name":"picture.bin","format":"raw"}],
        "metabinary_files":[{"name":"thumb","format":"png"}]})");
    jBin["binary_files"][0]["path"] = strFile;
    jBin["metabinary_files"][0]["path"] = strThumb;
    jBin["parent_id"] = strShared; // a child
    std::string strBin = Create(kAlice, jBin);
    ids.push_back(strBin);
    // Several versions, by the owner and by a reader with "rw".
    Set(strShared, kAlice, J(R"({"text":{"b":null,"c":"second"},"metatext":{"tag":"u"},"mtime":4000000000})"));
    Set(strShared, kBob, J(R"({"text":{"c":"third"},"commit_msg":{"who":"bob"}})"));
    Set(strBin, kAlice, J(R"({"binary_files":[{"name":"picture.bin","format":"delete"}],"category":"c2"})"));
    KOLV_VESSA_OBJECT copy;
    ASSERT_TRUE(copy.Copy(GetParm(strShared, kBob))) << kolvtest::StackText();
    ids.push_back(copy.get_id());
    ids.push_back(Create(kBob, J(R"({"text":{},"metatext":{}})")));

    kolv::IndexRowReader reader(m_sys.Repo());
    for (const std::string &strId : ids) {
        SCOPED_TRACE(strId);
        kolv::IndexRow row;
        std::string strWhy;
        ASSERT_TRUE(reader.Read("note", strId.c_str(), row, strWhy)) << strWhy << kolvtest::StackText();
        ExpectSameRow(RowOfGet(strId), row);
    }

    // Skipped as an owner's read fails, each with its reason.
    std::string strWhy;
    kolv::IndexRow row;
    EXPECT_FALSE(reader.Read("note", "nobody", row, strWhy));
    EXPECT_EQ("an id that names no owner", strWhy);
    std::string strNul = Create(kAlice);
    kolvtest::WriteFile(ObjectDir(strNul) + "/metatext.json", R"({"metatext":{"k":"a\u0000b"},"auto_mtime":{}})");
    EXPECT_FALSE(reader.Read("note", strNul.c_str(), row, strWhy));
    EXPECT_EQ("a NUL in a value", strWhy);
    EXPECT_EQ(1007, KOLVVessaErrCodeGet());
    // A link planted where a JSON file belongs is not followed, even to a
    // file the owner could read.
    std::string strLinked = Create(kAlice);
    std::string strBasic = ObjectDir(strLinked) + "/basic.json";
    ASSERT_EQ(0, rename(strBasic.c_str(), (strBasic + ".real").c_str()));
    ASSERT_EQ(0, symlink((strBasic + ".real").c_str(), strBasic.c_str()));
    EXPECT_FALSE(reader.Read("note", strLinked.c_str(), row, strWhy));
    EXPECT_EQ("unreadable JSON file", strWhy);
    EXPECT_FALSE(KOLV_VESSA_OBJECT().Get(GetParm(strLinked, kAlice)));
    // A link standing for the whole object folder is refused too.
    std::string strAlias = std::to_string(kAlice) + "_" + std::string(96, 'A');
    ASSERT_EQ(0, symlink(ObjectDir(ids[0]).c_str(), ObjectDir(strAlias).c_str()));
    EXPECT_FALSE(reader.Read("note", strAlias.c_str(), row, strWhy));
    EXPECT_EQ("no object folder", strWhy);

    m_sys.WriteSettings(J(R"({"Access":{"enable":true,"enable_ns_note":false}})"));
    kolv::IndexRowReader closed(m_sys.Repo());
    EXPECT_FALSE(closed.Read("note", ids[0].c_str(), row, strWhy));
    EXPECT_EQ("a disabled namespace", strWhy);
    EXPECT_FALSE(closed.Read("note", ids[1].c_str(), row, strWhy)); // from the reader's memory
    EXPECT_EQ("a disabled namespace", strWhy);
    EXPECT_NE(0, KOLVVessaErrCodeGet());
}

class ReindexDbTest : public objtest::IndexedStoreTest {
  protected:
    // Every row of "note" as "id|category|version", in id order.
    static std::string Dump() {
        return kolvtest::Psql("SELECT string_agg(id || '|' || category || '|' || version, ',' ORDER BY id) "
                              "FROM object WHERE ns = 'note';");
    }
    // How many objects alice lists in "note" (hers and the shared ones).
    static int Listed() {
        Json::Value jParm = J(R"({"ns":"note","limit":1000})");
        jParm["requester"] = kAlice;
        KOLV_VESSA_OBJECT *pHead = NULL;
        unsigned total = 0;
        int count = KOLVVessaObjectList(jParm, &pHead, total);
        KOLVVessaObjectFreeList(pHead);
        return count;
    }
};

TEST_F(ReindexDbTest, AListingDuringReindexesOfItsNamespaceNeverSeesFewerRows) {
    for (int i = 0; i < 40; ++i)
        Create(i % 2 ? kAlice : kBob, J(R"({"acl":{"enabled":true,"public":{"perm":"ro"}}})"));
    const int before = Listed();
    ASSERT_EQ(40, before) << kolvtest::StackText();
    // The child rebuilds on connections of its own; it never uses the one
    // it inherited.
    pid_t pid = fork();
    ASSERT_LE(0, pid);
    if (0 == pid) {
        bool blOk = true;
        for (int i = 0; i < 30 && blOk; ++i)
            blOk = KOLVVessaReindex(J(R"({"ns":"note"})"));
        _exit(blOk ? 0 : 1);
    }
    int lists = 0, status = 0;
    while (0 == waitpid(pid, &status, WNOHANG)) {
        ASSERT_LE(before, Listed()) << "after " << lists << " listings";
        ++lists;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(before, Listed());
}

void CountProgress(unsigned done, unsigned total, void *pv) {
    auto *pCalls = static_cast<std::vector<std::pair<unsigned, unsigned>> *>(pv);
    pCalls->emplace_back(done, total);
}

TEST_F(ReindexDbTest, AFailureAnywhereInTheRebuildLeavesTheOldRows) {
    for (int i = 0; i < 3; ++i)
        Create(kAlice);
    kolvtest::Psql("UPDATE object SET category = 'old';");
    const std::string strOld = Dump();
    const Json::Value jParam = J(R"({"ns":"note"})");
    int failures = 0;
    bool blFired = true;
    for (long n = 1; blFired && n < 1000; ++n) {
        SCOPED_TRACE("a fault at check " + std::to_string(n));
        KOLVFaultArm(n);
        bool blOk = KOLVVessaReindex(jParam);
        blFired = TRUE == KOLVFaultFired();
        KOLVFaultArm(0);
        if (!blOk) {
            ++failures;
            EXPECT_TRUE(blFired) << kolvtest::StackText();
            EXPECT_NE(0, KOLVVessaErrCodeGet());
            ASSERT_EQ(strOld, Dump());
        } else {
            // A fault in one object's files skips that object only, and
            // settings that cannot be read never pass for a closed namespace.
            EXPECT_LE(2, std::stoi(Rows("ns = 'note'")));
            ASSERT_TRUE(KOLVVessaReindex(jParam)) << kolvtest::StackText();
            kolvtest::Psql("UPDATE object SET category = 'old';");
        }
    }
    EXPECT_FALSE(blFired);
    EXPECT_LE(4, failures); // connecting, BEGIN, DELETE, INSERT, COMMIT

    // The progress hook ends with every folder done.
    std::vector<std::pair<unsigned, unsigned>> calls;
    ASSERT_TRUE(KOLVVessaReindexEx(jParam, CountProgress, &calls)) << kolvtest::StackText();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(std::make_pair(3u, 3u), calls.back());
    EXPECT_EQ("3", Rows("ns = 'note' AND category = 'memo'"));
}

} // namespace
