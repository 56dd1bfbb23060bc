/*
 * Standard base64 (RFC 4648: A-Z a-z 0-9 + /, "=" padding). With line
 * breaks, the encoder ends a line every 76 characters (MIME) with "\n";
 * the decoder skips "\r" and "\n".
 */
#include <string.h>

#include "kolvplatform/kolv_platform.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kLine = 76;

/* The 6-bit value of c, -1 for any other character. */
int Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

} // namespace

extern "C" {

BOOL SzBase64EncodeFull(const unsigned char *szIn, size_t cbIn, char *szOut, size_t cbOut, BOOL blLineBreak) {
    if ((!szIn && cbIn) || !szOut || cbIn > ((size_t)-1) / 2) return FALSE;
    size_t cbText = (cbIn + 2) / 3 * 4;
    size_t cbBreaks = blLineBreak && cbText ? (cbText - 1) / kLine : 0;
    if (cbOut < cbText + cbBreaks + 1) return FALSE;
    char *p = szOut;
    size_t nOnLine = 0;
    auto put = [&](char c) {
        if (blLineBreak && nOnLine == kLine) {
            *p++ = '\n';
            nOnLine = 0;
        }
        *p++ = c;
        ++nOnLine;
    };
    size_t i = 0;
    for (; i + 3 <= cbIn; i += 3) {
        unsigned v = (unsigned)szIn[i] << 16 | (unsigned)szIn[i + 1] << 8 | szIn[i + 2];
        put(kAlphabet[v >> 18 & 63]);
        put(kAlphabet[v >> 12 & 63]);
        put(kAlphabet[v >> 6 & 63]);
        put(kAlphabet[v & 63]);
    }
    if (cbIn - i == 1) {
        unsigned v = (unsigned)szIn[i] << 16;
        put(kAlphabet[v >> 18 & 63]);
        put(kAlphabet[v >> 12 & 63]);
        put('=');
        put('=');
    } else if (cbIn - i == 2) {
        unsigned v = (unsigned)szIn[i] << 16 | (unsigned)szIn[i + 1] << 8;
        put(kAlphabet[v >> 18 & 63]);
        put(kAlphabet[v >> 12 & 63]);
        put(kAlphabet[v >> 6 & 63]);
        put('=');
    }
    *p = '\0';
    return TRUE;
}

BOOL KOLVEncodingBase64Decode(const char *szIn, size_t cbIn, char *szOut, size_t *pcbOut) {
    if ((!szIn && cbIn) || !szOut || !pcbOut) return FALSE;
    // First pass: validate and count. Padding may only close the text.
    size_t nChars = 0, nPad = 0;
    for (size_t i = 0; i < cbIn; ++i) {
        unsigned char c = static_cast<unsigned char>(szIn[i]);
        if (c == '\r' || c == '\n') continue;
        if (c == '=') {
            if (++nPad > 2) return FALSE;
        } else if (Value(c) < 0 || nPad) {
            return FALSE;
        }
        ++nChars;
    }
    if (nChars % 4) return FALSE;
    size_t cbDecoded = nChars / 4 * 3 - nPad;
    if (cbDecoded > *pcbOut) return FALSE;
    // Second pass: decode.
    unsigned acc = 0;
    int nBits = 0;
    size_t o = 0;
    for (size_t i = 0; i < cbIn && o < cbDecoded; ++i) {
        int v = Value(static_cast<unsigned char>(szIn[i]));
        if (v < 0) continue;
        acc = (acc << 6 | static_cast<unsigned>(v)) & 0xFFFFFF;
        nBits += 6;
        if (nBits >= 8) {
            nBits -= 8;
            szOut[o++] = static_cast<char>(acc >> nBits & 0xFF);
        }
    }
    if (cbDecoded < *pcbOut) szOut[cbDecoded] = '\0';
    *pcbOut = cbDecoded;
    return TRUE;
}

} // extern "C"
