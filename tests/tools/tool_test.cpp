// The kolvvessa tool as a user runs it: a separate process, JSON in and out.
#include <gtest/gtest.h>

#include "kolvvessa/kolvvessa.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ParseJson;
using kolvtest::RunCommand;

class ToolTest : public kolvtest::SysrootTest {
  protected:
    // Runs the tool with one verb and request; stdout into *pOut.
    int Tool(const std::string &strVerb, const std::string &strReq, std::string *pOut, bool blStderr = false) {
        std::string strCmd = std::string(KOLV_TOOL) + " " + strVerb + " '" + strReq + "'";
        strCmd += blStderr ? " 2>&1" : " 2>/dev/null";
        return RunCommand(strCmd, pOut);
    }
};

TEST_F(ToolTest, HelpNamesEveryVerbWithAnExample) {
    std::string strOut;
    EXPECT_EQ(0, RunCommand(std::string(KOLV_TOOL) + " --help", &strOut));
    for (const char *szVerb :
         {"create", "copy", "get", "set", "list", "reindex", "access-set", "sharing-set", "versions", "version", "diff",
          "rename", "delete", "share", "batch-set", "batch-delete", "batch-share", "cleanup-user", "cleanup-orphans"}) {
        EXPECT_NE(std::string::npos, strOut.find(szVerb)) << szVerb;
    }
    EXPECT_EQ(0, RunCommand(std::string(KOLV_TOOL) + " set --help", &strOut));
    EXPECT_NE(std::string::npos, strOut.find("Example:"));
    EXPECT_EQ(2, RunCommand(std::string(KOLV_TOOL) + " frobnicate '{}' 2>/dev/null", &strOut));
    EXPECT_EQ(0, RunCommand(std::string(KOLV_TOOL) + " delete --help", &strOut));
    EXPECT_NE(std::string::npos, strOut.find("kolvvessa delete --recursive '{"));
    EXPECT_EQ(2, RunCommand(std::string(KOLV_TOOL) + " get --recursive '{}' 2>/dev/null", &strOut));
}

// Whatever the request, the tool answers with a status and a reason on
// standard error; it never aborts. Which requests the library refuses, at
// every entry: tests/object/object_request_test.cpp.
TEST_F(ToolTest, HostileRequestsFailCleanly) {
    m_sys.EnableNamespace("note");
    const std::string strDeep = std::string(1500, '[') + std::string(1500, ']');
    const struct {
        const char *szVerb;
        std::string strReq;
        int status;
        const char *szReason;
    } rgCases[] = {
        {"get", "[1,2]", 2, "the request must be a JSON object"},
        {"get", "{\"ns\":", 2, "the request must be a JSON object"},
        {"get", R"({"a":)" + strDeep + "}", 2, "the request must be a JSON object"},
        {"get", R"({"ns":"note","id":"1101_A","requester":4294967296})", 1, "!kolv::IsUidValue(jParm[\"requester\"])"},
        // The tool's own parser keeps a NUL inside a string.
        {"create", R"({"ns":"note","category":"me\u0000mo","requester":1101})", 1, "kolv::HasNulCharacter(jParm)"},
        {"sharing-set", R"({"ns":"note","owner":"x","enable":0})", 1, "ErrNo=[1007]"},
        {"sharing-set", R"({"ns":"note","owner":4294967296,"enable":0})", 1, "ErrNo=[1007]"},
        {"access-set", R"({"ns":"note","enable":1e30})", 1, "ErrNo=[1007]"},
    };
    for (const auto &c : rgCases) {
        std::string strOut;
        EXPECT_EQ(c.status, Tool(c.szVerb, c.strReq, &strOut, true)) << c.szVerb << " " << c.strReq.substr(0, 80);
        EXPECT_NE(std::string::npos, strOut.find(c.szReason)) << strOut;
    }
    EXPECT_FALSE(TRABCFileExist(m_sys.Repo().c_str()));
}

