/*
 * kolv_test_support.h - fixtures shared by every test program.
 *
 * Sysroot: a temporary folder that KOLV_SYSROOT points at for the life of
 * the test process, holding the platform config (a "homes" share on
 * /volume1, user homes on for local and directory users, five demo users)
 * and, when a test writes one, the settings file. The repository is
 * Repo() = root + "/volume1/@KolvVessa". Each test runs in its own process
 * (ctest), so the library's process-wide caches start empty.
 *
 * Demo users of the default config:
 *   1101 alice  (groups 100, 2001)      1102 bob (groups 100, 2002)
 *   1103 carol  (expired)                1104 "DOM\\dave" (domain user)
 *   1105 "eve@corp" (directory user)
 */
#ifndef KOLV_TEST_SUPPORT_H
#define KOLV_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <json/json.h>

#include <kolvplatform/kolv_platform.h>

#include <initializer_list>
#include <string>
#include <utility>

namespace kolvtest {

constexpr unsigned kAlice = 1101;
constexpr unsigned kBob = 1102;
constexpr unsigned kCarol = 1103;
constexpr unsigned kDave = 1104;
constexpr unsigned kEve = 1105;

class Sysroot {
  public:
    Sysroot();
    ~Sysroot();
    Sysroot(const Sysroot &) = delete;
    Sysroot &operator=(const Sysroot &) = delete;

    const std::string &Root() const { return m_root; }
    /* The repository root the library computes: root/volume1/@KolvVessa. */
    std::string Repo() const { return m_root + "/volume1/@KolvVessa"; }
    /* root + an appliance path. */
    std::string Path(const std::string &strAppliancePath) const { return m_root + strAppliancePath; }

    static Json::Value DefaultPlatformConfig();
    void WritePlatformConfig(const Json::Value &jConfig) const;
    /* Writes the settings file (/usr/kolv/etc/kolvvessa.conf). */
    void WriteSettings(const Json::Value &jSettings) const;
    /* Settings with the store and namespace ns switched on. */
    void EnableNamespace(const std::string &strNs) const;

  private:
    std::string m_root;
};

/* A test with a fresh sysroot. */
class SysrootTest : public ::testing::Test {
  protected:
    Sysroot m_sys;
};

/* Helpers used across modules. */
std::string ReadFile(const std::string &strPath);
void WriteFile(const std::string &strPath, const std::string &strContent);
Json::Value ParseJson(const std::string &str);
/* The MD5 of a byte string as 32 lowercase hex digits. */
std::string Md5(const std::string &str);
/* Runs a shell command, returns its exit status and (when given) stdout. */
int RunCommand(const std::string &strCmd, std::string *pOut = nullptr);
/* The error stack's origin message (element 0 "msg"), "" when empty. */
std::string OriginMsg();
/* Every "msg" of the stack, joined with "\n". */
std::string StackText();
/* The stack's code is code and its origin's text is strOrigin. */
::testing::AssertionResult ErrIs(int code, const std::string &strOrigin);
/* blFailed, and the stack as ErrIs; szExpr names the call. */
::testing::AssertionResult FailedWith(bool blFailed, const char *szExpr, int code, const std::string &strOrigin);

/* git with every directory trusted, run in strDir; output and stderr. */
std::string Git(const std::string &strDir, const std::string &strArgs, int *pStatus = nullptr);
/* git fsck --strict passes and the work tree matches HEAD exactly. */
void ExpectCleanRepo(const std::string &strDir);

/* A platform string hash owned by the test. */
class Hash {
  public:
    explicit Hash(std::initializer_list<std::pair<const char *, std::string>> pairs = {});
    ~Hash() { TRABCSzHashFree(m_p); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    TRABCSzHash *get() { return m_p; }
    void Set(const char *szKey, const std::string &strValue) { TRABCSzHashSetValue(&m_p, szKey, strValue.c_str()); }
    std::string Value(const char *szKey) const;
    int Count() const { return TRABCSzHashCount(m_p); }

  private:
    TRABCSzHash *m_p;
};

/* PostgreSQL: whether the test command started a server (PGHOST set). */
bool HavePostgres();
/* Drops the database "kolvvessa" so the next index access creates it. */
void DropIndexDatabase();
/* Runs SQL on database "kolvvessa" through psql and returns its unaligned,
 * tuples-only output. */
std::string Psql(const std::string &strSQL);

} // namespace kolvtest

/* expr fails (false, 0 or null) with code and the origin's text. */
#define EXPECT_FAILS(expr, code, text) EXPECT_TRUE(::kolvtest::FailedWith(!(expr), #expr, code, text))

#endif /* KOLV_TEST_SUPPORT_H */
