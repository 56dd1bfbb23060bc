#include "support/kolv_test_support.h"

#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "kolvvessa/kolvvessa_error.h"

namespace kolvtest {

namespace {

void MakeDirs(const std::string &strPath) {
    std::string strCmd = "mkdir -p '" + strPath + "'";
    ASSERT_EQ(0, system(strCmd.c_str()));
}

std::string Compact(const Json::Value &j) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, j);
}

} // namespace

Sysroot::Sysroot() {
    char szTemplate[] = "/tmp/kolvtest.XXXXXX";
    char *szDir = mkdtemp(szTemplate);
    if (!szDir) abort();
    m_root = szDir;
    // Like an appliance's volume: users may pass through it, so that what
    // they may read is decided by the store's own folders.
    chmod(szDir, 0755);
    setenv("KOLV_SYSROOT", m_root.c_str(), 1);
    MakeDirs(m_root + "/volume1/homes");
    MakeDirs(m_root + "/usr/kolv/etc");
    MakeDirs(m_root + "/usr/local/libexec/kolvvessa");
    MakeDirs(m_root + "/tmp");
    WritePlatformConfig(DefaultPlatformConfig());
}

Sysroot::~Sysroot() {
    if (getenv("KOLV_KEEP_SYSROOT")) return;
    std::string strCmd = "rm -rf '" + m_root + "'";
    if (system(strCmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", m_root.c_str());
}

Json::Value Sysroot::DefaultPlatformConfig() {
    return ParseJson(R"({"shares":{"homes":"/volume1/homes"},
        "user_home":{"local":true,"domain":false,"directory":true},
        "users":[
          {"uid":1101,"name":"alice","gid":100,"mail":"alice@example.com","expired":false,"groups":[100,2001]},
          {"uid":1102,"name":"bob","gid":100,"mail":"bob@example.com","expired":false,"groups":[100,2002]},
          {"uid":1103,"name":"carol","gid":100,"mail":"carol@example.com","expired":true,"groups":[]},
          {"uid":1104,"name":"DOM\\dave","gid":100,"mail":"DOM\\dave@example.com","expired":false,"groups":[]},
          {"uid":1105,"name":"eve@corp","gid":100,"mail":"eve@corp@example.com","expired":false,"groups":[]}]})");
}

void Sysroot::WritePlatformConfig(const Json::Value &jConfig) const {
    WriteFile(m_root + "/usr/kolv/etc/platform.conf", Compact(jConfig));
}

void Sysroot::WriteSettings(const Json::Value &jSettings) const {
    WriteFile(m_root + "/usr/kolv/etc/kolvvessa.conf", Compact(jSettings));
}

void Sysroot::EnableNamespace(const std::string &strNs) const {
    Json::Value j;
    j["Access"]["enable"] = true;
    j["Access"]["enable_ns_" + strNs] = true;
    WriteSettings(j);
}

std::string Md5(const std::string &str) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int cb = 0;
    EVP_Digest(str.data(), str.size(), md, &cb, EVP_md5(), NULL);
    std::string strHex;
    char sz[3];
    for (unsigned i = 0; i < cb; ++i) {
        snprintf(sz, sizeof(sz), "%02x", md[i]);
        strHex += sz;
    }
    return strHex;
}

std::string ReadFile(const std::string &strPath) {
    std::ifstream ifs(strPath, std::ios::binary);
    std::stringstream ss;
    ss << ifs.rdbuf();
    return ss.str();
}

void WriteFile(const std::string &strPath, const std::string &strContent) {
    std::ofstream ofs(strPath, std::ios::binary | std::ios::trunc);
    ofs << strContent;
}

Json::Value ParseJson(const std::string &str) {
    Json::Value j;
    Json::CharReaderBuilder builder;
    std::string strErr;
    std::istringstream iss(str);
    if (!Json::parseFromStream(builder, iss, &j, &strErr)) return Json::Value();
    return j;
}