TEST_F(ToolTest, CreateGetSetRoundTripAndFailuresPrintTheStack) {
    std::string strOut;
    ASSERT_EQ(0, Tool("access-set", R"({"enable":1})", &strOut));
    ASSERT_EQ(0, Tool("access-set", R"({"ns":"note","enable":1})", &strOut));

    ASSERT_EQ(0,
              Tool("create", R"({"ns":"note","category":"memo","requester":1101,"text":{"title":"Hello"}})", &strOut));
    Json::Value jCreated = ParseJson(strOut);
    std::string strID = jCreated["id"].asString();
    ASSERT_EQ(0u, strID.find("1101_"));
    EXPECT_EQ("Hello", jCreated["text"]["title"].asString());
    EXPECT_EQ("owner", jCreated["perm"].asString());

    // The request may also come on standard input.
    std::string strReq = R"({"ns":"note","id":")" + strID + R"(","requester":1101,"version":")" +
                         jCreated["version"].asString() + R"(","text":{"title":"Changed"}})";
    ASSERT_EQ(0, RunCommand("echo '" + strReq + "' | " + KOLV_TOOL + " set 2>/dev/null", &strOut));
    Json::Value jSet = ParseJson(strOut);
    EXPECT_EQ("Changed", jSet["text"]["title"].asString());
    EXPECT_NE(jCreated["version"], jSet["version"]);

    ASSERT_EQ(0, Tool("get",
                      R"({"ns":"note","id":")" + strID + R"(","requester":1101,"version":")" +
                          jCreated["version"].asString() + R"("})",
                      &strOut));
    EXPECT_EQ("Hello", ParseJson(strOut)["text"]["title"].asString());

    // bob has no grant on alice's object: exit 1 and the stack on stderr.
    EXPECT_EQ(1, Tool("get", R"({"ns":"note","id":")" + strID + R"(","requester":1102})", &strOut, true));
    EXPECT_NE(std::string::npos, strOut.find("kolvvessa call stack:"));
    EXPECT_NE(std::string::npos, strOut.find("ErrNo=[1020]"));
}

TEST_F(ToolTest, SettingsVerbsWriteTheSettingsFile) {
    std::string strOut;
    ASSERT_EQ(0, Tool("sharing-set", R"({"ns":"note","owner":1101,"enable":0})", &strOut));
    ASSERT_EQ(0, Tool("no-sharing-list", R"({"ns":"note"})", &strOut));
    EXPECT_EQ("1101", ParseJson(strOut)["owners"][0].asString());
    EXPECT_EQ(1, Tool("sharing-check", R"({"ns":"note","owner":1101})", &strOut));
    ASSERT_EQ(0, Tool("access-get", R"({"ns":"note"})", &strOut));
    EXPECT_FALSE(ParseJson(strOut)["enabled"].asBool());
}

// A notebook and a note through the tool: listed and reindexed, the
// note's versions, one older version, a diff, a rename, then the notebook
// deleted with everything below it.
TEST_F(ToolTest, HistoryRenameAndRecursiveDelete) {
    if (!kolvtest::HavePostgres()) GTEST_SKIP() << "no PostgreSQL server (PGHOST unset)";
    kolvtest::DropIndexDatabase();
    m_sys.EnableNamespace("note");
    std::string strOut;
    ASSERT_EQ(0, Tool("create", R"({"ns":"note","category":"book","requester":1101})", &strOut));
    std::string strBook = ParseJson(strOut)["id"].asString();
    ASSERT_EQ(0, Tool("create",
                      R"({"ns":"note","category":"memo","requester":1101,"parent_id":")" + strBook +
                          R"(","mtime":7,"text":{"title":"a","body":"b"}})",
                      &strOut));
    Json::Value jNote = ParseJson(strOut);
    ASSERT_EQ(0, Tool("list", R"({"ns":"note","requester":1101,"field":{"text":true}})", &strOut));
    Json::Value jList = ParseJson(strOut);
    EXPECT_EQ(2, jList["count"].asInt());
    EXPECT_EQ("a", jList["objects"][1]["text"]["title"].asString()); // newest first: the book, made now
    kolvtest::Psql("DELETE FROM object");
    ASSERT_EQ(0, Tool("reindex", R"({"ns":"note"})", &strOut));
    EXPECT_EQ("2", kolvtest::Psql("SELECT count(*) FROM object WHERE ns = 'note'"));
    const std::string strHead = R"({"ns":"note","id":")" + jNote["id"].asString() + R"(","requester":1101)";
    const std::string strV1 = jNote["version"].asString();
    // Versions of one second still list newest first: by their parents,
    // not by their times.
    std::string strV2 = strV1;
    for (const char *szBody : {"x", "c"}) {
        ASSERT_EQ(0, Tool("set",
                          strHead + R"(,"mtime":7,"version":")" + strV2 + R"(","text":{"body":")" + szBody + R"("}})",
                          &strOut));
        strV2 = ParseJson(strOut)["version"].asString();
    }
    ASSERT_EQ(0, Tool("versions", strHead + R"(,"offset":1,"limit":2})", &strOut));
    Json::Value jVersions = ParseJson(strOut);
    EXPECT_EQ(2, jVersions["count"].asInt());
    EXPECT_EQ(3, jVersions["total"].asInt());
    EXPECT_EQ(strV1, jVersions["versions"][1]["version"].asString());
    EXPECT_EQ("alice", jVersions["versions"][0]["author"].asString());

    ASSERT_EQ(0, Tool("version", strHead + R"(,"version":")" + strV1 + R"("})", &strOut));
    EXPECT_EQ("b", ParseJson(strOut)["object"]["text"]["body"].asString());
    EXPECT_EQ(strV1, ParseJson(strOut)["record"]["version"].asString());

    ASSERT_EQ(0, Tool("diff", strHead + R"(,"old_version":")" + strV1 + R"("})", &strOut));
    EXPECT_EQ(ParseJson(R"({"text":{"body":"modified"}})"), ParseJson(strOut));

    ASSERT_EQ(
        0, Tool("rename",
                strHead + R"(,"segment":"text","old_field":"body","new_field":"recipe","version":")" + strV2 + R"("})",
                &strOut));
    EXPECT_EQ("c", ParseJson(strOut)["text"]["recipe"].asString());
    EXPECT_FALSE(ParseJson(strOut)["text"].isMember("body"));

    ASSERT_EQ(0, Tool("delete --recursive", R"({"ns":"note","id":")" + strBook + R"(","requester":1101})", &strOut));
    EXPECT_TRUE(ParseJson(strOut)["recursive"].asBool());
    EXPECT_EQ("0", kolvtest::Psql("SELECT count(*) FROM object WHERE ns = 'note'"));
    EXPECT_EQ(1, Tool("get", strHead + "}", &strOut));
}

