/*
 * The steps the version operations share: the checks after each one's own
 * member test, the read that stands for the permission check, and the
 * string-hash form of a request.
 */
#include <errno.h>
#include <stdlib.h>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "object/object_internal.h"
#include "object/object_request.h"
#include "version/version_internal.h"

namespace {

// Plain decimal digits as an unsigned integer; anything else (a sign,
// spaces, trailing characters, too many digits) stays text.
Json::Value DecimalOrText(const char *szVal) {
    bool blDigits = '\0' != szVal[0];
    for (const char *p = szVal; *p && blDigits; p++)
        blDigits = '0' <= *p && *p <= '9';
    if (!blDigits) return Json::Value(szVal);
    errno = 0;
    unsigned long long ull = strtoull(szVal, NULL, 10);
    if (ERANGE == errno) return Json::Value(szVal);
    return Json::Value((Json::UInt64)ull);
}

} // namespace

namespace kolv {
namespace version {

bool CheckAccess(const Json::Value &jParm) {
    if (!kolv::CheckRequest(jParm)) return false;
    if (KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) return false;
    if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectIDIsValid(jParm["id"].asCString()))) return false;
    return true;
}

Json::Value ReadParm(const Json::Value &jParm) {
    Json::Value jGetParm(Json::objectValue);
    jGetParm["ns"] = jParm["ns"];
    jGetParm["id"] = jParm["id"];
    jGetParm["requester"] = jParm["requester"];
    // Only what the permission needs (the object read adds the ACL): the
    // version store is left to the operation itself.
    jGetParm["field"]["ver"] = false;
    jGetParm["field"]["mtime"] = false;
    return jGetParm;
}

bool HashToVersionParm(TRABSZHASH *pParmHash, std::initializer_list<const char *> texts,
                       std::initializer_list<const char *> numbers, Json::Value &jParm) {
    if (!kolv::HashToObjectParm(pParmHash, jParm)) return false;
    const char *szVal = NULL;
    for (const char *szKey : texts) {
        if (NULL != (szVal = TRABCSzHashGetValue(pParmHash, szKey))) jParm[szKey] = szVal;
    }
    for (const char *szKey : numbers) {
        if (NULL != (szVal = TRABCSzHashGetValue(pParmHash, szKey))) jParm[szKey] = DecimalOrText(szVal);
    }
    return true;
}

} // namespace version
} // namespace kolv
