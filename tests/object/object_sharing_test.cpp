/*
 * Changing ACLs end to end with the index: what one change does to the
 * ACL, who may make it, and how it flows down the tree without weakening
 * what was granted lower down.
 */
#include <string>
#include <vector>

#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::kEve;
using kolvtest::StackText;
using objtest::J;

class SharingTest : public objtest::IndexedStoreTest {
  protected:
    static Json::Value Share(const std::string &strID, unsigned requester, const std::string &strMore) {
        Json::Value j = J(strMore);
        j["ns"] = "note";
        j["id"] = strID;
        j["requester"] = requester;
        return j;
    }
    // The ACL as the index holds it.
    static Json::Value IndexedAcl(const std::string &strID) {
        return J(kolvtest::Psql("SELECT acl FROM object WHERE id = '" + strID + "';"));
    }
    Json::Value StoredAcl(const std::string &strID) {
        KOLV_VESSA_OBJECT obj;
        Json::Value j = GetParm(strID, 0);
        j["field"]["acl"] = true;
        EXPECT_TRUE(obj.Get(j)) << StackText();
        return obj.get_acl();
    }
    std::string Child(const std::string &strParent) {
        Json::Value j;
        j["parent_id"] = strParent;
        return Create(kAlice, j);
    }
};

TEST_F(SharingTest, OneChangeOfTheAcl) {
    std::string strID = Create(kAlice, J(R"({"acl":{"enabled":true,"public":{"perm":"ro","inherit":false}}})"));
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Sharing(Share(strID, kAlice, R"({"type":"global","op":"delete"})"))) << StackText();
    EXPECT_EQ(J(R"({"enabled":false})"), obj.get_acl());
    EXPECT_EQ(J(R"({"enabled":false})"), IndexedAcl(strID));
    std::string strVersion = obj.get_version();

    // An op the switch does not know, and a grant that is there already:
    // success, nothing stored.
    ASSERT_TRUE(obj.Sharing(Share(strID, kAlice, R"({"type":"global","op":"reset"})"))) << StackText();
    ASSERT_TRUE(obj.Sharing(Share(strID, kAlice, R"({"type":"global","op":"set","enabled":false})")));
    EXPECT_EQ(strVersion, obj.get_version());
    ASSERT_TRUE(obj.Sharing(Share(strID, kAlice, R"({"type":"user","op":"set","perm":"rw","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strID, kAlice, R"({"type":"group","op":"set","perm":"ro","gid":2002})")));
    ASSERT_TRUE(obj.Sharing(Share(strID, kAlice, R"({"type":"global","op":"set","enabled":true})")));
    EXPECT_EQ(J(R"({"enabled":true,"hmx_user":{"1102":{"perm":"rw","inherit":false}},
                    "hmx_group":{"2002":{"perm":"ro","inherit":false}}})"),
              IndexedAcl(strID));
    EXPECT_EQ("owner", obj.get_perm());

    // Refused before anything is read or written.
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"public","op":"set","perm":"owner"})")), 1007,
                 "std::string(\"ro\") != jsParm[\"perm\"].asString() && std::string(\"rw\") != "
                 "jsParm[\"perm\"].asString()");
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"user","op":"set","perm":"ro","uid":"1101"})")), 1007,
                 "!jsParm[\"uid\"].isIntegral()");
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"user","op":"set","perm":"ro","uid":-1})")), 1007,
                 "!kolv::IsUidValue(jsParm[\"uid\"])");
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"user","op":"grant","uid":1102})")), 1007,
                 "Unknown op [grant] for permission setting");
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"hmx_user","op":"set"})")), 1007,
                 "Unknown type [hmx_user] for permission setting");
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"public","op":"set","perm":"ro","recursive":"yes"})")),
                 1007, "jParm.isMember(\"recursive\") && !jParm[\"recursive\"].isBool()");
    EXPECT_FAILS(obj.Sharing(Share(strID, kAlice, R"({"type":"public","op":"set","perm":"ro\u0000rw"})")), 1007,
                 "kolv::HasNulCharacter(jParm)");

    // Bob ("rw") shares onward; Eve, given "ro" by him, may not.
    ASSERT_TRUE(obj.Sharing(Share(strID, kBob, R"({"type":"user","op":"set","perm":"ro","uid":1105})"))) << StackText();
    EXPECT_EQ("rw", obj.get_perm());
    EXPECT_FAILS(obj.Sharing(Share(strID, kEve, R"({"type":"public","op":"set","perm":"rw"})")), 1023,
                 "rw != tmpOldObj.get_perm() && owner != tmpOldObj.get_perm() [ro]");
    EXPECT_EQ(J(R"({"perm":"ro","inherit":false})"), IndexedAcl(strID)["hmx_user"]["1105"]);
}

