/*
 * Reading one version for a requester: the member Get, the list form and
 * the plain function over a string hash.
 */
#include <memory>

#include "common/kolvvessa_nothrow.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_version.h"
#include "object/object_request.h"
#include "version/version_internal.h"

namespace {

bool CheckGetParm(const Json::Value &jParm) {
    if (!kolv::CheckObjectMembers(jParm)) return false;
    return kolv::version::CheckAccess(jParm);
}

} // namespace

BOOL KOLV_VESSA_OBJECT_VERSION::Get(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return FALSE;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return FALSE;
    BOOL blOk = KOLV_NO_THROW(FALSE, [&]() -> BOOL {
        if (!CheckGetParm(jParm)) return FALSE;
        KOLV_VESSA_OBJECT tmpObj;
        Json::Value jGetParm = kolv::version::ReadParm(jParm);
        if (KOLV_APPEND_IF(!tmpObj.Get(jGetParm))) return FALSE;
        clear();
        if (KOLV_APPEND_IF(!pBackendFs->VersionGet(jParm, this))) return FALSE;
        return TRUE;
    });
    if (!blOk) clear();
    return blOk;
}

BOOL KOLV_VESSA_OBJECT_VERSION_LIST::GetVersion(const Json::Value &jParm) {
    KOLV_VESSA_OBJECT_VERSION *pVer = NULL;
    if (KOLV_APPEND_IF(NULL == (pVer = KOLVVessaObjectVersionAlloc()))) return FALSE;
    if (KOLV_APPEND_IF(!pVer->Get(jParm))) {
        KOLVVessaObjectVersionFreeList(pVer);
        return FALSE;
    }
    clear();
    m_head = pVer;
    return TRUE;
}

BOOL KOLVVessaObjectVersionGet(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT_VERSION *pVer) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return FALSE;
    if (KOLV_FAIL_IF(1015, NULL == pVer)) return FALSE;
    return KOLV_NO_THROW(FALSE, [&]() -> BOOL {
        Json::Value jParm(Json::objectValue);
        if (!kolv::version::HashToVersionParm(pParmHash, {"ver"}, {}, jParm)) return FALSE;
        if (KOLV_APPEND_UNLESS(pVer->Get(jParm))) return FALSE;
        return TRUE;
    });
}
