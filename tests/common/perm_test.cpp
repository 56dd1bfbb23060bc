/*
 * Permission calculation over the demo users of the test platform: alice
 * (1101) is in groups 100 and 2001, bob (1102) in 100 and 2002. Every case
 * asks for the permission on one of carol's objects.
 */
#include <gtest/gtest.h>

#include <string>

#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_perm.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;

struct PermCase {
    unsigned requester;
    const char *szACL;
    const char *szWant; // the permission, or "" for a failure with code and origin
    int code;
    const char *szOrigin;
};

class PermTest : public kolvtest::SysrootTest {
  protected:
    void Check(std::initializer_list<PermCase> cases) {
        for (const PermCase &c : cases) {
            SCOPED_TRACE(std::to_string(c.requester) + " " + c.szACL);
            std::string strPerm = "unchanged";
            bool bl = KOLVVessaObjectPermCalculate(c.requester, kolvtest::kCarol, kolvtest::ParseJson(c.szACL), strPerm);
            if (*c.szWant) {
                EXPECT_TRUE(bl) << kolvtest::StackText();
                EXPECT_EQ(c.szWant, strPerm);
            } else {
                EXPECT_TRUE(kolvtest::FailedWith(!bl, "PermCalculate", c.code, c.szOrigin));
                EXPECT_EQ("unchanged", strPerm);
            }
        }
    }
};

TEST_F(PermTest, OwnerSuperuserAndTheSharingSwitch) {
    std::string strPerm;
    ASSERT_TRUE(KOLVVessaObjectPermCalculate(kAlice, kAlice, Json::Value("not an acl"), strPerm));
    EXPECT_EQ("owner", strPerm); // the owner needs no ACL
    Check({{0, R"({"enabled":false})", "rw", 0, ""},
           {kAlice, "null", "", 1020, "!jACL.isObject()"},
           {kAlice, R"({"public":{"perm":"rw"}})", "", 1020, "!jACL.isMember(\"enabled\")"},
           {kAlice, R"({"enabled":"yes"})", "", 1020, "!jACL[\"enabled\"].isBool()"},
           {kAlice, R"({"enabled":false,"public":{"perm":"rw"}})", "", 1020, "!jACL[\"enabled\"].asBool()"},
           {kAlice, R"({"enabled":true})", "", 1023, "strPublicPerm.empty()"}});
}

TEST_F(PermTest, NamedUserAndGroupGrants) {
    Check({// A named grant beats the public one.
           {kAlice, R"({"enabled":true,"public":{"perm":"rw"},"hmx_user":{"1101":{"perm":"ro"}}})", "ro", 0, ""},
           {kBob, R"({"enabled":true,"public":{"perm":"rw"},"hmx_user":{"1101":{"perm":"ro"}}})", "rw", 0, ""},
           // An unranked word by name passes when no group is compared with it.
           {kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"xx"}}})", "xx", 0, ""},
           // User and group grants combine to the highest.
           {kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"ro"}},"hmx_group":{"2001":{"perm":"rw"}}})", "rw", 0, ""},
           {kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"rw"}},"hmx_group":{"2001":{"perm":"ro"}}})", "rw", 0, ""},
           {kAlice, R"({"enabled":true,"hmx_group":{"100":{"perm":"rw"},"2001":{"perm":"ro"}}})", "rw", 0, ""},
           {kAlice, R"({"enabled":true,"hmx_group":{"100":{"perm":"ro"},"2001":{"perm":"rw"}}})", "rw", 0, ""},
           // bob is not in 2001: the public grant applies, or nothing.
           {kBob, R"({"enabled":true,"public":{"perm":"ro"},"hmx_group":{"2001":{"perm":"rw"}}})", "ro", 0, ""},
           {kBob, R"({"enabled":true,"hmx_group":{"2001":{"perm":"rw"}}})", "", 1023, "strPublicPerm.empty()"},
           // Group grants need a known user; without them he gets the public one.
           {4242, R"({"enabled":true,"public":{"perm":"ro"},"hmx_group":{"100":{"perm":"rw"}}})", "", 1022,
            "!KOLVVessaGetUserName(Requester, strUserName, true)"},
           {4242, R"({"enabled":true,"public":{"perm":"ro"}})", "ro", 0, ""},
           // The anonymous requester gets only the public grant.
           {UID_ERR, R"({"enabled":true,"public":{"perm":"ro"},"hmx_user":{"4294967295":{"perm":"rw"}}})", "ro", 0, ""},
           {UID_ERR, R"({"enabled":true,"hmx_user":{"4294967295":{"perm":"rw"}}})", "", 1023,
            "strPublicPerm.empty()"}});
}

TEST_F(PermTest, UnrankedOrMalformedGrantsAreRefused) {
    Check({{kAlice, R"({"enabled":true,"hmx_group":{"2001":{"perm":"xx"}}})", "", 1015,
            "-1 == PermissionOrder::GetOrder(added_perm) [xx]"}});
    Check({{kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"xx"}},"hmx_group":{"100":{"perm":"ro"}}})", "",
            1015, "-1 == (order1 = PermissionOrder::GetOrder(final_perm))"},
           {kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"ro"}},"hmx_group":{"100":{"perm":"owner"}}})", "",
            1015, "-1 == (order2 = PermissionOrder::GetOrder(added_perm))"},
           {kAlice, R"({"enabled":true,"public":{"perm":5}})", "", 1015, "!acl[\"public\"][\"perm\"].isString()"},
           {kAlice, R"({"enabled":true,"hmx_user":{"1101":"rw"}})", "", 1015, "!acl[\"hmx_user\"][szUid].isObject()"},
           {kAlice, R"({"enabled":true,"hmx_group":{"2001":{"inherit":true}}})", "", 1015,
            "!acl[\"hmx_group\"][szGid].isMember(\"perm\")"},
           {kAlice, R"({"enabled":true,"hmx_group":["2001"]})", "", 1015, "!acl[\"hmx_group\"].isObject()"}});
}

} // namespace
