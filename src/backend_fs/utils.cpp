/*
 * utils.cpp - where an object lives on disk: the first step of every
 * operation (mf_init), the path info, the creation of a new object's
 * directories, the field selection of reads and writes, and the reader of
 * info directories.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/metabinary.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_export.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

/* The storage-unit keys that sit directly below the object directory. */
const char *const rgBaseKeys[] = {KOLVVES_BASIC,         KOLVVES_META_TEXT,     KOLVVES_META_BIN,
                                  KOLVVES_META_BIN_INFO, KOLVVES_VERSION,       KOLVVES_TEXT_PATH,
                                  KOLVVES_BIN_PATH,      KOLVVES_BIN_INFO_PATH, KOLVVES_GIT_INFO};

/* Gives name (below the directory fdParent) and everything under it to
 * owner, group unchanged; symbolic links themselves, never their targets.
 * Errors are ignored: whatever can be given is given. */
void ChownTree(int fdParent, const char *szName, uid_t owner) {
    int rc = fchownat(fdParent, szName, owner, (gid_t)-1, AT_SYMLINK_NOFOLLOW);
    (void)rc;
    int fd = openat(fdParent, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    kolv::Dir pDir(fdopendir(fd));
    if (!pDir) {
        close(fd);
        return;
    }
    while (struct dirent *pEnt = readdir(pDir.get())) {
        if (0 == strcmp(pEnt->d_name, ".") || 0 == strcmp(pEnt->d_name, "..")) continue;
        ChownTree(dirfd(pDir.get()), pEnt->d_name, owner);
    }
}

/* Gives a folder above the objects (the repository root, a namespace)
 * back to the store, mode 0755, when an earlier version of the store left
 * it to the first owner who created an object there. */
bool ClaimForStore(const std::string &strDir) {
    kolv::Fd fd(kolv::fs::OpenDir(strDir));
    struct stat st;
    if (0 > fd.get() || 0 != fstat(fd.get(), &st)) return false;
    if (st.st_uid == geteuid() && 0755 == (st.st_mode & 07777)) return true;
    if (st.st_uid != geteuid() && 0 != fchown(fd.get(), geteuid(), getegid())) return false;
    return 0 == fchmod(fd.get(), 0755);
}

/* Whether an encoded name can be what KOLVVessaEncode made: 0-9, A-Z and
 * the braces of its escapes. Temporary files ("x.tmp", ".x.XXXXXX") are
 * not. */
bool IsEncodedName(const char *szName) {
    if (!szName[0]) return false;
    for (const char *p = szName; *p; ++p) {
        if (!((*p >= '0' && *p <= '9') || (*p >= 'A' && *p <= 'Z') || *p == '{' || *p == '}')) return false;
    }
    return true;
}

/* One info file into jOut[strName]; a file that does not parse is
 * skipped, one that cannot be read fails (false with errno): a read must
 * not leave out a file it could not see. */
bool ReadInfoFile(const std::string &strPath, const std::string &strName, Json::Value &jOut) {
    Json::Value jRecord;
    std::string strText;
    if (!kolv::fs::ReadFile(strPath, strText)) return false;
    if (!kolv::JsonFromString(jRecord, strText)) {
        syslog(LOG_ERR, "%s:%d skip unreadable info file, path=%s\n", __FILE__, __LINE__, strPath.c_str());
        return true;
    }
    jOut[strName] = jRecord;
    return true;
}

} // namespace

namespace kolv {

bool ReadInfoDir(const std::string &strDir, Json::Value &jOut, const Json::Value *pjOnly) {
    if (!jOut.isObject()) jOut = Json::Value(Json::objectValue);
    // Read in-process rather than through a shell pattern: a namespace or
    // id may hold pattern characters that must not match other objects.
    // The folder is walked without following a link.
    std::vector<std::string> names;
    if (!fs::ListDir(strDir, names)) {
        if (ENOENT == errno) return true;
        KOLV_FAIL_FMT(1000, "glob fail, path=%s, rv=%d", strDir.c_str(), errno);
        return false;
    }
    for (const std::string &strNameEncode : names) {
        if (!IsEncodedName(strNameEncode.c_str())) continue;
        std::string strName;
        if (KOLV_APPEND_IF(!KOLVVessaDecode(strNameEncode, strName))) return false;
        if (pjOnly && pjOnly->isObject() && !pjOnly->isMember(strName)) continue;
        std::string strPath = strDir + "/" + strNameEncode;
        if (KOLV_FAIL_IF(1003, !ReadInfoFile(strPath, strName, jOut))) return false;
    }
    return true;
}

} // namespace kolv

