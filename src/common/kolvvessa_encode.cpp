/*
 * Name encoding: arbitrary bytes (field names, file names) become names
 * that are safe as file names on any file system. The bytes are written as
 * base64; every base64 character outside 0-9 A-Z is then escaped as
 * "{code}", so the result holds neither a path separator nor letters whose
 * case a case-insensitive file system would fold.
 */
#include <kolvplatform/kolv_platform.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

namespace {

// Room for the base64 text and its terminator; without blBase64Only every
// base64 character may grow to five ("{122}").
size_t CountEncodeSize(size_t nIn, bool blBase64Only) {
    return blBase64Only ? (nIn + 2) / 3 * 4 + 1 : (nIn + 2) / 3 * 20 + 5;
}

bool IsKeptChar(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
}

// Escapes every base64 character outside 0-9 A-Z as "{code}". The
// lower-case escape is deliberate: it keeps names distinct on file systems
// that ignore case.
std::string EscapeBase64(const char *szBase64) {
    std::string strOut;
    for (const char *p = szBase64; *p; ++p) {
        if (IsKeptChar(*p)) {
            strOut += *p;
        } else {
            strOut += "{" + std::to_string((int)*p) + "}";
        }
    }
    return strOut;
}

// Turns every "{code}" back into its one character. False (appended
// "NULL == szEnd") for a brace that is never closed.
bool UnescapeBase64(const std::string &strIn, std::string &strResult) {
    char *szIn = NULL;
    if (KOLV_FAIL_IF(1014, NULL == (szIn = (char *)calloc(strIn.length() + 1, sizeof(char *))))) return false;
    kolv::CString work(szIn);
    memcpy(szIn, strIn.c_str(), strIn.length());

    const char *szCur = szIn;
    const char *szBegin;
    while (NULL != (szBegin = strchr(szCur, '{'))) {
        strResult.append(szCur, szBegin - szCur);
        const char *szEnd = strchr(szBegin + 1, '}');
        if (KOLV_APPEND_IF(NULL == szEnd)) return false;
        std::string strCode(szBegin + 1, szEnd - szBegin - 1);
        strResult += (char)strtol(strCode.c_str(), NULL, 10);
        szCur = szEnd + 1;
    }
    strResult += szCur;
    return true;
}

} // namespace

bool KOLVVessaEncode(const unsigned char *szIn, unsigned int nIn, std::string &strOut, bool blBase64Only) {
    if (KOLV_FAIL_IF(1015, NULL == szIn || 0 == nIn)) return false;

    std::vector<char> vBuf(CountEncodeSize(nIn, blBase64Only));
    char *szBuf = vBuf.data();
    if (KOLV_FAIL_IF(
            1000, !SzBase64EncodeFull((unsigned char *)szIn, nIn, szBuf, CountEncodeSize(nIn, blBase64Only), FALSE))) {
        return false;
    }
    strOut = blBase64Only ? std::string(szBuf) : EscapeBase64(szBuf);
    return true;
}

bool KOLVVessaEncode(const std::string &strIn, std::string &strOut, bool blBase64Only) {
    return KOLVVessaEncode((const unsigned char *)strIn.data(), (unsigned int)strIn.length(), strOut, blBase64Only);
}

bool KOLVVessaDecode(const std::string &strIn, unsigned char *szOut, unsigned int cbOut, bool blBase64Only) {
    if (KOLV_FAIL_IF(1015, 0 == strIn.length())) return false;
    if (KOLV_FAIL_IF(1015, NULL == szOut)) return false;

    std::string strResult;
    if (blBase64Only) {
        strResult = strIn;
    } else if (!UnescapeBase64(strIn, strResult)) {
        return false;
    }

    // The decoder writes the decoded length back into nOut; callers get the
    // zero-filled buffer only.
    memset(szOut, 0, cbOut);
    size_t nOut = cbOut;
    if (KOLV_FAIL_IF(1000, !KOLVEncodingBase64Decode((const char *)strResult.c_str(), strResult.length(), (char *)szOut,
                                                     &nOut))) {
        return false;
    }
    return true;
}

bool KOLVVessaDecode(const std::string &strIn, std::string &strOut, bool blBase64Only) {
    // Decoded text is never longer than its encoding.
    std::vector<unsigned char> vBuf(strIn.length() + 1, 0);
    if (!KOLVVessaDecode(strIn, vBuf.data(), (unsigned int)strIn.length(), blBase64Only)) return false;
    strOut.assign((const char *)vBuf.data(), strnlen((const char *)vBuf.data(), strIn.length()));
    return true;
}
