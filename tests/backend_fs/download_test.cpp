/*
 * Downloads as a CGI program sees them: standard output captured around
 * the call, the header block and body split, the body's MD5 (raw, or of
 * the decoded base64) compared with the stored one. Failures must leave
 * standard output untouched, whatever the owner planted in his folders.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::kEve;
using kolvtest::Md5;
using kolvtest::RunCommand;
using kolvtest::StackText;
using objtest::J;

/* One response: the header block (up to its empty line) and the body. */
struct Response {
    bool ok = false;
    std::string out, head, body;
    bool Has(const std::string &strLine) const { return std::string::npos != head.find(strLine + "\r\n"); }
    bool Refused() const { return !ok && out.empty(); }
};

class DownloadTest : public objtest::ObjectStoreTest {
  protected:
    void SetUp() override {
        ObjectStoreTest::SetUp();
        unsetenv("HTTP_USER_AGENT");
        // Sources the requester may read: 0644 files in a 0755 folder.
        m_strOne = std::string("one\0\x01\xff binary", 14);
        m_strTwo = std::string(100000, '\0') + "two";
        std::string strSrc = m_sys.Path("/src");
        ASSERT_EQ(0, RunCommand("mkdir -p " + strSrc + " && chmod 755 " + strSrc));
        kolvtest::WriteFile(strSrc + "/one", m_strOne);
        kolvtest::WriteFile(strSrc + "/two", m_strTwo);
        kolvtest::WriteFile(strSrc + "/empty", "");
        ASSERT_EQ(0, RunCommand("chmod 644 " + strSrc + "/*"));
        m_strSrc = strSrc;
        m_strID = MakeObject();
    }

    /* alice's object, shared "ro" with bob: "b.bin" and "empty" binary
     * files, the meta binary file "m.png". */
    std::string MakeObject() {
        Json::Value jCreate = J(R"({"acl":{"enabled":true,"hmx_user":{"1102":{"perm":"ro"}}},
            "binary_files":[{"name":"b.bin","format":"raw"},{"name":"empty","format":"raw"}],
            "metabinary_files":[{"name":"m.png","format":"png"}]})");
        jCreate["binary_files"][0]["path"] = m_strSrc + "/one";
        jCreate["binary_files"][1]["path"] = m_strSrc + "/empty";
        jCreate["metabinary_files"][0]["path"] = m_strSrc + "/two";
        return Create(kAlice, jCreate);
    }

    Json::Value Parm(const std::string &strFormat, const std::string &strSegment = "binary",
                     const std::string &strField = "b.bin", unsigned requester = kAlice) const {
        Json::Value j = GetParm(m_strID, requester);
        j["segment"] = strSegment;
        j["field"] = strField;
        j["format"] = strFormat;
        return j;
    }

    /* A new version whose "b.bin" is "two"; the version before it ("" on
     * failure). */
    std::string SetTwo() {
        KOLV_VESSA_OBJECT obj;
        if (!obj.Get(GetParm(m_strID, kAlice))) return "";
        Json::Value jSet = GetParm(m_strID, kAlice);
        jSet["version"] = obj.get_version();
        jSet["binary_files"][0] = J(R"({"name":"b.bin","format":"raw"})");
        jSet["binary_files"][0]["path"] = m_strSrc + "/two";
        return obj.Set(jSet) ? jSet["version"].asString() : "";
    }

    /* Runs the download with fd 1 redirected to a file. */
    Response Download(const Json::Value &jParm) {
        return Captured([&] { return KOLV_VESSA_OBJECT().Download(jParm); });
    }

    Response Captured(const std::function<bool()> &fnDownload) {
        Response r;
        std::string strOut = m_sys.Path("/stdout");
        int fd = open(strOut.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        fflush(stdout);
        int saved = dup(1);
        dup2(fd, 1);
        r.ok = fnDownload();
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
        close(fd);
        r.out = kolvtest::ReadFile(strOut);
        size_t end = r.out.find("\r\n\r\n");
        if (std::string::npos != end) {
            r.head = r.out.substr(0, end + 2);
            r.body = r.out.substr(end + 4);
        }
        return r;
    }

    /* The body as stored: the raw bytes, or the base64 text decoded. */
    static std::string Decoded(const Response &r, bool blBase64) {
        if (!blBase64) return r.body;
        std::string str(r.body.size(), '\0');
        size_t cb = str.size();
        EXPECT_TRUE(KOLVEncodingBase64Decode(r.body.data(), r.body.size(), &str[0], &cb));
        return str.substr(0, cb);
    }

    std::string Tmp() const {
        std::string str;
        RunCommand("ls -A " + m_sys.Repo() + "/@tmp 2>/dev/null", &str);
        return str;
    }

    std::string m_strID, m_strSrc, m_strOne, m_strTwo;
};

