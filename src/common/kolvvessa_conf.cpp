/*
 * The settings file: the store's master switch, one switch per namespace,
 * and per-owner withdrawal of sharing. Access is opt-in (a missing key
 * means disabled), sharing is opt-out (a missing key means allowed). The
 * file is read whole on every call; nothing is cached.
 */
#include <limits.h>
#include <stdio.h>

#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_conf.h"

using kolv::KolvJson;

namespace {

// Keys are built in a buffer of this size; longer namespace names are cut.
constexpr size_t kKeyMax = 4096;

// The settings path relocated under the platform's sysroot ("" when it
// does not fit, which reads as a missing file).
std::string ConfPath() {
    char szBuf[PATH_MAX];
    const char *szPath = KOLVSysPath(SZF_KOLVVESSA_CONF_PATH_RAW, szBuf, sizeof(szBuf));
    return szPath ? std::string(szPath) : std::string();
}

} // namespace

// A call, so that every use reads the relocated path and the failure texts
// still name the constant.
#define SZF_KOLVVESSA_CONF_PATH ConfPath().c_str()

namespace {

std::string NsKey(const char *szFmt, const char *szNameSpace) {
    char szKey[kKeyMax];
    snprintf(szKey, sizeof(szKey), szFmt, szNameSpace);
    return szKey;
}

// Reads the settings file for the strict readers: 1027 when it is absent,
// 1026 when it does not parse.
bool ReadConfStrict(KolvJson &jConf) {
    if (KOLV_FAIL_IF(1027, FALSE == TRABCFileExist(SZF_KOLVVESSA_CONF_PATH))) return false;
    if (KOLV_FAIL_IF(1026, !jConf.fromFile(SZF_KOLVVESSA_CONF_PATH))) return false;
    return true;
}

BOOL AccessNamespaceGet(const Json::Value &jConf, const char *szNameSpace) {
    std::string strKey = NsKey("enable_ns_%s", szNameSpace);
    const char *szNSKey = strKey.c_str();
    if (KOLV_FAIL_IF(1012, !jConf["Access"].isMember(szNSKey))) return FALSE;
    if (KOLV_FAIL_IF(1026, !jConf["Access"][szNSKey].isBool())) return FALSE;
    if (KOLV_FAIL_IF(1012, !jConf["Access"][szNSKey].asBool())) return FALSE;
    return TRUE;
}

BOOL AccessMasterGet(const Json::Value &jConf) {
    if (KOLV_FAIL_IF(1027, !jConf["Access"].isMember("enable"))) return FALSE;
    if (KOLV_FAIL_IF(1026, !jConf["Access"]["enable"].isBool())) return FALSE;
    if (KOLV_FAIL_IF(1027, !jConf["Access"]["enable"].asBool())) return FALSE;
    return TRUE;
}

// One owner's entry: true when szKey is missing or false; 1020 when it is
// true, 1026 when it is not a bool.
BOOL SharingKeyGet(const Json::Value &jConf, const char *szUid, const char *szNSKey) {
    if (!jConf["Sharing"][szUid].isMember(szNSKey)) return TRUE;
    if (KOLV_FAIL_IF(1026, !jConf["Sharing"][szUid][szNSKey].isBool())) return FALSE;
    if (KOLV_FAIL_IF(1020, jConf["Sharing"][szUid][szNSKey].asBool())) return FALSE;
    return TRUE;
}

BOOL SharingGlobalGet(const Json::Value &jConf, const char *szUid) {
    if (!jConf["Sharing"][szUid].isMember("disable")) return TRUE;
    if (KOLV_FAIL_IF(1026, !jConf["Sharing"][szUid]["disable"].isBool())) return FALSE;
    if (KOLV_FAIL_IF(1020, jConf["Sharing"][szUid]["disable"].asBool())) return FALSE;
    return TRUE;
}

// The setters start from whatever the file holds: a missing file is an
// empty document, and a corrupt one is written back from what was read.
KolvJson ReadConfForUpdate() {
    KolvJson jConf;
    if (TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)) jConf.fromFile(SZF_KOLVVESSA_CONF_PATH);
    if (!jConf.isObject()) jConf = Json::Value(Json::objectValue);
    return jConf;
}

int WriteConf(const KolvJson &jConf) {
    if (KOLV_FAIL_IF(1029, !jConf.toFile(SZF_KOLVVESSA_CONF_PATH))) return -1;
    return 0;
}

// Makes jParent[szKey] an object, replacing a value of another type.
Json::Value &ObjectMember(Json::Value &jParent, const char *szKey) {
    Json::Value &j = jParent[szKey];
    if (!j.isObject()) j = Json::Value(Json::objectValue);
    return j;
}

// The list reads the flags loosely, as bools without a type check; a value
// that has no truth (a text, an array) counts as false instead of throwing.
bool LooseTrue(const Json::Value &j) {
    return (j.isBool() || j.isNumeric()) && j.asBool();
}

bool WithdrawsSharing(const Json::Value &jOwner, const std::string &strNSKey) {
    if (!jOwner.isObject()) return false;
    return LooseTrue(jOwner["disable"]) || LooseTrue(jOwner[strNSKey]);
}

} // namespace

BOOL KOLVVessaSettingsAccessGetEx(const Json::Value &jConf, const char *szNameSpace) {
    if (KOLV_FAIL_IF(1026, !jConf.isObject())) return FALSE;
    if (KOLV_FAIL_IF(1027, !jConf.isMember("Access"))) return FALSE;
    if (KOLV_FAIL_IF(1026, !jConf["Access"].isObject())) return FALSE;
    return szNameSpace ? AccessNamespaceGet(jConf, szNameSpace) : AccessMasterGet(jConf);
}

