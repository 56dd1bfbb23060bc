/*
 * The settings file: access switches, sharing withdrawal, the setters and
 * the no-sharing list, against real files under a temporary sysroot.
 */
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ErrIs;
using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::ParseJson;

class ConfTest : public kolvtest::SysrootTest {
  protected:
    std::string ConfPath() const { return m_sys.Path("/usr/kolv/etc/kolvvessa.conf"); }
    Json::Value ReadConf() const { return ParseJson(kolvtest::ReadFile(ConfPath())); }

    /* The no-sharing list of szNs, appended to a list holding "keep";
     * "FAILED" when the call fails. */
    std::string NoSharing(const char *szNs) {
        TRABCSzList *pList = TRABCSzListAlloc(1);
        TRABCSzListPush(&pList, "keep");
        bool blOk = 0 == KOLVVessaSettingsNoSharingUserList(szNs, &pList);
        std::string str = blOk ? "" : "FAILED";
        for (int i = 0; blOk && i < TRABCSzListCount(pList); ++i)
            str += std::string(i ? " " : "") + TRABCSzListGet(pList, i);
        TRABCSzListFree(pList);
        return str;
    }
};

TEST_F(ConfTest, MissingFileDisablesAccessACorruptOneFailsChecks) {
    EXPECT_FAILS(KOLVVessaAccessCheck(NULL), 1027, "FALSE == TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)");
    EXPECT_FALSE(KOLVVessaSettingsAccessGet("note"));
    EXPECT_EQ(1027, KOLVVessaErrCodeGet());
    EXPECT_TRUE(KOLVVessaSharingCheck("note", kAlice));
    EXPECT_TRUE(KOLVVessaSettingsSharingGet(NULL, kAlice));
    EXPECT_EQ("keep", NoSharing("note"));

    kolvtest::WriteFile(ConfPath(), "{\"Access\": {\"enable\": tru");
    EXPECT_FAILS(KOLVVessaAccessCheck(NULL), 1026, "!jConf.fromFile(SZF_KOLVVESSA_CONF_PATH)");
    EXPECT_FALSE(KOLVVessaSharingCheck("note", kAlice));
    EXPECT_TRUE(KOLVVessaSettingsSharingGet("note", kAlice)); // the lenient getter
    EXPECT_EQ("FAILED", NoSharing("note"));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
}

TEST_F(ConfTest, ReadersSeeEveryRewriteOfTheFile) {
    // In place, the same size, the same inode, within one second.
    kolvtest::WriteFile(ConfPath(), R"({"Access":{"enable":true ,"enable_ns_note":true}})");
    EXPECT_TRUE(KOLVVessaAccessCheck("note"));
    kolvtest::WriteFile(ConfPath(), R"({"Access":{"enable":false,"enable_ns_note":true}})");
    EXPECT_FAILS(KOLVVessaAccessCheck("note"), 1027, "!jConf[\"Access\"][\"enable\"].asBool()");

    // A settled file is kept; a rewrite that moves its time by one
    // nanosecond only is still seen, and so is a corrupt one.
    auto Age = [&](long nsec) {
        struct timespec times[2] = {{1000000000, nsec}, {1000000000, nsec}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, ConfPath().c_str(), times, 0));
    };
    kolvtest::WriteFile(ConfPath(), R"({"Access":{"enable":true ,"enable_ns_note":true}})");
    Age(0);
    EXPECT_TRUE(KOLVVessaAccessCheck("note"));
    EXPECT_TRUE(KOLVVessaAccessCheck("note"));
    kolvtest::WriteFile(ConfPath(), R"({"Access":{"enable":false,"enable_ns_note":true}})");
    Age(1);
    EXPECT_FAILS(KOLVVessaAccessCheck("note"), 1027, "!jConf[\"Access\"][\"enable\"].asBool()");
    kolvtest::WriteFile(ConfPath(), R"({"Access":{"enable":false,"enable_ns_note":trux}})");
    Age(2);
    EXPECT_FAILS(KOLVVessaAccessCheck("note"), 1026, "!jConf.fromFile(SZF_KOLVVESSA_CONF_PATH)");
    EXPECT_TRUE(KOLVVessaSettingsSharingGet("note", kAlice));
}