int RunCommand(const std::string &strCmd, std::string *pOut) {
    FILE *p = popen(strCmd.c_str(), "r");
    if (!p) return -1;
    std::string strOut;
    char szBuf[4096];
    size_t n;
    while ((n = fread(szBuf, 1, sizeof(szBuf), p)) > 0)
        strOut.append(szBuf, n);
    int status = pclose(p);
    if (pOut) *pOut = strOut;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string OriginMsg() {
    Json::Value &j = KOLVVessaErrMsgGet();
    if (!j.isArray() || j.empty()) return "";
    return j[0]["msg"].asString();
}

std::string StackText() {
    Json::Value &j = KOLVVessaErrMsgGet();
    std::string str;
    for (Json::ArrayIndex i = 0; j.isArray() && i < j.size(); ++i) {
        if (i) str += "\n";
        str += j[i]["msg"].asString();
    }
    return str;
}

::testing::AssertionResult ErrIs(int code, const std::string &strOrigin) {
    if (KOLVVessaErrCodeGet() == code && OriginMsg() == strOrigin) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "want " << code << " [" << strOrigin << "], have " << KOLVVessaErrCodeGet()
                                         << " [" << StackText() << "]";
}

::testing::AssertionResult FailedWith(bool blFailed, const char *szExpr, int code, const std::string &strOrigin) {
    if (!blFailed) return ::testing::AssertionFailure() << szExpr << " succeeded";
    return ErrIs(code, strOrigin) << " after " << szExpr;
}

std::string Git(const std::string &strDir, const std::string &strArgs, int *pStatus) {
    std::string strOut;
    int status = RunCommand("git -c safe.directory='*' -C '" + strDir + "' " + strArgs + " 2>&1", &strOut);
    if (pStatus) *pStatus = status;
    return strOut;
}

void ExpectCleanRepo(const std::string &strDir) {
    int status = -1;
    std::string strFsck = Git(strDir, "fsck --strict --no-dangling", &status);
    EXPECT_EQ(0, status) << strFsck;
    EXPECT_EQ(std::string::npos, strFsck.find("error")) << strFsck;
    EXPECT_EQ(std::string::npos, strFsck.find("warning")) << strFsck;
    // The store keeps no index: the work tree is compared with HEAD
    // through a throwaway one.
    char szIndex[] = "/tmp/kolvindex.XXXXXX";
    int fd = mkstemp(szIndex);
    ASSERT_LE(0, fd);
    close(fd);
    unlink(szIndex); // git refuses an empty index file; the name is what is wanted
    std::string strIndex = szIndex, strOut;
    std::string strEnv = "GIT_INDEX_FILE='" + strIndex + "' git -c safe.directory='*' -C '" + strDir + "' ";
    RunCommand(strEnv + "read-tree HEAD && " + strEnv + "status --porcelain --untracked-files=all 2>&1", &strOut);
    unlink(strIndex.c_str());
    EXPECT_EQ("", strOut);
}

Hash::Hash(std::initializer_list<std::pair<const char *, std::string>> pairs) : m_p(TRABCSzHashAlloc(BUFSIZ)) {
    for (const auto &pair : pairs)
        Set(pair.first, pair.second);
}

std::string Hash::Value(const char *szKey) const {
    const char *sz = TRABCSzHashGetValue(m_p, szKey);
    return sz ? sz : "";
}

bool HavePostgres() {
    return getenv("PGHOST") && *getenv("PGHOST");
}

void DropIndexDatabase() {
    std::string strOut;
    RunCommand("psql -X -q -U postgres -d postgres -c 'DROP DATABASE IF EXISTS kolvvessa WITH (FORCE)' 2>&1", &strOut);
}

std::string Psql(const std::string &strSQL) {
    std::string strFile = "/tmp/kolvtest_sql_" + std::to_string(getpid()) + ".sql";
    WriteFile(strFile, strSQL);
    std::string strOut;
    RunCommand("psql -X -q -A -t -U postgres -d kolvvessa -f '" + strFile + "' 2>&1", &strOut);
    unlink(strFile.c_str());
    while (!strOut.empty() && strOut.back() == '\n')
        strOut.pop_back();
    return strOut;
}

} // namespace kolvtest