BOOL KOLVVessaSettingsAccessGet(const char *szNameSpace) {
    KolvJson jConf;
    if (!ReadConfStrict(jConf)) return FALSE;
    return KOLVVessaSettingsAccessGetEx(jConf, szNameSpace);
}

BOOL KOLVVessaAccessCheck(const char *szNameSpace) {
    KolvJson jConf;
    if (!ReadConfStrict(jConf)) return FALSE;
    if (KOLV_APPEND_IF(FALSE == KOLVVessaSettingsAccessGetEx(jConf, NULL))) return FALSE;
    if (szNameSpace && KOLV_APPEND_IF(FALSE == KOLVVessaSettingsAccessGetEx(jConf, szNameSpace))) return FALSE;
    return TRUE;
}

int KOLVVessaSettingsAccessSet(const char *szNameSpace, int enable) {
    KolvJson jConf = ReadConfForUpdate();
    Json::Value &jAccess = ObjectMember(jConf, "Access");
    std::string strKey = szNameSpace ? NsKey("enable_ns_%s", szNameSpace) : std::string("enable");
    jAccess[strKey] = (enable == 1);
    return WriteConf(jConf);
}

BOOL KOLVVessaSettingsSharingGetEx(const Json::Value &jConf, const char *szNameSpace, uid_t owner) {
    if (KOLV_FAIL_IF(1015, UID_ERR == owner)) return FALSE;
    if (KOLV_FAIL_IF(1026, !jConf.isObject())) return FALSE;
    if (!jConf.isMember("Sharing")) return TRUE;
    if (KOLV_FAIL_IF(1026, !jConf["Sharing"].isObject())) return FALSE;

    char szUid[64];
    snprintf(szUid, sizeof(szUid), "%u", (unsigned)owner);
    if (!jConf["Sharing"].isMember(szUid)) return TRUE;
    if (KOLV_FAIL_IF(1026, !jConf["Sharing"][szUid].isObject())) return FALSE;

    // The namespace form looks at the namespace key only, never "disable".
    if (!szNameSpace) return SharingGlobalGet(jConf, szUid);
    std::string strKey = NsKey("disable_ns_%s", szNameSpace);
    return SharingKeyGet(jConf, szUid, strKey.c_str());
}

BOOL KOLVVessaSettingsSharingGet(const char *szNameSpace, uid_t owner) {
    // Deliberately lenient: a missing or unreadable file withdraws nothing.
    KolvJson jConf;
    if (!TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)) return TRUE;
    if (!jConf.fromFile(SZF_KOLVVESSA_CONF_PATH)) return TRUE;
    return KOLVVessaSettingsSharingGetEx(jConf, szNameSpace, owner);
}

BOOL KOLVVessaSharingCheck(const char *szNameSpace, uid_t owner) {
    KolvJson jConf;
    if (!TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)) return TRUE;
    if (KOLV_FAIL_IF(1026, !jConf.fromFile(SZF_KOLVVESSA_CONF_PATH))) return FALSE;
    if (KOLV_APPEND_IF(FALSE == KOLVVessaSettingsSharingGetEx(jConf, NULL, owner))) return FALSE;
    if (szNameSpace && KOLV_APPEND_IF(FALSE == KOLVVessaSettingsSharingGetEx(jConf, szNameSpace, owner))) return FALSE;
    return TRUE;
}

int KOLVVessaSettingsSharingSet(const char *szNameSpace, uid_t owner, int enable) {
    KolvJson jConf = ReadConfForUpdate();
    char szUid[64];
    snprintf(szUid, sizeof(szUid), "%u", (unsigned)owner);
    Json::Value &jOwner = ObjectMember(ObjectMember(jConf, "Sharing"), szUid);
    std::string strKey = szNameSpace ? NsKey("disable_ns_%s", szNameSpace) : std::string("disable");
    // Only the value 1 shares; any other value withdraws sharing.
    jOwner[strKey] = (enable != 1);
    return WriteConf(jConf);
}

int KOLVVessaSettingsNoSharingUserList(const char *szNameSpace, TRABCSzList **ppList) {
    if (KOLV_FAIL_IF(1015, NULL == szNameSpace)) return -1;
    if (KOLV_FAIL_IF(1015, NULL == ppList || NULL == *ppList)) return -1;

    KolvJson jConf;
    if (!TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)) return 0;
    if (KOLV_FAIL_IF(1026, !jConf.fromFile(SZF_KOLVVESSA_CONF_PATH))) return -1;
    if (KOLV_FAIL_IF(1026, !jConf.isObject())) return -1;
    if (!jConf.isMember("Sharing")) return 0;
    if (KOLV_FAIL_IF(1026, !jConf["Sharing"].isObject())) return -1;

    std::string strNSKey = NsKey("disable_ns_%s", szNameSpace);
    const Json::Value &jSharing = jConf["Sharing"];
    for (const std::string &strUid : jSharing.getMemberNames()) {
        if (!WithdrawsSharing(jSharing[strUid], strNSKey)) continue;
        if (KOLV_FAIL_IF(1014, TRABCSzListPush(ppList, strUid.c_str()) < 0)) return -1;
    }
    return 0;
}

int KOLVVessaVersionGet(void) {
    return 2;
}
