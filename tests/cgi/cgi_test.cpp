/*
 * The download CGI program behind a real web server.
 */
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "cgi/web_server.h"

namespace {

using kolvtest::kAlice;
using kolvtest::Md5;
using kolvtest::ReadFile;
using kolvtest::RunCommand;
using kolvtest::WriteFile;
using objtest::J;
using webtest::Reply;

/* Runs the program as the server would, its output into strOut, under
 * /usr/bin/time: a child forked from this (large) process would count
 * this process's size as its own. Gives the output; the peak resident
 * size (kB) into the pointer. */
std::string RunDirect(const std::string &strQuery, const std::string &strOut, long *pKb = NULL) {
    std::string strTime = strOut + ".rss";
    std::string strCmd = "REQUEST_METHOD=GET REMOTE_USER=alice QUERY_STRING='" + strQuery +
                         "' /usr/bin/time -f %M -o " + strTime + " " + KOLV_CGI + " > " + strOut;
    EXPECT_EQ(0, RunCommand(strCmd));
    if (pKb) *pKb = atol(ReadFile(strTime).c_str());
    return "/dev/null" == strOut ? "" : ReadFile(strOut);
}

class CgiTest : public webtest::WebStoreTest {
  protected:
    void SetUp() override {
        IndexedStoreTest::SetUp();
        if (IsSkipped()) return;
        StartServer({{"download.cgi", KOLV_CGI}});
        Json::Value jCreate = J(R"({"acl":{"enabled":true,"hmx_user":{"1102":{"perm":"ro"}}},
            "binary_files":[{"name":"b.bin","format":"raw"}],"metabinary_files":[{"name":"m.png","format":"png"}]})");
        jCreate["binary_files"][0]["path"] = Source("one", std::string("one\0\x01\xff", 6));
        jCreate["metabinary_files"][0]["path"] = Source("meta", std::string(70000, '\x89') + "PNG");
        m_strID = Create(kAlice, jCreate);
    }

    std::string Source(const std::string &strName, const std::string &strContent) {
        std::string strPath = m_strDir + "/" + strName;
        WriteFile(strPath, strContent);
        chmod(strPath.c_str(), 0644);
        return strPath;
    }

    /* A download as a browser would ask for it: a login (user:password)
     * or none. */
    Reply Get(const std::string &strQuery, const std::string &strLogin = "alice:pa",
              const std::string &strPath = "/vessa/", const std::string &strHeader = "") {
        return Curl(strHeader.empty() ? "" : "-H '" + strHeader + "'", strLogin, strPath + "download.cgi?" + strQuery);
    }

    std::string Query(const std::string &strField, const std::string &strFormat,
                      const std::string &strSegment = "binary") const {
        return "ns=note&id=" + m_strID + "&segment=" + strSegment + "&field=" + strField + "&format=" + strFormat;
    }

    /* An id of the same owner and form that names no object. */
    std::string Other() const {
        std::string str = m_strID;
        str.back() = '0' == str.back() ? '1' : '0';
        return str;
    }

    static std::string Decoded(const std::string &strBase64) {
        std::string str(strBase64.size(), '\0');
        size_t cb = str.size();
        EXPECT_TRUE(KOLVEncodingBase64Decode(strBase64.data(), strBase64.size(), &str[0], &cb));
        return str.substr(0, cb);
    }

    std::string m_strID;
};

