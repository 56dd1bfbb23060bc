/*
 * download.cpp - one stored binary file (a version's binary file or a meta
 * binary file) written as a CGI response on standard output: header lines,
 * an empty line, then the raw bytes or their base64 text. The ETag is the
 * md5 of the file's info record ("raw" appended for the raw form, so the
 * two encodings of one file never share a tag); a client that sends the
 * tag back gets "304 Not Modified" and no body.
 *
 * Beyond that: If-None-Match is read as the list of tags it may be (bare,
 * quoted, weak or "*"); raw answers serve one byte range ("206", or "416"
 * when it lies past the end; several ranges or a malformed header get the
 * whole file); a HEAD request gets the headers alone; the offered name is
 * escaped in its quotes and, when not ASCII, offered again in UTF-8.
 *
 * The object's folders belong to its owner, who can plant links, FIFOs or
 * forged info records in them, while this runs as root for whoever may
 * read the object. So every file of the store is opened link-safely
 * (kolv::fs: no component below the repository root is followed, regular
 * files only), the info record's md5 must be a digest before it becomes a
 * header, and nothing is printed before the file and its info are found
 * and opened: a failed lookup leaves standard output untouched.
 */
#include <ctype.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <strings.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>

#include <kolvplatform/kolv_web.h>

#include <algorithm>
#include <string>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/object_lock.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

