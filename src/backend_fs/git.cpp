/*
 * git.cpp - the file store's versions: writing a request's text fields and
 * binary files as one commit, reading the latest or an older version back,
 * and the backend's version operations (get, list, diff).
 *
 * A version that is not the latest is checked out into the process's
 * scratch folder ("tmp" of the path info), which never outlives the call
 * that made it.
 */
#include <syslog.h>
#include <time.h>

#include <exception>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_git.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_version.h"

namespace {

/* Frees a platform hash or list through the caller's pointer, which the
 * platform may move while it grows. */
template <typename T, void (*Free)(T *)> class RefGuard {
  public:
    explicit RefGuard(T *&p) : m_p(p) {}
    ~RefGuard() { Free(m_p); }
    RefGuard(const RefGuard &) = delete;
    RefGuard &operator=(const RefGuard &) = delete;

  private:
    T *&m_p;
};

/* Removes the scratch folder on scope exit unless kept. */
class ScratchRemover {
  public:
    explicit ScratchRemover(const std::string &strDir) : m_strDir(strDir), m_blKeep(false) {}
    ~ScratchRemover() {
        if (!m_blKeep && 0 > KOLVFSRemoveTree(m_strDir.c_str()))
            syslog(LOG_ERR, "%s:%d cannot remove %s", __FILE__, __LINE__, m_strDir.c_str());
    }
    ScratchRemover(const ScratchRemover &) = delete;
    ScratchRemover &operator=(const ScratchRemover &) = delete;
    void Keep() { m_blKeep = true; }

  private:
    std::string m_strDir;
    bool m_blKeep;
};

/* Request members read as texts that may be absent: asCString() gives
 * NULL for anything but a string, which the git layer reads as "the
 * latest" or rejects. */
class OptionalStrings {
  public:
    class Member {
      public:
        explicit Member(const Json::Value &j) : m_j(j) {}
        const char *asCString() const { return m_j.isString() ? m_j.asCString() : NULL; }

      private:
        const Json::Value &m_j;
    };
    explicit OptionalStrings(const Json::Value &j) : m_j(j) {}
    Member operator[](const char *szKey) const { return Member(m_j.isObject() ? m_j[szKey] : s_jNull); }

  private:
    static const Json::Value s_jNull;
    const Json::Value &m_j;
};
const Json::Value OptionalStrings::s_jNull;

uid_t RequesterOf(const Json::Value &jParm) {
    const Json::Value &jRequester = jParm["requester"];
    if (jRequester.isUInt()) return jRequester.asUInt();
    return jRequester.isInt() ? (uid_t)jRequester.asInt() : UID_ROOT;
}

/* The author of a commit. A commit needs a name and a mail; a user
 * without them (the system, say) is named by the uid. */
void AuthorOf(uid_t uid, std::string &strName, std::string &strMail) {
    KOLVVessaGetUserNameAndMail(uid, strName, strMail, false);
    if (strName.empty()) strName = std::to_string(uid);
    if (strMail.empty()) strMail = strName + "@localhost";
}

bool IsListable(const Json::Value &jParm) {
    const Json::Value &jMsg = jParm["commit_msg"];
    return jMsg.isObject() && jMsg["listable"].isBool() && jMsg["listable"].asBool();
}

/* Fills a version record from a commit's information. */
void FillVersion(const Json::Value &jParm, const Json::Value &jCommit, KOLV_VESSA_OBJECT_VERSION *pVer) {
    pVer->set_ns(jParm["ns"].asString());
    pVer->set_id(jParm["id"].asString());
    pVer->set_version(jCommit["version"].asString());
    const Json::Value &jMsg = jCommit["msg"];
    if (jMsg.isObject() && jMsg.isMember("commit_msg")) pVer->set_commit_msg(jMsg["commit_msg"]);
    pVer->set_last_version(jCommit["parent"]);
    if (jMsg.isObject() && jMsg.isMember("author_uid")) pVer->set_author((unsigned long)jMsg["author_uid"].asInt64());
    pVer->set_mtime((long)jCommit["mtime"].asUInt());
    Json::Value jExtra;
    jExtra["auther"] = jCommit["auther"];
    jExtra["email"] = jCommit["email"];
    pVer->set_extra_info(jExtra);
}

/* "text/NAME" or "binary/NAME" -> jDiff[dir][decoded NAME] = status; other
 * folders (the binary info records) are left out. */
bool DiffEntry(const char *szKey, const char *szStatus, Json::Value &jDiff) {
    std::string strKey = std::string(szKey).substr(0, 4095);
    size_t pos = strKey.find('/');
    if (std::string::npos == pos) return true;
    std::string strDir = strKey.substr(0, pos);
    std::string strFileNameEncode = strKey.substr(pos + 1);
    if (("text" != strDir && "binary" != strDir) || std::string::npos != strFileNameEncode.find('/')) return true;
    std::string strFileName;
    if (KOLV_APPEND_IF(!KOLVVessaDecode(strFileNameEncode, strFileName))) return false;
    jDiff[strDir][strFileName] = szStatus ? szStatus : "";
    return true;
}

} // namespace

