/*
 * rename.cpp - renaming one named item of an object: a text field or a
 * binary file (a new version made by a rename commit), a meta text key or
 * a meta binary file (no new version).
 *
 * The whole rename runs under the object's exclusive lock, like a set,
 * and never brings an object into being. A rename never replaces: the
 * new name must be free. Renames do not count in git_info.json.
 */
#include <errno.h>
#include <syslog.h>
#include <time.h>

#include <string>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/object_lock.h"
#include "backend_fs/source_file.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa_git_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_git.h"

namespace {

const char kSegmentText[] = "text";
const char kSegmentBinary[] = "binary";
const char kSegmentMetaText[] = "metatext";
const char kSegmentMetaBinary[] = "metabinary";

/* The tree folders a rename of segment touches. */
std::vector<std::string> TreeFoldersOf(const std::string &strSegment) {
    if (kSegmentText == strSegment) return {"text"};
    return {"binary", "binary_info"};
}

/* Checks the members every rename reads; a bad one is the caller's error. */
bool CheckRequest(const Json::Value &jParm, bool blVersioned) {
    if (KOLV_FAIL_IF(1015, !jParm["old_field"].isString() || !jParm["new_field"].isString())) return false;
    if (KOLV_FAIL_IF(1015, blVersioned && !jParm["version"].isString())) return false;
    if (KOLV_FAIL_IF(1015, jParm.isMember("mtime") && !jParm["mtime"].isIntegral())) return false;
    return true;
}

/* A commit needs a name and a mail: a user without them is named by the
 * uid, as the version writer does. */
void FillAuthorGaps(uid_t uid, std::string &strName, std::string &strMail) {
    if (strName.empty()) strName = std::to_string(uid);
    if (strMail.empty()) strMail = strName + "@localhost";
}

} // namespace

bool KOLVVESSA_BACKEND_FS::FieldRename(const Json::Value &jParm, std::string &strNewVer) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_APPEND_IF(!mf_init(jParm))) return false;
        if (KOLV_FAIL_IF(1015, !m_jParm.isMember("segment"))) return false;
        if (KOLV_APPEND_IF(!mf_CheckObjectPlace())) return false;
        const std::string strSegment = m_jParm["segment"].isString() ? m_jParm["segment"].asString() : "";
        bool blVersioned = kSegmentText == strSegment || kSegmentBinary == strSegment;
        if (!blVersioned && kSegmentMetaText != strSegment && kSegmentMetaBinary != strSegment) {
            std::string strParm = kolv::JsonToString(m_jParm);
            syslog(LOG_ERR, "%s:%d bad segement, param=%s\n", __FILE__, __LINE__, strParm.c_str());
            kolv::SetNoLog(1007, __FILE__, __LINE__, "bad segement, param=%s", strParm.c_str());
            return false;
        }
        if (KOLV_APPEND_IF(!CheckRequest(m_jParm, blVersioned))) return false;
        // A request without a time is stamped now: the renamed key or
        // record, or the rename commit, gets the time of the call.
        if (!m_jParm.isMember("mtime")) {
            syslog(LOG_ERR, "%s:%d lost mtime, auto generate\n", __FILE__, __LINE__);
            m_jParm["mtime"] = (Json::Int64)time(NULL);
        }
        kolv::ObjectLock lock;
        if (KOLV_APPEND_IF(!mf_LockObject(lock))) return false;
        if (blVersioned) return !KOLV_APPEND_IF(!mf_RenameGitField(strNewVer));
        if (kSegmentMetaText == strSegment) {
            if (KOLV_APPEND_IF(!mf_RenameMetaText())) return false;
        } else if (KOLV_APPEND_IF(!mf_RenameMetaBinary())) {
            return false;
        }
        // No new version: the caller's, when it named one.
        if (m_jParm["version"].isString()) strNewVer = m_jParm["version"].asString();
        return true;
    });
}