// A folder shared with bob by name reaches its notes as an inherited
// grant; the notes go in one multi-object delete with their ids on
// standard input; bob's objects go once he has left the appliance, then
// alice's with her name.
TEST_F(ToolTest, ShareBatchDeleteAndCleanup) {
    if (!kolvtest::HavePostgres()) GTEST_SKIP() << "no PostgreSQL server (PGHOST unset)";
    kolvtest::DropIndexDatabase();
    m_sys.EnableNamespace("note");
    std::string strOut;
    ASSERT_EQ(0,
              Tool("create", R"({"ns":"note","category":"folder","requester":1101,"acl":{"enabled":true}})", &strOut));
    const std::string strFolder = ParseJson(strOut)["id"].asString();
    std::string strNotes;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0,
                  Tool("create", R"({"ns":"note","category":"memo","requester":1101,"parent_id":")" + strFolder + "\"}",
                       &strOut));
        strNotes += ParseJson(strOut)["id"].asString() + "\n";
    }
    const std::string strNote = strNotes.substr(0, strNotes.find('\n'));
    const std::string strShare =
        R"({"ns":"note","id":")" + strFolder + R"(","requester":1101,"type":"user","op":"set","perm":"ro","uid":)";
    EXPECT_EQ(1, Tool("share", strShare + R"("nobody-here"})", &strOut, true));
    EXPECT_NE(std::string::npos, strOut.find("ErrNo=[1022]")) << strOut;
    ASSERT_EQ(0, Tool("share", strShare + R"("bob"})", &strOut));
    EXPECT_FALSE(ParseJson(strOut)["acl"]["hmx_user"]["1102"]["inherit"].asBool());
    ASSERT_EQ(0, Tool("get", R"({"ns":"note","id":")" + strNote + R"(","requester":1102})", &strOut));
    EXPECT_EQ("ro", ParseJson(strOut)["perm"].asString());
    ASSERT_EQ(0, Tool("get", R"({"ns":"note","id":")" + strNote + R"(","requester":1101})", &strOut));
    EXPECT_EQ(ParseJson(R"({"perm":"ro","inherit":true})"), ParseJson(strOut)["acl"]["hmx_user"]["1102"]);

    // bob may read but not delete; with no id anywhere the tool refuses.
    const std::string strBatch = std::string(KOLV_TOOL) + " batch-delete ";
    EXPECT_EQ(
        1, RunCommand("printf '" + strNotes + "' | " + strBatch + R"('{"ns":"note","requester":1102}' 2>&1)", &strOut));
    EXPECT_NE(std::string::npos, strOut.find("ErrNo=[1023]")) << strOut;
    EXPECT_EQ(1, RunCommand(strBatch + R"('{"ns":"note","requester":1101}' </dev/null 2>/dev/null)", &strOut));
    ASSERT_EQ(0, RunCommand("printf '\\n\\t" + strNotes + "' | " + strBatch + R"('{"ns":"note","requester":1101}')",
                            &strOut));
    Json::Value jResult = ParseJson(strOut);
    EXPECT_EQ(2, jResult["done"].asInt());
    EXPECT_TRUE(jResult["result"][strNote].asBool());
    EXPECT_EQ("1", kolvtest::Psql("SELECT count(*) FROM object"));

    // bob leaves: only his objects go. The tool is a fresh process that
    // never saw bob as a valid owner.
    ASSERT_EQ(0, Tool("create", R"({"ns":"note","category":"memo","requester":1102})", &strOut));
    Json::Value jConfig = kolvtest::Sysroot::DefaultPlatformConfig();
    jConfig["users"].removeIndex(1, nullptr);
    m_sys.WritePlatformConfig(jConfig);
    ASSERT_EQ(0, Tool("cleanup-orphans", "{}", &strOut));
    EXPECT_EQ("1101", kolvtest::Psql("SELECT string_agg(owner::text, ',') FROM object"));
    EXPECT_EQ(1, Tool("cleanup-user", R"({"uid":0})", &strOut));
    ASSERT_EQ(0, Tool("cleanup-user", R"({"uid":"alice"})", &strOut));
    EXPECT_EQ(1101, ParseJson(strOut)["cleaned_uid"].asInt());
    EXPECT_EQ("0", kolvtest::Psql("SELECT count(*) FROM object"));
    EXPECT_FALSE(TRABCFileExist((m_sys.Repo() + "/note/" + strFolder).c_str()));
}

} // namespace