TEST_F(DownloadTest, BodiesTagsAndRevalidationForEveryVersionFormatAndSegment) {
    const std::string strOne = Md5(m_strOne), strTwo = Md5(m_strTwo);
    Response r = Download(Parm("base64"));
    ASSERT_TRUE(r.ok) << StackText();
    // Exactly the header lines, in order; the length is the base64 text's.
    EXPECT_EQ(0u, r.head.find("Content-Type:application/octet-stream\r\nContent-Length: " +
                              std::to_string(r.body.size()) + "\r\nETag:" + strOne + "\r\nExpires:"))
        << r.head;
    EXPECT_EQ(m_strOne, Decoded(r, true));

    // A new version: the old tag no longer matches; the old version still
    // downloads, checked out into a scratch folder that does not outlive
    // the call.
    const std::string strV1 = SetTwo();
    ASSERT_NE("", strV1);
    struct {
        const char *szFormat, *szSegment, *szField;
        bool blOld;
        std::string strMd5;
    } rows[] = {{"base64", "binary", "b.bin", false, strTwo},     {"raw", "binary", "b.bin", false, strTwo},
                {"base64", "binary", "b.bin", true, strOne},      {"raw", "binary", "b.bin", true, strOne},
                {"base64", "metabinary", "m.png", false, strTwo}, {"raw", "metabinary", "m.png", false, strTwo}};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.szFormat) + " " + row.szSegment + (row.blOld ? " old" : ""));
        bool blBase64 = std::string("base64") == row.szFormat;
        Json::Value jParm = Parm(row.szFormat, row.szSegment, row.szField, kBob); // "ro" through sharing
        if (row.blOld) jParm["version"] = strV1;
        // The other form's tag of the same file, or the tag of the file
        // before it changed: neither is this response's.
        jParm["HTTP_IF_NONE_MATCH"] = strOne + (blBase64 == row.blOld ? "raw" : "");
        r = Download(jParm);
        ASSERT_TRUE(r.ok) << StackText();
        // Raw: the expiry, then the platform's own header lines.
        EXPECT_EQ(0u, r.head.find(blBase64 ? "Content-Type:" : "Expires:")) << r.head;
        EXPECT_EQ(row.strMd5, Md5(Decoded(r, blBase64)));
        const std::string strTag = row.strMd5 + (blBase64 ? "" : "raw");
        EXPECT_TRUE(r.Has("ETag:" + strTag)) << r.head;
        EXPECT_EQ("", Tmp());
        if (std::string("m.png") == row.szField) {
            EXPECT_TRUE(r.Has("Content-Type: image/png") || r.Has("Content-Type:image/png"));
        }
        // The tag just given: not modified, and nothing else.
        jParm["HTTP_IF_NONE_MATCH"] = strTag;
        r = Download(jParm);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ("Status: 304 Not Modified\r\n\r\n", r.out);
    }

    // The string-hash entry; a stranger gets the read failure and no output.
    kolvtest::Hash hash({{"ns", "note"},
                         {"id", m_strID},
                         {"segment", "binary"},
                         {"field", "b.bin"},
                         {"format", "raw"},
                         {"requester", "1105"}});
    EXPECT_FALSE(KOLVVessaObjectDownload(hash.get()));
    EXPECT_TRUE(Download(Parm("raw", "binary", "b.bin", kEve)).Refused());
}

TEST_F(DownloadTest, FailuresPrintNothing) {
    struct {
        const char *szWhat, *szSetUp, *szFormat, *szField, *szVersion;
        int code;
    } rows[] = {
        {"missing field", "", "raw", "none", NULL, 1008},
        {"missing version", "", "raw", "b.bin", "0123456789012345678901234567890123456789", 1008},
        {"unknown format", "", "hex", "b.bin", NULL, 0},
        {"empty file in base64", "", "base64", "empty", NULL, 1000},
        {"file link", "echo secret > @R/secret && chmod 600 @R/secret && ln -sf @R/secret @O/version/binary/@B", "raw",
         "b.bin", NULL, 1002},
        {"folder link", "mv @O/version/binary @R/bin && ln -s @R/bin @O/version/binary", "base64", "b.bin", NULL, 1008},
        {"FIFO", "rm @O/version/binary/@B && mkfifo @O/version/binary/@B", "raw", "b.bin", NULL, 1002},
        {"forged info", "printf '{\"md5\":\"x\\r\\nSet-Cookie: a=b\"}' > @O/version/binary_info/@B", "raw", "b.bin",
         NULL, 1003},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szWhat);
        m_strID = MakeObject();
        std::string strCmd = row.szSetUp;
        for (const auto &sub :
             {std::make_pair(std::string("@R"), m_sys.Root()), {"@O", ObjectDir(m_strID)}, {"@B", Enc("b.bin")}})
            for (size_t pos; std::string::npos != (pos = strCmd.find(sub.first));)
                strCmd.replace(pos, sub.first.size(), sub.second);
        ASSERT_EQ(0, RunCommand(strCmd.empty() ? "true" : strCmd));
        Json::Value jParm = Parm(row.szFormat, "binary", row.szField);
        if (row.szVersion) jParm["version"] = row.szVersion;
        EXPECT_TRUE(Download(jParm).Refused());
        if (row.code) {
            EXPECT_EQ(row.code, KOLVVessaErrCodeGet()) << StackText();
        }
        EXPECT_NE(std::string::npos, StackText().find("!pBackendFs->Download(jParm)"));
        EXPECT_EQ("", Tmp());
    }
    // Refused before the store: a text field, a missing object.
    EXPECT_TRUE(Download(Parm("raw", "text", "title")).Refused());
    Json::Value jGone = Parm("raw");
    jGone["id"] = "1101_" + std::string(96, 'A');
    EXPECT_TRUE(Download(jGone).Refused());
}

