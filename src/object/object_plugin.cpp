/*
 * Object plugins: the module table, loading a plugin through the platform
 * facility, and handing it the object before and after an operation.
 */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_plugin.h"

const KOLVVESSA_MODULE KOLVVESSA_moduleMap[] = {
    {"object", 1, 0},
    {NULL, -1, -1},
};

namespace {

// Numbers are written into a buffer of this size.
constexpr size_t kcbNumber = 32;

bool SetText(TRABPLUGIN *pPlugin, const std::string &strName, const std::string &strValue) {
    return 0 <= TRABPluginSetArg(pPlugin, strName.c_str(), strValue.c_str());
}

bool SetJson(TRABPLUGIN *pPlugin, const std::string &strName, const Json::Value &jValue) {
    return SetText(pPlugin, strName, kolv::JsonToString(jValue));
}

bool SetNumber(TRABPLUGIN *pPlugin, const std::string &strName, const char *szFmt, ...)
    __attribute__((format(printf, 3, 4)));
bool SetNumber(TRABPLUGIN *pPlugin, const std::string &strName, const char *szFmt, ...) {
    char szNumber[kcbNumber];
    va_list ap;
    va_start(ap, szFmt);
    vsnprintf(szNumber, sizeof(szNumber), szFmt, ap);
    va_end(ap);
    return SetText(pPlugin, strName, szNumber);
}

// The fifteen arguments of one object, each name prefixed; the first
// refusal of the facility stops it.
bool SetObject(TRABPLUGIN *pPlugin, const char *szPrefix, const KOLV_VESSA_OBJECT &object) {
    const std::string strP(szPrefix);
    return SetText(pPlugin, strP + "NameSpace", object.get_ns()) && SetText(pPlugin, strP + "ID", object.get_id()) &&
           SetText(pPlugin, strP + "Category", object.get_category()) &&
           SetText(pPlugin, strP + "Version", object.get_version()) &&
           SetJson(pPlugin, strP + "CommitMsg", object.get_commit_msg()) &&
           SetText(pPlugin, strP + "ParentID", object.get_parent_id()) &&
           SetNumber(pPlugin, strP + "Owner", "%lu", object.get_owner()) &&
           SetJson(pPlugin, strP + "MetaText", object.get_metatext()) &&
           SetJson(pPlugin, strP + "Text", object.get_text()) &&
           SetJson(pPlugin, strP + "MetaBinary_info", object.get_metabinary_info()) &&
           SetJson(pPlugin, strP + "Binary_info", object.get_binary_info()) &&
           SetJson(pPlugin, strP + "ACL", object.get_acl()) &&
           SetNumber(pPlugin, strP + "CreateTime", "%ld", object.get_ctime()) &&
           SetNumber(pPlugin, strP + "ModifyTime", "%ld", object.get_mtime()) &&
           SetJson(pPlugin, strP + "ExtraInfo", object.get_extra_info());
}

// The facility's own reason above a 1018 origin, so the caller sees why the
// loader refused.
void AppendPluginReason() {
    const char *szReason = TRABPluginErrorGet();
    if (szReason && *szReason) kolv::FailAppend(__FILE__, __LINE__, szReason);
}

} // namespace

int KOLVVessaPluginModuleVersion(const char *szModuleName, int *pMajor, int *pMinor) {
    if (KOLV_FAIL_IF(1015, NULL == szModuleName)) return -1;
    if (KOLV_FAIL_IF(1015, NULL == pMajor || NULL == pMinor)) return -1;
    int iRet = -1;
    for (const KOLVVESSA_MODULE *pRow = KOLVVESSA_moduleMap; pRow->szName; ++pRow) {
        if (0 != strcmp(pRow->szName, szModuleName)) continue;
        *pMajor = pRow->major;
        *pMinor = pRow->minor;
        iRet = 0;
        break;
    }
    if (KOLV_FAIL_IF(1015, -1 == iRet)) return -1;
    return 0;
}

