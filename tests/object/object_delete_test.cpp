/*
 * Deleting objects and renaming their fields end to end, with the index:
 * who may, what is left on disk and in the index, the hooks, and the
 * recursive delete of a tree.
 */
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::StackText;
using objtest::J;

const char *const kBobRw = R"({"acl":{"enabled":true,"hmx_user":{"1102":{"perm":"rw"}}}})";

class ObjectDeleteTest : public objtest::IndexedStoreTest {
  protected:
    static Json::Value DeleteParm(const std::string &strID, unsigned requester, bool blRecursive = false) {
        Json::Value j = GetParm(strID, requester);
        if (blRecursive) j["recursive"] = true;
        return j;
    }
    bool OnDisk(const std::string &strID) const {
        struct stat st;
        return 0 == lstat(ObjectDir(strID).c_str(), &st);
    }
};

TEST_F(ObjectDeleteTest, OnlyTheOwnerOrTheSystemDeletesAndBothStoresForget) {
    std::string strID = Create(kAlice, J(kBobRw));
    std::string strOther = Create(kAlice);
    std::string strBobs = Create(kBob);
    ASSERT_EQ("1", RowOf(strID));
    KOLV_VESSA_OBJECT obj;

    // Sharing never grants deletion: neither "rw" nor nothing at all.
    EXPECT_FAILS(obj.Delete(DeleteParm(strID, kBob)), 1023, "owner != requester");
    EXPECT_FAILS(obj.Delete(DeleteParm(strID, kolvtest::kEve)), 1023, "owner != requester");
    Json::Value jParm = DeleteParm(strID, kAlice);
    jParm["recursive"] = "yes";
    EXPECT_FAILS(obj.Delete(jParm), 1007, "jParm.isMember(\"recursive\") && !jParm[\"recursive\"].isBool()");
    jParm = DeleteParm(std::to_string(kAlice) + "_../" + strOther, kAlice);
    EXPECT_FAILS(obj.Delete(jParm), 1007, "!kolv::IsSafePathName(jParm[\"id\"].asString())");
    kolvtest::Hash hash({{"ns", "note"}, {"id", strID}, {"requester", "1101"}, {"recursive", "yes"}});
    EXPECT_FAILS(KOLVVessaObjectDelete(hash.get()), 1007,
                 "\"true\" != strRecursive && \"1\" != strRecursive && \"false\" != strRecursive && \"0\" != "
                 "strRecursive");
    EXPECT_FAILS(KOLVVessaObjectDelete(NULL), 1015, "NULL == pParmHash");
    ASSERT_TRUE(OnDisk(strID) && OnDisk(strOther));
    ASSERT_EQ("3", Rows("TRUE"));

    std::string strLog = UseNoteHooks();
    hash.Set("recursive", "0");
    ASSERT_TRUE(KOLVVessaObjectDelete(hash.get())) << StackText();
    EXPECT_FALSE(OnDisk(strID));
    EXPECT_EQ("0", RowOf(strID));
    EXPECT_EQ("pre delete " + strID + "\npost delete " + strID + "\n", kolvtest::ReadFile(strLog));
    // A second delete succeeds, calls no hook and touches nothing else;
    // a row the index kept of a vanished object goes with it.
    kolvtest::Psql("INSERT INTO object (id, ns, owner) VALUES ('" + strID + "', 'note', 1101)");
    EXPECT_TRUE(obj.Delete(DeleteParm(strID, kAlice))) << StackText();
    EXPECT_EQ("0", RowOf(strID));
    EXPECT_EQ("pre delete " + strID + "\npost delete " + strID + "\n", kolvtest::ReadFile(strLog));

    // The system deletes anybody's object.
    ASSERT_TRUE(obj.Delete(DeleteParm(strBobs, 0))) << StackText();
    EXPECT_FALSE(OnDisk(strBobs));
    EXPECT_EQ("1", Rows("TRUE"));
    EXPECT_TRUE(OnDisk(strOther));
}

