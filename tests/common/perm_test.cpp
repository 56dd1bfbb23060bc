/*
 * Permission calculation over the demo users of the test platform: alice
 * (1101) is in groups 100 and 2001, bob (1102) in 100 and 2002.
 */
#include <gtest/gtest.h>

#include <string>

#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_perm.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::OriginMsg;

class PermTest : public kolvtest::SysrootTest {
  protected:
    // The permission of requester on one of carol's objects; "FAILED" (with
    // the perm checked to be unchanged) when the calculation fails.
    std::string Perm(unsigned requester, const std::string &strACL) {
        std::string strPerm = "unchanged";
        if (!KOLVVessaObjectPermCalculate(requester, kolvtest::kCarol, kolvtest::ParseJson(strACL), strPerm)) {
            EXPECT_EQ("unchanged", strPerm);
            return "FAILED";
        }
        return strPerm;
    }
};

TEST_F(PermTest, OwnerAndSuperuserComeBeforeTheACL) {
    std::string strPerm;
    ASSERT_TRUE(KOLVVessaObjectPermCalculate(kAlice, kAlice, Json::Value(), strPerm));
    EXPECT_EQ("owner", strPerm);
    ASSERT_TRUE(KOLVVessaObjectPermCalculate(kAlice, kAlice, Json::Value("not an acl"), strPerm));
    EXPECT_EQ("owner", strPerm);
    EXPECT_EQ("rw", Perm(0, R"({"enabled":false})"));
}

TEST_F(PermTest, SharingSwitchOfTheObject) {
    EXPECT_EQ("FAILED", Perm(kAlice, "null"));
    EXPECT_EQ(1020, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jACL.isObject()", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"public":{"perm":"rw"}})"));
    EXPECT_EQ("!jACL.isMember(\"enabled\")", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":"yes"})"));
    EXPECT_EQ("!jACL[\"enabled\"].isBool()", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":false,"public":{"perm":"rw"}})"));
    EXPECT_EQ(1020, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jACL[\"enabled\"].asBool()", OriginMsg());

    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true})"));
    EXPECT_EQ(1023, KOLVVessaErrCodeGet());
    EXPECT_EQ("strPublicPerm.empty()", OriginMsg());
}

TEST_F(PermTest, NamedGrantOverridesPublic) {
    EXPECT_EQ("ro", Perm(kAlice, R"({"enabled":true,"public":{"perm":"rw"},"hmx_user":{"1101":{"perm":"ro"}}})"));
    EXPECT_EQ("rw", Perm(kBob, R"({"enabled":true,"public":{"perm":"rw"},"hmx_user":{"1101":{"perm":"ro"}}})"));
    // An unranked word by name passes through when no group has to be
    // compared with it.
    EXPECT_EQ("xx", Perm(kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"xx"}}})"));
}

TEST_F(PermTest, UserAndGroupGrantsCombineToTheHighest) {
    EXPECT_EQ("rw", Perm(kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"ro"}},
                                     "hmx_group":{"2001":{"perm":"rw"}}})"));
    EXPECT_EQ("rw", Perm(kAlice, R"({"enabled":true,"hmx_group":{"100":{"perm":"rw"},"2001":{"perm":"ro"}}})"));
    EXPECT_EQ("rw", Perm(kAlice, R"({"enabled":true,"hmx_group":{"100":{"perm":"ro"},"2001":{"perm":"rw"}}})"));
    EXPECT_EQ("rw", Perm(kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"rw"}},
                                     "hmx_group":{"2001":{"perm":"ro"}}})"));
    // bob is not in 2001: the public grant applies, or nothing.
    EXPECT_EQ("ro", Perm(kBob, R"({"enabled":true,"public":{"perm":"ro"},"hmx_group":{"2001":{"perm":"rw"}}})"));
    EXPECT_EQ("FAILED", Perm(kBob, R"({"enabled":true,"hmx_group":{"2001":{"perm":"rw"}}})"));
    EXPECT_EQ(1023, KOLVVessaErrCodeGet());
}

TEST_F(PermTest, UnrankedOrMalformedGrantsAreRefused) {
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"hmx_group":{"2001":{"perm":"xx"}}})"));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("-1 == PermissionOrder::GetOrder(added_perm) [xx]", OriginMsg());
    const Json::Value &jStack = KOLVVessaErrMsgGet();
    ASSERT_EQ(3u, jStack.size());
    EXPECT_EQ("!max_perm(strSpecificPerm, strGroupPerm)", jStack[1]["msg"].asString());
    EXPECT_EQ("!get_specific_perm(Requester, owner, jACL, strSpecificPerm)", jStack[2]["msg"].asString());

    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"xx"}},
                                         "hmx_group":{"100":{"perm":"ro"}}})"));
    EXPECT_EQ("-1 == (order1 = PermissionOrder::GetOrder(final_perm))", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"hmx_user":{"1101":{"perm":"ro"}},
                                         "hmx_group":{"100":{"perm":"owner"}}})"));
    EXPECT_EQ("-1 == (order2 = PermissionOrder::GetOrder(added_perm))", OriginMsg());

    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"public":{"perm":5}})"));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("!acl[\"public\"][\"perm\"].isString()", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"hmx_user":{"1101":"rw"}})"));
    EXPECT_EQ("!acl[\"hmx_user\"][szUid].isObject()", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"hmx_group":{"2001":{"inherit":true}}})"));
    EXPECT_EQ("!acl[\"hmx_group\"][szGid].isMember(\"perm\")", OriginMsg());
    EXPECT_EQ("FAILED", Perm(kAlice, R"({"enabled":true,"hmx_group":["2001"]})"));
    EXPECT_EQ("!acl[\"hmx_group\"].isObject()", OriginMsg());
}

TEST_F(PermTest, GroupGrantsNeedAKnownUser) {
    EXPECT_EQ("FAILED", Perm(4242, R"({"enabled":true,"public":{"perm":"ro"},"hmx_group":{"100":{"perm":"rw"}}})"));
    EXPECT_EQ(1022, KOLVVessaErrCodeGet());
    EXPECT_EQ("!KOLVVessaGetUserName(Requester, strUserName, true)", OriginMsg());
    // Without group grants an unknown uid just gets the public one.
    EXPECT_EQ("ro", Perm(4242, R"({"enabled":true,"public":{"perm":"ro"}})"));
}

TEST_F(PermTest, AnonymousRequesterGetsOnlyThePublicGrant) {
    EXPECT_EQ("ro",
              Perm(UID_ERR, R"({"enabled":true,"public":{"perm":"ro"},"hmx_user":{"4294967295":{"perm":"rw"}}})"));
    EXPECT_EQ("FAILED", Perm(UID_ERR, R"({"enabled":true,"hmx_user":{"4294967295":{"perm":"rw"}}})"));
    EXPECT_EQ(1023, KOLVVessaErrCodeGet());
    EXPECT_EQ("strPublicPerm.empty()", OriginMsg());
}

} // namespace
