/*
 * Reading objects end to end through the file store.
 */
#include <sys/stat.h>

#include "object/object_test_util.h"

namespace {

using kolvtest::OriginMsg;
using kolvtest::StackText;
using objtest::J;

class ObjectGetTest : public objtest::ObjectStoreTest {};

TEST_F(ObjectGetTest, RecordAndOwnerAreCheckedBeforeAnyAccess) {
    KOLV_VESSA_OBJECT obj;
    EXPECT_FAILS(obj.Get(GetParm("abc_0000", kolvtest::kAlice)), 1007, "Bad ID [abc_0000]");
    // No settings file at all: an access check would fail with its own
    // code, so 1007 shows the record was looked at first.
    unlink(m_sys.Path("/usr/kolv/etc/kolvvessa.conf").c_str());
    Json::Value jParm = J("{\"ns\":\"note\",\"id\":\"1101_AB\"}");
    EXPECT_FAILS(obj.Get(jParm), 1007,
                 "!jParm.isMember(\"ns\") || !jParm[\"ns\"].isString() || !jParm.isMember(\"id\") || "
                 "!jParm[\"id\"].isString() || !jParm.isMember(\"requester\") || !jParm[\"requester\"].isIntegral()");
    jParm["requester"] = 1101;
    jParm["version"] = 3;
    EXPECT_FAILS(obj.Get(jParm), 1007, "jParm.isMember(\"version\") && !jParm[\"version\"].isString()");
    jParm.removeMember("version");
    jParm["field"] = J("[\"acl\"]");
    EXPECT_FAILS(obj.Get(jParm), 1007, "jParm.isMember(\"field\") && !jParm[\"field\"].isObject()");
}

TEST_F(ObjectGetTest, PermissionAclOlderVersionsAndTheSystemRequester) {
    std::string strID = Create(kolvtest::kAlice, J(R"({"text":{"title":"one"},
                                                      "acl":{"enabled":true,"hmx_user":{"1102":{"perm":"ro"}}}})"));
    // Eve is granted nothing: her read stops at the permission.
    KOLV_VESSA_OBJECT obj;
    EXPECT_FALSE(obj.Get(GetParm(strID, kolvtest::kEve)));
    EXPECT_NE(std::string::npos, StackText().find("!KOLVVessaObjectPermCalculate("));
    EXPECT_EQ("", obj.get_id()); // a failed read leaves the object cleared

    // The ACL goes only to writers who ask for it.
    Json::Value jParm = GetParm(strID, kolvtest::kBob);
    jParm["field"]["acl"] = true;
    ASSERT_TRUE(obj.Get(jParm)) << StackText();
    EXPECT_EQ("ro", obj.get_perm());
    EXPECT_EQ(Json::Value(Json::objectValue), obj.get_acl());
    jParm["requester"] = kolvtest::kAlice;
    ASSERT_TRUE(obj.Get(jParm));
    EXPECT_EQ("owner", obj.get_perm());
    EXPECT_EQ("ro", obj.get_acl()["hmx_user"]["1102"]["perm"].asString());
    ASSERT_TRUE(obj.Get(GetParm(strID, kolvtest::kAlice)));
    EXPECT_EQ(Json::Value(Json::objectValue), obj.get_acl());

    // An older version through the string-hash entry.
    std::string strV1 = obj.get_version();
    Json::Value jSet = GetParm(strID, kolvtest::kAlice);
    jSet["version"] = strV1;
    jSet["text"]["title"] = "two";
    ASSERT_TRUE(obj.Set(jSet)) << StackText();
    // (Which fields an older version gives: tests/backend_fs/version_test.cpp.)
    kolvtest::Hash hash({{"ns", "note"}, {"id", strID}, {"requester", "1101"}});
    hash.Set("version", strV1);
    EXPECT_TRUE(KOLVVessaObjectGet(hash.get(), &obj)) << StackText();
    EXPECT_EQ(strV1, obj.get_version());
    EXPECT_FALSE(KOLVVessaObjectGet(hash.get(), NULL));
    EXPECT_EQ("NULL == pObject", OriginMsg());

    // A list keeps its chain when a read fails.
    KOLV_VESSA_OBJECT_LIST list;
    ASSERT_TRUE(list.GetObject(GetParm(strID, kolvtest::kAlice)));
    KOLV_VESSA_OBJECT *pOld = list.m_head;
    ASSERT_NE(nullptr, pOld);
    EXPECT_FALSE(list.GetObject(GetParm("1101_NOSUCH", kolvtest::kAlice)));
    EXPECT_EQ(pOld, list.m_head);
    EXPECT_EQ(nullptr, pOld->m_next);
    std::string strStack = StackText();
    EXPECT_EQ("!pObj->Get(jParm)", strStack.substr(strStack.rfind('\n') + 1));

    // The namespace switched off: only the system still reads, as "rw".
    m_sys.WriteSettings(J("{\"Access\":{\"enable\":true,\"enable_ns_note\":false}}"));
    EXPECT_FALSE(obj.Get(GetParm(strID, kolvtest::kAlice)));
    EXPECT_NE(std::string::npos, StackText().find("FALSE == KOLVVessaAccessCheck(jParm[\"ns\"].asCString())"));
    jParm = GetParm(strID, 0);
    jParm["field"] = KOLVVessaObjectFieldAll();
    ASSERT_TRUE(obj.Get(jParm)) << StackText();
    EXPECT_EQ("rw", obj.get_perm());
    EXPECT_EQ((unsigned long)kolvtest::kAlice, obj.get_owner());
    EXPECT_EQ("two", obj.get_text()["title"].asString());
    EXPECT_EQ(KOLVVessaObjectDefaultID(kolvtest::kAlice), obj.get_parent_id());
}

} // namespace