namespace {

/* The expiry: now + one day, in GMT. */
std::string ExpiresText() {
    time_t tExpire = time(NULL) + 86400;
    struct tm tmExpire;
    char szBuf[64] = "";
    gmtime_r(&tExpire, &tmExpire);
    strftime(szBuf, sizeof(szBuf), "%a, %d %b %Y %T GMT", &tmExpire);
    return szBuf;
}

/* The name between the quotes of filename="...": quote and backslash
 * escaped, so the name cannot close the quoted text early. */
std::string QuotedName(const std::string &str) {
    std::string strOut;
    for (char c : str) {
        if ('"' == c || '\\' == c) strOut += '\\';
        strOut += c;
    }
    return strOut;
}

bool HasNonAscii(const std::string &str) {
    for (unsigned char c : str)
        if (c >= 0x80) return true;
    return false;
}

/* The attachment line. Old browsers of one maker read the name in the
 * page's encoding unless it is URL-encoded; every other agent, and a
 * request without one, gets the name as it is (escaped). A name beyond
 * ASCII is offered again percent-encoded as UTF-8 (filename*), which
 * agents that know the form prefer. */
void PrintDisposition(const std::string &strFileName) {
    const char *szAgent = getenv("HTTP_USER_AGENT");
    bool blEncode = szAgent && (strstr(szAgent, "MSIE") || strstr(szAgent, "Trident/7"));
    std::string strName = blEncode ? KOLV::WebAPIUtil::URLEncode(strFileName) : QuotedName(strFileName);
    printf("Content-Disposition:attachment; filename=\"%s\"", strName.c_str());
    if (HasNonAscii(strFileName)) printf("; filename*=UTF-8''%s", KOLV::WebAPIUtil::URLEncode(strFileName).c_str());
    printf("\r\n");
}

/* A text that may stand in a header line: no control character, so a name
 * chosen by the object's owner cannot end the line and add headers (or a
 * body) to the response another reader gets. */
bool IsHeaderSafe(const std::string &str) {
    for (unsigned char c : str)
        if (c < 0x20 || 0x7f == c) return false;
    return true;
}

/* An MD5 digest as the store writes it: 32 lower-case hex digits. The
 * info record lies in the owner's folder, so it is checked, not trusted. */
bool IsMd5Text(const std::string &str) {
    if (32 != str.size()) return false;
    for (char c : str)
        if (!isdigit((unsigned char)c) && (c < 'a' || c > 'f')) return false;
    return true;
}

/* Space and tab off both ends. */
std::string TrimOws(const std::string &str) {
    size_t posBegin = str.find_first_not_of(" \t");
    if (std::string::npos == posBegin) return "";
    return str.substr(posBegin, str.find_last_not_of(" \t") - posBegin + 1);
}

/* Whether the client's If-None-Match names this answer's tag: "*", or an
 * entry of its comma-separated list, bare, quoted or weak (W/"..."); a
 * cache revalidating compares weakly. */
bool TagMatches(const std::string &strHeader, const std::string &strETag) {
    size_t pos = 0;
    while (pos <= strHeader.size()) {
        size_t posComma = std::min(strHeader.find(',', pos), strHeader.size());
        std::string strItem = TrimOws(strHeader.substr(pos, posComma - pos));
        if ("*" == strItem) return true;
        if (0 == strItem.compare(0, 2, "W/")) strItem.erase(0, 2);
        if (strItem.size() >= 2 && '"' == strItem.front() && '"' == strItem.back())
            strItem = strItem.substr(1, strItem.size() - 2);
        if (strItem == strETag) return true;
        pos = posComma + 1;
    }
    return false;
}

/* What the request adds to printing a file: whether a body is wanted (not
 * for HEAD), the Range header (raw only), and the object's lock, released
 * once the file is read or open. */
struct PrintRequest {
    bool blBody;
    std::string strRange;
    kolv::ObjectLock *pLock;
};

/* The part of the file a raw answer sends. */
struct ByteRange {
    bool blPartial = false;       // 206 with Content-Range
    bool blUnsatisfiable = false; // 416
    long long first = 0;
    long long length = -1; // -1: to the end
};

/* A position: digits only, at least one; a value past the type's range
 * saturates (a last position that large means the end). */
bool ParsePos(const std::string &str, long long &n) {
    if (str.empty()) return false;
    n = 0;
    for (char c : str) {
        if (!isdigit((unsigned char)c)) return false;
        int d = c - '0';
        n = n > (LLONG_MAX - d) / 10 ? LLONG_MAX : n * 10 + d;
    }
    return true;
}

/* One range of "bytes=a-b", "bytes=a-" or "bytes=-n" against a file of
 * cbFile bytes. Anything else (another unit, several ranges, a-b with b
 * before a, no header) is ignored: the whole file. */
ByteRange ParseRange(const std::string &strHeader, long long cbFile) {
    ByteRange whole, range, none;
    none.blUnsatisfiable = true;
    if (0 != strncasecmp(strHeader.c_str(), "bytes=", 6)) return whole;
    const std::string strSet = strHeader.substr(6);
    const size_t posDash = strSet.find('-');
    if (std::string::npos == posDash) return whole;
    const std::string strFirst = strSet.substr(0, posDash), strLast = strSet.substr(posDash + 1);
    long long first = 0, last = 0;
    if (strFirst.empty()) {
        if (!ParsePos(strLast, last)) return whole;
        if (0 == last || 0 == cbFile) return none;
        range.first = cbFile - std::min(last, cbFile);
    } else {
        if (!ParsePos(strFirst, first)) return whole;
        if (!strLast.empty() && (!ParsePos(strLast, last) || last < first)) return whole;
        if (first >= cbFile) return none;
        range.first = first;
    }
    // One past the last byte sent: the asked last position, cut to the file.
    const long long end = !strFirst.empty() && !strLast.empty() && last < cbFile ? last + 1 : cbFile;
    range.length = end - range.first;
    range.blPartial = true;
    return range;
}

/* A range past the end: the status, the file's size, no body. */
bool PrintUnsatisfiable(long long cbFile) {
    printf("Status: 416 Range Not Satisfiable\r\nAccept-Ranges: bytes\r\nContent-Range: bytes */%lld\r\n\r\n", cbFile);
    fflush(stdout);
    return true;
}

/* The header lines of the base64 form, then exactly its text. */
void PrintBase64(const std::string &strFileName, const std::string &strETag, bool blDownload, const char *bBlock2,
                 size_t sizeBase64, bool blBody) {
    HTTPFileOutputer file_outputer;
    printf("Content-Type:%s\r\n", file_outputer.GetMimeType(strFileName.c_str()).c_str());
    if (blDownload) PrintDisposition(strFileName);
    printf("Content-Length: %d\r\n", (int)sizeBase64);
    printf("ETag:%s\r\n", strETag.c_str());
    printf("Expires:%s\r\n", ExpiresText().c_str());
    printf("\r\n");
    if (blBody) fwrite(bBlock2, 1, sizeBase64, stdout);
    fflush(stdout);
}

/* The whole file in memory and its base64 text; an empty file is refused.
 * The object's lock is released once the file is read. A HEAD request
 * takes the same way, so its headers are the body's. */
bool PrintFileBase64(const std::string &strFile, const std::string &strFileName, const std::string &strETag,
                     bool blDownload, const PrintRequest &req) {
    std::string strBlock;
    if (KOLV_FAIL_IF(1003, !kolv::fs::ReadFile(strFile, strBlock))) return false;
    if (req.pLock) req.pLock->Release();
    size_t size = strBlock.size();
    if (KOLV_FAIL_IF(1000, size == 0)) return false;
    // Content-Length is printed as an int.
    if (KOLV_FAIL_IF(1014, size > (size_t)INT_MAX / 4 * 3)) return false;
    const char *bBlock = strBlock.data();
    size_t sizeBase64 = (size + 2) / 3 * 4 + 1;
    std::vector<char> vBase64(sizeBase64);
    char *bBlock2 = vBase64.data();
    if (KOLV_FAIL_IF(1000, !SzBase64EncodeFull((unsigned char *)bBlock, size, bBlock2, sizeBase64, FALSE)))
        return false;
    PrintBase64(strFileName, strETag, blDownload, bBlock2, strlen(bBlock2), req.blBody);
    return true;
}

/* The raw form: the file is opened first (link-safely; a FIFO is opened
 * without blocking and refused), then the status of a ranged answer, the
 * disposition and expiry, then the platform streams its own headers and
 * the body (or the asked range of it) from the descriptor, in constant
 * memory. */
bool PrintFileRaw(const std::string &strFile, const std::string &strFileName, const std::string &strETag,
                  bool blDownload, const PrintRequest &req) {
    kolv::Fd fdFile(kolv::fs::OpenFile(strFile, O_RDONLY | O_NONBLOCK));
    if (KOLV_FAIL_IF(1002, 0 > fdFile.get())) return false;
    struct stat st;
    if (KOLV_FAIL_IF(1002, 0 != fstat(fdFile.get(), &st) || !S_ISREG(st.st_mode))) return false;
    // A writer replaces the work tree's files by a rename: the open file
    // stays whole without the lock.
    if (req.pLock) req.pLock->Release();
    const long long cbFile = (long long)st.st_size;
    const ByteRange range = ParseRange(req.strRange, cbFile);
    if (range.blUnsatisfiable) return PrintUnsatisfiable(cbFile);
    // The tag goes out on raw answers too, so that a client can send it
    // back; it is the raw form's own and never matches the base64 one.
    std::string strLines = "Accept-Ranges: bytes\r\nETag:" + strETag + "\r\n";
    if (range.blPartial) {
        printf("Status: 206 Partial Content\r\n");
        strLines += "Content-Range: bytes " + std::to_string(range.first) + "-" +
                    std::to_string(range.first + range.length - 1) + "/" + std::to_string(cbFile) + "\r\n";
    }
    if (blDownload) PrintDisposition(strFileName);
    printf("Expires:%s\r\n", ExpiresText().c_str());
    // The platform writes with write(2): what stdio holds goes first.
    fflush(stdout);
    HTTPFileOutputer file_outputer;
    const std::string strMime = file_outputer.GetMimeType(strFileName.c_str());
    if (KOLV_FAIL_IF(1000, 0 > file_outputer.Output(fdFile.get(), strMime.c_str(), range.first, range.length,
                                                    req.blBody, strLines.c_str())))
        return false;
    return true;
}

/* Prints strFile in base64 or raw, offered as strFileName (an attachment
 * with blDownload), as the request asks (head-only, a range). */
bool PrintBinary(bool blBase64, const std::string &strFile, const std::string &strFileName, const std::string &strETag,
                 bool blDownload, const PrintRequest &req) {
    if (KOLV_FAIL_IF(1008, !kolv::fs::Exists(strFile))) return false;
    if (blBase64) return PrintFileBase64(strFile, strFileName, strETag, blDownload, req);
    return PrintFileRaw(strFile, strFileName, strETag, blDownload, req);
}

/* The not-modified answer: one status line, the end of the header, no body. */
bool PrintNotModified() {
    printf("Status: 304 Not Modified\r\n\r\n");
    fflush(stdout);
    return true;
}

} // namespace

