/* Web output: MIME types, CGI file output on standard output, URL encoding. */
#include <kolvplatform/kolv_web.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/kolv_test_support.h"

namespace {

using kolvtest::ReadFile;
using kolvtest::WriteFile;

class PlatformWeb : public kolvtest::SysrootTest {
  protected:
    std::string Tmp(const std::string &str) const { return m_sys.Path("/tmp/" + str); }

    /* Runs fn with fd 1 redirected to a file; *pOut gets what was written. */
    int Captured(const std::function<int()> &fn, std::string *pOut) const {
        std::string strCap = Tmp("stdout");
        fflush(stdout);
        int fdSaved = dup(STDOUT_FILENO);
        int fdCap = open(strCap.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fdCap, STDOUT_FILENO);
        close(fdCap);
        int ret = fn();
        fflush(stdout);
        dup2(fdSaved, STDOUT_FILENO);
        close(fdSaved);
        *pOut = ReadFile(strCap);
        return ret;
    }
    HTTPFileOutputer m_out;
};

TEST_F(PlatformWeb, MimeTypeFromSystemTable) {
    EXPECT_EQ("application/pdf", m_out.GetMimeType("a.PDF"));
    EXPECT_EQ("image/png", m_out.GetMimeType("dir.d/x.png"));
    for (const char *sz : {"README", "x.nosuchext", "trailing.", "dir.png/noext"})
        EXPECT_EQ("application/octet-stream", m_out.GetMimeType(sz)) << sz;
}

TEST_F(PlatformWeb, OutputStreamsHeadersAndExactBytes) {
    std::string strBig(3 * 65536 + 1, '\0');
    for (size_t i = 0; i < strBig.size(); ++i)
        strBig[i] = static_cast<char>(i * 7 + i / 65536);
    WriteFile(Tmp("big"), strBig);
    WriteFile(Tmp("empty"), "");
    const std::string strHead = "Content-Type: a/b\r\nContent-Length: 196609\r\n\r\n";
    std::string strOut;
    // stdio the caller printed first comes out first.
    ASSERT_EQ(0, Captured([&] { return printf("X: 1\r\n"), m_out.Output(Tmp("big").c_str(), "a/b"); }, &strOut));
    EXPECT_TRUE(strOut == "X: 1\r\n" + strHead + strBig);
    ASSERT_EQ(0, Captured([&] { return m_out.Output(Tmp("empty").c_str(), "text/plain"); }, &strOut));
    EXPECT_EQ("Content-Type: text/plain\r\nContent-Length: 0\r\n\r\n", strOut);

    // From a descriptor: the whole file whatever its offset, and left open.
    int fd = open(Tmp("big").c_str(), O_RDONLY);
    lseek(fd, 1000, SEEK_SET);
    ASSERT_EQ(0, Captured([&] { return m_out.Output(fd, "a/b"); }, &strOut));
    EXPECT_TRUE(strOut == strHead + strBig);
    EXPECT_EQ(0, close(fd));

    // A slice across chunk borders with the caller's lines; head-only;
    // a slice past the end prints nothing.
    fd = open(Tmp("big").c_str(), O_RDONLY);
    ASSERT_EQ(0, Captured([&] { return m_out.Output(fd, "a/b", 65535, 65538, true, "X: 2\r\n"); }, &strOut));
    EXPECT_TRUE(strOut == "Content-Type: a/b\r\nContent-Length: 65538\r\nX: 2\r\n\r\n" + strBig.substr(65535, 65538));
    ASSERT_EQ(0, Captured([&] { return m_out.Output(fd, "a/b", 196608, -1, true, NULL); }, &strOut));
    EXPECT_TRUE(strOut == "Content-Type: a/b\r\nContent-Length: 1\r\n\r\n" + strBig.substr(196608));
    ASSERT_EQ(0, Captured([&] { return m_out.Output(fd, "a/b", 0, -1, false, NULL); }, &strOut));
    EXPECT_EQ(strHead, strOut);
    for (auto range : {std::make_pair(196609LL, 1LL), {1LL, 196609LL}, {-1LL, 1LL}, {1LL, 0x7fffffffffffffffLL}}) {
        EXPECT_GT(0, Captured([&] { return m_out.Output(fd, "a/b", range.first, range.second, true, NULL); }, &strOut));
        EXPECT_EQ("", strOut) << range.first;
    }
    EXPECT_EQ(0, close(fd));

    // A write failing mid-body is reported.
    KOLVFaultArm(3);
    EXPECT_GT(0, Captured([&] { return m_out.Output(Tmp("big").c_str(), "a/b"); }, &strOut));
    EXPECT_TRUE(KOLVFaultFired());
}

TEST_F(PlatformWeb, OutputRefusesLinksAndFifosSilently) {
    WriteFile(Tmp("secret"), "secret");
    ASSERT_EQ(0, symlink(Tmp("secret").c_str(), Tmp("link").c_str()));
    ASSERT_EQ(0, mkfifo(Tmp("fifo").c_str(), 0600));
    for (const char *sz : {"link", "fifo", "missing", ""}) {
        std::string strOut;
        EXPECT_GT(0, Captured([&] { return m_out.Output(Tmp(sz).c_str(), "a/b"); }, &strOut)) << sz;
        EXPECT_EQ("", strOut) << sz;
    }
}

TEST(PlatformWebUtil, UrlEncodeKeepsOnlyUnreserved) {
    EXPECT_EQ("a%20b%2F%C3%BC%22%0D%0A-_.~Z9", KOLV::WebAPIUtil::URLEncode("a b/\xC3\xBC\"\r\n-_.~Z9"));
}

} // namespace