int KOLVVessaPluginInit(const char *szModule, const char *szPath, TRABPLUGIN **ppPlugin) {
    if (KOLV_FAIL_IF(1015, NULL == ppPlugin)) return -1;
    *ppPlugin = NULL;
    TRABCSzList *pslSearchPath = NULL;
    if (KOLV_FAIL_IF(1014, NULL == (pslSearchPath = TRABCSzListAlloc(BUFSIZ)))) return -1;
    kolv::SzList searchPathGuard(pslSearchPath);
    int major = -1, minor = -1;
    if (KOLV_APPEND_IF(0 > KOLVVessaPluginModuleVersion(szModule, &major, &minor))) return -1;
    if (KOLV_FAIL_IF(1018, 0 > TRABPluginInit(szPath, pslSearchPath, major, minor, ppPlugin))) {
        AppendPluginReason();
        return -1;
    }
    // The facility checked the version; the module is ours to match.
    if (KOLV_FAIL_IF(1018, 0 != strcmp(szModule, TRABPluginGetModule(*ppPlugin)))) {
        TRABPluginExit(*ppPlugin);
        *ppPlugin = NULL;
        return -1;
    }
    return 0;
}

BOOL KOLVVessaObjectPlugin_init(KOLV_VESSA_OBJECT_ENV *pstEnvVar, const char *szPlugin, const KOLV_VESSA_OBJECT *pOrg,
                                const KOLV_VESSA_OBJECT *pNew) {
    if (KOLV_FAIL_IF(1015, NULL == pstEnvVar)) return FALSE;
    if (KOLV_FAIL_IF(1015, NULL == szPlugin)) return FALSE;
    if (KOLV_FAIL_IF(1015, NULL == pOrg && NULL == pNew)) return FALSE;
    pstEnvVar->pOrg = pOrg;
    pstEnvVar->pNew = pNew;
    pstEnvVar->pPlugin = NULL;
    pstEnvVar->result = 0;
    if (0 > KOLVVessaPluginInit("object", szPlugin, &pstEnvVar->pPlugin)) {
        char szName[512];
        syslog(LOG_ERR, "%s:%d Fail to init plugin [%s] [0x%04X %s:%d]",
               kolv::SourceName(__FILE__, szName, sizeof(szName)), __LINE__, "object", TRABCErrGet(),
               TRABCErrorGetFile(), TRABCErrorGetLine());
        return FALSE;
    }
    return TRUE;
}

BOOL KOLVVessaObjectPluginSetEnv(KOLV_VESSA_OBJECT_ENV *pstEnvVar) {
    if (KOLV_FAIL_IF(1015, NULL == pstEnvVar)) return FALSE;
    if (KOLV_FAIL_IF(1017, (NULL == pstEnvVar->pOrg && NULL == pstEnvVar->pNew))) return FALSE;
    return KOLV_NO_THROW(FALSE, [&]() -> BOOL {
        TRABPLUGIN *pPlugin = pstEnvVar->pPlugin;
        // Arguments left by an earlier refused run must not reach this one.
        TRABPluginClearArg(pPlugin);
        if (0 > TRABPluginSetArgByInt(pPlugin, "RESULT", pstEnvVar->result)) return FALSE;
        if (pstEnvVar->pOrg && !SetObject(pPlugin, "Org_", *pstEnvVar->pOrg)) return FALSE;
        if (pstEnvVar->pNew && !SetObject(pPlugin, "New_", *pstEnvVar->pNew)) return FALSE;
        return TRUE;
    });
}

BOOL KOLVVessaObjectPlugin(enum _tag_sdk_plugin_action_ action, KOLV_VESSA_OBJECT_ENV *pstEnvVar) {
    if (KOLV_FAIL_IF(1015, NULL == pstEnvVar)) return FALSE;
    if (KOLV_FAIL_IF(1017, !TRABPluginHasInit(pstEnvVar->pPlugin))) return FALSE;
    if (KOLV_APPEND_IF(!KOLVVessaObjectPluginSetEnv(pstEnvVar))) {
        TRABPluginClearArg(pstEnvVar->pPlugin);
        return FALSE;
    }
    if (KOLV_FAIL_IF(1019, 0 > TRABPluginAction(action, pstEnvVar->pPlugin))) return FALSE;
    return TRUE;
}

BOOL KOLVVessaObjectPlugin_exit(KOLV_VESSA_OBJECT_ENV *pstEnvVar) {
    if (KOLV_FAIL_IF(1015, NULL == pstEnvVar)) return FALSE;
    TRABPluginExit(pstEnvVar->pPlugin);
    pstEnvVar->pPlugin = NULL;
    return TRUE;
}
