/*
 * Standard base64 (RFC 4648: A-Z a-z 0-9 + /, "=" padding), encoded by
 * OpenSSL. With line breaks, the encoder ends a line every 76 characters
 * (MIME) with "\n"; the decoder skips "\r" and "\n".
 */
#include <openssl/evp.h>
#include <string.h>

#include "kolvplatform/kolv_platform.h"

namespace {

constexpr size_t kLine = 76;
// A multiple of 3 below INT_MAX, the most EVP_EncodeBlock takes at once.
constexpr size_t kMaxBlock = (size_t)3 << 28;

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
    // OpenSSL encodes whole blocks without breaks: one line's worth of
    // bytes at a time with breaks, else blocks as large as it takes.
    const size_t cbBlock = blLineBreak ? kLine / 4 * 3 : kMaxBlock;
    char *p = szOut;
    for (size_t i = 0; i < cbIn; i += cbBlock) {
        if (i && blLineBreak) *p++ = '\n';
        size_t n = cbIn - i < cbBlock ? cbIn - i : cbBlock;
        p += EVP_EncodeBlock(reinterpret_cast<unsigned char *>(p), szIn + i, static_cast<int>(n));
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
