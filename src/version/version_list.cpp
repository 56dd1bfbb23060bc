/*
 * Listing the versions of an object for a requester: the function over a
 * JSON record, the list form and the plain function over a string hash.
 */
#include <limits.h>

#include <memory>

#include "common/kolvvessa_nothrow.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_version.h"
#include "object/object_request.h"
#include "version/version_internal.h"

namespace {

// The member checks; jParm is the caller's record, copied, and leaves with
// an "offset" the store can count with and a "limit" where 0 means all.
bool CheckListParm(Json::Value &jParm) {
    if (!kolv::CheckObjectMembers(jParm)) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("offset") && !jParm["offset"].isIntegral())) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("limit") && !jParm["limit"].isIntegral())) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("offset") && !jParm["offset"].isUInt())) return false;
    if (!kolv::version::CheckAccess(jParm)) return false;
    // No limit, 0, a negative one or one past what the store counts with
    // all list every version.
    const Json::Value &jLimit = jParm["limit"];
    jParm["limit"] = jLimit.isInt() && 0 < jLimit.asInt() ? jLimit.asInt() : 0;
    jParm["offset"] = jParm["offset"].asUInt();
    return true;
}

int ListChecked(const Json::Value &jIn, KOLV_VESSA_OBJECT_VERSION **addrPHead, unsigned int &total,
                unsigned int &listable_total) {
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return -1;
    Json::Value jParm(jIn);
    if (!CheckListParm(jParm)) return -1;
    KOLV_VESSA_OBJECT tmpObj;
    Json::Value jGetParm = kolv::version::ReadParm(jParm);
    if (KOLV_APPEND_IF(!tmpObj.Get(jGetParm))) return -1;
    int count = -1;
    (void)KOLV_APPEND_IF(0 > (count = pBackendFs->VersionList(jParm, addrPHead, total, listable_total)));
    return count;
}

} // namespace

int KOLVVessaObjectVersionList(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION **addrPHead, unsigned int &total,
                               unsigned int &listable_total) {
    if (KOLV_FAIL_IF(1015, NULL == addrPHead)) return -1;
    *addrPHead = NULL;
    total = 0;
    listable_total = 0;
    int count = KOLV_NO_THROW(-1, [&]() -> int { return ListChecked(jParm, addrPHead, total, listable_total); });
    if (0 > count) {
        // A chain begun before the failure goes with it.
        KOLVVessaObjectVersionFreeList(*addrPHead);
        *addrPHead = NULL;
        total = 0;
        listable_total = 0;
    }
    return count;
}

int KOLV_VESSA_OBJECT_VERSION_LIST::ListVersion(const Json::Value &jParm, unsigned int &total,
                                                unsigned int &listable_total) {
    clear();
    KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
    int count = KOLVVessaObjectVersionList(jParm, &pHead, total, listable_total);
    if (KOLV_APPEND_IF(0 > count)) return count;
    m_head = pHead;
    return count;
}

int KOLVVessaObjectVersionList(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT_VERSION **addrPHead, unsigned int &total,
                               unsigned int &listable_total) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return -1;
    if (KOLV_FAIL_IF(1015, NULL == addrPHead)) return -1;
    *addrPHead = NULL;
    total = 0;
    listable_total = 0;
    return KOLV_NO_THROW(-1, [&]() -> int {
        Json::Value jParm(Json::objectValue);
        if (!kolv::version::HashToVersionParm(pParmHash, {}, {"offset", "limit"}, jParm)) return -1;
        int count = -1;
        (void)KOLV_APPEND_IF(0 > (count = KOLVVessaObjectVersionList(jParm, addrPHead, total, listable_total)));
        return count;
    });
}