bool KOLVVESSA_BACKEND_FS::mf_init(const Json::Value &jParm, bool bCreate, KOLV_VESSA_OBJECT *pObject) {
    m_jParm = jParm;
    if (!bCreate) {
        if (KOLV_FAIL_IF(1015, !m_jParm.isMember("id"))) return false;
        // The id names its owner; whatever owner the caller sent is replaced.
        m_jParm["owner"] = (Json::UInt)KOLVVessaObjectGetOwnerByID(m_jParm["id"].asString());
    } else {
        if (KOLV_FAIL_IF(1015, !m_jParm.isMember("owner"))) return false;
        // A caller-given id is kept as it is; a generated one must be free.
        if (!m_jParm.isMember("id")) {
            std::string strNs = m_jParm.get("ns", "").asString();
            std::string strId;
            do {
                strId = KOLVVessaObjectGenerateID(m_jParm["owner"].asUInt());
                m_jParm["id"] = strId;
            } while (KOLVVessaIDIsExist(strNs, strId));
        }
    }
    if (pObject) {
        if (KOLV_FAIL_IF(1015, !m_jParm.isMember("ns"))) return false;
        if (KOLV_FAIL_IF(1015, !m_jParm.isMember("id"))) return false;
        if (KOLV_FAIL_IF(1015, !m_jParm.isMember("owner"))) return false;
        pObject->set_ns(m_jParm["ns"].asString());
        pObject->set_id(m_jParm["id"].asString());
        pObject->set_owner(m_jParm["owner"].asUInt64());
    }
    if (KOLV_APPEND_IF(!mf_GetPathInfo(pObject))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetPathInfo(KOLV_VESSA_OBJECT *pObject) {
    return mf_GetPathInfo(m_jParm, m_jPathInfo, pObject);
}

bool KOLVVESSA_BACKEND_FS::mf_GetPathInfo(Json::Value &jParmIn, Json::Value &jPathInfo, KOLV_VESSA_OBJECT *pObject) {
    const Json::Value &jParm = jParmIn; // read only: no member may appear
    if (KOLV_FAIL_IF(1015, !jParm.isMember("owner"))) return false;
    if (KOLV_FAIL_IF(1015, !jParm.isMember("ns"))) return false;
    if (KOLV_FAIL_IF(1015, !jParm.isMember("id"))) return false;
    // Namespace and id become directory levels: nothing may lead elsewhere.
    if (KOLV_FAIL_IF(1007, !jParm["ns"].isString() || !kolv::IsSafePathName(jParm["ns"].asString()))) return false;
    if (KOLV_FAIL_IF(1007, !jParm["id"].isString() || !kolv::IsSafePathName(jParm["id"].asString()))) return false;
    if (0 != jParm.get("requester", 0).asInt64() &&
        KOLV_FAIL_IF(1022, !KOLVVessaCheckUID((uid_t)jParm["owner"].asInt64())))
        return false;
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    std::string strId = jParm["id"].asString();
    std::string strBaseDir = strRepo + "/" + jParm["ns"].asString() + "/" + strId;
    char szPid[32];
    snprintf(szPid, sizeof(szPid), "%d", (int)getpid());
    jPathInfo = Json::Value(Json::objectValue);
    if (KOLV_APPEND_IF(!mf_GetPathInfoByBase(strBaseDir, jPathInfo))) return false;
    // Per process: two processes on one object never share a scratch folder.
    jPathInfo[KOLVVES_TMP] = strRepo + "/@tmp/" + strId + "." + szPid;
    if (pObject) {
        pObject->set_owner(jParm["owner"].asUInt64());
        pObject->set_path_info(jPathInfo);
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetPathInfoByBase(const std::string &strBaseDir, Json::Value &jPathInfo) {
    if (KOLV_FAIL_IF(1015, strBaseDir.empty())) return false;
    jPathInfo[KOLVVES_ID_PATH] = strBaseDir;
    for (const char *szKey : rgBaseKeys)
        jPathInfo[szKey] = strBaseDir + "/" + szKey;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetPathInfoByGitBase(const std::string &strGitDir, Json::Value &jPathInfo) {
    if (KOLV_FAIL_IF(1015, strGitDir.empty())) return false;
    jPathInfo[KOLVVES_TEXT_PATH] = strGitDir + "/text";
    jPathInfo[KOLVVES_BIN_PATH] = strGitDir + "/binary";
    jPathInfo[KOLVVES_BIN_INFO_PATH] = strGitDir + "/binary_info";
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_CreatePath() {
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_TEXT_PATH))) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_BIN_PATH))) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_BIN_INFO_PATH))) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_META_BIN))) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_META_BIN_INFO))) return false;
    // The repository root and the namespace folders are the store's: an
    // owner of one object must not be able to rename or remove another's.
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    if (KOLV_FAIL_IF(1032, 0 > KOLVFSMkdirP(strRepo.c_str(), NULL, TRUE, UID_ERR, GID_ERR, 0755))) return false;
    if (KOLV_FAIL_IF(1032, !ClaimForStore(strRepo))) return false;
    std::string strNsDir = strRepo + "/" + m_jParm["ns"].asString();
    kolv::fs::DirSpec store = {0755, UID_ERR, GID_ERR};
    kolv::Fd fdNs(kolv::fs::MakeDirs(strNsDir, store));
    if (KOLV_FAIL_IF(1032, 0 > fdNs.get())) return false;
    if (KOLV_FAIL_IF(1032, !ClaimForStore(strNsDir))) return false;
    // From the object folder down, every folder is its owner's.
    kolv::fs::DirSpec owner = {0755, (uid_t)m_jParm["owner"].asUInt(), GID_USERS};
    for (const char *szKey :
         {KOLVVES_TEXT_PATH, KOLVVES_BIN_PATH, KOLVVES_BIN_INFO_PATH, KOLVVES_META_BIN, KOLVVES_META_BIN_INFO}) {
        kolv::Fd fd(kolv::fs::MakeDirs(m_jPathInfo[szKey].asString(), owner));
        if (KOLV_FAIL_IF(1032, 0 > fd.get())) return false;
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_ResetPathPermission(const std::string &strPath) {
    if (KOLV_APPEND_IF(!m_jParm.isMember("owner"))) return false;
    // chown -R owner path, in-process, never through a link; the outcome
    // is not checked.
    std::string strName;
    kolv::Fd fdParent(kolv::fs::OpenParent(strPath, strName));
    if (0 <= fdParent.get()) ChownTree(fdParent.get(), strName.c_str(), (uid_t)m_jParm["owner"].asUInt());
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetBinaryObjectPath(const Json::Value &jIn, Json::Value &jPathInfo) {
    if (KOLV_FAIL_IF(1015, !jIn.isMember("id"))) return false;
    if (KOLV_FAIL_IF(1015, !jIn.isMember("name"))) return false;
    if (KOLV_FAIL_IF(1007, !jIn["id"].isString() || !kolv::IsSafePathName(jIn["id"].asString()))) return false;
    // A given "owner" is not read: the path does not depend on it.
    uid_t uid = UID_ERR;
    if (!jIn.isMember("owner")) {
        uid = KOLVVessaObjectGetOwnerByID(jIn["id"].asString());
        if (KOLV_FAIL_IF(1015, uid == UID_ERR)) return false;
    }
    // The other object is looked up in this object's namespace.
    Json::Value jObjTmp(Json::objectValue);
    jObjTmp["ns"] = m_jParm.get("ns", Json::Value());
    jObjTmp["id"] = jIn["id"];
    jObjTmp["owner"] = (Json::UInt)uid;
    Json::Value jInfoTmp;
    if (KOLV_APPEND_IF(!mf_GetPathInfo(jObjTmp, jInfoTmp, NULL))) return false;
    jPathInfo = jInfoTmp;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetBinaryInfoPath(std::string &strFile, std::string &strInfo) {
    strInfo.clear();
    const Json::Value &jPathInfo = m_jPathInfo;
    std::string strPrefix = jPathInfo.get(KOLVVES_META_BIN, "").asString() + "/";
    if (std::string::npos != strFile.find(strPrefix)) {
        strInfo = jPathInfo.get(KOLVVES_META_BIN_INFO, "").asString() + "/" + strFile.substr(strPrefix.length());
        return true;
    }
    strPrefix = jPathInfo.get("binary", "").asString() + "/";
    if (std::string::npos != strFile.find(strPrefix)) {
        strInfo = jPathInfo.get("binary_info", "").asString() + "/" + strFile.substr(strPrefix.length());
        return true;
    }
    KOLV_FAIL_FMT(1015, "cannot find the binary info path, binary file=%s", strFile.c_str());
    return false;
}

bool KOLVVESSA_BACKEND_FS::mf_NeedToGet(const char *szType) {
    if (!szType || !szType[0]) {
        syslog(LOG_ERR, "%s:%d bad parameter, szType is null\n", __FILE__, __LINE__);
        return false;
    }
    // No selection means everything; so does a selection that is no object.
    if (!m_jParm.isMember("field") || !m_jParm["field"].isObject()) return true;
    Json::Value &jField = m_jParm["field"];
    for (Json::Value::const_iterator itr = m_jFieldTable.begin(); itr != m_jFieldTable.end(); ++itr) {
        if ((*itr)[0].asString() != szType) continue;
        std::string strName = itr.name();
        if (!jField.isMember(strName)) {
            if ((*itr)[1].asBool()) return true;
            continue;
        }
        Json::Value &jOne = jField[strName];
        if (jOne.isBool()) {
            if (jOne.asBool()) return true;
        } else if (jOne.isObject()) {
            if (mf_NeedToGetCheckOne(jOne)) return true;
        } else {
            syslog(LOG_ERR, "%s:%d bad jField[%s] type, jField[%s]=%s\n", __FILE__, __LINE__, strName.c_str(),
                   strName.c_str(), kolv::JsonToString(jOne).c_str());
        }
    }
    return false;
}

bool KOLVVESSA_BACKEND_FS::mf_NeedToGetCheckOne(Json::Value &jValue) {
    if (jValue.isBool()) return jValue.asBool();
    if (!jValue.isObject() && !jValue.isArray()) return false;
    for (Json::Value::iterator itr = jValue.begin(); itr != jValue.end(); ++itr) {
        if (mf_NeedToGetCheckOne(*itr)) return true;
    }
    return false;
}

bool KOLVVESSA_BACKEND_FS::mf_NeedToSave(const char *szType) {
    if (!szType || !szType[0] || !m_jParm.isObject()) return false;
    for (Json::Value::const_iterator itr = m_jParm.begin(); itr != m_jParm.end(); ++itr) {
        const Json::Value &jDef = m_jFieldTable.get(itr.name(), Json::Value());
        if (jDef.isArray() && jDef[0].asString() == szType) return true;
    }
    return false;
}

bool KOLVVESSA_BACKEND_FS::mf_GetBinaryInfoByDir(const std::string &strDir, Json::Value &jOut, const char *szType) {
    const Json::Value *pjOnly = NULL;
    const Json::Value &jParm = m_jParm;
    if (szType && jParm.isMember("field") && jParm["field"].isObject() && jParm["field"].isMember(szType))
        pjOnly = &jParm["field"][szType];
    return kolv::ReadInfoDir(strDir, jOut, pjOnly);
}
