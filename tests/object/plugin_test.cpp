/*
 * Object plugins: refusals before and at loading, and the arguments a
 * plugin receives (the shipped example plugin records them as JSON lines).
 */
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "kolvvessa/kolvvessa.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ParseJson;

class ObjectPluginTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        m_strLog = m_sys.Root() + "/plugin.log";
        setenv("KOLV_PLUGIN_LOG", m_strLog.c_str(), 1);
    }
    void TearDown() override { unsetenv("KOLV_PLUGIN_LOG"); }

    // One recorded call per line: {"action", "args": [[name, value], ...]}.
    std::vector<Json::Value> Calls() const {
        std::vector<Json::Value> calls;
        struct stat st;
        if (0 != stat(m_strLog.c_str(), &st)) return calls;
        std::string strLog = kolvtest::ReadFile(m_strLog);
        for (size_t pos = 0, end; (end = strLog.find('\n', pos)) != std::string::npos; pos = end + 1)
            calls.push_back(ParseJson(strLog.substr(pos, end - pos)));
        return calls;
    }

    std::string m_strLog;
};

std::vector<std::string> Names(const Json::Value &jCall) {
    std::vector<std::string> names;
    for (const Json::Value &jArg : jCall["args"])
        names.push_back(jArg[0].asString());
    return names;
}

std::string Arg(const Json::Value &jCall, const std::string &strName) {
    for (const Json::Value &jArg : jCall["args"])
        if (jArg[0].asString() == strName) return jArg[1].asString();
    return "<absent>";
}

std::vector<std::string> Group(const std::string &strPrefix) {
    std::vector<std::string> names;
    for (const char *szSuffix :
         {"NameSpace", "ID", "Category", "Version", "CommitMsg", "ParentID", "Owner", "MetaText", "Text",
          "MetaBinary_info", "Binary_info", "ACL", "CreateTime", "ModifyTime", "ExtraInfo"})
        names.push_back(strPrefix + szSuffix);
    return names;
}

TEST_F(ObjectPluginTest, RefusesBadUseAndPluginsThatDoNotFit) {
    KOLV_VESSA_OBJECT obj;
    KOLV_VESSA_OBJECT_ENV env = {};
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(&env, KOLV_LOG_PLUGIN, NULL, NULL), 1015, "NULL == pOrg && NULL == pNew");
    EXPECT_EQ(nullptr, env.pPlugin);
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(NULL, KOLV_LOG_PLUGIN, &obj, NULL), 1015, "NULL == pstEnvVar");
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(&env, NULL, &obj, NULL), 1015, "NULL == szPlugin");
    // Never loaded: the run is refused before any argument is set.
    EXPECT_FAILS(KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_POST, &env), 1017, "!TRABPluginHasInit(pstEnvVar->pPlugin)");

    TRABPLUGIN *pPlugin = NULL;
    EXPECT_EQ(-1, KOLVVessaPluginInit("objects", KOLV_LOG_PLUGIN, &pPlugin));
    EXPECT_TRUE(kolvtest::ErrIs(1015, "-1 == iRet"));
    EXPECT_EQ("-1 == iRet\n0 > KOLVVessaPluginModuleVersion(szModule, &major, &minor)", kolvtest::StackText());
    EXPECT_EQ(nullptr, pPlugin);

    // The loader's reason stands above the origin: a missing file, a shared
    // object without the entry points, another major version, another module.
    const std::string strInit = "0 > TRABPluginInit(szPath, pslSearchPath, major, minor, ppPlugin)";
    const std::string strMissing = m_sys.Root() + "/none.so";
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(&env, strMissing.c_str(), &obj, NULL), 1018, strInit);
    EXPECT_NE(std::string::npos, kolvtest::StackText().find(strMissing + ": cannot open shared object file"));
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(&env, KOLV_NO_TABLE_HOOK_LIB, &obj, NULL), 1018, strInit);
    EXPECT_NE(std::string::npos, kolvtest::StackText().find("undefined symbol: KOLVPluginInfo"));
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(&env, KOLV_LOG_PLUGIN_V2, &obj, NULL), 1018, strInit);
    EXPECT_NE(std::string::npos, kolvtest::StackText().find("version 2.0, 1.0 or a later minor needed"));
    EXPECT_FAILS(KOLVVessaObjectPlugin_init(&env, KOLV_LOG_PLUGIN_INDEX, &obj, NULL), 1018,
                 "0 != strcmp(szModule, TRABPluginGetModule(*ppPlugin))");
    EXPECT_EQ(nullptr, env.pPlugin);
    // A newer minor of the same major is accepted, an older one is not.
    EXPECT_EQ(0, TRABPluginInit(KOLV_LOG_PLUGIN_INDEX, NULL, 1, 2, &pPlugin));
    EXPECT_TRUE(TRABPluginHasInit(pPlugin));
    TRABPluginExit(pPlugin);
    EXPECT_GT(0, TRABPluginInit(KOLV_LOG_PLUGIN_INDEX, NULL, 1, 4, &pPlugin));
    EXPECT_EQ(nullptr, pPlugin);
    EXPECT_TRUE(Calls().empty());
}

