/*
 * The plugin facility: a plugin module is loaded with dlopen, checked
 * through its KOLVPluginInfo and run through its KOLVPluginMain with the
 * arguments collected since the last action.
 */
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "kolvplatform/kolv_plugin.h"

struct _tag_trab_plugin_ {
    void *pHandle = nullptr;
    const KOLV_PLUGIN_INFO *pInfo = nullptr;
    KOLV_PLUGIN_MAIN_FN pfnMain = nullptr;
    std::vector<std::pair<std::string, std::string>> args;
};

namespace {

thread_local char tszReason[1024];

// Records the failure on the platform error and keeps its reason for
// TRABPluginErrorGet. Returns -1 for the callers' convenience.
int Fail(int code, int line, const char *szFmt, ...) __attribute__((format(printf, 3, 4)));
int Fail(int code, int line, const char *szFmt, ...) {
    va_list ap;
    va_start(ap, szFmt);
    vsnprintf(tszReason, sizeof(tszReason), szFmt, ap);
    va_end(ap);
    TRABCErrSetEx(code, "platform/plugin", line);
    return -1;
}

const char *LoaderError() {
    const char *szErr = dlerror();
    return szErr ? szErr : "unknown loader error";
}

// A bare file name is looked for in the search directories first; a path
// with a "/" is taken as it stands.
std::string Resolve(const char *szPath, const TRABCSzList *pslSearchPath) {
    if (strchr(szPath, '/')) return szPath;
    for (int i = 0; i < TRABCSzListCount(pslSearchPath); ++i) {
        const char *szDir = TRABCSzListGet(pslSearchPath, i);
        if (!szDir || !*szDir) continue;
        std::string strCandidate = std::string(szDir) + "/" + szPath;
        struct stat st;
        if (0 == stat(strCandidate.c_str(), &st) && S_ISREG(st.st_mode)) return strCandidate;
    }
    return szPath;
}

// The entry points and the version rule; the handle is loaded.
int Bind(TRABPLUGIN *pPlugin, const std::string &strPath, int major, int minor) {
    dlerror();
    auto pfnInfo = reinterpret_cast<KOLV_PLUGIN_INFO_FN>(dlsym(pPlugin->pHandle, KOLV_PLUGIN_INFO_SYMBOL));
    if (!pfnInfo) return Fail(ERR_PLUGIN_ENTRY, __LINE__, "%s", LoaderError());
    pPlugin->pfnMain = reinterpret_cast<KOLV_PLUGIN_MAIN_FN>(dlsym(pPlugin->pHandle, KOLV_PLUGIN_MAIN_SYMBOL));
    if (!pPlugin->pfnMain) return Fail(ERR_PLUGIN_ENTRY, __LINE__, "%s", LoaderError());
    pPlugin->pInfo = pfnInfo();
    if (!pPlugin->pInfo || !pPlugin->pInfo->szModule)
        return Fail(ERR_PLUGIN_VERSION, __LINE__, "%s: %s names no module", strPath.c_str(), KOLV_PLUGIN_INFO_SYMBOL);
    if (pPlugin->pInfo->major != major || pPlugin->pInfo->minor < minor)
        return Fail(ERR_PLUGIN_VERSION, __LINE__, "%s: module \"%s\" version %d.%d, %d.%d or a later minor needed",
                    strPath.c_str(), pPlugin->pInfo->szModule, pPlugin->pInfo->major, pPlugin->pInfo->minor, major,
                    minor);
    return 0;
}

} // namespace

extern "C" {

int TRABPluginInit(const char *szPath, const TRABCSzList *pslSearchPath, int major, int minor, TRABPLUGIN **ppPlugin) {
    tszReason[0] = '\0';
    if (!ppPlugin) return Fail(ERR_PLUGIN_ARG, __LINE__, "no handle to fill");
    *ppPlugin = nullptr;
    if (!szPath || !*szPath) return Fail(ERR_PLUGIN_ARG, __LINE__, "no plugin path");
    TRABPLUGIN *pPlugin = new (std::nothrow) TRABPLUGIN;
    if (!pPlugin) return Fail(ERR_PLUGIN_NOMEM, __LINE__, "out of memory");
    std::string strPath = Resolve(szPath, pslSearchPath);
    dlerror();
    pPlugin->pHandle = dlopen(strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!pPlugin->pHandle) {
        Fail(ERR_PLUGIN_LOAD, __LINE__, "%s", LoaderError());
        delete pPlugin;
        return -1;
    }
    if (0 > Bind(pPlugin, strPath, major, minor)) {
        dlclose(pPlugin->pHandle);
        delete pPlugin;
        return -1;
    }
    *ppPlugin = pPlugin;
    return 0;
}

BOOL TRABPluginHasInit(const TRABPLUGIN *pPlugin) {
    return pPlugin && pPlugin->pHandle && pPlugin->pfnMain ? TRUE : FALSE;
}

const char *TRABPluginGetModule(const TRABPLUGIN *pPlugin) {
    return pPlugin && pPlugin->pInfo ? pPlugin->pInfo->szModule : nullptr;
}

int TRABPluginSetArg(TRABPLUGIN *pPlugin, const char *szName, const char *szValue) {
    if (!pPlugin || !szName || !szValue) return Fail(ERR_PLUGIN_ARG, __LINE__, "NULL plugin, name or value");
    try {
        pPlugin->args.emplace_back(szName, szValue);
    } catch (...) {
        return Fail(ERR_PLUGIN_NOMEM, __LINE__, "out of memory for argument %s", szName);
    }
    return 0;
}

int TRABPluginSetArgByInt(TRABPLUGIN *pPlugin, const char *szName, int value) {
    char szValue[32];
    snprintf(szValue, sizeof(szValue), "%d", value);
    return TRABPluginSetArg(pPlugin, szName, szValue);
}

void TRABPluginClearArg(TRABPLUGIN *pPlugin) {
    if (pPlugin) pPlugin->args.clear();
}

int TRABPluginAction(int action, TRABPLUGIN *pPlugin) {
    tszReason[0] = '\0';
    if (!TRABPluginHasInit(pPlugin)) return Fail(ERR_PLUGIN_ARG, __LINE__, "plugin not loaded");
    // The plugin sees views of the stored texts; they live until the
    // arguments are dropped below, after the call.
    std::vector<KOLV_PLUGIN_ARG> rgArgs;
    try {
        rgArgs.reserve(pPlugin->args.size());
        for (const auto &arg : pPlugin->args)
            rgArgs.push_back({arg.first.c_str(), arg.second.c_str()});
    } catch (...) {
        pPlugin->args.clear();
        return Fail(ERR_PLUGIN_NOMEM, __LINE__, "out of memory for the arguments");
    }
    int ret = pPlugin->pfnMain(action, rgArgs.data(), rgArgs.size());
    pPlugin->args.clear();
    if (ret < 0) Fail(ERR_PLUGIN_ACTION, __LINE__, "%s(%d) returned %d", KOLV_PLUGIN_MAIN_SYMBOL, action, ret);
    return ret;
}

int TRABPluginExit(TRABPLUGIN *pPlugin) {
    if (!pPlugin) return 0;
    if (pPlugin->pHandle) dlclose(pPlugin->pHandle);
    delete pPlugin;
    return 0;
}

const char *TRABPluginErrorGet(void) {
    return tszReason;
}

} // extern "C"
