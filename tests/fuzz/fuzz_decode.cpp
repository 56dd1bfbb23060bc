// Name decoding on arbitrary text, and the encoding round trip of arbitrary
// bytes: every name that reaches the store from a caller passes here.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

namespace {

bool IsSafeName(const std::string &str) {
    for (char c : str) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || '{' == c || '}' == c)) return false;
    }
    return !str.empty();
}

// Any bytes encode to a safe name and decode back to themselves.
void CheckRoundTrip(const uint8_t *data, size_t size) {
    std::string strEncoded;
    if (!KOLVVessaEncode(data, (unsigned)size, strEncoded) || !IsSafeName(strEncoded)) abort();
    std::vector<unsigned char> vBack(size);
    if (!KOLVVessaDecode(strEncoded, vBack.data(), (unsigned)size)) abort();
    if (0 != memcmp(data, vBack.data(), size)) abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Start every input from a one-record stack, so appended records
    // cannot pile up across inputs.
    KOLVVessaErrSetEx(0, NULL, 0, NULL);

    std::string strIn((const char *)data, size);
    std::vector<unsigned char> vOut(size + 1);
    std::string strOut;
    for (bool blBase64Only : {false, true}) {
        KOLVVessaDecode(strIn, vOut.data(), (unsigned)vOut.size(), blBase64Only);
        KOLVVessaDecode(strIn, strOut, blBase64Only);
    }
    if (size > 0) CheckRoundTrip(data, size);
    return 0;
}
