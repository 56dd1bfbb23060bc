// Reading the owner out of arbitrary ids: the two readers must agree
// whenever both accept an id, and a root id must read back as its uid.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    KOLVVessaErrSetEx(0, NULL, 0, NULL);

    std::string strID((const char *)data, size);
    long long uid = KOLVVessaExtractUid(strID.c_str());
    uid_t owner = KOLVVessaObjectGetOwnerByID(strID);
    // The short reader accepting an id means the long one reads the same
    // digits.
    if (uid >= 0 && owner != (uid_t)uid) abort();

    if (UID_ERR != owner) {
        std::string strRoot = KOLVVessaObjectDefaultID(owner);
        if (KOLVVessaExtractUid(strRoot.c_str()) != (long long)owner) abort();
        if (KOLVVessaObjectGetOwnerByID(strRoot) != owner) abort();
    }
    return 0;
}
