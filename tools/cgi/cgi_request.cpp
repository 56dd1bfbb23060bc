/*
 * Reading the download request out of the CGI environment.
 */
#include "cgi_request.h"

#include <string.h>

#include <kolvplatform/kolv_platform.h>

namespace kolvcgi {

namespace {

const char *const kQueryKeys[] = {"ns", "id", "segment", "field", "format", "version", "mode", "filename"};

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/* %XX and '+' decoded; false on a broken escape or a NUL byte. */
bool Unescape(const std::string &strIn, std::string &strOut) {
    strOut.clear();
    for (size_t i = 0; i < strIn.size(); ++i) {
        char c = strIn[i];
        if ('+' == c) {
            c = ' ';
        } else if ('%' == c) {
            if (i + 2 >= strIn.size()) return false;
            int hi = HexDigit(strIn[i + 1]), lo = HexDigit(strIn[i + 2]);
            if (hi < 0 || lo < 0) return false;
            c = static_cast<char>(hi * 16 + lo);
            i += 2;
        }
        if ('\0' == c) return false;
        strOut += c;
    }
    return true;
}

bool IsQueryKey(const std::string &strKey) {
    for (const char *szKey : kQueryKeys) {
        if (strKey == szKey) return true;
    }
    return false;
}

} // namespace

Refusal BadRequest(const std::string &strMsg) {
    Refusal r;
    r.status = 400;
    r.code = 1007;
    r.strMsg = strMsg;
    return r;
}

Refusal ParseQuery(const char *szQuery, std::map<std::string, std::string> &mapQuery) {
    std::string strQuery = szQuery ? szQuery : "";
    size_t pos = 0;
    while (pos <= strQuery.size()) {
        size_t end = strQuery.find('&', pos);
        if (std::string::npos == end) end = strQuery.size();
        std::string strPair = strQuery.substr(pos, end - pos);
        pos = end + 1;
        if (strPair.empty()) continue;
        size_t eq = strPair.find('=');
        std::string strKey, strValue;
        if (!Unescape(strPair.substr(0, eq), strKey) ||
            !Unescape(std::string::npos == eq ? "" : strPair.substr(eq + 1), strValue)) {
            return BadRequest("malformed query string");
        }
        // Anything else (a "requester" among them) is not the client's to say.
        if (!IsQueryKey(strKey)) continue;
        if (!mapQuery.emplace(strKey, strValue).second) return BadRequest("\"" + strKey + "\" given twice");
    }
    return Refusal();
}

Refusal WebRequester(const char *szRemoteUser, unsigned &requester) {
    Refusal r;
    KOLVUSER *pUser = NULL;
    if (!szRemoteUser || !*szRemoteUser || 0 != KOLVUserGet(szRemoteUser, &pUser) || !pUser) {
        r.status = 401;
        r.code = 1022;
        r.strMsg = "no login, or one that names no user";
        return r;
    }
    requester = static_cast<unsigned>(pUser->uid);
    KOLVUserFree(pUser);
    if (0 == requester) {
        r.status = 403;
        r.code = 1023;
        r.strMsg = "the system user cannot act over the web";
    }
    return r;
}

Refusal CheckForm(const std::map<std::string, std::string> &mapQuery) {
    auto it = mapQuery.find("segment");
    if (mapQuery.end() != it && "binary" != it->second && "metabinary" != it->second)
        return BadRequest("\"segment\" must be \"binary\" or \"metabinary\"");
    it = mapQuery.find("format");
    if (mapQuery.end() != it && "base64" != it->second && "raw" != it->second)
        return BadRequest("\"format\" must be \"base64\" or \"raw\"");
    return Refusal();
}

} // namespace kolvcgi
