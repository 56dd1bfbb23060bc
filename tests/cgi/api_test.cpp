/*
 * The web API behind a real web server: every object verb as two users,
 * the requester taken from the login only, and the refusals of bodies,
 * logins and verbs.
 */
#include <string>

#include <sys/stat.h>

#include "cgi/web_server.h"
#include "common/kolvvessa_json_internal.h"

namespace {

using kolvtest::WriteFile;
using webtest::Reply;

class ApiTest : public webtest::WebStoreTest {
  protected:
    void SetUp() override {
        IndexedStoreTest::SetUp();
        if (IsSkipped()) return;
        StartServer({{"kolvvessa-api.cgi", KOLV_API_CGI}, {"kolvvessa-download.cgi", KOLV_CGI}});
    }

    /* POST /VERB with the body from a file, so that any byte goes through. */
    Reply Post(const std::string &strVerb, const std::string &strBody, const std::string &strLogin = "alice:pa",
               const std::string &strFolder = "/vessa/") {
        WriteFile(m_strDir + "/request", strBody);
        return Curl("-X POST -H 'Content-Type: application/json' --data-binary @" + m_strDir + "/request", strLogin,
                    strFolder + "kolvvessa-api.cgi/" + strVerb);
    }

    /* The answer's JSON; a failure of the test when it is not JSON. */
    static Json::Value Body(const Reply &r) {
        Json::Value j;
        EXPECT_TRUE(kolv::JsonFromString(j, r.body)) << r.status << " " << r.body;
        return j;
    }
};

TEST_F(ApiTest, TwoUsersShareReadVersionAndDeleteThroughTheApi) {
    Reply r = Post("create",
                   R"({"ns":"note","category":"memo","acl":{"enabled":true},"text":{"title":"Trip","body":"first"}})");
    ASSERT_EQ(200, r.status) << r.head << r.body;
    Json::Value jObj = Body(r);
    std::string strId = jObj["id"].asString(), strFirst = jObj["version"].asString();
    EXPECT_EQ(std::to_string(kolvtest::kAlice), strId.substr(0, strId.find('_')));
    EXPECT_NE(std::string::npos, r.head.find("application/json"));

    // Before sharing, bob neither finds nor reads it.
    EXPECT_EQ(0, Body(Post("list", R"({"ns":"note"})", "bob:pb"))["count"].asInt());
    EXPECT_EQ(403, Post("get", R"({"ns":"note","id":")" + strId + "\"}", "bob:pb").status);
    r = Post("share", R"({"ns":"note","id":")" + strId + R"(","type":"user","op":"set","uid":"bob","perm":"ro"})");
    ASSERT_EQ(200, r.status) << r.body;
    Json::Value jList = Body(Post("list", R"({"ns":"note","field":{"text":true}})", "bob:pb"));
    ASSERT_EQ(1, jList["count"].asInt()) << jList;
    EXPECT_EQ("Trip", jList["objects"][0]["text"]["title"].asString());
    // The answer is the tool's, and nothing more.
    EXPECT_EQ((std::vector<std::string>{"count", "objects", "total"}), jList.getMemberNames()) << jList;

    // A new version, its history and difference as bob sees them.
    r = Post("set", R"({"ns":"note","id":")" + strId + R"(","version":")" + strFirst +
                        R"(","text":{"title":"Trip","body":"second"}})");
    ASSERT_EQ(200, r.status) << r.body;
    std::string strSecond = Body(r)["version"].asString();
    Json::Value jVers = Body(Post("versions", R"({"ns":"note","id":")" + strId + "\"}", "bob:pb"));
    EXPECT_EQ(2u, jVers["versions"].size()) << jVers;
    Json::Value jDiff = Body(Post("diff",
                                  R"({"ns":"note","id":")" + strId + R"(","old_version":")" + strFirst +
                                      R"(","new_version":")" + strSecond + "\"}",
                                  "bob:pb"));
    EXPECT_NE(std::string::npos, kolv::JsonToString(jDiff).find("body")) << jDiff;

    // "requester" in a body is never the client's: bob stays bob.
    EXPECT_EQ(403, Post("delete", R"({"ns":"note","id":")" + strId + R"(","requester":0})", "bob:pb").status);
    EXPECT_EQ(
        403,
        Post("set", R"({"ns":"note","id":")" + strId + R"(","requester":1101,"metatext":{"x":1}})", "bob:pb").status);
    r = Post("delete", R"({"ns":"note","id":")" + strId + "\"}");
    EXPECT_EQ(200, r.status) << r.body;
    EXPECT_EQ(404, Post("get", R"({"ns":"note","id":")" + strId + "\"}").status);
}

TEST_F(ApiTest, BinaryFilesLinkToTheDownloadProgram) {
    std::string strSrc = m_strDir + "/photo";
    WriteFile(strSrc, std::string("\x89PNG\0\x01", 6));
    chmod(strSrc.c_str(), 0644);
    Reply r =
        Post("create", R"({"ns":"note","category":"photo","binary_files":[{"name":"p.png","format":"png","path":")" +
                           strSrc + "\"}]}");
    ASSERT_EQ(200, r.status) << r.body;
    std::string strLink = Body(r)["download"]["binary"]["p.png"].asString();
    ASSERT_EQ(0u, strLink.find("/vessa/kolvvessa-download.cgi?ns=note&id=")) << r.body;
    Reply rFile = Curl("", "alice:pa", strLink);
    EXPECT_EQ(200, rFile.status) << rFile.head << rFile.body;
    EXPECT_EQ(std::string("\x89PNG\0\x01", 6), rFile.body);
}

TEST_F(ApiTest, BadBodiesLoginsVerbsAndMethodsAreRefusedWithJson) {
    struct Case {
        const char *szWhat;
        Reply r;
        int status;
    } rgCases[] = {
        {"not JSON", Post("list", "{\"ns\":"), 400},
        {"not an object", Post("list", "[1,2]"), 400},
        {"too deep", Post("list", std::string(200, '[') + std::string(200, ']')), 400},
        {"too large", Post("list", "{\"ns\":\"" + std::string(1 << 21, 'a') + "\"}"), 400},
        {"no login", Post("list", R"({"ns":"note"})", "", "/open/"), 401},
        {"the system user", Post("list", R"({"ns":"note"})", "root:pr"), 403},
        {"no such verb", Post("nosuch", "{}"), 404},
        {"an administrator's verb", Post("reindex", "{}"), 404},
        {"a path past the verb", Post("list/x", R"({"ns":"note"})"), 404},
        {"a bad request", Post("get", R"({"ns":"note","id":7})"), 400},
        {"GET", Curl("", "alice:pa", "/vessa/kolvvessa-api.cgi/list"), 405},
    };
    for (const Case &c : rgCases) {
        EXPECT_EQ(c.status, c.r.status) << c.szWhat << ": " << c.r.body;
        Json::Value j = Body(c.r);
        EXPECT_TRUE(j.isMember("code") && j.isMember("msg")) << c.szWhat << ": " << c.r.body;
    }
    // The table is whole after all of it.
    EXPECT_EQ(200, Post("list", R"({"ns":"note"})").status);
}

} // namespace