TEST_F(ObjectDeleteTest, RecursiveDeleteTakesEveryDescendantButAFailingChildsSubtree) {
    // (A parent without an ACL cannot take children yet: give it one.)
    std::string strRoot = Create(kAlice, J(R"({"acl":{"enabled":false}})"));
    std::string strKeep = Create(kAlice);
    std::vector<std::string> vChildren;
    for (int i = 0; i < 10; ++i) {
        Json::Value jChild;
        jChild["parent_id"] = strRoot;
        vChildren.push_back(Create(kAlice, jChild));
        for (int j = 0; j < 11; ++j) {
            Json::Value jGrandchild;
            jGrandchild["parent_id"] = vChildren.back();
            Create(kAlice, jGrandchild);
        }
    }
    ASSERT_EQ("122", Rows("TRUE"));
    // One child cannot be read any more (its owner planted a link for
    // basic.json): its delete fails, it keeps its own children, and its
    // siblings still go.
    const std::string &strBroken = vChildren[3];
    const std::string strBasic = ObjectDir(strBroken) + "/basic.json";
    ASSERT_EQ(0, unlink(strBasic.c_str()));
    ASSERT_EQ(0, symlink((ObjectDir(strKeep) + "/basic.json").c_str(), strBasic.c_str()));

    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Delete(DeleteParm(strRoot, kAlice, true))) << StackText();
    EXPECT_EQ("13", Rows("TRUE"));
    EXPECT_EQ("11", Rows("parent_id = '" + strBroken + "'"));
    EXPECT_EQ("1", RowOf(strBroken));
    EXPECT_EQ("1", RowOf(strKeep));
    EXPECT_FALSE(OnDisk(strRoot));
    for (const std::string &strChild : vChildren)
        EXPECT_EQ(strChild == strBroken, OnDisk(strChild)) << strChild;
}

TEST_F(ObjectDeleteTest, RenameIsTheOwnersAndTheIndexFollows) {
    std::string strID = Create(kAlice, J(std::string(kBobRw).insert(1, R"("text":{"title":"t","body":"b"},)"
                                                                       R"("metatext":{"tag":"x"},)")));
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Get(GetParm(strID, kAlice)));
    const std::string strV1 = obj.get_version();
    Json::Value jParm = GetParm(strID, kBob);
    jParm["segment"] = "text";
    jParm["old_field"] = "body";
    jParm["new_field"] = "content";
    jParm["version"] = strV1;
    EXPECT_FAILS(obj.FieldRename(jParm), 1023, "\"rw\" != tmpOldObj.get_perm() || \"owner\" != tmpOldObj.get_perm()");
    jParm["requester"] = kAlice;
    jParm.removeMember("version");
    EXPECT_FAILS(obj.FieldRename(jParm), 1007,
                 "(\"binary\" == jParm[\"segment\"].asString() || \"text\" == jParm[\"segment\"].asString()) && "
                 "(!jParm.isMember(\"version\") || !jParm[\"version\"].isString())");
    jParm["version"] = strV1;
    jParm["commit_msg"] = "why";
    EXPECT_FAILS(obj.FieldRename(jParm), 1007, "!jParm[\"commit_msg\"].isObject()");
    EXPECT_EQ("1\n", Git(strID, "rev-list --count HEAD"));

    std::string strLog = UseNoteHooks();
    jParm["commit_msg"] = J(R"({"m":"rename"})");
    std::string strV2;
    ASSERT_TRUE(KOLV_VESSA_OBJECT().FieldRename(jParm, strV2)) << StackText();
    EXPECT_NE(strV1, strV2); // the new tree: tests/backend_fs/rename_delete_test.cpp
    EXPECT_EQ("b|", kolvtest::Psql("SELECT text->>'content', coalesce(text->>'body', '') FROM object WHERE id = '" +
                                   strID + "';"));
    EXPECT_EQ(strV2, kolvtest::Psql("SELECT version FROM object WHERE id = '" + strID + "';"));
    EXPECT_EQ("pre field_rename " + strID + "\npost field_rename " + strID + "\n", kolvtest::ReadFile(strLog));

    // A meta key through the string hash: no new version.
    kolvtest::Hash hash({{"ns", "note"},
                         {"id", strID},
                         {"requester", "1101"},
                         {"segment", "metatext"},
                         {"old_field", "tag"},
                         {"new_field", "label"}});
    std::string strV3;
    ASSERT_TRUE(KOLVVessaObjectFieldRename(hash.get(), strV3)) << StackText();
    EXPECT_EQ(strV2, strV3);
    EXPECT_EQ("x", kolvtest::Psql("SELECT metatext->>'label' FROM object WHERE id = '" + strID + "';"));

    // The system renames anybody's fields.
    jParm["requester"] = 0;
    jParm["old_field"] = "title";
    jParm["new_field"] = "heading";
    jParm["version"] = strV3;
    ASSERT_TRUE(obj.FieldRename(jParm)) << StackText();
    EXPECT_EQ("t", obj.get_text()["heading"].asString());
    EXPECT_EQ(obj.get_version(), kolvtest::Psql("SELECT version FROM object WHERE id = '" + strID + "';"));
}

} // namespace
