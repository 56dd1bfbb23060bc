/*
 * Changing objects end to end: what may change, who may change it, and
 * moves between parents.
 */
#include "object/object_test_util.h"

namespace {

using kolvtest::StackText;
using objtest::J;

class ObjectSetTest : public objtest::ObjectStoreTest {};

TEST_F(ObjectSetTest, EmptyOrUnversionedRequestsAndReadersAreRefusedRwSharersMayChange) {
    std::string strID = Create(kolvtest::kAlice, J("{\"text\":{\"a\":1},\"acl\":{\"enabled\":true,\"hmx_user\":{"
                                                   "\"1102\":{\"perm\":\"rw\"},\"1105\":{\"perm\":\"ro\"}}}}"));
    KOLV_VESSA_OBJECT obj;
    Json::Value jParm = GetParm(strID, kolvtest::kAlice);
    jParm["mtime"] = 100;
    EXPECT_FAILS(obj.Set(jParm), 1007,
                 "!jParm.isMember(\"ctime\") && !jParm.isMember(\"parent_id\") && !jParm.isMember(\"metatext\") && "
                 "!jParm.isMember(\"text\") && !jParm.isMember(\"metabinary_files\") && "
                 "!jParm.isMember(\"binary_files\")");
    jParm.removeMember("mtime");
    jParm["text"]["a"] = 2;
    EXPECT_FAILS(obj.Set(jParm), 1007,
                 "(jParm.isMember(\"text\") || jParm.isMember(\"binary_files\")) && (!jParm.isMember(\"version\") || "
                 "!jParm[\"version\"].isString())");
    jParm = GetParm(strID, kolvtest::kEve);
    jParm["metatext"]["k"] = "eve";
    EXPECT_FAILS(obj.Set(jParm), 1023, "rw != tmpOldObj.get_perm() && owner != tmpOldObj.get_perm() [ro]");
    EXPECT_EQ("1\n", Git(strID, "rev-list --count HEAD"));

    ASSERT_TRUE(obj.Get(GetParm(strID, kolvtest::kBob)));
    jParm["requester"] = kolvtest::kBob;
    jParm["metatext"]["k"] = "bob";
    jParm["text"]["a"] = 2;
    jParm["version"] = obj.get_version();
    std::string strNewVer;
    ASSERT_TRUE(KOLV_VESSA_OBJECT().Set(jParm, strNewVer)) << StackText();
    Json::Value jGet = GetParm(strID, kolvtest::kAlice);
    jGet["field"] = KOLVVessaObjectFieldAll();
    ASSERT_TRUE(obj.Get(jGet));
    EXPECT_EQ(strNewVer, obj.get_version());
    EXPECT_EQ("bob", obj.get_metatext()["k"].asString());
    EXPECT_EQ(2, obj.get_text()["a"].asInt());
    EXPECT_EQ("2\n", Git(strID, "rev-list --count HEAD"));
}

TEST_F(ObjectSetTest, MovesStayWithinTheOwnerAndTakeTheNewParentsAcl) {
    std::string strBobs = Create(kolvtest::kBob);
    std::string strParent = Create(kolvtest::kAlice, J("{\"acl\":{\"enabled\":true,\"public\":{\"perm\":\"ro\"}}}"));
    std::string strChild = Create(kolvtest::kAlice, J("{\"acl\":{\"enabled\":true,\"hmx_user\":{\"1102\":{\"perm\":"
                                                      "\"rw\"}}}}"));
    KOLV_VESSA_OBJECT obj;
    Json::Value jParm = GetParm(strChild, kolvtest::kAlice);
    jParm["parent_id"] = strBobs;
    EXPECT_FAILS(obj.Set(jParm), 1007, "owner != KOLVVessaObjectGetOwnerByID(jParm[\"parent_id\"].asString())");

    // Moved in the same second as it was made: the move still lands.
    jParm["parent_id"] = strParent;
    ASSERT_TRUE(obj.Set(jParm)) << StackText();
    Json::Value jGet = GetParm(strChild, kolvtest::kAlice);
    jGet["field"]["acl"] = true;
    ASSERT_TRUE(obj.Get(jGet));
    EXPECT_EQ(strParent, obj.get_parent_id());
    EXPECT_TRUE(obj.get_acl()["public"]["inherit"].asBool());
    EXPECT_FALSE(obj.get_acl()["hmx_user"]["1102"].get("inherit", false).asBool());

    // Back to the root: the inherited grant goes, the object's own stays.
    Json::Value jReset = GetParm(strChild, kolvtest::kAlice);
    jReset["parent_id"] = strParent;
    jReset["reset_parent_id"] = true;
    ASSERT_TRUE(obj.Set(jReset)) << StackText();
    ASSERT_TRUE(obj.Get(jGet));
    EXPECT_EQ(KOLVVessaObjectDefaultID(kolvtest::kAlice), obj.get_parent_id());
    EXPECT_FALSE(obj.get_acl().isMember("public"));
    EXPECT_EQ("rw", obj.get_acl()["hmx_user"]["1102"]["perm"].asString());
}

} // namespace
