/*
 * kolvvessa_git.cpp - the per-object version store: the write lock,
 * creating a repository with its first version, committing further
 * versions (branching from older ones) and checking versions out.
 *
 * The work tree of a repository always holds the latest version and HEAD
 * names the branch whose tip it is; the index matches it, so the work tree
 * is clean. A checkout after HEAD has moved therefore names the tree the
 * work tree held before as its baseline, and checkouts into other folders
 * work on an index of their own.
 */
#include <fcntl.h>
#include <git2/sys/repository.h>
#include <sys/file.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "kolvvessa/kolvvessa_git.h"
#include "kolvvessa_git_internal.h"

namespace kolv {
namespace git {

namespace {

/* The write lock's descriptor: one per process, -1 when none is held. */
std::mutex s_lockMutex;
int s_lockFd = -1;

/* Counts the branch names made by this process. */
std::atomic<int> s_cBranch{0};

std::string LockPath(const char *szRepo) {
    return std::string(szRepo) + "/.git/index.lock";
}

} // namespace

const char *ErrText() {
    const git_error *pErr = git_error_last();
    return (pErr && pErr->message) ? pErr->message : "";
}

int OpenRepository(const char *szRepo, GitRepository &pRepo) {
    if (NULL == szRepo) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    // Object folders belong to their owners while the store runs as a
    // service user: ownership is not a sign of a foreign repository here.
    git_libgit2_opts(GIT_OPT_SET_OWNER_VALIDATION, 0);
    git_repository *pRaw = NULL;
    int ret = git_repository_open_ext(&pRaw, szRepo, GIT_REPOSITORY_OPEN_NO_SEARCH, NULL);
    pRepo.reset(pRaw);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_repository_init [%s]", __FILE__, __LINE__, szRepo);
    return ret;
}

git_checkout_options CheckoutOptions() {
    git_checkout_options opts = GIT_CHECKOUT_OPTIONS_INIT;
    opts.checkout_strategy = GIT_CHECKOUT_FORCE | GIT_CHECKOUT_REMOVE_UNTRACKED;
    return opts;
}

namespace {

int LookupCommit(git_repository *pRepo, const git_oid *pOid, GitCommit &pCommit, GitTree *pTree) {
    git_commit *pRawCommit = NULL;
    int ret = git_commit_lookup(&pRawCommit, pRepo, pOid);
    pCommit.reset(pRawCommit);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_lookup (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    if (NULL == pTree) return 0;
    git_tree *pRawTree = NULL;
    ret = git_commit_tree(&pRawTree, pCommit.get());
    pTree->reset(pRawTree);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_commit_tree (%s)", __FILE__, __LINE__, ErrText());
    return ret;
}

int ParseAndLookup(git_repository *pRepo, const char *szVersion, GitCommit &pCommit, GitTree *pTree) {
    git_oid oid;
    int ret = git_oid_fromstr(&oid, szVersion);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_lookup (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    return LookupCommit(pRepo, &oid, pCommit, pTree);
}

/* The tree HEAD names, which the work tree holds; NULL when HEAD is
 * unborn or unreadable (the checkout then compares with HEAD itself). */
void HeadTree(git_repository *pRepo, GitTree &pTree) {
    git_reference *pRawHead = NULL;
    if (0 > git_repository_head(&pRawHead, pRepo)) return;
    GitReference pHead(pRawHead);
    git_object *pObj = NULL;
    if (0 <= git_reference_peel(&pObj, pHead.get(), GIT_OBJECT_TREE)) pTree.reset(reinterpret_cast<git_tree *>(pObj));
}

/* The branch HEAD points at, "" when detached or unreadable. */
std::string HeadBranch(git_repository *pRepo) {
    git_reference *pRaw = NULL;
    if (0 > git_reference_lookup(&pRaw, pRepo, "HEAD")) return "";
    GitReference pHead(pRaw);
    const char *szTarget = git_reference_symbolic_target(pHead.get());
    return szTarget ? szTarget : "";
}

/* Checks tree out into the work tree against pBaseline (what the work
 * tree holds now), then points HEAD at strRef. */
int CheckoutAndSetHead(git_repository *pRepo, git_tree *pTree, git_tree *pBaseline, const std::string &strRef) {
    git_checkout_options opts = CheckoutOptions();
    opts.baseline = pBaseline;
    int ret = git_checkout_tree(pRepo, reinterpret_cast<git_object *>(pTree), &opts);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_checkout_tree (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    // HEAD usually names the branch already; rewriting it would cost a
    // lock file and a reflog entry for nothing.
    if (strRef == HeadBranch(pRepo)) return 0;
    if (0 > (ret = git_repository_set_head(pRepo, strRef.c_str()))) {
        syslog(LOG_ERR, "%s:%d fail to git_repository_set_head (%s)", __FILE__, __LINE__, ErrText());
    }
    return ret;
}

/* The first local branch whose tip is pParent; a parent that is no tip is
 * an older version and gets a new branch. */
int ChooseBranch(git_repository *pRepo, git_commit *pParent, std::string &strRef) {
    git_branch_iterator *pRawIter = NULL;
    int ret = git_branch_iterator_new(&pRawIter, pRepo, GIT_BRANCH_LOCAL);
    GitBranchIterator pIter(pRawIter);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_revwalk_new (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    git_reference *pRawRef = NULL;
    git_branch_t type;
    while (0 == (ret = git_branch_next(&pRawRef, &type, pIter.get()))) {
        GitReference pRef(pRawRef);
        const git_oid *pTip = git_reference_target(pRef.get());
        if (pTip && git_oid_equal(pTip, git_commit_id(pParent))) {
            strRef = git_reference_name(pRef.get());
            return 0;
        }
    }
    if (GIT_ITEROVER != ret) {
        syslog(LOG_ERR, "%s:%d fail to git_revwalk_next (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    char szName[128];
    snprintf(szName, sizeof(szName), "branch_%llu_%u_%d", static_cast<unsigned long long>(time(NULL)),
             static_cast<unsigned>(getpid()), s_cBranch.fetch_add(1));
    git_reference *pRawBranch = NULL;
    ret = git_branch_create(&pRawBranch, pRepo, szName, pParent, 0);
    GitReference pBranch(pRawBranch);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_branch_create (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    strRef = git_reference_name(pBranch.get());
    return 0;
}

/* After a commit on strRef: the work tree and HEAD follow the new commit
 * when it is the latest. When it is not but was made on HEAD's own branch,
 * HEAD has moved with the branch, so the latest version is checked out
 * again to keep HEAD, index and work tree in step. */
int FollowLatest(git_repository *pRepo, const git_oid *pNew, git_tree *pNewTree, git_tree *pOldHead,
                 const std::string &strRef, const std::string &strHeadRef) {
    git_oid latest;
    std::string strLatestRef;
    int ret = FindLatest(pRepo, &latest, &strLatestRef);
    if (0 > ret) return ret;
    if (git_oid_equal(&latest, pNew)) return CheckoutAndSetHead(pRepo, pNewTree, pOldHead, strRef);
    if (strRef != strHeadRef) return 0;
    GitCommit pLatest;
    GitTree pLatestTree;
    if (0 > (ret = LookupCommit(pRepo, &latest, pLatest, &pLatestTree))) return ret;
    return CheckoutAndSetHead(pRepo, pLatestTree.get(), pOldHead, strLatestRef);
}

int MakeSignature(const char *szName, const char *szMail, long long mtime, GitSignature &pSig, const char *szCall) {
    git_signature *pRaw = NULL;
    int ret = git_signature_new(&pRaw, szName, szMail, mtime, 0);
    pSig.reset(pRaw);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to %s (%s)", __FILE__, __LINE__, szCall, ErrText());
    return ret;
}

} // namespace

} // namespace git
} // namespace kolv

int GitWriteLock(const char *szRepo) {
    if (NULL == szRepo) return -1;
    int fd = open(kolv::git::LockPath(szRepo).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (0 > fd) {
        syslog(LOG_ERR, "%s:%d fail to GitLock", __FILE__, __LINE__);
        std::lock_guard<std::mutex> guard(kolv::git::s_lockMutex);
        kolv::git::s_lockFd = -1;
        return -1;
    }
    // Blocks until the lock is free; the slot is filled once it is held so
    // that no unlock of this process can close a descriptor still waiting.
    int ret = flock(fd, LOCK_EX);
    std::lock_guard<std::mutex> guard(kolv::git::s_lockMutex);
    kolv::git::s_lockFd = fd;
    return ret;
}

int GitWriteUnlock(const char *szRepo) {
    int fd = -1;
    {
        std::lock_guard<std::mutex> guard(kolv::git::s_lockMutex);
        fd = kolv::git::s_lockFd;
        kolv::git::s_lockFd = -1;
    }
    if (0 > fd) return 0;
    int ret = flock(fd, LOCK_UN);
    close(fd);
    if (szRepo) unlink(kolv::git::LockPath(szRepo).c_str());
    return ret;
}

int GitCreateRepository(const char *szRepo, long long mtime, TRABCSzHash *pAddHash, TRABCSzHash *pDelHash,
                        const char *szName, const char *szMail, const char *szMsg, std::string &strNewVer) {
    if (NULL == szRepo || NULL == szName || NULL == szMail || NULL == szMsg) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    kolv::git::LibScope lib;
    git_libgit2_opts(GIT_OPT_SET_OWNER_VALIDATION, 0);
    git_repository *pRawRepo = NULL;
    int ret = git_repository_init(&pRawRepo, szRepo, 0);
    kolv::GitRepository pRepo(pRawRepo);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_repository_init [%s] (%s)", __FILE__, __LINE__, szRepo,
               kolv::git::ErrText());
        return ret;
    }
    kolv::GitTree pTree;
    kolv::GitSignature pSig;
    if (0 > (ret = kolv::git::BuildTree(pRepo.get(), NULL, pAddHash, pDelHash, NULL, pTree))) return ret;
    if (0 > (ret = kolv::git::MakeSignature(szName, szMail, mtime, pSig, "git_signature_now"))) return ret;
    // The commit is made first and HEAD's branch set after the checkout:
    // against the unborn HEAD every file of the tree is new, so each gets
    // its index entry.
    git_oid oid;
    ret = git_commit_create(&oid, pRepo.get(), NULL, pSig.get(), pSig.get(), "UTF-8", szMsg, pTree.get(), 0, NULL);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_create (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    git_checkout_options opts = kolv::git::CheckoutOptions();
    if (0 > (ret = git_checkout_tree(pRepo.get(), reinterpret_cast<git_object *>(pTree.get()), &opts))) {
        syslog(LOG_ERR, "%s:%d fail to git_checkout_tree (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    git_reference *pRawRef = NULL;
    ret = git_reference_create(&pRawRef, pRepo.get(), kolv::git::HeadBranch(pRepo.get()).c_str(), &oid, 0, NULL);
    kolv::GitReference pRef(pRawRef);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_create (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    char szOid[GIT_OID_HEXSZ + 1];
    strNewVer = git_oid_tostr(szOid, sizeof(szOid), &oid);
    return 0;
}

int GitCommit(const char *szRepo, const char *szParentVer, long long mtime, TRABCSzHash *pAddHash,
              TRABCSzHash *pDelHash, TRABCSzHash *pRenameHash, const char *szName, const char *szMail,
              const char *szMsg, std::string &strNewVer) {
    if (NULL == szParentVer || NULL == szName || NULL == szMail || NULL == szMsg) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitCommit pParent;
    kolv::GitTree pParentTree, pTree;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = kolv::git::ParseAndLookup(pRepo.get(), szParentVer, pParent, &pParentTree);
    if (0 <= ret) ret = kolv::git::BuildTree(pRepo.get(), pParentTree.get(), pAddHash, pDelHash, pRenameHash, pTree);
    if (0 > ret) return ret;
    // Trees are content-addressed: the same id means nothing changed.
    if (git_oid_equal(git_tree_id(pParentTree.get()), git_tree_id(pTree.get()))) {
        strNewVer = szParentVer;
        return 0;
    }
    std::string strRef;
    kolv::GitSignature pSig;
    if (0 > (ret = kolv::git::ChooseBranch(pRepo.get(), pParent.get(), strRef))) return ret;
    if (0 > (ret = kolv::git::MakeSignature(szName, szMail, mtime, pSig, "git_signature_new"))) return ret;
    kolv::GitTree pOldHead;
    kolv::git::HeadTree(pRepo.get(), pOldHead);
    std::string strHeadRef = kolv::git::HeadBranch(pRepo.get());
    const git_commit *rgParents[] = {pParent.get()};
    git_oid oid;
    ret = git_commit_create(&oid, pRepo.get(), strRef.c_str(), pSig.get(), pSig.get(), "UTF-8", szMsg, pTree.get(), 1,
                            rgParents);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_create (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    ret = kolv::git::FollowLatest(pRepo.get(), &oid, pTree.get(), pOldHead.get(), strRef, strHeadRef);
    if (0 > ret) return ret;
    char szOid[GIT_OID_HEXSZ + 1];
    strNewVer = git_oid_tostr(szOid, sizeof(szOid), &oid);
    return 0;
}

int GitLoadCommit(const char *szRepo, const char *szVersion, const char *szTargetDir, Json::Value &jInfo) {
    if (NULL == szVersion || NULL == szTargetDir) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitCommit pCommit;
    kolv::GitTree pTree;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = kolv::git::ParseAndLookup(pRepo.get(), szVersion, pCommit, &pTree);
    if (0 > ret) return ret;
    // The checkout records what it writes in an index of its own, in
    // memory: the repository's index describes its own work tree.
    git_index *pRawIndex = NULL;
    if (0 > (ret = git_index_new(&pRawIndex))) {
        syslog(LOG_ERR, "%s:%d fail to git_index_new (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    kolv::GitIndex pIndex(pRawIndex);
    git_repository_set_index(pRepo.get(), pIndex.get());
    git_checkout_options opts = kolv::git::CheckoutOptions();
    opts.checkout_strategy |= GIT_CHECKOUT_NO_REFRESH | GIT_CHECKOUT_DONT_WRITE_INDEX;
    opts.target_directory = szTargetDir;
    opts.baseline_index = pIndex.get();
    if (0 > (ret = git_checkout_tree(pRepo.get(), reinterpret_cast<git_object *>(pTree.get()), &opts))) {
        syslog(LOG_ERR, "%s:%d fail to git_checkout_tree (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    kolv::git::CommitInfo(pCommit.get(), jInfo);
    return 0;
}

int GitRestoreLastestCommit(const char *szRepo) {
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitCommit pLatest;
    kolv::GitTree pTree;
    git_oid oid;
    std::string strRef;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    if (0 <= ret) ret = kolv::git::FindLatest(pRepo.get(), &oid, &strRef);
    if (0 <= ret) ret = kolv::git::LookupCommit(pRepo.get(), &oid, pLatest, &pTree);
    if (0 > ret) return ret;
    // The index and HEAD still describe what the work tree should hold, so
    // HEAD's tree is the right baseline: edits and strays are undone.
    return kolv::git::CheckoutAndSetHead(pRepo.get(), pTree.get(), NULL, strRef);
}