TEST_F(ConfTest, AccessNeedsMasterAndNamespaceSwitchesOfTheRightType) {
    m_sys.WriteSettings(ParseJson(R"({"Access":{"enable":true}})"));
    EXPECT_TRUE(KOLVVessaAccessCheck(NULL));
    EXPECT_FAILS(KOLVVessaAccessCheck("note"), 1012, "!jConf[\"Access\"].isMember(szNSKey)");
    // Get asks the namespace switch alone; Check wants the master switch too.
    m_sys.WriteSettings(ParseJson(R"({"Access":{"enable":false,"enable_ns_note":true}})"));
    EXPECT_TRUE(KOLVVessaSettingsAccessGet("note"));
    EXPECT_FAILS(KOLVVessaAccessCheck("note"), 1027, "!jConf[\"Access\"][\"enable\"].asBool()");
    m_sys.WriteSettings(ParseJson(R"({"Access":{"enable":true,"enable_ns_note":true,"enable_ns_todo":false}})"));
    EXPECT_TRUE(KOLVVessaAccessCheck("note"));
    EXPECT_FAILS(KOLVVessaAccessCheck("todo"), 1012, "!jConf[\"Access\"][szNSKey].asBool()");

    // Wrong types are corruption, not "disabled"; no "Access" at all is disabled.
    m_sys.WriteSettings(ParseJson(R"({"Access":{"enable":"yes"}})"));
    EXPECT_FAILS(KOLVVessaAccessCheck(NULL), 1026, "!jConf[\"Access\"][\"enable\"].isBool()");
    m_sys.WriteSettings(ParseJson(R"({"Access":[]})"));
    EXPECT_FAILS(KOLVVessaSettingsAccessGet(NULL), 1026, "!jConf[\"Access\"].isObject()");
    EXPECT_FAILS(KOLVVessaSettingsAccessGetEx(Json::Value(Json::objectValue), NULL), 1027,
                 "!jConf.isMember(\"Access\")");
    Json::Value jSharing = ParseJson(R"({"Sharing":{"1101":{"disable":"yes"}}})");
    EXPECT_FAILS(KOLVVessaSettingsSharingGetEx(jSharing, NULL, kAlice), 1026,
                 "!jConf[\"Sharing\"][szUid][\"disable\"].isBool()");
    EXPECT_FAILS(KOLVVessaSettingsSharingGetEx(jSharing, "note", UID_ERR), 1015, "UID_ERR == owner");
}

TEST_F(ConfTest, OwnersWithdrawSharingGloballyOrPerNamespace) {
    m_sys.WriteSettings(ParseJson(R"({"Sharing":{"1101":{"disable":true},"1102":{"disable_ns_note":true},
        "1103":{"disable_ns_todo":true},"1104":{"disable":false},"1105":{"disable":"yes"},"1106":7}})"));
    EXPECT_FAILS(KOLVVessaSharingCheck("note", kAlice), 1020, "jConf[\"Sharing\"][szUid][\"disable\"].asBool()");
    // The namespace form ignores the owner's global "disable".
    EXPECT_TRUE(KOLVVessaSettingsSharingGet("note", kAlice));
    EXPECT_FALSE(KOLVVessaSettingsSharingGet(NULL, kAlice));
    EXPECT_FAILS(KOLVVessaSharingCheck("note", kBob), 1020, "jConf[\"Sharing\"][szUid][szNSKey].asBool()");
    EXPECT_TRUE(KOLVVessaSharingCheck("todo", kBob));
    EXPECT_TRUE(KOLVVessaSharingCheck(NULL, kBob));
    EXPECT_TRUE(KOLVVessaSharingCheck("note", kolvtest::kCarol));

    // The no-sharing list: owners of the namespace, malformed entries skipped.
    EXPECT_EQ("keep 1101 1102", NoSharing("note"));
    EXPECT_EQ("keep 1101 1103", NoSharing("todo"));
    EXPECT_EQ("FAILED", NoSharing(NULL));
    EXPECT_TRUE(ErrIs(1015, "NULL == szNameSpace"));
    m_sys.WriteSettings(ParseJson(R"({"Sharing":"none"})"));
    EXPECT_EQ("FAILED", NoSharing("note"));
    EXPECT_TRUE(ErrIs(1026, "!jConf[\"Sharing\"].isObject()"));
}

TEST_F(ConfTest, SettersStoreTheRuleAndKeepOtherKeys) {
    // A missing file starts from an empty document.
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet(NULL, kAlice, 2));
    EXPECT_TRUE(ReadConf()["Sharing"]["1101"]["disable"].asBool());

    m_sys.WriteSettings(
        ParseJson(R"({"Access":{"enable_ns_todo":true},"Sharing":{"1101":{"disable":true}},"Other":{"x":1}})"));
    ASSERT_EQ(0, KOLVVessaSettingsAccessSet(NULL, 1));
    ASSERT_EQ(0, KOLVVessaSettingsAccessSet("note", 2)); // only 1 enables
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet("note", kAlice, 1));
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet("note", kBob, 0));
    EXPECT_EQ(ParseJson(R"({"Access":{"enable":true,"enable_ns_note":false,"enable_ns_todo":true},
                            "Sharing":{"1101":{"disable":true,"disable_ns_note":false},
                                       "1102":{"disable_ns_note":true}},"Other":{"x":1}})"),
              ReadConf());

    // A directory where the file belongs cannot be replaced by a file.
    ASSERT_EQ(0, unlink(ConfPath().c_str()));
    ASSERT_EQ(0, mkdir(ConfPath().c_str(), 0755));
    EXPECT_EQ(-1, KOLVVessaSettingsAccessSet(NULL, 1));
    EXPECT_TRUE(ErrIs(1029, "!jConf.toFile(SZF_KOLVVESSA_CONF_PATH)"));
}

} // namespace