// parent > child > grandchild: grants flow down as inherited ones and stop
// where they would change nothing or weaken a direct grant.
TEST_F(SharingTest, GrantsFlowDownTheTree) {
    std::string strParent = Create(kAlice);
    std::string strChild = Child(strParent);
    std::string strGrand = Child(strChild);
    std::string strLog = UseNoteHooks();
    KOLV_VESSA_OBJECT obj;
    const std::string kBobRo = R"({"type":"user","op":"set","perm":"ro","uid":1102})";
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, kBobRo))) << StackText();
    EXPECT_EQ(J(R"({"perm":"ro","inherit":true})"), IndexedAcl(strGrand)["hmx_user"]["1102"]);
    // The set hooks ran around each stored change, none more.
    EXPECT_EQ("pre set " + strParent + "\npost set " + strParent + "\npre set " + strChild + "\npost set " + strChild +
                  "\npre set " + strGrand + "\npost set " + strGrand + "\n",
              kolvtest::ReadFile(strLog));

    // What is granted already visits no child: the grandchild, stripped of
    // its grant, stays stripped.
    ASSERT_TRUE(obj.Sharing(Share(strGrand, kAlice, R"({"type":"user","op":"delete","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, kBobRo))) << StackText();
    EXPECT_FALSE(IndexedAcl(strGrand)["hmx_user"].isMember("1102"));

    // A direct "rw" on the child outranks an inherited "ro": the child
    // stays, and the walk stops there.
    ASSERT_TRUE(obj.Sharing(Share(strChild, kAlice, R"({"type":"user","op":"set","perm":"rw","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strGrand, kAlice, R"({"type":"user","op":"delete","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, R"({"type":"user","op":"delete","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, kBobRo))) << StackText();
    EXPECT_EQ(J(R"({"perm":"rw","inherit":false})"), IndexedAcl(strChild)["hmx_user"]["1102"]);
    EXPECT_FALSE(IndexedAcl(strGrand)["hmx_user"].isMember("1102"));
    // A recursive "rw" raises an inherited grant, not a direct one below
    // the child; a recursive delete keeps the direct one.
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, R"({"type":"public","op":"set","perm":"rw"})")));
    EXPECT_EQ(J(R"({"perm":"rw","inherit":true})"), IndexedAcl(strGrand)["public"]);
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, R"({"type":"user","op":"delete","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, R"({"type":"public","op":"delete"})")));
    EXPECT_EQ(J(R"({"perm":"rw","inherit":false})"), IndexedAcl(strChild)["hmx_user"]["1102"]);
    EXPECT_FALSE(IndexedAcl(strGrand).isMember("public"));
    EXPECT_EQ(IndexedAcl(strGrand), StoredAcl(strGrand));

    // Bob finds the shared objects through the index and reads them.
    ASSERT_TRUE(obj.Sharing(Share(strChild, kAlice, R"({"type":"user","op":"delete","uid":1102})")));
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, R"({"type":"global","op":"set","enabled":true})")));
    ASSERT_TRUE(obj.Sharing(Share(strParent, kAlice, kBobRo)));
    Json::Value jList = J(R"({"ns":"note","requester":1102,"filter":{"owner_uid":1101}})");
    KOLV_VESSA_OBJECT_LIST list;
    unsigned total = 0;
    ASSERT_EQ(3, list.ListObject(jList, total)) << StackText();
    for (KOLV_VESSA_OBJECT *p = list.m_head; p; p = p->m_next) {
        KOLV_VESSA_OBJECT read;
        ASSERT_TRUE(read.Get(GetParm(p->get_id(), kBob))) << p->get_id() << StackText();
        EXPECT_EQ("ro", read.get_perm()) << p->get_id();
    }
}

// A wide and deep tree is inherited whole, and a parent_id cycle planted in
// the index (the top object listed under the last of its descendants) does
// not make the walk go round for ever.
TEST_F(SharingTest, WholeTreeInheritsAndCyclesEnd) {
    std::string strRoot = Create(kAlice);
    std::string strLast = strRoot;
    for (int i = 0; i < 100; ++i)
        strLast = Child(strLast);
    for (int i = 0; i < 100; ++i)
        Child(strRoot);
    kolvtest::Psql("UPDATE object SET parent_id = '" + strLast + "' WHERE id = '" + strRoot + "';");
    KOLV_VESSA_OBJECT obj;
    const std::string kPublic = R"({"type":"public","op":"set","recursive":true,"perm":)";
    ASSERT_TRUE(obj.Sharing(Share(strRoot, kAlice, kPublic + "\"ro\"}"))) << StackText();
    ASSERT_TRUE(obj.Sharing(Share(strRoot, kAlice, kPublic + "\"rw\"}"))) << StackText();
    EXPECT_EQ("201", Rows("acl->'public'->>'perm' = 'rw' AND (acl->'public'->>'inherit')::bool"));
    EXPECT_EQ(J(R"({"perm":"rw","inherit":true})"), StoredAcl(strLast)["public"]);
}

} // namespace
