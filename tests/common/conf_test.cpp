/*
 * The settings file: access switches, sharing withdrawal, the setters and
 * the no-sharing list, against real files under a temporary sysroot.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::OriginMsg;

class ConfTest : public kolvtest::SysrootTest {
  protected:
    std::string ConfPath() const { return m_sys.Path("/usr/kolv/etc/kolvvessa.conf"); }
    Json::Value ReadConf() const { return kolvtest::ParseJson(kolvtest::ReadFile(ConfPath())); }

    std::vector<std::string> NoSharing(const char *szNs) {
        TRABCSzList *pList = TRABCSzListAlloc(4);
        EXPECT_EQ(0, KOLVVessaSettingsNoSharingUserList(szNs, &pList));
        std::vector<std::string> vUids;
        for (int i = 0; i < TRABCSzListCount(pList); ++i)
            vUids.push_back(TRABCSzListGet(pList, i));
        TRABCSzListFree(pList);
        return vUids;
    }
};

TEST_F(ConfTest, NoFileDisablesAccessButKeepsSharing) {
    EXPECT_FALSE(KOLVVessaAccessCheck(NULL));
    EXPECT_EQ(1027, KOLVVessaErrCodeGet());
    EXPECT_EQ("FALSE == TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)", OriginMsg());
    EXPECT_FALSE(KOLVVessaSettingsAccessGet("note"));
    EXPECT_EQ(1027, KOLVVessaErrCodeGet());

    EXPECT_TRUE(KOLVVessaSharingCheck("note", kAlice));
    EXPECT_TRUE(KOLVVessaSettingsSharingGet(NULL, kAlice));
    EXPECT_TRUE(NoSharing("note").empty());
}

TEST_F(ConfTest, AccessNeedsMasterAndNamespaceSwitches) {
    Json::Value j;
    j["Access"]["enable"] = true;
    m_sys.WriteSettings(j);
    EXPECT_TRUE(KOLVVessaAccessCheck(NULL));
    EXPECT_FALSE(KOLVVessaAccessCheck("note"));
    EXPECT_EQ(1012, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Access\"].isMember(szNSKey)", OriginMsg());
    EXPECT_EQ(2u, KOLVVessaErrMsgGet().size());
    EXPECT_EQ("FALSE == KOLVVessaSettingsAccessGetEx(jConf, szNameSpace)", KOLVVessaErrMsgGet()[1]["msg"].asString());

    // Get asks the namespace switch alone; Check wants the master switch too.
    j["Access"]["enable"] = false;
    j["Access"]["enable_ns_note"] = true;
    m_sys.WriteSettings(j);
    EXPECT_TRUE(KOLVVessaSettingsAccessGet("note"));
    EXPECT_FALSE(KOLVVessaAccessCheck("note"));
    EXPECT_EQ(1027, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Access\"][\"enable\"].asBool()", OriginMsg());

    j["Access"]["enable"] = true;
    j["Access"]["enable_ns_todo"] = false;
    m_sys.WriteSettings(j);
    EXPECT_TRUE(KOLVVessaAccessCheck("note"));
    EXPECT_FALSE(KOLVVessaAccessCheck("todo"));
    EXPECT_EQ(1012, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Access\"][szNSKey].asBool()", OriginMsg());
}

TEST_F(ConfTest, WrongTypesAreCorruptionNotDisabled) {
    Json::Value j;
    j["Access"]["enable"] = "yes";
    m_sys.WriteSettings(j);
    EXPECT_FALSE(KOLVVessaAccessCheck(NULL));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Access\"][\"enable\"].isBool()", OriginMsg());

    j["Access"] = Json::Value(Json::arrayValue);
    m_sys.WriteSettings(j);
    EXPECT_FALSE(KOLVVessaSettingsAccessGet(NULL));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Access\"].isObject()", OriginMsg());

    // No "Access" at all counts as disabled, not corrupt.
    EXPECT_FALSE(KOLVVessaSettingsAccessGetEx(Json::Value(Json::objectValue), NULL));
    EXPECT_EQ(1027, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf.isMember(\"Access\")", OriginMsg());
    EXPECT_FALSE(KOLVVessaSettingsAccessGetEx(Json::Value("x"), NULL));
    EXPECT_EQ("!jConf.isObject()", OriginMsg());

    Json::Value jSharing;
    jSharing["Sharing"]["1101"]["disable"] = "yes";
    EXPECT_FALSE(KOLVVessaSettingsSharingGetEx(jSharing, NULL, kAlice));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Sharing\"][szUid][\"disable\"].isBool()", OriginMsg());
    jSharing["Sharing"]["1101"] = 1;
    EXPECT_FALSE(KOLVVessaSettingsSharingGetEx(jSharing, "note", kAlice));
    EXPECT_EQ("!jConf[\"Sharing\"][szUid].isObject()", OriginMsg());
    EXPECT_FALSE(KOLVVessaSettingsSharingGetEx(jSharing, "note", UID_ERR));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("UID_ERR == owner", OriginMsg());
}

TEST_F(ConfTest, CorruptFileFailsChecksButNotLenientGetter) {
    kolvtest::WriteFile(ConfPath(), "{\"Access\": {\"enable\": tru");
    EXPECT_FALSE(KOLVVessaAccessCheck(NULL));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf.fromFile(SZF_KOLVVESSA_CONF_PATH)", OriginMsg());

    EXPECT_FALSE(KOLVVessaSharingCheck("note", kAlice));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf.fromFile(SZF_KOLVVESSA_CONF_PATH)", OriginMsg());
    EXPECT_TRUE(KOLVVessaSettingsSharingGet("note", kAlice));

    TRABCSzList *pList = TRABCSzListAlloc(4);
    EXPECT_EQ(-1, KOLVVessaSettingsNoSharingUserList("note", &pList));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    TRABCSzListFree(pList);
}

TEST_F(ConfTest, OwnerWithdrawsGloballyOrPerNamespace) {
    Json::Value j;
    j["Sharing"]["1101"]["disable"] = true;
    j["Sharing"]["1102"]["disable_ns_note"] = true;
    m_sys.WriteSettings(j);

    EXPECT_FALSE(KOLVVessaSharingCheck("note", kAlice));
    EXPECT_EQ(1020, KOLVVessaErrCodeGet());
    EXPECT_EQ("jConf[\"Sharing\"][szUid][\"disable\"].asBool()", OriginMsg());
    EXPECT_EQ("FALSE == KOLVVessaSettingsSharingGetEx(jConf, NULL, owner)", KOLVVessaErrMsgGet()[1]["msg"].asString());
    // The namespace form ignores the owner's global "disable".
    EXPECT_TRUE(KOLVVessaSettingsSharingGet("note", kAlice));
    EXPECT_FALSE(KOLVVessaSettingsSharingGet(NULL, kAlice));

    EXPECT_FALSE(KOLVVessaSharingCheck("note", kBob));
    EXPECT_EQ(1020, KOLVVessaErrCodeGet());
    EXPECT_EQ("jConf[\"Sharing\"][szUid][szNSKey].asBool()", OriginMsg());
    EXPECT_TRUE(KOLVVessaSharingCheck("todo", kBob));
    EXPECT_TRUE(KOLVVessaSharingCheck(NULL, kBob));
    EXPECT_TRUE(KOLVVessaSharingCheck("note", kolvtest::kCarol));
}

TEST_F(ConfTest, SettersStoreTheRuleAndKeepOtherKeys) {
    // A missing file starts from an empty document.
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet(NULL, kAlice, 2));
    EXPECT_TRUE(ReadConf()["Sharing"]["1101"]["disable"].asBool());

    Json::Value j;
    j["Access"]["enable_ns_todo"] = true;
    j["Sharing"]["1101"]["disable"] = true;
    j["Other"]["x"] = 1;
    m_sys.WriteSettings(j);
    ASSERT_EQ(0, KOLVVessaSettingsAccessSet(NULL, 1));
    ASSERT_EQ(0, KOLVVessaSettingsAccessSet("note", 2));
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet("note", kAlice, 1));
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet("note", kBob, 0));

    Json::Value jConf = ReadConf();
    EXPECT_EQ(Json::Value(true), jConf["Access"]["enable"]);
    EXPECT_EQ(Json::Value(false), jConf["Access"]["enable_ns_note"]);
    EXPECT_EQ(Json::Value(true), jConf["Access"]["enable_ns_todo"]);
    EXPECT_EQ(Json::Value(true), jConf["Sharing"]["1101"]["disable"]);
    EXPECT_EQ(Json::Value(false), jConf["Sharing"]["1101"]["disable_ns_note"]);
    EXPECT_EQ(Json::Value(true), jConf["Sharing"]["1102"]["disable_ns_note"]);
    EXPECT_EQ(1, jConf["Other"]["x"].asInt());
    struct stat st;
    EXPECT_NE(0, stat((ConfPath() + ".tmp").c_str(), &st));
    EXPECT_TRUE(KOLVVessaAccessCheck(NULL));
}

TEST_F(ConfTest, SetterReportsAFailedWrite) {
    // A directory where the file belongs cannot be replaced by a file.
    ASSERT_EQ(0, mkdir(ConfPath().c_str(), 0755));
    EXPECT_EQ(-1, KOLVVessaSettingsAccessSet(NULL, 1));
    EXPECT_EQ(1029, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf.toFile(SZF_KOLVVESSA_CONF_PATH)", OriginMsg());
}

TEST_F(ConfTest, NoSharingListCollectsOwnersOfTheNamespace) {
    Json::Value j;
    j["Sharing"]["1101"]["disable"] = true;
    j["Sharing"]["1102"]["disable_ns_note"] = true;
    j["Sharing"]["1103"]["disable_ns_todo"] = true;
    j["Sharing"]["1104"]["disable"] = false;
    j["Sharing"]["1105"]["disable"] = "yes";
    j["Sharing"]["1106"] = 7;
    m_sys.WriteSettings(j);
    EXPECT_EQ((std::vector<std::string>{"1101", "1102"}), NoSharing("note"));
    EXPECT_EQ((std::vector<std::string>{"1101", "1103"}), NoSharing("todo"));

    // The list is appended to, not replaced.
    TRABCSzList *pList = TRABCSzListAlloc(1);
    TRABCSzListPush(&pList, "keep");
    EXPECT_EQ(0, KOLVVessaSettingsNoSharingUserList("note", &pList));
    EXPECT_EQ(3, TRABCSzListCount(pList));
    EXPECT_STREQ("keep", TRABCSzListGet(pList, 0));

    EXPECT_EQ(-1, KOLVVessaSettingsNoSharingUserList(NULL, &pList));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("NULL == szNameSpace", OriginMsg());
    TRABCSzList *pNone = NULL;
    EXPECT_EQ(-1, KOLVVessaSettingsNoSharingUserList("note", &pNone));
    EXPECT_EQ("NULL == ppList || NULL == *ppList", OriginMsg());
    TRABCSzListFree(pList);

    j["Sharing"] = "none";
    m_sys.WriteSettings(j);
    pList = TRABCSzListAlloc(1);
    EXPECT_EQ(-1, KOLVVessaSettingsNoSharingUserList("note", &pList));
    EXPECT_EQ(1026, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jConf[\"Sharing\"].isObject()", OriginMsg());
    TRABCSzListFree(pList);
}

} // namespace
