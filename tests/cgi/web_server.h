/*
 * A real web server for the CGI programs: lighttpd with mod_auth (plain
 * user file) and mod_cgi on a free local port, talked to with curl. /vessa/
 * asks for a login, /open/ runs the same programs without one.
 */
#ifndef KOLV_TEST_WEB_SERVER_H
#define KOLV_TEST_WEB_SERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "object/object_test_util.h"

namespace webtest {

struct Reply {
    int status = 0;
    std::string head, body;
};

/* A port nobody listens on now: bind 127.0.0.1:0, read it back, close. */
inline int FreePort() {
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

/* The store with its index, served by lighttpd; the logins are
 * alice:pa, bob:pb, eve@corp:pe (no such user) and root:pr. */
class WebStoreTest : public objtest::IndexedStoreTest {
  protected:
    /* Starts the server with each program linked under its name into both
     * folders. */
    void StartServer(const std::vector<std::pair<std::string, std::string>> &vPrograms) {
        m_strDir = m_sys.Path("/web");
        ASSERT_EQ(0, kolvtest::RunCommand("mkdir -p " + m_strDir + "/www/vessa " + m_strDir +
                                          "/www/open && chmod 755 " + m_sys.Root() + " " + m_strDir));
        for (const char *szDir : {"/www/vessa/", "/www/open/"}) {
            for (const auto &program : vPrograms)
                ASSERT_EQ(0, symlink(program.second.c_str(), (m_strDir + szDir + program.first).c_str()));
        }
        kolvtest::WriteFile(m_strDir + "/users", "alice:pa\nbob:pb\neve@corp:pe\nroot:pr\n");
        m_port = FreePort();
        kolvtest::WriteFile(m_strDir + "/lighttpd.conf", Config());
        m_pid = fork();
        if (0 == m_pid) {
            execlp("lighttpd", "lighttpd", "-D", "-f", (m_strDir + "/lighttpd.conf").c_str(), (char *)NULL);
            _exit(127);
        }
        // Ready once it answers at all.
        for (int i = 0; i < 100 && 0 == Curl("", "", "/open/").status; ++i)
            usleep(50000);
        ASSERT_NE(0, Curl("", "", "/open/").status) << kolvtest::ReadFile(m_strDir + "/error.log");
    }

    void TearDown() override {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, NULL, 0);
        }
    }

    /* curl as a browser would, with its own arguments, a login
     * (user:password) or none, and the path below the server. */
    Reply Curl(const std::string &strArgs, const std::string &strLogin, const std::string &strPath) {
        std::string strCmd = "curl -s -o " + m_strDir + "/body -D " + m_strDir + "/head -w '%{http_code}' " + strArgs;
        if (!strLogin.empty()) strCmd += " -u '" + strLogin + "'";
        strCmd += " 'http://127.0.0.1:" + std::to_string(m_port) + strPath + "'";
        Reply r;
        std::string strOut;
        kolvtest::RunCommand(strCmd, &strOut);
        r.status = atoi(strOut.c_str());
        r.head = kolvtest::ReadFile(m_strDir + "/head");
        r.body = kolvtest::ReadFile(m_strDir + "/body");
        return r;
    }

    std::string m_strDir;
    int m_port = 0;
    pid_t m_pid = -1;

  private:
    std::string Config() const {
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
        return strConf + "server.port = " + std::to_string(m_port) + "\nsetenv.add-environment = (" + strEnv + ")\n";
    }
};

} // namespace webtest

#endif /* KOLV_TEST_WEB_SERVER_H */