TEST_F(ObjectPluginTest, HandsOverBothObjectsInOrderAndIntact) {
    KOLV_VESSA_OBJECT objNew;
    objNew.set_ns("note");
    objNew.set_id("1101_ABC");
    objNew.set_owner(4294967295UL);
    objNew.set_ctime(-5);
    objNew.set_mtime(1700000000);
    KOLV_VESSA_OBJECT_ENV env;
    ASSERT_TRUE(KOLVVessaObjectPlugin_init(&env, KOLV_LOG_PLUGIN, NULL, &objNew)) << kolvtest::StackText();
    env.result = -1;
    ASSERT_TRUE(KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_ABORT, &env)) << kolvtest::StackText();

    // Both objects: values with quotes, newlines, non-ASCII text and JSON.
    KOLV_VESSA_OBJECT objOrg;
    const std::string strHostile = "say \"hi\"\nline two\t\\ caf\xc3\xa9 \xe6\x97\xa5";
    objOrg.set_category(strHostile);
    objOrg.set_text(ParseJson(R"({"body":"a \"quoted\"\nline \u00e9"})"));
    objOrg.set_acl(ParseJson(R"({"enabled":true,"public":{"perm":"ro"}})"));
    objOrg.set_commit_msg(Json::Value("msg"));
    objOrg.set_owner(1101);
    env.pOrg = &objOrg;
    env.result = 7;
    ASSERT_TRUE(KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_POST, &env)) << kolvtest::StackText();
    // A second run gets the arguments anew, not on top of the last ones.
    ASSERT_TRUE(KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_POST, &env)) << kolvtest::StackText();

    std::vector<Json::Value> calls = Calls();
    ASSERT_EQ(3U, calls.size());
    std::vector<std::string> want = {"RESULT"};
    std::vector<std::string> newGroup = Group("New_");
    want.insert(want.end(), newGroup.begin(), newGroup.end());
    EXPECT_EQ(SDK_PLUGIN_ACTION_ABORT, calls[0]["action"].asInt());
    EXPECT_EQ(want, Names(calls[0]));
    EXPECT_EQ("-1", Arg(calls[0], "RESULT"));
    EXPECT_EQ("4294967295", Arg(calls[0], "New_Owner"));
    EXPECT_EQ("-5", Arg(calls[0], "New_CreateTime"));
    EXPECT_EQ("1700000000", Arg(calls[0], "New_ModifyTime"));
    EXPECT_EQ("null", Arg(calls[0], "New_Text"));

    std::vector<std::string> orgGroup = Group("Org_");
    want.insert(want.begin() + 1, orgGroup.begin(), orgGroup.end());
    ASSERT_EQ(31U, want.size());
    EXPECT_EQ(want, Names(calls[1]));
    EXPECT_EQ(calls[1], calls[2]);
    EXPECT_EQ("7", Arg(calls[1], "RESULT"));
    EXPECT_EQ(strHostile, Arg(calls[1], "Org_Category"));
    EXPECT_EQ(objOrg.get_text(), ParseJson(Arg(calls[1], "Org_Text")));
    EXPECT_EQ(objOrg.get_acl(), ParseJson(Arg(calls[1], "Org_ACL")));
    EXPECT_EQ("\"msg\"", Arg(calls[1], "Org_CommitMsg"));
    EXPECT_EQ("1101", Arg(calls[1], "Org_Owner"));
    EXPECT_EQ("note", Arg(calls[1], "New_NameSpace"));

    // A plugin that reports failure (its log is a directory): 1019.
    ASSERT_EQ(0, mkdir((m_sys.Root() + "/dir.log").c_str(), 0700));
    setenv("KOLV_PLUGIN_LOG", (m_sys.Root() + "/dir.log").c_str(), 1);
    EXPECT_FAILS(KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_PRE, &env), 1019,
                 "0 > TRABPluginAction(action, pstEnvVar->pPlugin)");
    EXPECT_TRUE(KOLVVessaObjectPlugin_exit(&env));
    EXPECT_EQ(nullptr, env.pPlugin);
    EXPECT_FAILS(KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_POST, &env), 1017, "!TRABPluginHasInit(pstEnvVar->pPlugin)");
}

} // namespace
