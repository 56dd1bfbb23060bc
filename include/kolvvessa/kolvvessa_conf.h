/*
 * kolvvessa_conf.h - the settings file: access per namespace, sharing per
 * owner. The file is read whole on every call.
 */
#ifndef KOLVVESSA_CONF_H
#define KOLVVESSA_CONF_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include "kolvvessa_export.h"

/* Where the settings file lives (relocated under KOLV_SYSROOT). */
#define SZF_KOLVVESSA_CONF_PATH_RAW "/usr/kolv/etc/kolvvessa.conf"

/* Master switch (szNameSpace NULL) or only the namespace's switch, from a
 * parsed document. Codes 1026, 1027, 1012. */
KOLV_EXPORT BOOL KOLVVessaSettingsAccessGetEx(const Json::Value &jConf, const char *szNameSpace);
/* The same, reading the file first (1027 when absent, 1026 corrupt). */
KOLV_EXPORT BOOL KOLVVessaSettingsAccessGet(const char *szNameSpace);
/* Master switch, then the namespace's switch when one is given. */
KOLV_EXPORT BOOL KOLVVessaAccessCheck(const char *szNameSpace);
/* Sets the master (NULL) or namespace switch to enable == 1. 0, or -1 with
 * 1029. */
KOLV_EXPORT int KOLVVessaSettingsAccessSet(const char *szNameSpace, int enable);
/* Whether owner shares: its "disable" (NULL) or only its namespace key.
 * Codes 1015, 1026, 1020. */
KOLV_EXPORT BOOL KOLVVessaSettingsSharingGetEx(const Json::Value &jConf, const char *szNameSpace, uid_t owner);
/* The same, reading the file first; lenient: a missing or corrupt file
 * passes. */
KOLV_EXPORT BOOL KOLVVessaSettingsSharingGet(const char *szNameSpace, uid_t owner);
/* The owner's global entry, then the namespace entry. A missing file
 * passes; a corrupt one fails with 1026. */
KOLV_EXPORT BOOL KOLVVessaSharingCheck(const char *szNameSpace, uid_t owner);
/* Shares (enable == 1) or withdraws (any other value) owner's objects,
 * globally (NULL) or in a namespace. 0, or -1 with 1029. */
KOLV_EXPORT int KOLVVessaSettingsSharingSet(const char *szNameSpace, uid_t owner, int enable);
/* Appends to *ppList (allocated by the caller) the decimal uids of owners
 * who withdrew sharing globally or in szNameSpace. 0, or -1 with 1015 or
 * 1026. */
KOLV_EXPORT int KOLVVessaSettingsNoSharingUserList(const char *szNameSpace, TRABCSzList **ppList);
/* The interface version of the library: 2. */
KOLV_EXPORT int KOLVVessaVersionGet(void);

#endif /* KOLVVESSA_CONF_H */
