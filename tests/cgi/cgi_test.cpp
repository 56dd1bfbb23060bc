/*
 * The download CGI program behind a real web server: lighttpd with
 * mod_auth (plain user file) and mod_cgi on a free local port, talked to
 * with curl. /vessa/ asks for a login, /open/ runs the same program
 * without one.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::Md5;
using kolvtest::ReadFile;
using kolvtest::RunCommand;
using kolvtest::WriteFile;
using objtest::J;

/* A port nobody listens on now: bind 127.0.0.1:0, read it back, close. */
int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t cb = sizeof(addr);
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &cb);
    close(fd);
    return ntohs(addr.sin_port);
}

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

struct Reply {
    int status = 0;
    std::string head, body;
};

class CgiTest : public objtest::ObjectStoreTest {
  protected:
    void SetUp() override {
        const char *szPg = getenv("PGHOST");
        std::string strPg = szPg ? szPg : "";
        ObjectStoreTest::SetUp();
        if (!strPg.empty()) setenv("PGHOST", strPg.c_str(), 1);
        m_strDir = m_sys.Path("/web");
        ASSERT_EQ(0, RunCommand("mkdir -p " + m_strDir + "/www/vessa " + m_strDir + "/www/open && chmod 755 " +
                                m_sys.Root() + " " + m_strDir));
        for (const char *szDir : {"/www/vessa/", "/www/open/"})
            ASSERT_EQ(0, symlink(KOLV_CGI, (m_strDir + szDir + "download.cgi").c_str()));
        WriteFile(m_strDir + "/users", "alice:pa\nbob:pb\neve@corp:pe\nroot:pr\n");
        StartServer();
        Json::Value jCreate = J(R"({"acl":{"enabled":true,"hmx_user":{"1102":{"perm":"ro"}}},
            "binary_files":[{"name":"b.bin","format":"raw"}],"metabinary_files":[{"name":"m.png","format":"png"}]})");
        jCreate["binary_files"][0]["path"] = Source("one", std::string("one\0\x01\xff", 6));
        jCreate["metabinary_files"][0]["path"] = Source("meta", std::string(70000, '\x89') + "PNG");
        m_strID = Create(kAlice, jCreate);
    }

    void TearDown() override {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, NULL, 0);
        }
    }

    std::string Source(const std::string &strName, const std::string &strContent) {
        std::string strPath = m_strDir + "/" + strName;
        WriteFile(strPath, strContent);
        chmod(strPath.c_str(), 0644);
        return strPath;
    }

    void StartServer() {
        m_port = FreePort();
        std::string strEnv;
        for (const char *szName : {"KOLV_SYSROOT", "PGHOST", "PGPORT", "PGUSER"}) {
            if (getenv(szName)) strEnv += std::string("\"") + szName + "\" => \"" + getenv(szName) + "\", ";
        }
        std::string strConf = R"(server.modules = ("mod_auth", "mod_authn_file", "mod_setenv", "mod_cgi")
server.document-root = "@/www"
server.errorlog = "@/error.log"
server.bind = "127.0.0.1"
cgi.assign = (".cgi" => "")
auth.backend = "plain"
auth.backend.plain.userfile = "@/users"
auth.require = ("/vessa/" => ("method" => "basic", "realm" => "vessa", "require" => "valid-user"))
)";
        for (size_t pos; std::string::npos != (pos = strConf.find('@'));)
            strConf.replace(pos, 1, m_strDir);
        strConf += "server.port = " + std::to_string(m_port) + "\nsetenv.add-environment = (" + strEnv + ")\n";
        WriteFile(m_strDir + "/lighttpd.conf", strConf);
        m_pid = fork();
        if (0 == m_pid) {
            execlp("lighttpd", "lighttpd", "-D", "-f", (m_strDir + "/lighttpd.conf").c_str(), (char *)NULL);
            _exit(127);
        }
        // Ready once it answers at all.
        for (int i = 0; i < 100 && 0 == Get("", "", "/open/").status; ++i)
            usleep(50000);
        ASSERT_NE(0, Get("", "", "/open/").status) << ReadFile(m_strDir + "/error.log");
    }

    /* curl as a browser would: a login (user:password) or none. */
    Reply Get(const std::string &strQuery, const std::string &strLogin = "alice:pa",
              const std::string &strPath = "/vessa/", const std::string &strHeader = "") {
        std::string strCmd = "curl -s -o " + m_strDir + "/body -D " + m_strDir + "/head -w '%{http_code}' ";
        if (!strLogin.empty()) strCmd += "-u '" + strLogin + "' ";
        if (!strHeader.empty()) strCmd += "-H '" + strHeader + "' ";
        strCmd += "'http://127.0.0.1:" + std::to_string(m_port) + strPath + "download.cgi?" + strQuery + "'";
        Reply r;
        std::string strOut;
        RunCommand(strCmd, &strOut);
        r.status = atoi(strOut.c_str());
        r.head = ReadFile(m_strDir + "/head");
        r.body = ReadFile(m_strDir + "/body");
        return r;
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

    std::string m_strDir, m_strID;
    int m_port = 0;
    pid_t m_pid = -1;
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
