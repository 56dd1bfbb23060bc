/*
 * kolvvessa_ns_hook.h - per-namespace hook libraries.
 *
 * A namespace's descriptor (libexec/kolvvessa/<ns>.lib, JSON {"lib":
 * path}) names a shared library exporting GetTable() and, optionally,
 * GetBatchTable(). Each returns an array of rows {operation, pre-hook,
 * post-hook} ended by a row whose name is NULL. Single operations are
 * "create", "set", "delete", "field_rename"; batch ones "set", "delete".
 */
#ifndef KOLVVESSA_NS_HOOK_H
#define KOLVVESSA_NS_HOOK_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include "kolvvessa_export.h"

class KOLV_VESSA_OBJECT;

/* A hook: the request and the object before (pre) or after (post) the
 * change. The return value is not used. */
typedef int (*KOLVVESSA_NS_HOOK)(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pObject);

typedef struct _tag_kolvvessa_ns_hook_row_ {
    const char *szOperation;
    KOLVVESSA_NS_HOOK pfnPre;
    KOLVVESSA_NS_HOOK pfnPost;
} KOLVVESSA_NS_HOOK_ROW;

/* What a hook library exports (with C linkage). */
typedef const KOLVVESSA_NS_HOOK_ROW *(*KOLVVESSA_NS_GET_TABLE)(void);

/* Opens the namespace's hook library (dlopen; close with dlclose). NULL
 * when there is none or it cannot be loaded (logged only). */
KOLV_EXPORT void *KOLVVessaNsHookHandler(const std::string &strNs);
/* The hooks of szOperation from GetTable(). FALSE with 1015 (NULL handle),
 * 1013 (no table), or no error when the table lacks the operation (outputs
 * untouched). */
KOLV_EXPORT BOOL KOLVVessaNsHookGet(void *dlHandle, const char *szOperation, KOLVVESSA_NS_HOOK *pPre,
                                    KOLVVESSA_NS_HOOK *pPost);
/* The same from GetBatchTable(). */
KOLV_EXPORT BOOL KOLVVessaNsBatchHookGet(void *dlHandle, const char *szOperation, KOLVVESSA_NS_HOOK *pPre,
                                         KOLVVESSA_NS_HOOK *pPost);

#endif /* KOLVVESSA_NS_HOOK_H */
