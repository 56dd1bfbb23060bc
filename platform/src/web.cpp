/*
 * Web output: MIME types from the system table, files streamed to standard
 * output as CGI responses, URL encoding.
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "io_internal.h"
#include "kolvplatform/kolv_web.h"

namespace {

constexpr char kMimeTable[] = "/etc/mime.types";
constexpr char kDefaultMime[] = "application/octet-stream";
constexpr size_t kChunk = 64 * 1024;

std::string Lower(std::string str) {
    for (char &c : str)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return str;
}

/* Extension (lower case) -> type; the first line naming an extension wins.
 * An unreadable table leaves it empty. */
std::unordered_map<std::string, std::string> LoadMimeTable() {
    std::unordered_map<std::string, std::string> mapExt;
    std::ifstream ifs(kMimeTable);
    std::string strLine;
    while (std::getline(ifs, strLine)) {
        std::string::size_type posHash = strLine.find('#');
        if (posHash != std::string::npos) strLine.erase(posHash);
        std::istringstream iss(strLine);
        std::string strType, strExt;
        if (!(iss >> strType)) continue;
        while (iss >> strExt)
            mapExt.emplace(Lower(strExt), strType);
    }
    return mapExt;
}

const std::unordered_map<std::string, std::string> &MimeTable() {
    // Initialised once, thread-safe (static local).
    static const std::unordered_map<std::string, std::string> s_mapExt = LoadMimeTable();
    return s_mapExt;
}

/* Writes all of p to fd 1; asks the fault seam first. */
int WriteOut(const char *p, size_t cb) {
    if (TRUE == KOLVFaultCheck("HTTPFileOutputer::Output write")) return -1;
    return 0 == kolvplat::WriteAll(STDOUT_FILENO, p, cb) ? 0 : -1;
}

/* Streams cb bytes of fd from off in fixed chunks; fails if the file ends
 * early (the length was already promised). */
int StreamBody(int fd, off_t off, off_t cb) {
    std::vector<char> vecBuf(kChunk);
    const off_t offEnd = off + cb;
    while (off < offEnd) {
        size_t cbWant = static_cast<size_t>(std::min<off_t>(offEnd - off, static_cast<off_t>(kChunk)));
        ssize_t n = pread(fd, vecBuf.data(), cbWant, off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return -1;
        }
        if (WriteOut(vecBuf.data(), static_cast<size_t>(n)) != 0) return -1;
        off += n;
    }
    return 0;
}

} // namespace

std::string HTTPFileOutputer::GetMimeType(const char *szFileName) {
    if (!szFileName) return kDefaultMime;
    const char *szBase = strrchr(szFileName, '/');
    szBase = szBase ? szBase + 1 : szFileName;
    const char *szDot = strrchr(szBase, '.');
    if (!szDot || !szDot[1]) return kDefaultMime;
    const auto &mapExt = MimeTable();
    auto it = mapExt.find(Lower(szDot + 1));
    return it == mapExt.end() ? kDefaultMime : it->second;
}

int HTTPFileOutputer::Output(const char *szPath, const char *szMimeType) {
    if (!szPath || !*szPath) {
        errno = EINVAL;
        return -1;
    }
    if (TRUE == KOLVFaultCheck("HTTPFileOutputer::Output open")) return -1;
    // O_NONBLOCK: a FIFO planted in place of the file must not hang the open.
    int fd = open(szPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    int ret = Output(fd, szMimeType);
    int err = errno;
    close(fd);
    errno = err;
    return ret;
}

int HTTPFileOutputer::Output(int fd, const char *szMimeType) {
    return Output(fd, szMimeType, 0, -1, true, NULL);
}

int HTTPFileOutputer::Output(int fd, const char *szMimeType, long long offset, long long length, bool blBody,
                             const char *szExtraLines) {
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        if (fd < 0) errno = EBADF;
        return -1;
    }
    const long long cbFile = static_cast<long long>(st.st_size);
    if (length < 0 && offset >= 0 && offset <= cbFile) length = cbFile - offset;
    // Written so that no sum can overflow.
    if (!S_ISREG(st.st_mode) || offset < 0 || offset > cbFile || length < 0 || length > cbFile - offset) {
        errno = EINVAL;
        return -1;
    }
    std::string strHead = "Content-Type: ";
    strHead += szMimeType && *szMimeType ? szMimeType : kDefaultMime;
    strHead += "\r\nContent-Length: " + std::to_string(length) + "\r\n";
    if (szExtraLines) strHead += szExtraLines;
    strHead += "\r\n";
    // Whatever the caller printed through stdio goes out first.
    fflush(stdout);
    if (WriteOut(strHead.data(), strHead.size()) != 0) return -1;
    if (!blBody) return 0;
    return StreamBody(fd, static_cast<off_t>(offset), static_cast<off_t>(length));
}

std::string KOLV::WebAPIUtil::URLEncode(const std::string &str) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string strOut;
    strOut.reserve(str.size() * 3);
    for (unsigned char c : str) {
        bool blUnreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                            c == '_' || c == '.' || c == '~';
        if (blUnreserved) {
            strOut += static_cast<char>(c);
        } else {
            strOut += '%';
            strOut += kHex[c >> 4];
            strOut += kHex[c & 15];
        }
    }
    return strOut;
}