bool KOLVVESSA_BACKEND_FS::Download(const Json::Value &jParm) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_APPEND_IF(!jParm.isMember("segment"))) return false;
        if (KOLV_APPEND_IF(!mf_init(jParm))) return false;
        const std::string strSegment = m_jParm["segment"].asString();
        if ("binary" == strSegment) {
            if (KOLV_APPEND_IF(!mf_DownloadVersionBinary())) return false;
            return true;
        }
        if ("metabinary" == strSegment) {
            if (KOLV_APPEND_IF(!mf_DownloadMetaBinary())) return false;
            return true;
        }
        syslog(LOG_ERR, "%s:%d segment error, jParm=%s\n", __FILE__, __LINE__, kolv::JsonToString(jParm).c_str());
        return false;
    });
}

bool KOLVVESSA_BACKEND_FS::mf_DownloadVersionBinary() {
    // Shared, as a read: a writer's checkout never shows half done, and
    // the file and its info record are of one version.
    kolv::ObjectLock lock;
    uid_t owner = (uid_t)m_jParm["owner"].asUInt();
    if (KOLV_APPEND_IF(!lock.AcquireSharedIfExists(m_jPathInfo[KOLVVES_ID_PATH].asString(), owner))) return false;
    std::string strGitDir;
    bool blLatest = true;
    if (KOLV_APPEND_IF(!mf_LoadGitVersion(strGitDir, blLatest))) return false;
    // An older version was checked out into a scratch folder of this call
    // (root's, 0700): it goes on every path, never through a link.
    kolv::TreeRemover scratch(blLatest ? std::string() : strGitDir);
    Json::Value jPathInfo = m_jPathInfo;
    if (!blLatest && KOLV_APPEND_IF(!mf_GetPathInfoByGitBase(strGitDir, jPathInfo))) return false;
    const std::string strBinaryDir = jPathInfo[KOLVVES_BIN_PATH].asString();
    const std::string strBinaryInfoDir = jPathInfo[KOLVVES_BIN_INFO_PATH].asString();
    if (KOLV_APPEND_IF(!mf_DownloadBinaryByDir(strBinaryDir, strBinaryInfoDir, &lock))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_DownloadMetaBinary() {
    kolv::ObjectLock lock;
    uid_t owner = (uid_t)m_jParm["owner"].asUInt();
    if (KOLV_APPEND_IF(!lock.AcquireSharedIfExists(m_jPathInfo[KOLVVES_ID_PATH].asString(), owner))) return false;
    const std::string strBinaryDir = m_jPathInfo[KOLVVES_META_BIN].asString();
    const std::string strBinaryInfoDir = m_jPathInfo[KOLVVES_META_BIN_INFO].asString();
    if (KOLV_APPEND_IF(!mf_DownloadBinaryByDir(strBinaryDir, strBinaryInfoDir, &lock))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_DownloadBinaryByDir(const std::string &strBinaryDir, const std::string &strBinaryInfoDir,
                                                  kolv::ObjectLock *pLock) {
    if (KOLV_APPEND_IF(!m_jParm.isMember("field"))) return false;
    if (KOLV_APPEND_IF(!m_jParm.isMember("format"))) return false;
    std::string strFileName =
        m_jParm.isMember("filename") ? m_jParm["filename"].asString() : m_jParm["field"].asString();
    bool blDownload = m_jParm.isMember("mode") && "download" == m_jParm["mode"].asString();
    if (KOLV_FAIL_IF(1007, blDownload && !IsHeaderSafe(strFileName))) return false;
    std::string strFileNameEncode;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(m_jParm["field"].asString(), strFileNameEncode))) return false;
    const std::string strBinaryFilePath = strBinaryDir + "/" + strFileNameEncode;
    const std::string strBinaryInfoFilePath = strBinaryInfoDir + "/" + strFileNameEncode;
    if (KOLV_FAIL_IF(1008, !kolv::fs::Exists(strBinaryFilePath))) return false;
    if (KOLV_FAIL_IF(1008, !kolv::fs::Exists(strBinaryInfoFilePath))) return false;
    std::string strInfo;
    Json::Value jInfo;
    if (KOLV_FAIL_IF(1003, !kolv::fs::ReadFile(strBinaryInfoFilePath, strInfo))) return false;
    if (KOLV_FAIL_IF(1003, !kolv::JsonFromString(jInfo, strInfo) || !jInfo.isObject() || !jInfo["md5"].isString()))
        return false;
    const std::string strMd5 = jInfo["md5"].asString();
    if (KOLV_FAIL_IF(1003, !IsMd5Text(strMd5))) return false;
    const std::string strFormat = m_jParm["format"].asString();
    const std::string strNoneMatch = m_jParm.get("HTTP_IF_NONE_MATCH", "").asString();
    const bool blHasTag = m_jParm.isMember("HTTP_IF_NONE_MATCH");
    // Ranges are the raw form's: a slice of base64 text is nothing a
    // client could resume.
    PrintRequest req{"HEAD" != m_jParm.get("REQUEST_METHOD", "").asString(),
                     "raw" == strFormat ? m_jParm.get("HTTP_RANGE", "").asString() : std::string(), pLock};
    auto OpenBinaryAndPrint = [&req](bool blBase64, const std::string &strFile, const std::string &strName,
                                     const std::string &strTag, bool blAttachment) {
        return PrintBinary(blBase64, strFile, strName, strTag, blAttachment, req);
    };
    std::string strETag;
    if ("base64" == strFormat) {
        strETag = strMd5;
        if (blHasTag && TagMatches(strNoneMatch, strETag)) return PrintNotModified();
        if (KOLV_APPEND_IF(!OpenBinaryAndPrint(true, strBinaryFilePath, strFileName, strETag, blDownload)))
            return false;
        return true;
    }
    if ("raw" == strFormat) {
        // Never the base64 form's tag: the two bodies differ.
        strETag = strMd5 + "raw";
        if (blHasTag && TagMatches(strNoneMatch, strETag)) return PrintNotModified();
        if (KOLV_APPEND_IF(!OpenBinaryAndPrint(false, strBinaryFilePath, strFileName, strETag, blDownload)))
            return false;
        return true;
    }
    syslog(LOG_ERR, "%s:%d wrong foramt, jParm=%s\n", __FILE__, __LINE__, kolv::JsonToString(m_jParm).c_str());
    return false;
}