TEST_F(DownloadTest, EmptyFilesAndTheOfferedName) {
    Json::Value jParm = Parm("raw", "binary", "empty");
    Response r = Download(jParm);
    ASSERT_TRUE(r.ok) << StackText();
    EXPECT_TRUE(r.Has("Content-Length: 0"));
    EXPECT_EQ("", r.body);
    EXPECT_EQ(std::string::npos, r.head.find("Content-Disposition"));
    jParm["mode"] = "download";
    jParm["filename"] = "a b.txt";
    r = Download(jParm);
    EXPECT_TRUE(r.Has("Content-Disposition:attachment; filename=\"a b.txt\"")) << r.head;
    setenv("HTTP_USER_AGENT", "Mozilla/5.0 (Windows NT 10.0; Trident/7.0; rv:11.0)", 1);
    r = Download(jParm);
    EXPECT_TRUE(r.Has("Content-Disposition:attachment; filename=\"a%20b.txt\"")) << r.head;
    // Beyond ASCII: offered again as UTF-8 (URL-encoded for that agent too).
    jParm["filename"] = "\xC3\xBC b.txt";
    r = Download(jParm);
    EXPECT_TRUE(r.Has("Content-Disposition:attachment; filename=\"%C3%BC%20b.txt\"; filename*=UTF-8''%C3%BC%20b.txt"))
        << r.head;
    unsetenv("HTTP_USER_AGENT");
    r = Download(jParm);
    EXPECT_TRUE(r.Has("Content-Disposition:attachment; filename=\"\xC3\xBC b.txt\"; filename*=UTF-8''%C3%BC%20b.txt"))
        << r.head;
    // Quotes and backslashes cannot close the quoted name.
    jParm["filename"] = "a\\\"; filename=\"x.exe";
    r = Download(jParm);
    EXPECT_TRUE(r.Has("Content-Disposition:attachment; filename=\"a\\\\\\\"; filename=\\\"x.exe\"")) << r.head;
    // A name that would end the header line is refused before any output.
    jParm["filename"] = "a\r\nSet-Cookie: a=b";
    EXPECT_TRUE(Download(jParm).Refused());
}

