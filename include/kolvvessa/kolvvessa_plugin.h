/*
 * kolvvessa_plugin.h - running an "object" plugin around an object
 * operation.
 *
 * A caller hands a plugin the object as it was and as it became:
 *
 *     KOLV_VESSA_OBJECT_ENV env;
 *     if (!KOLVVessaObjectPlugin_init(&env, "/path/plugin.so", pOld, pNew)) ...
 *     env.result = 0;                      // the operation's result
 *     KOLVVessaObjectPlugin(SDK_PLUGIN_ACTION_POST, &env);
 *     KOLVVessaObjectPlugin_exit(&env);
 *
 * The plugin (see kolvplatform/kolv_plugin.h for what it exports) must
 * serve module "object" at major version 1. Each action hands it, in this
 * order: "RESULT" (decimal), then, when pOrg is given, "Org_NameSpace",
 * "Org_ID", "Org_Category", "Org_Version", "Org_CommitMsg",
 * "Org_ParentID", "Org_Owner", "Org_MetaText", "Org_Text",
 * "Org_MetaBinary_info", "Org_Binary_info", "Org_ACL", "Org_CreateTime",
 * "Org_ModifyTime", "Org_ExtraInfo", then the same fifteen with "New_"
 * when pNew is given. Owner and the times are decimal; commit_msg,
 * metatext, text, the two info members, acl and extra_info are compact
 * JSON text; the others are the field as it stands.
 */
#ifndef KOLVVESSA_PLUGIN_H
#define KOLVVESSA_PLUGIN_H

#include <kolvplatform/kolv_platform.h>
#include <kolvplatform/kolv_plugin.h>

#include "kolvvessa_export.h"

class KOLV_VESSA_OBJECT;

/* A module the library runs plugins for, and the version it asks of them. */
typedef struct _tag_kolvvessa_module_ {
    const char *szName;
    int major;
    int minor;
} KOLVVESSA_MODULE;

/* {"object", 1, 0}, ended by {NULL, -1, -1}. */
KOLV_EXPORT extern const KOLVVESSA_MODULE KOLVVESSA_moduleMap[];

/* The caller's record of one plugin run; the caller owns it. */
typedef struct _tag_kolv_vessa_object_env_ {
    TRABPLUGIN *pPlugin;           /* set by KOLVVessaObjectPlugin_init */
    int result;                    /* handed over as "RESULT"; zeroed by init */
    const KOLV_VESSA_OBJECT *pOrg; /* the object before the operation, or NULL */
    const KOLV_VESSA_OBJECT *pNew; /* the object after it, or NULL */
} KOLV_VESSA_OBJECT_ENV;

/* The version of szModuleName in KOLVVESSA_moduleMap (exact name). 0, or -1
 * with 1015 (NULL argument, unknown module). */
KOLV_EXPORT int KOLVVessaPluginModuleVersion(const char *szModuleName, int *pMajor, int *pMinor);
/* Loads the plugin at szPath for module szModule at the module's version;
 * *ppPlugin then belongs to the caller (TRABPluginExit). 0, or -1 with
 * 1015 (NULL handle, unknown module), 1014 (memory), or 1018 (the plugin
 * could not be loaded, lacks an entry point, serves another module or an
 * incompatible version); for 1018 a record above the origin carries the
 * facility's reason, the loader's text where the loader failed. */
KOLV_EXPORT int KOLVVessaPluginInit(const char *szModule, const char *szPath, TRABPLUGIN **ppPlugin);
/* Fills pstEnvVar (pOrg, pNew, result 0) and loads the "object" plugin at
 * szPlugin. FALSE with 1015 (NULL record or path, both objects NULL: then
 * nothing is loaded) or what KOLVVessaPluginInit left. The objects must
 * outlive the runs. */
KOLV_EXPORT BOOL KOLVVessaObjectPlugin_init(KOLV_VESSA_OBJECT_ENV *pstEnvVar, const char *szPlugin,
                                            const KOLV_VESSA_OBJECT *pOrg, const KOLV_VESSA_OBJECT *pNew);
/* Sets the plugin's arguments from pstEnvVar (order above). FALSE with
 * 1015 (NULL record), 1017 (no object), or no code when the facility
 * refused an argument. */
KOLV_EXPORT BOOL KOLVVessaObjectPluginSetEnv(KOLV_VESSA_OBJECT_ENV *pstEnvVar);
/* Runs the plugin once for action with the record's arguments. FALSE with
 * 1015 (NULL record), 1017 (not initialised, or no object), or 1019 (the
 * plugin reported failure). */
KOLV_EXPORT BOOL KOLVVessaObjectPlugin(enum _tag_sdk_plugin_action_ action, KOLV_VESSA_OBJECT_ENV *pstEnvVar);
/* Unloads the plugin; the handle becomes NULL. FALSE with 1015 for a NULL
 * record. */
KOLV_EXPORT BOOL KOLVVessaObjectPlugin_exit(KOLV_VESSA_OBJECT_ENV *pstEnvVar);

#endif /* KOLVVESSA_PLUGIN_H */
