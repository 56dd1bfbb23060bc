/*
 * kolvvessa_check.h - checking the repository and the index, and mending
 * what can be mended without losing data.
 */
#ifndef KOLVVESSA_CHECK_H
#define KOLVVESSA_CHECK_H

#include <json/json.h>

#include "kolvvessa_export.h"

/* Told after each object checked: how many are done of how many (the
 * count of the namespaces listed so far), and the caller's argument. */
typedef void (*KOLVVessaCheckProgressFn)(unsigned int done, unsigned int total, void *pArg);

/* Walks the repository (every namespace, jParm["ns"] only, or the one
 * object jParm["id"] of it) and the index, and reports in jReport:
 *
 *   {"findings": [{"kind", "ns", "id", "path", "seen", "repair", "repaired"}],
 *    "checked": objects, "by_kind": {kind: count}, "repaired": n,
 *    "remaining": findings not repaired, "seconds": time taken}
 *
 * Kinds: "row_missing", "row_orphan", "row_differs", "skipped_by_reindex",
 * "repo_broken", "git_info_mismatch", "json_unparsable",
 * "json_missing_keys", "leftover", "unexpected_entry". "repair" says what a
 * repair does (or did), or why the finding cannot be mended.
 *
 * jParm: "ns", "id" (strings, optional), "repair" (bool: re-index drifted
 * objects, delete rows without an object, remove leftovers older than
 * "safe_age" seconds, default 3600), "blobs" (bool, default true: every
 * blob reachable from a branch is read back; false checks commits and
 * trees only). A repair never deletes or rewrites an object's content,
 * history or meta files, and never follows a link.
 *
 * jReport is the caller's; it is filled also when findings remain. False
 * when the check cannot run: 1007 for a bad parameter, 1000 when the index
 * cannot be read, with the reason on the error stack. */
KOLV_EXPORT bool KOLVVessaCheck(const Json::Value &jParm, Json::Value &jReport);
/* The same, calling pfnProgress (when not NULL) after each object. */
KOLV_EXPORT bool KOLVVessaCheckEx(const Json::Value &jParm, Json::Value &jReport, KOLVVessaCheckProgressFn pfnProgress,
                                  void *pArg);

/* The library's version, "MAJOR.MINOR.PATCH"; a static text. */
KOLV_EXPORT const char *KOLVVessaVersion(void);

#endif /* KOLVVESSA_CHECK_H */