bool KOLVVESSA_BACKEND_FS::mf_SaveGit(std::string &strNewVer) {
    std::string strRepoDir = m_jPathInfo[KOLVVES_VERSION].asString();
    std::string strFilePath = m_jPathInfo[KOLVVES_GIT_INFO].asString();
    std::string strTempDir = m_jPathInfo[KOLVVES_TMP].asString();
    TRABCSzHash *pAddHash = NULL, *pDelHash = NULL;
    RefGuard<TRABCSzHash, TRABCSzHashFree> addGuard(pAddHash), delGuard(pDelHash);
    if (KOLV_FAIL_IF(1014, NULL == (pAddHash = TRABCSzHashAlloc(BUFSIZ)))) return false;
    if (KOLV_FAIL_IF(1014, NULL == (pDelHash = TRABCSzHashAlloc(BUFSIZ)))) return false;
    std::string strName, strMail;
    kolv::KolvJson jCommitMsg;
    jCommitMsg["author_uid"] = (Json::UInt)RequesterOf(m_jParm);
    jCommitMsg["commit_msg"] = m_jParm.get("commit_msg", Json::Value());
    AuthorOf(RequesterOf(m_jParm), strName, strMail);
    if (!m_jParm.isMember("mtime")) {
        syslog(LOG_ERR, "%s:%d lost mtime, auto generate\n", __FILE__, __LINE__);
        m_jParm["mtime"] = (Json::Int64)time(NULL);
    }
    int ret = 0;
    Json::Value jGitInfo;
    if (!m_jParm.isMember("version")) {
        // A new object: its files go straight into the work tree.
        if (KOLV_APPEND_IF(!KOLVVessaObjectVersionDataToDisk(pAddHash, pDelHash, m_jParm, strRepoDir))) return false;
        if (KOLV_GIT_FAIL_IF(ret, GitCreateRepository(strRepoDir.c_str(), m_jParm["mtime"].asInt64(), pAddHash,
                                                      pDelHash, strName.c_str(), strMail.c_str(),
                                                      jCommitMsg.toString().c_str(), strNewVer)))
            return false;
        jGitInfo["commit_cnt"] = 1;
        jGitInfo["listable_commit_cnt"] = IsListable(m_jParm) ? 1 : 0;
        return !KOLV_APPEND_IF(!KOLVVessaJsonToFile(jGitInfo, strFilePath));
    }
    if (!m_jParm.isMember("text") && !m_jParm.isMember("binary_files")) return true;
    // From here the scratch folder may hold this request's files; a stale
    // one of an earlier run of this process goes first.
    KOLVFSRemoveTree(strTempDir.c_str());
    ScratchRemover scratch(strTempDir);
    Json::Value jOld;
    if (KOLV_APPEND_IF(!mf_GetJsonFile(KOLVVES_GIT_INFO, jOld))) return false;
    if (KOLV_APPEND_IF(!KOLVVessaObjectVersionDataToDisk(pAddHash, pDelHash, m_jParm, strTempDir))) return false;
    if (KOLV_GIT_FAIL_IF(ret, GitCommit(strRepoDir.c_str(), m_jParm["version"].asCString(), m_jParm["mtime"].asInt64(),
                                        pAddHash, pDelHash, NULL, strName.c_str(), strMail.c_str(),
                                        jCommitMsg.toString().c_str(), strNewVer)))
        return false;
    // Counted also when nothing changed and no commit was made: the
    // counters count requests, not commits.
    const Json::Value &jOldInfo = jOld.isObject() ? jOld : Json::Value(Json::objectValue);
    jGitInfo = jOldInfo;
    jGitInfo["commit_cnt"] = jOldInfo["commit_cnt"].asInt() + 1;
    jGitInfo["listable_commit_cnt"] = jOldInfo["listable_commit_cnt"].asInt() + (IsListable(m_jParm) ? 1 : 0);
    return !KOLV_APPEND_IF(!KOLVVessaJsonToFile(jGitInfo, strFilePath));
}

