/*
 * kolv_plugin.h - the platform plugin facility: loading a plugin module,
 * handing it named text arguments and running it with an action code.
 *
 * What a plugin is
 * ----------------
 * A shared object (built with -fPIC -shared) that exports, with C linkage,
 * exactly these two functions:
 *
 *     const KOLV_PLUGIN_INFO *KOLVPluginInfo(void);
 *         The module the plugin serves and the version of that module's
 *         interface it implements. Called once, when the plugin is loaded;
 *         the record must stay valid while the plugin is loaded.
 *
 *     int KOLVPluginMain(int action, const KOLV_PLUGIN_ARG *args, size_t count);
 *         Called once per TRABPluginAction with the action code (enum
 *         _tag_sdk_plugin_action_) and the arguments set since the last
 *         action, in the order they were set (a name set twice appears
 *         twice). Names and values are NUL-terminated texts that belong to
 *         the facility and are valid only during the call: copy what must
 *         outlive it. A negative result reports failure; 0 or more is
 *         success.
 *
 * The plugin is opened with dlopen(RTLD_NOW | RTLD_LOCAL): every symbol it
 * needs must resolve at load time, and its own symbols stay private to it.
 * The plugin runs in the caller's process with the caller's rights.
 *
 * Versions: a plugin is accepted for a module at version (major, minor)
 * when its KOLVPluginInfo names a module, has the same major and a minor
 * at least the requested one (a newer minor only adds to an interface).
 *
 * Failures set the platform error (TRABCErrSetEx, codes ERR_PLUGIN_*
 * below) and keep the reason as a text, the loader's own (dlerror) where
 * the loader failed, for TRABPluginErrorGet.
 *
 * Threads: a handle is not safe for concurrent use; use one handle per
 * thread or serialise the calls. Different handles are independent.
 */
#ifndef KOLV_PLUGIN_H
#define KOLV_PLUGIN_H

#include <stddef.h>

#include "kolv_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Platform error codes of the facility. */
#define ERR_PLUGIN_ARG 0x0E00     /* a NULL or otherwise impossible argument */
#define ERR_PLUGIN_LOAD 0x0E01    /* the loader could not open the module */
#define ERR_PLUGIN_ENTRY 0x0E02   /* an entry point is missing */
#define ERR_PLUGIN_VERSION 0x0E03 /* the module or version does not fit */
#define ERR_PLUGIN_NOMEM 0x0E04   /* out of memory */
#define ERR_PLUGIN_ACTION 0x0E05  /* KOLVPluginMain returned a negative value */

/* The names of the two entry points. */
#define KOLV_PLUGIN_INFO_SYMBOL "KOLVPluginInfo"
#define KOLV_PLUGIN_MAIN_SYMBOL "KOLVPluginMain"

/* What KOLVPluginInfo returns. */
typedef struct _tag_kolv_plugin_info_ {
    const char *szModule; /* module served, e.g. "object" */
    int major;            /* interface version implemented */
    int minor;
} KOLV_PLUGIN_INFO;

/* One argument handed to KOLVPluginMain. */
typedef struct _tag_kolv_plugin_arg_ {
    const char *szName;
    const char *szValue;
} KOLV_PLUGIN_ARG;

/* The action a plugin is run for. */
enum _tag_sdk_plugin_action_ {
    SDK_PLUGIN_ACTION_PRE = 1,   /* before the operation; arguments describe what is to be done */
    SDK_PLUGIN_ACTION_POST = 2,  /* after the operation succeeded */
    SDK_PLUGIN_ACTION_ABORT = 3, /* after the operation failed; the arguments say how far it came */
};
typedef enum _tag_sdk_plugin_action_ SDK_PLUGIN_ACTION;

typedef const KOLV_PLUGIN_INFO *(*KOLV_PLUGIN_INFO_FN)(void);
typedef int (*KOLV_PLUGIN_MAIN_FN)(int action, const KOLV_PLUGIN_ARG *args, size_t count);

/* A loaded plugin. */
typedef struct _tag_trab_plugin_ TRABPLUGIN;

/* Loads the plugin at szPath and checks its module version.
 * A path containing "/" is opened as it stands; a bare file name is looked
 * for in each directory of pslSearchPath in turn (NULL or empty: the name
 * goes to the loader's own search). Then KOLVPluginInfo and KOLVPluginMain
 * must be exported, and the info must name a module and have the given
 * major and a minor >= minor. On success *ppPlugin owns the plugin (free
 * with TRABPluginExit) and 0 is returned; on failure *ppPlugin is NULL,
 * nothing stays loaded and the result is negative. */
KOLV_PLATFORM_API int TRABPluginInit(const char *szPath, const TRABCSzList *pslSearchPath, int major, int minor,
                                     TRABPLUGIN **ppPlugin);
/* TRUE when pPlugin is a loaded plugin. */
KOLV_PLATFORM_API BOOL TRABPluginHasInit(const TRABPLUGIN *pPlugin);
/* The module its KOLVPluginInfo names; NULL for a NULL handle. */
KOLV_PLATFORM_API const char *TRABPluginGetModule(const TRABPLUGIN *pPlugin);
/* Appends a copy of the argument szName = szValue for the next action.
 * 0, negative on failure (NULL arguments, memory). */
KOLV_PLATFORM_API int TRABPluginSetArg(TRABPLUGIN *pPlugin, const char *szName, const char *szValue);
/* The same with the value written in decimal. */
KOLV_PLATFORM_API int TRABPluginSetArgByInt(TRABPLUGIN *pPlugin, const char *szName, int value);
/* Drops the arguments set so far. NULL is allowed. */
KOLV_PLATFORM_API void TRABPluginClearArg(TRABPLUGIN *pPlugin);
/* Calls KOLVPluginMain(action, arguments set so far, count), then drops the
 * arguments whatever the result. Returns the plugin's result: negative is
 * a failure (ERR_PLUGIN_ACTION), as is a handle that is not loaded. */
KOLV_PLATFORM_API int TRABPluginAction(int action, TRABPLUGIN *pPlugin);
/* Unloads the plugin and frees the handle. NULL is allowed. Returns 0. */
KOLV_PLATFORM_API int TRABPluginExit(TRABPLUGIN *pPlugin);
/* The reason of the calling thread's last failure of this facility, ""
 * when none. Valid until the thread's next call of the facility. */
KOLV_PLATFORM_API const char *TRABPluginErrorGet(void);

#ifdef __cplusplus
}
#endif

#endif /* KOLV_PLUGIN_H */
