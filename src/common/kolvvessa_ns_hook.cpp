/*
 * Per-namespace hook libraries: a descriptor names the library, whose
 * GetTable() and GetBatchTable() give the pre and post hooks of each
 * operation.
 */
#include <dlfcn.h>
#include <limits.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_path_internal.h"
#include "kolvvessa/kolvvessa_ns_hook.h"

namespace {

constexpr const char *kDescriptorDir = "/usr/local/libexec/kolvvessa/";

// The descriptor of a namespace: the directory, "/", the name, ".lib"
// (the doubled slash is kept as built). "" when it cannot be relocated.
std::string DescriptorPath(const std::string &strNs) {
    char szBuf[PATH_MAX];
    const char *szDir = KOLVSysPath(kDescriptorDir, szBuf, sizeof(szBuf));
    if (NULL == szDir) return "";
    return std::string(szDir) + "/" + strNs + ".lib";
}

// The library the descriptor names; "" when the descriptor is missing,
// unreadable, not JSON or names none.
std::string HookLibraryPath(const std::string &strNs) {
    std::string strDescriptor = DescriptorPath(strNs);
    kolv::KolvJson jDescriptor;
    if (strDescriptor.empty() || 0 != access(strDescriptor.c_str(), R_OK)) return "";
    if (!jDescriptor.fromFile(strDescriptor) || !jDescriptor.isObject()) return "";
    const Json::Value &jLib = jDescriptor["lib"];
    return jLib.isString() ? jLib.asString() : "";
}

// The first row named szOperation; the outputs stay untouched when there
// is none.
BOOL FindRow(const KOLVVESSA_NS_HOOK_ROW *pTable, const char *szOperation, KOLVVESSA_NS_HOOK *pPre,
             KOLVVESSA_NS_HOOK *pPost) {
    if (NULL == szOperation) return FALSE;
    for (const KOLVVESSA_NS_HOOK_ROW *pRow = pTable; NULL != pRow->szOperation; ++pRow) {
        if (0 != strcmp(pRow->szOperation, szOperation)) continue;
        if (pPre) *pPre = pRow->pfnPre;
        if (pPost) *pPost = pRow->pfnPost;
        return TRUE;
    }
    return FALSE;
}

// Looks the table function up. dlerror() is cleared first so that the text
// read after dlsym belongs to this lookup.
KOLVVESSA_NS_GET_TABLE LoadTable(void *dlHandle, const char *szSymbol, const char **pszError) {
    dlerror();
    void *pSym = dlsym(dlHandle, szSymbol);
    *pszError = dlerror();
    return reinterpret_cast<KOLVVESSA_NS_GET_TABLE>(pSym);
}

} // namespace

void *KOLVVessaNsHookHandler(const std::string &strNs) {
    // A name that is not one path component would lead the descriptor
    // lookup elsewhere: such a namespace simply has no hooks.
    if (!kolv::IsSafePathName(strNs)) return NULL;
    std::string strLib = HookLibraryPath(strNs);
    if (strLib.empty()) return NULL;

    void *dlHandle = dlopen(strLib.c_str(), RTLD_LAZY);
    if (NULL == dlHandle) {
        const char *szErr = dlerror();
        syslog(LOG_ERR, "%s:%d cannot open library: %s. error = %s", __FILE__, __LINE__, strLib.c_str(),
               szErr ? szErr : "");
        return NULL;
    }
    return dlHandle;
}

BOOL KOLVVessaNsHookGet(void *dlHandle, const char *szOperation, KOLVVESSA_NS_HOOK *pPre, KOLVVESSA_NS_HOOK *pPost) {
    if (KOLV_FAIL_IF(1015, NULL == dlHandle)) return FALSE;
    const char *szError = NULL;
    KOLVVESSA_NS_GET_TABLE pfnGetTable = LoadTable(dlHandle, "GetTable", &szError);
    if (NULL != szError || NULL == pfnGetTable) {
        KOLV_FAIL_FMT(1013, "cannot load symbol: %s", szError ? szError : "GetTable");
        return FALSE;
    }
    const KOLVVESSA_NS_HOOK_ROW *pHookTable = pfnGetTable();
    if (KOLV_FAIL_IF(1013, NULL == pHookTable)) return FALSE;
    return FindRow(pHookTable, szOperation, pPre, pPost);
}

BOOL KOLVVessaNsBatchHookGet(void *dlHandle, const char *szOperation, KOLVVESSA_NS_HOOK *pPre,
                             KOLVVESSA_NS_HOOK *pPost) {
    if (KOLV_FAIL_IF(1015, NULL == dlHandle)) return FALSE;
    const char *szError = NULL;
    KOLVVESSA_NS_GET_TABLE pfnGetTable = LoadTable(dlHandle, "GetBatchTable", &szError);
    if (NULL != szError || NULL == pfnGetTable) {
        KOLV_FAIL_FMT(1013, "cannot load batch table: %s", szError ? szError : "GetBatchTable");
        return FALSE;
    }
    const KOLVVESSA_NS_HOOK_ROW *pTable = pfnGetTable();
    if (KOLV_FAIL_IF(1013, NULL == pTable)) return FALSE;
    return FindRow(pTable, szOperation, pPre, pPost);
}
