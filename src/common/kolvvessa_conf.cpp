/*
 * The settings file: the store's master switch, one switch per namespace,
 * and per-owner withdrawal of sharing. Access is opt-in (a missing key
 * means disabled), sharing is opt-out (a missing key means allowed). The
 * readers share one parsed copy of the file, kept under a lock for as long
 * as its identity, size and modification time stay the same; the setters
 * always read the file itself.
 */
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>

#include <memory>
#include <mutex>
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_safe_fs.h"
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

/* What tells one state of the file from another. */
struct FileStamp {
    std::string strPath;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtim = {0, 0};

    bool operator==(const FileStamp &o) const {
        return strPath == o.strPath && dev == o.dev && ino == o.ino && size == o.size && mtim.tv_sec == o.mtim.tv_sec &&
               mtim.tv_nsec == o.mtim.tv_nsec;
    }
};

// A file changed this recently may change again within the same tick of
// the file system's clock, keeping its stamp: such a state is read anew.
constexpr time_t kSettleSeconds = 2;

std::mutex gConfLock;
FileStamp gConfStamp;
std::shared_ptr<const Json::Value> gpConf; // null: nothing kept

bool StampOf(const std::string &strPath, FileStamp &stamp) {
    struct stat st;
    if (!kolv::fs::Lstat(strPath, st) || !S_ISREG(st.st_mode)) return false;
    stamp.strPath = strPath;
    stamp.dev = st.st_dev;
    stamp.ino = st.st_ino;
    stamp.size = st.st_size;
    stamp.mtim = st.st_mtim;
    return true;
}

bool Settled(const FileStamp &stamp, const struct timespec &now) {
    return stamp.mtim.tv_sec + kSettleSeconds < now.tv_sec;
}

std::shared_ptr<const Json::Value> ParseConf(const std::string &strPath) {
    auto pConf = std::make_shared<kolv::KolvJson>();
    if (!pConf->fromFile(strPath)) return nullptr;
    return pConf;
}

/* The parsed settings file, null when it cannot be read or parsed. A file
 * that cannot be looked at is read as before, uncached. */
std::shared_ptr<const Json::Value> LoadConf(const std::string &strPath) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    FileStamp stamp;
    if (!StampOf(strPath, stamp)) return ParseConf(strPath);
    {
        std::lock_guard<std::mutex> guard(gConfLock);
        if (gpConf && gConfStamp == stamp) return gpConf;
    }
    std::shared_ptr<const Json::Value> pConf = ParseConf(strPath);
    std::lock_guard<std::mutex> guard(gConfLock);
    gpConf = pConf && Settled(stamp, now) ? pConf : nullptr;
    gConfStamp = stamp;
    return pConf;
}

/* The readers' view of the settings file: fromFile gives the shared copy. */
class ConfReader {
  public:
    bool fromFile(const std::string &strPath) {
        m_pConf = LoadConf(strPath);
        return nullptr != m_pConf;
    }
    operator const Json::Value &() const { return *m_pConf; }

  private:
    std::shared_ptr<const Json::Value> m_pConf;
};

std::string NsKey(const char *szFmt, const char *szNameSpace) {
    char szKey[kKeyMax];
    snprintf(szKey, sizeof(szKey), szFmt, szNameSpace);
    return szKey;
}

// Reads the settings file for the strict readers: 1027 when it is absent,
// 1026 when it does not parse.
bool ReadConfStrict(ConfReader &jConf) {
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
    ConfReader jConf;
    if (!ReadConfStrict(jConf)) return FALSE;
    return KOLVVessaSettingsAccessGetEx(jConf, szNameSpace);
}

BOOL KOLVVessaAccessCheck(const char *szNameSpace) {
    ConfReader jConf;
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
    ConfReader jConf;
    if (!TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)) return TRUE;
    if (!jConf.fromFile(SZF_KOLVVESSA_CONF_PATH)) return TRUE;
    return KOLVVessaSettingsSharingGetEx(jConf, szNameSpace, owner);
}

BOOL KOLVVessaSharingCheck(const char *szNameSpace, uid_t owner) {
    ConfReader jConf;
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

namespace {

int NoSharingUsers(const Json::Value &jConf, const char *szNameSpace, TRABCSzList **ppList) {
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

} // namespace

int KOLVVessaSettingsNoSharingUserList(const char *szNameSpace, TRABCSzList **ppList) {
    if (KOLV_FAIL_IF(1015, NULL == szNameSpace)) return -1;
    if (KOLV_FAIL_IF(1015, NULL == ppList || NULL == *ppList)) return -1;

    ConfReader jConf;
    if (!TRABCFileExist(SZF_KOLVVESSA_CONF_PATH)) return 0;
    if (KOLV_FAIL_IF(1026, !jConf.fromFile(SZF_KOLVVESSA_CONF_PATH))) return -1;
    return NoSharingUsers(jConf, szNameSpace, ppList);
}

int KOLVVessaVersionGet(void) {
    return 2;
}
