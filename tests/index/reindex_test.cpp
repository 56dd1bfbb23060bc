// Reindex from the stored files: the row a reader builds equals the row of
// an owner's read, skipped objects say why, links are not followed, and a
// rebuild never shows a listing fewer rows than it had.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "index/index_row.h"
#include "index/index_row_store.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
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

} // namespace
