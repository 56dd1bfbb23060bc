/*
 * Object identifiers: generation, the root id, reading the owner back, the
 * validity test, and the selection of all fields.
 */
#include <kolvplatform/kolv_platform.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "common/kolvvessa_fail.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

namespace {

// Bumped once per generation pass, three times per id. Ids made in the same
// second start from the same seed; the counter, the clock and the process
// id keep them apart.
std::atomic<unsigned long long> g_ullGenCounter{0};

// The text of one pass: passes 0 and 2 and pass 1 order their parts
// differently so the three digests of one id never share an input.
std::string PassText(int pass) {
    unsigned long long ullCount = g_ullGenCounter.fetch_add(1, std::memory_order_relaxed);
    unsigned long long ullClock = (unsigned long long)clock();
    unsigned int uTime = (unsigned int)time(NULL);
    unsigned int uRand = (unsigned int)rand();
    unsigned int uPid = (unsigned int)getpid();
    char szText[1024];
    if (1 == pass) {
        snprintf(szText, sizeof(szText), "%u:%u-%u+%llu*%llu/%d", uPid, uRand, uTime, ullClock, ullCount, pass);
    } else {
        snprintf(szText, sizeof(szText), "%d:%llu-%llu+%u*%u/%u", pass, ullCount, ullClock, uTime, uRand, uPid);
    }
    return szText;
}

// Appends the MD5 digest of strText as 32 upper-case hex digits, each byte
// high nibble first.
void AppendDigest(const std::string &strText, std::string &strOut) {
    unsigned char rgDigest[EVP_MAX_MD_SIZE];
    unsigned int cbDigest = 0;
    if (!EVP_Digest(strText.data(), strText.length(), rgDigest, &cbDigest, EVP_md5(), NULL)) cbDigest = 0;
    for (unsigned int i = 0; i < cbDigest; ++i) {
        char szHex[3];
        snprintf(szHex, sizeof(szHex), "%X%X", rgDigest[i] >> 4, rgDigest[i] & 0x0F);
        strOut += szHex;
    }
}

} // namespace

std::string KOLVVessaObjectGenerateID(unsigned int uid) {
    // Reseeded at every call, deliberately: see the counter above.
    srand((unsigned int)time(NULL));
    std::string strID = std::to_string(uid) + "_";
    for (int pass = 0; pass < 3; ++pass)
        AppendDigest(PassText(pass), strID);
    return strID;
}

std::string KOLVVessaObjectDefaultID(unsigned int uid) {
    char szID[32];
    snprintf(szID, sizeof(szID), "%u_#00000000", uid);
    return szID;
}

long long KOLVVessaExtractUid(const char *id) {
    if (KOLV_FAIL_IF(1015, NULL == id)) return -1;

    char szUid[32] = {0};
    int i = 0;
    for (; i < (int)sizeof(szUid) && '\0' != id[i] && '_' != id[i]; ++i) {
        if (i < (int)sizeof(szUid) - 1) szUid[i] = id[i];
    }
    if (KOLV_FAIL_IF(1007, 32 <= i)) return -1;

    char *endPtr = NULL;
    unsigned long ulUid = strtoul(szUid, &endPtr, 10);
    if (KOLV_FAIL_IF(1007, endPtr && 0 != *endPtr)) return -1;
    return (long long)ulUid;
}

uid_t KOLVVessaObjectGetOwnerByID(const std::string &strID) {
    std::string strUid = strID.substr(0, strID.find('_'));
    char *endPtr = NULL;
    unsigned long ulUid = strtoul(strUid.c_str(), &endPtr, 10);
    if (endPtr && 0 != *endPtr) {
        kolv::SetNoLog(1007, __FILE__, __LINE__, "Bad ID [%s]", strID.c_str());
        return UID_ERR;
    }
    return (uid_t)ulUid;
}

bool KOLVVessaObjectIDIsValid(const char *szID) {
    if (KOLV_FAIL_IF(1015, NULL == szID)) return false;
    uid_t owner;
    if (KOLV_APPEND_IF(UID_ERR == (owner = KOLVVessaObjectGetOwnerByID(szID)))) return false;
    // Nothing else of the id's form is checked: the owner decides.
    if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectOwnerIsValid(owner))) return false;
    return true;
}

Json::Value KOLVVessaObjectFieldAll() {
    Json::Value jFields(Json::objectValue);
    for (const char *szField : {"commit_msg", "acl", "metatext", "metabinary_info", "text", "binary_info"}) {
        jFields[szField] = true;
    }
    return jFields;
}