TEST_F(DownloadTest, RangesHeadRequestsAndTagLists) {
    const long long cb = (long long)m_strTwo.size();
    const std::string strSize = "/" + std::to_string(cb);
    Json::Value jParm = Parm("raw", "metabinary", "m.png", kBob);
    auto Ranged = [&](const std::string &strRange) {
        jParm["HTTP_RANGE"] = strRange;
        return Download(jParm);
    };
    // Slices (the middle one across the platform's chunks) that put
    // together give the file.
    std::string strJoined;
    struct {
        const char *szRange, *szContentRange;
    } rows[] = {{"bytes=0-0", "0-0"}, {"bytes=1-69999", "1-69999"}, {"BYTES=70000-", "70000-100002"}};
    for (const auto &row : rows) {
        Response r = Ranged(row.szRange);
        ASSERT_TRUE(r.ok) << StackText();
        EXPECT_EQ(0u, r.head.find("Status: 206 Partial Content\r\nExpires:")) << r.head;
        EXPECT_TRUE(r.Has("Content-Range: bytes " + std::string(row.szContentRange) + strSize)) << r.head;
        EXPECT_TRUE(r.Has("Content-Length: " + std::to_string(r.body.size())) && r.Has("Accept-Ranges: bytes"));
        strJoined += r.body;
    }
    EXPECT_TRUE(m_strTwo == strJoined);
    // The last 100 bytes; a last position or suffix past the end is cut to it.
    for (const char *sz : {"bytes=-100", "bytes=99903-99999999999999999999999", "bytes=99903-100010"}) {
        Response r = Ranged(sz);
        EXPECT_EQ(m_strTwo.substr(cb - 100), r.body) << sz;
        EXPECT_TRUE(r.Has("Content-Range: bytes 99903-100002" + strSize)) << sz;
    }
    EXPECT_EQ(m_strTwo, Ranged("bytes=-200000").body);
    // Past the end: 416, the size, no body.
    for (const char *sz : {"bytes=100003-", "bytes=100003-100004", "bytes=-0", "bytes=99999999999999999999-"}) {
        Response r = Ranged(sz);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ("Status: 416 Range Not Satisfiable\r\nAccept-Ranges: bytes\r\nContent-Range: bytes */" +
                      std::to_string(cb) + "\r\n\r\n",
                  r.out)
            << sz;
    }
    // Several ranges or a malformed header: the whole file, 200.
    for (const char *sz : {"bytes=0-1,5-6", "bytes=5-2", "bytes=a-", "bytes= 0-1", "items=0-1", "bytes=-", "bytes=1"}) {
        Response r = Ranged(sz);
        EXPECT_TRUE(m_strTwo == r.body && std::string::npos == r.head.find("Status")) << sz;
    }
    // Base64 never slices.
    jParm["format"] = "base64";
    EXPECT_EQ(m_strTwo, Decoded(Ranged("bytes=0-0"), true));

    // HEAD: the full answer's headers, lengths included, and no body.
    jParm["REQUEST_METHOD"] = "HEAD";
    Response r = Ranged("");
    ASSERT_TRUE(r.ok) << StackText();
    EXPECT_TRUE(r.Has("Content-Length: 133340") && r.Has("ETag:" + Md5(m_strTwo))) << r.head;
    EXPECT_EQ(r.head + "\r\n", r.out);
    jParm["format"] = "raw";
    for (const char *sz : {"", "bytes=5-9"}) {
        r = Ranged(sz);
        EXPECT_TRUE(r.Has(*sz ? "Content-Length: 5" : "Content-Length: 100003")) << r.head;
        EXPECT_EQ(r.head + "\r\n", r.out);
    }
    jParm.removeMember("REQUEST_METHOD");

    // If-None-Match as a list, weak, quoted, "*": 304, before any range.
    const std::string strTag = Md5(m_strTwo) + "raw";
    jParm["HTTP_RANGE"] = "bytes=0-0";
    for (const std::string &str :
         {"\"x\", W/\"" + strTag + "\"", "a,\t\"" + strTag + "\"", std::string("*"), "x ,  " + strTag}) {
        jParm["HTTP_IF_NONE_MATCH"] = str;
        EXPECT_EQ("Status: 304 Not Modified\r\n\r\n", Download(jParm).out) << str;
    }
    for (const std::string &str : {"\"" + Md5(m_strTwo) + "\", W/\"x\"", strTag + "x", "\"" + strTag, std::string()}) {
        jParm["HTTP_IF_NONE_MATCH"] = str;
        EXPECT_TRUE(Download(jParm).Has("Content-Range: bytes 0-0" + strSize)) << str;
    }

    // The string-hash entry passes the request's headers on.
    kolvtest::Hash hash({{"ns", "note"},
                         {"id", m_strID},
                         {"segment", "metabinary"},
                         {"field", "m.png"},
                         {"format", "raw"},
                         {"requester", "1102"},
                         {"HTTP_RANGE", "bytes=-3"},
                         {"REQUEST_METHOD", "HEAD"}});
    r = Captured([&] { return KOLVVessaObjectDownload(hash.get()); });
    ASSERT_TRUE(r.ok) << StackText();
    EXPECT_TRUE(r.Has("Content-Range: bytes 100000-100002" + strSize) && r.body.empty()) << r.out;
}

// Every failure point of an older version's download: a success is the
// right body, and the scratch folder never outlives the call.
TEST_F(DownloadTest, InjectedFailuresLeaveNoScratchFolder) {
    Json::Value jParm = Parm("raw");
    jParm["version"] = SetTwo();
    ASSERT_NE("", jParm["version"].asString());
    for (long n = 1;; ++n) {
        SCOPED_TRACE(n);
        KOLVFaultArm(n);
        Response r = Download(jParm);
        bool blFired = KOLVFaultFired();
        KOLVFaultArm(0);
        EXPECT_EQ("", Tmp());
        if (r.ok) {
            EXPECT_EQ(Md5(m_strOne), Md5(r.body));
        }
        if (!blFired) {
            EXPECT_TRUE(r.ok) << StackText();
            break;
        }
    }
}

} // namespace