bool KOLVVESSA_BACKEND_FS::mf_GetGit(KOLV_VESSA_OBJECT *pObject) {
    Json::Value jCommitInfo;
    int ret = 0;
    if (KOLV_GIT_FAIL_IF(ret, GitGetCommitInfo(m_jPathInfo[KOLVVES_VERSION].asCString(), NULL, jCommitInfo)))
        return false;
    const Json::Value &jParm = m_jParm;
    // Removed on every failure from here, and after an older version.
    ScratchRemover scratch(m_jPathInfo[KOLVVES_TMP].asString());
    if (KOLV_FAIL_IF(1007, jParm.isMember("version") && !jParm["version"].isString())) return false;
    bool blLatest = !jParm.isMember("version") || jParm["version"].asString().empty() ||
                    jParm["version"].asString() == jCommitInfo["version"].asString();
    std::string strTempDir = m_jPathInfo[blLatest ? KOLVVES_VERSION : KOLVVES_TMP].asString();
    if (!blLatest) {
        if (KOLV_FAIL_IF(1032, 0 > KOLVFSMkdirP(strTempDir.c_str(), NULL, TRUE, UID_ERR, GID_ERR, -1))) return false;
        if (KOLV_GIT_FAIL_IF(ret, GitLoadCommit(m_jPathInfo[KOLVVES_VERSION].asCString(),
                                                m_jParm["version"].asCString(), strTempDir.c_str(), jCommitInfo)))
            return false;
    }
    if (KOLV_APPEND_IF(!mf_VersionDataFromDisk(strTempDir, pObject))) return false;
    if (blLatest) scratch.Keep();
    if (NULL == pObject) return true;
    pObject->set_version(jCommitInfo["version"].asString());
    const Json::Value &jField = jParm["field"];
    if (jField.isObject() && jField["commit_msg"].isBool() && jField["commit_msg"].asBool()) {
        const Json::Value &jMsg = jCommitInfo["msg"];
        bool blHas = jMsg.isObject() && jMsg.isMember("commit_msg");
        pObject->set_commit_msg(blHas ? jMsg["commit_msg"] : Json::Value(Json::objectValue));
    }
    pObject->set_mtime((long)jCommitInfo["mtime"].asUInt());
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_LoadGitVersion(std::string &strGitDir, bool &blLatest) {
    Json::Value jCommitInfo;
    int ret = 0;
    if (KOLV_GIT_FAIL_IF(ret, GitGetCommitInfo(m_jPathInfo[KOLVVES_VERSION].asCString(), NULL, jCommitInfo)))
        return false;
    const Json::Value &jParm = m_jParm;
    // An empty "version" differs from the latest id and goes to the
    // checkout, which fails: callers that want the latest leave it out.
    if (!jParm.isMember("version") || jParm["version"].asString() == jCommitInfo["version"].asString()) {
        strGitDir = jParm.isMember("version") ? jParm["version"].asString() : "";
        blLatest = true;
        return true;
    }
    std::string strTempDir = m_jPathInfo[KOLVVES_TMP].asString();
    ScratchRemover scratch(strTempDir);
    if (KOLV_FAIL_IF(1032, 0 > KOLVFSMkdirP(strTempDir.c_str(), NULL, TRUE, UID_ERR, GID_ERR, -1))) return false;
    if (KOLV_GIT_FAIL_IF(ret, GitLoadCommit(m_jPathInfo[KOLVVES_VERSION].asCString(), m_jParm["version"].asCString(),
                                            strTempDir.c_str(), jCommitInfo)))
        return false;
    // The caller reads the files and removes the folder.
    scratch.Keep();
    strGitDir = strTempDir;
    blLatest = false;
    return true;
}

int KOLVVESSA_BACKEND_FS::mf_ListVersionGit(KOLV_VESSA_OBJECT_VERSION **ppHead) {
    const Json::Value &jParm = m_jParm;
    bool reverse = jParm["sort_direction"].isString() && "ASC" == jParm["sort_direction"].asString();
    Json::Value jList;
    int count = 0, ret = 0;
    if (KOLV_GIT_FAIL_IF(
            ret, (count = GitListCommitHistory(m_jPathInfo[KOLVVES_VERSION].asCString(), m_jParm["limit"].asInt(),
                                               m_jParm["offset"].asUInt(), reverse, m_jParm["filter"], jList))))
        return ret;
    KOLV_VESSA_OBJECT_VERSION **ppTail = ppHead;
    while (*ppTail)
        ppTail = &(*ppTail)->m_next;
    for (const Json::Value &jCommit : jList) {
        KOLV_VESSA_OBJECT_VERSION *pVersion = KOLVVessaObjectVersionAlloc();
        if (KOLV_APPEND_IF(NULL == pVersion)) return -1;
        FillVersion(jParm, jCommit, pVersion);
        *ppTail = pVersion;
        ppTail = &pVersion->m_next;
    }
    return count;
}

bool KOLVVESSA_BACKEND_FS::mf_GetVersionGit(KOLV_VESSA_OBJECT_VERSION *pVer) {
    if (KOLV_FAIL_IF(1015, NULL == pVer)) return false;
    const Json::Value &jParm = m_jParm;
    if (KOLV_FAIL_IF(1007, jParm.isMember("ver") && !jParm["ver"].isString())) return false;
    const char *szVersion = jParm.isMember("ver") ? jParm["ver"].asCString() : NULL;
    Json::Value jCommitInfo;
    int ret = 0;
    if (KOLV_GIT_FAIL_IF(ret, GitGetCommitInfo(m_jPathInfo[KOLVVES_VERSION].asCString(), szVersion, jCommitInfo)))
        return false;
    FillVersion(jParm, jCommitInfo, pVer);
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_DiffVersionGit(Json::Value &jDiff) {
    TRABCSzHash *pHash = NULL;
    TRABCSzList *pKeys = NULL;
    RefGuard<TRABCSzHash, TRABCSzHashFree> hashGuard(pHash);
    RefGuard<TRABCSzList, TRABCSzListFree> keysGuard(pKeys);
    if (KOLV_FAIL_IF(1014, NULL == (pHash = TRABCSzHashAlloc(BUFSIZ)))) return false;
    if (KOLV_FAIL_IF(1014, NULL == (pKeys = TRABCSzListAlloc(BUFSIZ)))) return false;
    int ret = 0;
    {
        // "new_version" may be absent (the latest): read the request
        // through a view whose absent texts are NULL.
        const OptionalStrings m_jParm(this->m_jParm);
        if (KOLV_GIT_FAIL_IF(ret, GitDiff(m_jPathInfo[KOLVVES_VERSION].asCString(), m_jParm["old_version"].asCString(),
                                          m_jParm["new_version"].asCString(), pHash)))
            return false;
    }
    if (KOLV_FAIL_IF(1000, 0 > TRABCSzHashEnumKey(pHash, &pKeys))) return false;
    for (int i = 0; i < TRABCSzListCount(pKeys); i++) {
        const char *szKey = TRABCSzListGet(pKeys, i);
        if (!DiffEntry(szKey, TRABCSzHashGetValue(pHash, szKey), jDiff)) return false;
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::VersionGet(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION *pVer) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_APPEND_IF(!mf_init(jParm))) return false;
        return !KOLV_APPEND_IF(!mf_GetVersionGit(pVer));
    });
}

bool KOLVVESSA_BACKEND_FS::VersionDiff(const Json::Value &jParm, Json::Value &jDiff) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_APPEND_IF(!mf_init(jParm))) return false;
        return !KOLV_APPEND_IF(!mf_DiffVersionGit(jDiff));
    });
}

int KOLVVESSA_BACKEND_FS::VersionList(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION **ppHead, unsigned int &total,
                                      unsigned int &listableTotal) {
    return KOLV_NO_THROW(-1, [&]() -> int {
        if (KOLV_APPEND_IF(!mf_init(jParm))) return -1;
        KOLV_VESSA_OBJECT_VERSION **addrPHead = ppHead;
        int count = 0;
        if (KOLV_APPEND_IF(0 > (count = mf_ListVersionGit(addrPHead)))) return count;
        Json::Value jGitInfo;
        if (KOLV_APPEND_IF(!mf_GetJsonFile(KOLVVES_GIT_INFO, jGitInfo))) return -1;
        const Json::Value &jInfo = jGitInfo.isObject() ? jGitInfo : Json::Value(Json::objectValue);
        total = (unsigned int)jInfo["commit_cnt"].asInt();
        listableTotal = (unsigned int)jInfo["listable_commit_cnt"].asInt();
        return count;
    });
}
