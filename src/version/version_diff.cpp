/*
 * Comparing two versions of an object for a requester: the member Diff and
 * the plain function over a string hash.
 */
#include <memory>

#include "common/kolvvessa_nothrow.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_version.h"
#include "version/version_internal.h"

namespace {

bool CheckDiffParm(const Json::Value &jParm, const Json::Value &jDiff) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm["id"].isString() || !jParm.isMember("old_version") ||
                               !jParm["old_version"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral())) {
        return false;
    }
    if (KOLV_FAIL_IF(1007, jParm.isMember("new_version") && !jParm["new_version"].isString())) return false;
    if (KOLV_FAIL_IF(1015, !jDiff.isObject())) return false;
    return kolv::version::CheckAccess(jParm);
}

} // namespace

BOOL KOLV_VESSA_OBJECT_VERSION::Diff(const Json::Value &jParm, Json::Value &jDiff) {
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return FALSE;
    return KOLV_NO_THROW(FALSE, [&]() -> BOOL {
        if (!CheckDiffParm(jParm, jDiff)) return FALSE;
        KOLV_VESSA_OBJECT tmpOldObj;
        Json::Value jGetParm = kolv::version::ReadParm(jParm);
        if (KOLV_APPEND_IF(!tmpOldObj.Get(jGetParm))) return FALSE;
        // The store adds to a copy, so a failure halfway leaves the
        // caller's value as it was.
        Json::Value jOut(jDiff);
        if (KOLV_APPEND_IF(!pBackendFs->VersionDiff(jParm, jOut))) return FALSE;
        jDiff.swap(jOut);
        return TRUE;
    });
}

BOOL KOLVVessaObjectVersionDiff(TRABSZHASH *pParmHash, Json::Value &jDiff) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return FALSE;
    return KOLV_NO_THROW(FALSE, [&]() -> BOOL {
        Json::Value jParm(Json::objectValue);
        if (!kolv::version::HashToVersionParm(pParmHash, {"new_version"}, {}, jParm)) return FALSE;
        const char *pParm = NULL;
        if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "old_version")))) return FALSE;
        jParm["old_version"] = pParm;
        if (KOLV_APPEND_UNLESS(KOLV_VESSA_OBJECT_VERSION::Diff(jParm, jDiff))) return FALSE;
        return TRUE;
    });
}