TEST_F(CgiTest, FormsVersionsLoginsAndFailureStatuses) {
    Reply r = Get(Query("b.bin", "raw"));
    EXPECT_EQ(200, r.status) << r.head << r.body;
    EXPECT_EQ(Md5(std::string("one\0\x01\xff", 6)), Md5(r.body));
    // A slice through the server, and one past the end.
    r = Get(Query("b.bin", "raw"), "alice:pa", "/vessa/", "Range: bytes=1-2");
    EXPECT_EQ(206, r.status) << r.head;
    EXPECT_EQ("ne", r.body);
    std::string strMeta = std::string(70000, '\x89') + "PNG";
    r = Get(Query("m.png", "base64", "metabinary"), "bob:pb"); // "ro" through sharing
    EXPECT_EQ(200, r.status) << r.body;
    EXPECT_EQ(Md5(strMeta), Md5(Decoded(r.body)));
    EXPECT_EQ(
        304, Get(Query("m.png", "base64", "metabinary"), "bob:pb", "/vessa/", "If-None-Match: " + Md5(strMeta)).status);

    // A second version; the first is still served by its id.
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Get(GetParm(m_strID, kAlice)));
    std::string strOld = obj.get_version();
    Json::Value jSet = GetParm(m_strID, kAlice);
    jSet["version"] = strOld;
    jSet["binary_files"][0] = J(R"({"name":"b.bin","format":"raw"})");
    jSet["binary_files"][0]["path"] = Source("two", "second");
    ASSERT_TRUE(obj.Set(jSet)) << kolvtest::StackText();
    EXPECT_EQ("second", Get(Query("b.bin", "raw")).body);
    r = Get(Query("b.bin", "base64") + "&version=" + strOld + "&mode=download&filename=old.bin");
    EXPECT_EQ(std::string("one\0\x01\xff", 6), Decoded(r.body));
    EXPECT_NE(std::string::npos, r.head.find("filename=\"old.bin\"")) << r.head;

    // Who asks: a stranger (a requester in the query changes nothing), no
    // login, the system's login.
    r = Get(Query("b.bin", "raw") + "&requester=1101", "eve@corp:pe");
    EXPECT_EQ(403, r.status) << r.body;
    EXPECT_EQ(1023, J(r.body)["code"].asInt()) << r.body;
    EXPECT_EQ(401, Get(Query("b.bin", "raw"), "", "/open/").status);
    EXPECT_EQ(403, Get(Query("b.bin", "raw"), "root:pr").status);
    EXPECT_EQ(401, Get(Query("b.bin", "raw"), "alice:wrong").status);

    // Missing things and bad requests, each with a JSON body.
    for (const std::string &strQuery :
         {Query("b.bin", "raw").replace(Query("b.bin", "raw").find(m_strID), m_strID.size(), Other()),
          Query("b.bin", "raw") + "&version=0123456789012345678901234567890123456789", Query("nope", "raw")}) {
        r = Get(strQuery);
        EXPECT_EQ(404, r.status) << strQuery << "\n" << r.body;
        EXPECT_EQ(1008, J(r.body)["code"].asInt()) << r.body;
        EXPECT_NE("", J(r.body)["msg"].asString());
    }
    // The server refuses a NUL byte itself; the program does too.
    EXPECT_EQ(0u, RunDirect(Query("b%00.bin", "raw"), m_strDir + "/out").find("Status: 400 Bad Request\r\n"));
    for (const std::string &strQuery : {Query("b.bin", "raw", "text"), Query("b.bin", "raw") + "&field=x",
                                        Query("b.bin", "zip"), "ns=note&id=" + m_strID}) {
        r = Get(strQuery);
        EXPECT_EQ(400, r.status) << strQuery << "\n" << r.body;
        EXPECT_TRUE(J(r.body).isMember("code")) << r.body;
    }
}

TEST_F(CgiTest, BigRawDownloadStreamsInLittleMemory) {
    const size_t cb = 200u << 20;
    std::string strBig(cb, '\0');
    for (size_t i = 0; i < cb; i += 4096)
        strBig[i] = static_cast<char>(i >> 12);
    Json::Value jSet = J(R"({"metabinary_files":[{"name":"big.iso","format":"iso"}]})");
    jSet["metabinary_files"][0]["path"] = Source("big", strBig);
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Get(GetParm(m_strID, kAlice)));
    jSet["ns"] = "note";
    jSet["id"] = m_strID;
    jSet["requester"] = kAlice;
    jSet["version"] = obj.get_version();
    ASSERT_TRUE(obj.Set(jSet)) << kolvtest::StackText();
    std::string strQuery = Query("big.iso", "raw", "metabinary");

    EXPECT_EQ(Md5(strBig), Md5(Get(strQuery).body));
    long kb = 0;
    RunDirect(strQuery, "/dev/null", &kb);
#ifdef __SANITIZE_ADDRESS__
    kb -= 16 * 1024; // the sanitizer's own shadow and quarantine
#endif
    EXPECT_LT(kb, 32 * 1024);
}

} // namespace