namespace {

// The check through the tool: 0 on a clean store, 1 while findings
// remain, 0 again once a repair mended them, 2 when it cannot run; the
// library's version; --pretty indents what is otherwise one line.
TEST_F(ToolTest, CheckExitStatusVersionAndPretty) {
    if (!kolvtest::HavePostgres()) GTEST_SKIP() << "no PostgreSQL server (PGHOST unset)";
    kolvtest::DropIndexDatabase();
    m_sys.EnableNamespace("note");
    std::string strOut;
    ASSERT_EQ(0, Tool("create", R"({"ns":"note","category":"memo","requester":1101,"text":{"t":"x"}})", &strOut));
    EXPECT_EQ(std::string::npos, strOut.find("\n  ")) << strOut;
    const std::string strID = ParseJson(strOut)["id"].asString();

    const std::string strCheck = std::string(KOLV_TOOL) + " check";
    ASSERT_EQ(0, RunCommand(strCheck + " 2>/dev/null", &strOut));
    EXPECT_EQ(1u, ParseJson(strOut)["checked"].asUInt());
    EXPECT_EQ(0u, ParseJson(strOut)["findings"].size());
    kolvtest::Psql("DELETE FROM object WHERE id = '" + strID + "';");
    ASSERT_EQ(1, RunCommand(strCheck + " --ns note --id " + strID + " 2>/dev/null", &strOut));
    EXPECT_EQ("row_missing", ParseJson(strOut)["findings"][0]["kind"].asString());
    EXPECT_EQ(0, RunCommand(strCheck + " --repair 2>/dev/null", &strOut));
    EXPECT_EQ(1u, ParseJson(strOut)["repaired"].asUInt());
    EXPECT_EQ(0, RunCommand(std::string(KOLV_TOOL) + " --pretty check '{\"ns\":\"note\"}' 2>/dev/null", &strOut));
    EXPECT_NE(std::string::npos, strOut.find("\n  \"by_kind\"")) << strOut;
    EXPECT_EQ(2, RunCommand(strCheck + " --ns ../etc 2>/dev/null", &strOut));
    EXPECT_EQ(2, RunCommand(strCheck + " --safe-age soon 2>/dev/null", &strOut));

    ASSERT_EQ(0, RunCommand(std::string(KOLV_TOOL) + " --version", &strOut));
    EXPECT_EQ(std::string("kolvvessa ") + KOLVVessaVersion() + "\n", strOut);
}

} // namespace
