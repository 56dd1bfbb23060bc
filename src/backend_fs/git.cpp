/*
 * git.cpp - the file store's versions: writing a request's text fields and
 * binary files as one commit, reading the latest or an older version back,
 * and the backend's version operations (get, list, diff).
 *
 * Versions are read from the repository's objects. A request's files are
 * staged in a scratch folder of the call below "@tmp", which never
 * outlives it.
 */
#include <syslog.h>
#include <time.h>

#include <exception>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/source_file.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa_git_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_git.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_version.h"

namespace {

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

/* The records of a failed version write name the git layer's exported
 * calls, whose work the internal forms with files from memory do. */
const char szCreateCall[] = "GitCreateRepository(strRepoDir.c_str(), m_jParm[\"mtime\"].asInt64(), pAddHash, pDelHash, "
                            "strName.c_str(), strMail.c_str(), jCommitMsg.toString().c_str(), strNewVer)";
const char szCommitCall[] =
    "GitCommit(strRepoDir.c_str(), m_jParm[\"version\"].asCString(), m_jParm[\"mtime\"].asInt64(), "
    "pAddHash, pDelHash, NULL, strName.c_str(), strMail.c_str(), "
    "jCommitMsg.toString().c_str(), strNewVer)";

} // namespace

bool KOLVVESSA_BACKEND_FS::mf_MakeScratch(std::string &strScratch) {
    // "tmp" of the path info names the repository's "@tmp" and this
    // object; each call adds a random part, so concurrent calls (threads
    // of one process included) never share a folder.
    std::string strTmp = m_jPathInfo[KOLVVES_TMP].asString();
    size_t slash = strTmp.rfind('/');
    if (KOLV_FAIL_IF(1015, std::string::npos == slash)) return false;
    strScratch = kolv::fs::MakeTempDir(strTmp.substr(0, slash), strTmp.substr(slash + 1) + ".");
    if (KOLV_FAIL_IF(1032, strScratch.empty())) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_SaveGit(std::string &strNewVer) {
    std::string strRepoDir = m_jPathInfo[KOLVVES_VERSION].asString();
    std::string strFilePath = m_jPathInfo[KOLVVES_GIT_INFO].asString();
    TRABCSzHash *pAddHash = NULL, *pDelHash = NULL;
    kolv::SzHashFreeThrough addGuard(pAddHash), delGuard(pDelHash);
    if (KOLV_FAIL_IF(1014, NULL == (pAddHash = TRABCSzHashAlloc(BUFSIZ)))) return false;
    if (KOLV_FAIL_IF(1014, NULL == (pDelHash = TRABCSzHashAlloc(BUFSIZ)))) return false;
    std::string strName, strMail;
    kolv::KolvJson jCommitMsg;
    jCommitMsg["author_uid"] = (Json::UInt)kolv::RequesterOf(m_jParm);
    jCommitMsg["commit_msg"] = m_jParm.get("commit_msg", Json::Value());
    AuthorOf(kolv::RequesterOf(m_jParm), strName, strMail);
    if (!m_jParm.isMember("mtime")) {
        syslog(LOG_ERR, "%s:%d lost mtime, auto generate\n", __FILE__, __LINE__);
        m_jParm["mtime"] = (Json::Int64)time(NULL);
    }
    bool blNew = !m_jParm.isMember("version");
    if (!blNew && !m_jParm.isMember("text") && !m_jParm.isMember("binary_files")) return true;
    // Text fields and info records go to the repository from memory;
    // binary files are staged in a scratch folder of this call, the
    // store's alone: what is committed is what was checked.
    std::string strTempDir;
    const Json::Value &jBinaries = m_jParm.get("binary_files", Json::Value()); // never adds a member
    bool blBinary = jBinaries.isArray() && !jBinaries.empty();
    if (blBinary && KOLV_APPEND_IF(!mf_MakeScratch(strTempDir))) return false;
    kolv::TreeRemover scratch(strTempDir);
    kolv::MemFiles mem;
    if (KOLV_APPEND_IF(!KOLVVessaObjectVersionDataToDisk(pAddHash, pDelHash, mem, m_jParm, strTempDir))) return false;
    int ret = 0;
    Json::Value jGitInfo;
    if (blNew) {
        if (0 > (ret = kolv::git::CreateRepository(strRepoDir.c_str(), m_jParm["mtime"].asInt64(), pAddHash, &mem,
                                                   pDelHash, strName.c_str(), strMail.c_str(),
                                                   jCommitMsg.toString().c_str(), strNewVer))) {
            kolv::FailGit(ret, __FILE__, __LINE__, szCreateCall);
            return false;
        }
        jGitInfo["commit_cnt"] = 1;
        jGitInfo["listable_commit_cnt"] = IsListable(m_jParm) ? 1 : 0;
        return !KOLV_APPEND_IF(!KOLVVessaJsonToFile(jGitInfo, strFilePath));
    }
    Json::Value jOld;
    if (KOLV_APPEND_IF(!mf_GetJsonFile(KOLVVES_GIT_INFO, jOld))) return false;
    // We hold the object's exclusive lock: a reference lock file now is
    // one a killed writer left.
    kolv::git::ClearStaleRefLocks(strRepoDir.c_str());
    if (0 > (ret = kolv::git::Commit(strRepoDir.c_str(), m_jParm["version"].asCString(), m_jParm["mtime"].asInt64(),
                                     pAddHash, &mem, pDelHash, NULL, strName.c_str(), strMail.c_str(),
                                     jCommitMsg.toString().c_str(), strNewVer))) {
        kolv::FailGit(ret, __FILE__, __LINE__, szCommitCall);
        return false;
    }
    // Counted also when nothing changed and no commit was made: the
    // counters count requests, not commits.
    const Json::Value &jOldInfo = jOld.isObject() ? jOld : Json::Value(Json::objectValue);
    jGitInfo = jOldInfo;
    jGitInfo["commit_cnt"] = jOldInfo["commit_cnt"].asInt() + 1;
    jGitInfo["listable_commit_cnt"] = jOldInfo["listable_commit_cnt"].asInt() + (IsListable(m_jParm) ? 1 : 0);
    return !KOLV_APPEND_IF(!KOLVVessaJsonToFile(jGitInfo, strFilePath));
}

bool KOLVVESSA_BACKEND_FS::mf_GetGit(KOLV_VESSA_OBJECT *pObject) {
    const Json::Value &jParm = m_jParm;
    if (KOLV_FAIL_IF(1007, jParm.isMember("version") && !jParm["version"].isString())) return false;
    // Read from the repository's objects, the latest version as any
    // other: no scratch folder, no work tree half written by a crash.
    bool blLatest = !jParm.isMember("version") || jParm["version"].asString().empty();
    const char *szVersion = blLatest ? NULL : jParm["version"].asCString();
    std::map<std::string, std::string> files;
    Json::Value jCommitInfo;
    int ret = 0;
    if (KOLV_GIT_FAIL_IF(ret, kolv::git::ReadVersion(m_jPathInfo[KOLVVES_VERSION].asCString(), szVersion,
                                                     {"text", "binary_info"}, files, jCommitInfo)))
        return false;
    if (KOLV_APPEND_IF(!mf_VersionDataFromFiles(files, pObject))) return false;
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
    std::string strScratch;
    if (KOLV_APPEND_IF(!mf_MakeScratch(strScratch))) return false;
    kolv::TreeRemover scratch(strScratch);
    if (KOLV_GIT_FAIL_IF(ret, GitLoadCommit(m_jPathInfo[KOLVVES_VERSION].asCString(), m_jParm["version"].asCString(),
                                            strScratch.c_str(), jCommitInfo)))
        return false;
    // The caller reads the files and removes the folder.
    scratch.Keep();
    strGitDir = strScratch;
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
    kolv::SzHashRef pHash(TRABCSzHashAlloc(BUFSIZ));
    kolv::SzListRef pKeys(TRABCSzListAlloc(BUFSIZ));
    if (KOLV_FAIL_IF(1014, NULL == pHash.get())) return false;
    if (KOLV_FAIL_IF(1014, NULL == pKeys.get())) return false;
    int ret = 0;
    {
        // "new_version" may be absent (the latest): read the request
        // through a view whose absent texts are NULL.
        const OptionalStrings jRequest(m_jParm);
        if (KOLV_GIT_FAIL_IF(ret, GitDiff(m_jPathInfo[KOLVVES_VERSION].asCString(), jRequest["old_version"].asCString(),
                                          jRequest["new_version"].asCString(), pHash.get())))
            return false;
    }
    if (KOLV_FAIL_IF(1000, 0 > TRABCSzHashEnumKey(pHash.get(), pKeys.addr()))) return false;
    for (int i = 0; i < TRABCSzListCount(pKeys.get()); i++) {
        const char *szKey = TRABCSzListGet(pKeys.get(), i);
        if (!DiffEntry(szKey, TRABCSzHashGetValue(pHash.get(), szKey), jDiff)) return false;
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