bool KOLVVESSA_BACKEND_FS::mf_RenameGitField(std::string &strNewVer) {
    TRABCSzHash *pRenameHash = NULL;
    kolv::SzHashFreeThrough hashGuard(pRenameHash);
    if (KOLV_FAIL_IF(1014, NULL == (pRenameHash = TRABCSzHashAlloc(BUFSIZ)))) return false;
    std::string strSrcEncode, strDstEncode;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(m_jParm["old_field"].asString(), strSrcEncode))) return false;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(m_jParm["new_field"].asString(), strDstEncode))) return false;
    // A binary file moves with its info record.
    for (const std::string &strFolder : TreeFoldersOf(m_jParm["segment"].asString())) {
        std::string strSrc = strFolder + "/" + strSrcEncode, strDst = strFolder + "/" + strDstEncode;
        if (KOLV_FAIL_IF(KOLV_ERR_HASH_INSERT, 0 > TRABCSzHashSetValue(&pRenameHash, strSrc.c_str(), strDst.c_str())))
            return false;
    }
    uid_t requester = kolv::RequesterOf(m_jParm);
    std::string strUserName, strMail;
    // The system itself (requester 0) need not be a user of the platform.
    if (UID_ROOT == requester) {
        KOLVVessaGetUserNameAndMail(requester, strUserName, strMail, false);
    } else if (KOLV_FAIL_IF(1022, !KOLVVessaGetUserNameAndMail(requester, strUserName, strMail, true))) {
        return false;
    }
    FillAuthorGaps(requester, strUserName, strMail);
    kolv::KolvJson jCommitMsg;
    jCommitMsg["author_uid"] = (Json::UInt)requester;
    jCommitMsg["commit_msg"] = m_jParm.get("commit_msg", Json::Value());
    // We hold the object's exclusive lock: a reference lock file now is
    // one a killed writer left.
    kolv::git::ClearStaleRefLocks(m_jPathInfo[KOLVVES_VERSION].asCString());
    std::string strVer;
    int ret = 0;
    if (KOLV_GIT_FAIL_IF(ret, GitCommit(m_jPathInfo[KOLVVES_VERSION].asCString(), m_jParm["version"].asCString(),
                                        m_jParm["mtime"].asInt64(), NULL, NULL, pRenameHash, strUserName.c_str(),
                                        strMail.c_str(), jCommitMsg.toString().c_str(), strVer)))
        return false;
    strNewVer = strVer;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_RenameMetaText() {
    Json::Value jObj;
    if (KOLV_APPEND_IF(!mf_GetJsonFile(KOLVVES_META_TEXT, jObj))) return false;
    // A file that is no JSON object holds no key to rename.
    if (!jObj.isObject()) jObj = Json::Value(Json::objectValue);
    if (KOLV_FAIL_IF(1008, !jObj.isMember(KOLVVES_META_TEXT_KEY))) return false;
    if (KOLV_FAIL_IF(1003, !jObj[KOLVVES_META_TEXT_KEY].isObject())) return false;
    if (!jObj["auto_mtime"].isObject()) jObj["auto_mtime"] = Json::Value(Json::objectValue);
    const std::string strOld = m_jParm["old_field"].asString(), strNew = m_jParm["new_field"].asString();
    // The new key first: a key renamed onto itself is refused too.
    if (KOLV_FAIL_IF(1007, jObj[KOLVVES_META_TEXT_KEY].isMember(strNew))) return false;
    if (KOLV_FAIL_IF(1008, !jObj[KOLVVES_META_TEXT_KEY].isMember(strOld))) return false;
    jObj[KOLVVES_META_TEXT_KEY][strNew] = jObj[KOLVVES_META_TEXT_KEY][strOld];
    jObj["auto_mtime"][strNew] = m_jParm["mtime"].asInt64();
    // The old key's time stays behind, as after a delete of the key.
    jObj[KOLVVES_META_TEXT_KEY].removeMember(strOld);
    if (KOLV_APPEND_IF(!KOLVVessaJsonToFile(jObj, m_jPathInfo[KOLVVES_META_TEXT].asString()))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_RenameMetaBinary() {
    const std::string strBinaryDir = m_jPathInfo[KOLVVES_META_BIN].asString();
    const std::string strInfoDir = m_jPathInfo[KOLVVES_META_BIN_INFO].asString();
    const std::string strOld = m_jParm["old_field"].asString(), strNew = m_jParm["new_field"].asString();
    Json::Value jObj;
    if (KOLV_APPEND_IF(!mf_GetMetaBinaryInfoByName(strOld, jObj))) return false;
    std::string strOldEncode, strNewEncode;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(strOld, strOldEncode))) return false;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(strNew, strNewEncode))) return false;
    const std::string strOldFile = strBinaryDir + "/" + strOldEncode, strNewFile = strBinaryDir + "/" + strNewEncode;
    const std::string strOldInfo = strInfoDir + "/" + strOldEncode, strNewInfo = strInfoDir + "/" + strNewEncode;
    // The new name must be free: no record (here) and no file (the rename
    // never replaces one).
    if (KOLV_FAIL_IF(1007, kolv::fs::Exists(strNewInfo))) return false;
    if (0 != kolv::fs::Rename(strOldFile, strNewFile, true)) {
        KOLV_FAIL_FMT(EEXIST == errno ? 1007 : KOLV_ERR_RENAME, "Failed to rename [%s] to [%s]", strOldFile.c_str(),
                      strNewFile.c_str());
        return false;
    }
    jObj["name"] = strNew;
    jObj["mtime"] = m_jParm["mtime"].asInt64();
    // The new record, then the old one removed. Either failing puts the
    // file and the records back as they were: the name stays listed with
    // its bytes in place.
    bool blNewInfo = KOLVVessaJsonToFile(jObj, strNewInfo);
    if (!blNewInfo || KOLV_FAIL_IF(1000, 0 != kolv::fs::Unlink(strOldInfo))) {
        // The name was free: whatever a failed write left there goes.
        kolv::fs::Unlink(strNewInfo);
        if (0 != kolv::fs::Rename(strNewFile, strOldFile, true)) {
            syslog(LOG_ERR, "%s:%d fail to move [%s] back, err=%m\n", __FILE__, __LINE__, strNewFile.c_str());
        }
        KOLV_APPEND_IF(!blNewInfo);
        return false;
    }
    return true;
}
