/*
 * kolvvessa_git_history.cpp - reading the version store: the latest
 * commit, one commit's information, the difference of two versions and
 * the history of all branches.
 */
#include <syslog.h>

#include <string>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_git.h"
#include "kolvvessa_git_internal.h"

namespace kolv {
namespace git {

int FindLatest(git_repository *pRepo, git_oid *pOid, std::string *pStrBranch) {
    git_branch_iterator *pRawIter = NULL;
    int ret = git_branch_iterator_new(&pRawIter, pRepo, GIT_BRANCH_LOCAL);
    GitBranchIterator pIter(pRawIter);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_tree_lookup (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    bool blFound = false;
    git_time_t tLatest = 0;
    git_reference *pRawRef = NULL;
    git_branch_t type;
    while (0 == (ret = git_branch_next(&pRawRef, &type, pIter.get()))) {
        GitReference pRef(pRawRef);
        git_commit *pRawCommit = NULL;
        const git_oid *pTip = git_reference_target(pRef.get());
        if (NULL == pTip || 0 > (ret = git_commit_lookup(&pRawCommit, pRepo, pTip))) {
            syslog(LOG_ERR, "%s:%d fail to git_commit_lookup (%s)", __FILE__, __LINE__, ErrText());
            return (NULL == pTip) ? GIT_ERROR : ret;
        }
        GitCommit pCommit(pRawCommit);
        // Strictly greater: the first branch met keeps a tie.
        git_time_t t = git_commit_time(pCommit.get());
        if (!blFound || t > tLatest) {
            blFound = true;
            tLatest = t;
            git_oid_cpy(pOid, pTip);
            if (pStrBranch) *pStrBranch = git_reference_name(pRef.get());
        }
    }
    if (GIT_ITEROVER != ret) {
        syslog(LOG_ERR, "%s:%d fail to git_branch_next (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    return blFound ? 0 : GIT_ENOTFOUND;
}

void CommitInfo(const git_commit *pCommit, Json::Value &jInfo) {
    char szOid[GIT_OID_HEXSZ + 1];
    const git_signature *pAuthor = git_commit_author(pCommit);
    jInfo = Json::Value(Json::objectValue);
    jInfo["version"] = git_oid_tostr(szOid, sizeof(szOid), git_commit_id(pCommit));
    jInfo["auther"] = pAuthor->name;
    jInfo["email"] = pAuthor->email;
    jInfo["mtime"] = static_cast<Json::Int64>(pAuthor->when.time);
    // Messages are JSON documents; one written by another tool is kept as
    // its text.
    const char *szMsg = git_commit_message(pCommit);
    Json::Value jMsg;
    jInfo["msg"] = JsonFromString(jMsg, szMsg ? szMsg : "") ? jMsg : Json::Value(szMsg ? szMsg : "");
    Json::Value jParents(Json::arrayValue);
    for (unsigned int i = 0; i < git_commit_parentcount(pCommit); i++) {
        jParents.append(git_oid_tostr(szOid, sizeof(szOid), git_commit_parent_id(pCommit, i)));
    }
    jInfo["parent"] = jParents;
}

namespace {

/* Looks szVersion up, or the latest commit for NULL. */
int LookupVersion(git_repository *pRepo, const char *szVersion, GitCommit &pOut) {
    git_oid oid;
    int ret = (NULL == szVersion) ? FindLatest(pRepo, &oid, NULL) : git_oid_fromstr(&oid, szVersion);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_oid_fromstr [%s] (%s)", __FILE__, __LINE__, szVersion ? szVersion : "",
               ErrText());
        return ret;
    }
    git_commit *pCommit = NULL;
    ret = git_commit_lookup(&pCommit, pRepo, &oid);
    pOut.reset(pCommit);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_commit_lookup (%s)", __FILE__, __LINE__, ErrText());
    return ret;
}

int VersionTree(git_repository *pRepo, const char *szVersion, GitTree &pOut) {
    GitCommit pCommit;
    int ret = LookupVersion(pRepo, szVersion, pCommit);
    if (0 > ret) return ret;
    git_tree *pTree = NULL;
    ret = git_commit_tree(&pTree, pCommit.get());
    pOut.reset(pTree);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_commit_tree (%s)", __FILE__, __LINE__, ErrText());
    return ret;
}

const char *DiffStatus(git_delta_t status) {
    switch (status) {
    case GIT_DELTA_ADDED:
        return "created";
    case GIT_DELTA_DELETED:
        return "deleted";
    case GIT_DELTA_MODIFIED:
        return "modified";
    default:
        return NULL;
    }
}

int RecordDelta(const git_diff_delta *pDelta, TRABCSzHash *pHash) {
    int ret = 0;
    if (GIT_DELTA_RENAMED == pDelta->status) {
        if (0 > TRABCSzHashSetValue(&pHash, pDelta->old_file.path, "deleted") ||
            0 > TRABCSzHashSetValue(&pHash, pDelta->new_file.path, "created")) {
            ret = GIT_ERROR;
        }
    } else if (const char *szStatus = DiffStatus(pDelta->status)) {
        const char *szPath = (GIT_DELTA_DELETED == pDelta->status) ? pDelta->old_file.path : pDelta->new_file.path;
        if (0 > TRABCSzHashSetValue(&pHash, szPath, szStatus)) ret = GIT_ERROR;
    }
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to TRABCSzHashSetValue", __FILE__, __LINE__);
    return ret;
}

/* Whether every member of jFilter has an equal value in the commit
 * message's "commit_msg". */
bool FilterPasses(const Json::Value &jFilter, const Json::Value &jInfo) {
    if (!jFilter.isObject() || jFilter.empty()) return true;
    const Json::Value &jMsg = jInfo["msg"];
    if (!jMsg.isObject() || !jMsg["commit_msg"].isObject()) return false;
    const Json::Value &jCommitMsg = jMsg["commit_msg"];
    for (const std::string &strKey : jFilter.getMemberNames()) {
        if (!jCommitMsg.isMember(strKey) || jCommitMsg[strKey] != jFilter[strKey]) return false;
    }
    return true;
}

/* A revision walk over every local branch: children before their parents
 * (versions of one second keep their order), then by time. */
int StartWalk(git_repository *pRepo, bool blReverse, GitRevwalk &pWalk) {
    git_revwalk *pRawWalk = NULL;
    int ret = git_revwalk_new(&pRawWalk, pRepo);
    pWalk.reset(pRawWalk);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_revwalk_new (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    git_revwalk_sorting(pWalk.get(), GIT_SORT_TOPOLOGICAL | GIT_SORT_TIME | (blReverse ? GIT_SORT_REVERSE : 0));
    git_branch_iterator *pRawIter = NULL;
    if (0 > (ret = git_branch_iterator_new(&pRawIter, pRepo, GIT_BRANCH_LOCAL))) {
        syslog(LOG_ERR, "%s:%d fail to git_branch_iterator_new (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    GitBranchIterator pIter(pRawIter);
    git_reference *pRawRef = NULL;
    git_branch_t type;
    while (0 == (ret = git_branch_next(&pRawRef, &type, pIter.get()))) {
        GitReference pRef(pRawRef);
        if (0 > (ret = git_revwalk_push_ref(pWalk.get(), git_reference_name(pRef.get())))) {
            syslog(LOG_ERR, "%s:%d fail to git_revwalk_push_ref (%s)", __FILE__, __LINE__, ErrText());
            return ret;
        }
    }
    return (GIT_ITEROVER == ret) ? 0 : ret;
}

} // namespace

} // namespace git
} // namespace kolv

int GitGetCommitInfo(const char *szRepo, const char *szVersion, Json::Value &jInfo) {
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitCommit pCommit;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = kolv::git::LookupVersion(pRepo.get(), szVersion, pCommit);
    if (0 > ret) return ret;
    kolv::git::CommitInfo(pCommit.get(), jInfo);
    return 0;
}

namespace kolv {
namespace git {

int SubTree(git_repository *pRepo, git_tree *pTree, const char *szName, GitTree &pOut) {
    pOut.reset();
    const git_tree_entry *pEntry = pTree ? git_tree_entry_byname(pTree, szName) : NULL;
    if (NULL == pEntry || GIT_OBJECT_TREE != git_tree_entry_type(pEntry)) return 0;
    git_tree *pRaw = NULL;
    int ret = git_tree_lookup(&pRaw, pRepo, git_tree_entry_id(pEntry));
    pOut.reset(pRaw);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_tree_lookup (%s)", __FILE__, __LINE__, ErrText());
    return ret;
}

int LookupBlob(git_repository *pRepo, const git_tree_entry *pEntry, GitBlob &pOut) {
    git_blob *pRaw = NULL;
    int ret = git_blob_lookup(&pRaw, pRepo, git_tree_entry_id(pEntry));
    pOut.reset(pRaw);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_blob_lookup (%s)", __FILE__, __LINE__, ErrText());
    return ret;
}

namespace {

/* Every blob of the folder strDir of pTree into files. */
int ReadFolder(git_repository *pRepo, git_tree *pTree, const std::string &strDir,
               std::map<std::string, std::string> &files) {
    GitTree pSub;
    int ret = SubTree(pRepo, pTree, strDir.c_str(), pSub);
    if (0 > ret || NULL == pSub) return ret;
    for (size_t i = 0; i < git_tree_entrycount(pSub.get()); ++i) {
        const git_tree_entry *pFile = git_tree_entry_byindex(pSub.get(), i);
        if (GIT_OBJECT_BLOB != git_tree_entry_type(pFile)) continue;
        GitBlob pBlob;
        if (0 > (ret = LookupBlob(pRepo, pFile, pBlob))) return ret;
        const char *p = static_cast<const char *>(git_blob_rawcontent(pBlob.get()));
        files[strDir + "/" + git_tree_entry_name(pFile)].assign(p, static_cast<size_t>(git_blob_rawsize(pBlob.get())));
    }
    return 0;
}

} // namespace

int ReadVersion(const char *szRepo, const char *szVersion, const std::vector<std::string> &dirs,
                std::map<std::string, std::string> &files, Json::Value &jInfo) {
    LibScope lib;
    GitRepository pRepo;
    GitCommit pCommit;
    int ret = OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = LookupVersion(pRepo.get(), szVersion, pCommit);
    if (0 > ret) return ret;
    git_tree *pRawTree = NULL;
    ret = git_commit_tree(&pRawTree, pCommit.get());
    GitTree pTree(pRawTree);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_tree (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    files.clear();
    for (const std::string &strDir : dirs) {
        if (0 > (ret = ReadFolder(pRepo.get(), pTree.get(), strDir, files))) return ret;
    }
    CommitInfo(pCommit.get(), jInfo);
    return 0;
}

} // namespace git
} // namespace kolv

int GitDiff(const char *szRepo, const char *szOldVer, const char *szNewVer, TRABCSzHash *pHash) {
    if (NULL == szRepo || NULL == szOldVer || NULL == pHash) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitTree pOld, pNew;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = kolv::git::VersionTree(pRepo.get(), szOldVer, pOld);
    if (0 <= ret) ret = kolv::git::VersionTree(pRepo.get(), szNewVer, pNew);
    if (0 > ret) return ret;
    git_diff *pRawDiff = NULL;
    ret = git_diff_tree_to_tree(&pRawDiff, pRepo.get(), pOld.get(), pNew.get(), NULL);
    kolv::GitDiff pDiff(pRawDiff);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_diff_tree_to_tree (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    for (size_t i = 0; i < git_diff_num_deltas(pDiff.get()); i++) {
        if (0 > (ret = kolv::git::RecordDelta(git_diff_get_delta(pDiff.get(), i), pHash))) return ret;
    }
    return 0;
}

int GitListCommitHistory(const char *szRepo, unsigned int limit, unsigned int offset, bool blReverse,
                         const Json::Value &jFilter, Json::Value &jList) {
    jList = Json::Value(Json::arrayValue);
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitRevwalk pWalk;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = kolv::git::StartWalk(pRepo.get(), blReverse, pWalk);
    if (0 > ret) return ret;
    git_oid oid;
    unsigned int cSkipped = 0;
    // Without a filter every commit counts, so the ones before the page
    // are skipped by id, unread.
    const bool blFiltered = jFilter.isObject() && !jFilter.empty();
    while (0 == (ret = git_revwalk_next(&oid, pWalk.get()))) {
        if (!blFiltered && cSkipped < offset) {
            cSkipped++;
            continue;
        }
        git_commit *pRawCommit = NULL;
        if (0 > (ret = git_commit_lookup(&pRawCommit, pRepo.get(), &oid))) {
            syslog(LOG_ERR, "%s:%d fail to git_commit_lookup (%s)", __FILE__, __LINE__, kolv::git::ErrText());
            return ret;
        }
        kolv::GitCommit pCommit(pRawCommit);
        Json::Value jInfo;
        kolv::git::CommitInfo(pCommit.get(), jInfo);
        if (!kolv::git::FilterPasses(jFilter, jInfo)) continue;
        if (cSkipped < offset) {
            cSkipped++;
            continue;
        }
        jList.append(jInfo);
        if (0 != limit && jList.size() >= limit) return static_cast<int>(jList.size());
    }
    if (GIT_ITEROVER != ret) {
        syslog(LOG_ERR, "%s:%d fail to git_revwalk_next (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    return static_cast<int>(jList.size());
}
