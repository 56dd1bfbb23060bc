/*
 * Creating objects end to end: owner, caller ids, parents and their ACL,
 * the namespace hooks, and what lands on disk.
 */
#include <stdlib.h>

#include "object/object_test_util.h"

namespace {

using kolvtest::StackText;
using objtest::J;

class ObjectCreateTest : public objtest::ObjectStoreTest {
  protected:
    Json::Value Parm(unsigned requester) {
        Json::Value j = J("{\"ns\":\"note\",\"category\":\"memo\",\"text\":{\"title\":\"memo\"}}");
        j["requester"] = requester;
        return j;
    }
};

TEST_F(ObjectCreateTest, AUserCreatesForHimselfTheSystemForTheOwnerItNames) {
    Json::Value jParm = Parm(kolvtest::kAlice);
    jParm["owner"] = kolvtest::kBob;
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Create(jParm)) << StackText();
    EXPECT_EQ((unsigned long)kolvtest::kAlice, obj.get_owner());
    EXPECT_EQ(0u, obj.get_id().find("1101_"));
    EXPECT_EQ("owner", obj.get_perm());
    EXPECT_EQ(obj.get_version() + "\n", Git(obj.get_id(), "rev-parse HEAD"));
    // Neither "ctime" nor "mtime" given: the object was created and
    // changed now.
    EXPECT_LE(labs((long)time(NULL) - obj.get_ctime()), 60L);
    EXPECT_LE(labs((long)time(NULL) - obj.get_mtime()), 60L);
    std::string strID, strVer;
    ASSERT_TRUE(obj.Create(Parm(kolvtest::kAlice), strID, strVer)) << StackText();
    EXPECT_NE(obj.get_id(), strID);
    EXPECT_EQ(40u, strVer.size());

    EXPECT_FAILS(obj.Create(Parm(0)), 1007, "!jParm.isMember(\"owner\")");
    jParm = Parm(0);
    jParm["owner"] = kolvtest::kAlice;
    ASSERT_TRUE(obj.Create(jParm)) << StackText();
    EXPECT_EQ((unsigned long)kolvtest::kAlice, obj.get_owner());

    Json::Value jDup = Parm(kolvtest::kAlice);
    jDup["id"] = obj.get_id();
    EXPECT_FAILS(obj.Create(jDup), KOLV_ERR_ID_EXISTS,
                 "KOLVVessaIDIsExist(jParm[\"ns\"].asString(), jParm[\"id\"].asString())");
    jDup["id"] = KOLVVessaObjectGenerateID(kolvtest::kBob);
    EXPECT_FAILS(obj.Create(jDup), 1007, "owner != KOLVVessaObjectGetOwnerByID(jParm[\"id\"].asString())");
    jDup = Parm(kolvtest::kAlice);
    jDup["text"] = "not an object";
    EXPECT_FAILS(obj.Create(jDup), 1007, "!jParm[\"text\"].isObject()");
}

TEST_F(ObjectCreateTest, ParentMustBeOwnAndPassesItsAclOnMarkedInherited) {
    std::string strParent =
        Create(kolvtest::kAlice, J("{\"acl\":{\"enabled\":true,\"public\":{\"perm\":\"ro\"},\"hmx_user\":{\"1102\":{"
                                   "\"perm\":\"rw\"}},\"hmx_group\":{\"2002\":{\"perm\":\"ro\"}}}}"));
    // Bob may write the parent, but a child is always his own and must sit
    // under one of his objects: the owner test comes first.
    Json::Value jParm = Parm(kolvtest::kBob);
    jParm["parent_id"] = strParent;
    KOLV_VESSA_OBJECT child;
    EXPECT_FAILS(child.Create(jParm), 1007, "owner != KOLVVessaObjectGetOwnerByID(jParm[\"parent_id\"].asString())");
    std::string strOut;
    kolvtest::RunCommand("ls '" + m_sys.Repo() + "/note' | grep -c ^1102_", &strOut);
    EXPECT_EQ("0\n", strOut);

    jParm["requester"] = kolvtest::kAlice;
    jParm["acl"] = J("{\"enabled\":false}");
    ASSERT_TRUE(child.Create(jParm)) << StackText();
    EXPECT_EQ(strParent, child.get_parent_id());
    Json::Value jAcl = child.get_acl();
    EXPECT_TRUE(jAcl["enabled"].asBool());
    EXPECT_TRUE(jAcl["public"]["inherit"].asBool());
    EXPECT_TRUE(jAcl["hmx_user"]["1102"]["inherit"].asBool());
    EXPECT_EQ("rw", jAcl["hmx_user"]["1102"]["perm"].asString());
    EXPECT_TRUE(jAcl["hmx_group"]["2002"]["inherit"].asBool());
}

// Around a set: tests/object/object_sharing_test.cpp.
TEST_F(ObjectCreateTest, NamespaceHooksRunAroundCreate) {
    kolvtest::WriteFile(m_sys.Path("/usr/local/libexec/kolvvessa/note.lib"),
                        std::string("{\"lib\":\"") + KOLV_NOTE_HOOK_LIB + "\"}");
    std::string strLog = m_sys.Path("/tmp/hook.log");
    setenv("KOLV_HOOK_LOG", strLog.c_str(), 1);
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Create(Parm(kolvtest::kAlice))) << StackText();
    EXPECT_EQ("pre create -\npost create " + obj.get_id() + "\n", kolvtest::ReadFile(strLog));
}

} // namespace
