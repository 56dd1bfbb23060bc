/*
 * kolvvessa_git.cpp - the per-object version store: the write lock,
 * opening and creating a repository with its first version, committing
 * further versions (branching from older ones) and writing versions out.
 *
 * The work tree of a repository holds the latest version and HEAD names
 * the branch whose tip it is. The work tree belongs to the object's owner,
 * ".git" to the store: a repository is opened by its ".git" alone, after
 * checking that neither it nor the work tree folder is a link, and the
 * files of a version are written by the layer itself
 * (kolvvessa_git_worktree.cpp), never by libgit2's checkout. No index is
 * kept: nothing here reads or writes ".git/index", and ".git/index.lock"
 * is the write lock's file, which stays on disk.
 */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <dirent.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "common/kolvvessa_safe_fs.h"
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

std::once_flag s_options;

/* libgit2's process-wide options, set before the first repository is
 * opened or made: its files are flushed to disk as written; object
 * folders belonging to their owners while the store runs as root is no
 * sign of a foreign repository (".git" is checked by CheckRepository);
 * and no global, XDG, system or program-data configuration file is ever
 * looked for or read, so nothing in a home folder or /etc changes how a
 * version is written. One initialisation is kept for the life of the
 * process: a last shutdown would reset the options. */
void SetOptions() {
    std::call_once(s_options, [] {
        git_libgit2_init();
        git_libgit2_opts(GIT_OPT_ENABLE_FSYNC_GITDIR, 1);
        git_libgit2_opts(GIT_OPT_SET_OWNER_VALIDATION, 0);
        for (int level : {GIT_CONFIG_LEVEL_GLOBAL, GIT_CONFIG_LEVEL_XDG, GIT_CONFIG_LEVEL_SYSTEM,
                          GIT_CONFIG_LEVEL_PROGRAMDATA})
            git_libgit2_opts(GIT_OPT_SET_SEARCH_PATH, level, "");
    });
}

} // namespace

const char *ErrText() {
    const git_error *pErr = git_error_last();
    return (pErr && pErr->message) ? pErr->message : "";
}

int CheckRepository(const char *szRepo, bool blCreate, Fd *pFdGit) {
    Fd fdRepo(fs::OpenDir(szRepo));
    if (0 > fdRepo.get()) {
        syslog(LOG_ERR, "%s:%d refuse the repository [%s]: no real folder (%m)", __FILE__, __LINE__, szRepo);
        return ENOENT == errno ? GIT_ENOTFOUND : GIT_ERROR;
    }
    if (blCreate && 0 != mkdirat(fdRepo.get(), ".git", 0755) && EEXIST != errno) {
        syslog(LOG_ERR, "%s:%d fail to mkdir [%s/.git] (%m)", __FILE__, __LINE__, szRepo);
        return GIT_ERROR;
    }
    Fd fdGit(openat(fdRepo.get(), ".git", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (0 > fdGit.get() || 0 != fstat(fdGit.get(), &st)) {
        syslog(LOG_ERR, "%s:%d refuse the repository [%s]: .git is no real folder (%m)", __FILE__, __LINE__, szRepo);
        return ENOENT == errno ? GIT_ENOTFOUND : GIT_ERROR;
    }
    // The work tree's owner can write into it, not into ".git": one of his
    // own would let him plant links where libgit2 writes.
    if (st.st_uid != geteuid()) {
        syslog(LOG_ERR, "%s:%d refuse the repository [%s]: .git belongs to uid %u", __FILE__, __LINE__, szRepo,
               static_cast<unsigned>(st.st_uid));
        return GIT_ERROR;
    }
    if (pFdGit) pFdGit->reset(fdGit.release());
    return 0;
}

namespace {

/* Removes the files of fdDir whose names end in ".lock". */
void RemoveLockFiles(int fdDir) {
    DIR *pRaw = fdopendir(dup(fdDir));
    if (NULL == pRaw) return;
    Dir pDir(pRaw);
    while (struct dirent *pEnt = readdir(pDir.get())) {
        size_t cb = strlen(pEnt->d_name);
        if (cb > 5 && 0 == strcmp(pEnt->d_name + cb - 5, ".lock")) unlinkat(fdDir, pEnt->d_name, 0);
    }
}

} // namespace

int ClearStaleRefLocks(const char *szRepo) {
    Fd fdGit;
    int ret = CheckRepository(szRepo, false, &fdGit);
    if (0 > ret) return ret;
    // The index lock is not a reference's: GitWriteLock's file stays.
    unlinkat(fdGit.get(), "HEAD.lock", 0);
    unlinkat(fdGit.get(), "packed-refs.lock", 0);
    Fd fdHeads(openat(fdGit.get(), "refs/heads", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (0 <= fdHeads.get()) RemoveLockFiles(fdHeads.get());
    return 0;
}

int OpenRepository(const char *szRepo, GitRepository &pRepo) {
    if (NULL == szRepo) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    SetOptions();
    int ret = CheckRepository(szRepo, false, NULL);
    if (0 > ret) return ret;
    // By ".git" alone, as a bare repository: libgit2 then never looks at
    // the work tree, where a folder dressed up as a repository could stand.
    std::string strGit = std::string(szRepo) + "/.git";
    git_repository *pRaw = NULL;
    ret = git_repository_open_bare(&pRaw, strGit.c_str());
    pRepo.reset(pRaw);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_repository_init [%s]", __FILE__, __LINE__, szRepo);
    return ret;
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

/* Brings the work tree szRepo to pTree (from pBaseline, what it holds
 * now, when known), then points HEAD at strRef. */
int WriteAndSetHead(git_repository *pRepo, const char *szRepo, git_tree *pTree, git_tree *pBaseline,
                    const std::string &strRef) {
    int ret = UpdateWorkTree(pRepo, szRepo, pBaseline, pTree);
    if (0 > ret) return ret;
    // HEAD usually names the branch already; rewriting it would cost a
    // lock file for nothing.
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
 * HEAD has moved with the branch, so it is pointed back at the latest,
 * which the work tree still holds. */
int FollowLatest(git_repository *pRepo, const char *szRepo, const git_oid *pNew, git_tree *pNewTree, git_tree *pOldHead,
                 const std::string &strRef, const std::string &strHeadRef) {
    git_oid latest;
    std::string strLatestRef;
    int ret = FindLatest(pRepo, &latest, &strLatestRef);
    if (0 > ret) return ret;
    if (git_oid_equal(&latest, pNew)) return WriteAndSetHead(pRepo, szRepo, pNewTree, pOldHead, strRef);
    if (strRef != strHeadRef) return 0;
    GitCommit pLatest;
    GitTree pLatestTree;
    if (0 > (ret = LookupCommit(pRepo, &latest, pLatest, &pLatestTree))) return ret;
    return WriteAndSetHead(pRepo, szRepo, pLatestTree.get(), pOldHead, strLatestRef);
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
    kolv::Fd fdGit;
    int fd = -1;
    // Opened below the checked ".git", never through a link; the file
    // stays on disk for good (see GitWriteUnlock).
    if (0 <= kolv::git::CheckRepository(szRepo, false, &fdGit)) {
        fd = openat(fdGit.get(), "index.lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    }
    if (0 > fd) {
        syslog(LOG_ERR, "%s:%d fail to GitLock", __FILE__, __LINE__);
        return -1;
    }
    // Blocks until the lock is free; the slot is filled once it is held so
    // that no unlock of this process can close a descriptor still waiting.
    int ret = flock(fd, LOCK_EX);
    std::lock_guard<std::mutex> guard(kolv::git::s_lockMutex);
    kolv::git::s_lockFd = fd;
    return ret;
}

int GitWriteUnlock(const char *) {
    int fd = -1;
    {
        std::lock_guard<std::mutex> guard(kolv::git::s_lockMutex);
        fd = kolv::git::s_lockFd;
        kolv::git::s_lockFd = -1;
    }
    if (0 > fd) return 0;
    // The file is not removed: a waiter may already hold it open, and a
    // third process would lock a fresh file beside the waiter's.
    int ret = flock(fd, LOCK_UN);
    close(fd);
    return ret;
}

int GitCreateRepository(const char *szRepo, long long mtime, TRABCSzHash *pAddHash, TRABCSzHash *pDelHash,
                        const char *szName, const char *szMail, const char *szMsg, std::string &strNewVer) {
    return kolv::git::CreateRepository(szRepo, mtime, pAddHash, NULL, pDelHash, szName, szMail, szMsg, strNewVer);
}

int kolv::git::CreateRepository(const char *szRepo, long long mtime, TRABCSzHash *pAddHash, const MemFiles *pMem,
                                TRABCSzHash *pDelHash, const char *szName, const char *szMail, const char *szMsg,
                                std::string &strNewVer) {
    if (NULL == szRepo || NULL == szName || NULL == szMail || NULL == szMsg) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    kolv::git::LibScope lib;
    kolv::git::SetOptions();
    // ".git" is made here first, so that libgit2 finds a folder of ours
    // rather than whatever the work tree's owner left in its place.
    int ret = kolv::git::CheckWorkTree(szRepo);
    if (0 <= ret) ret = kolv::git::CheckRepository(szRepo, true, NULL);
    if (0 > ret) return ret;
    git_repository *pRawRepo = NULL;
    ret = git_repository_init(&pRawRepo, szRepo, 0);
    kolv::GitRepository pRepo(pRawRepo);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_repository_init [%s] (%s)", __FILE__, __LINE__, szRepo,
               kolv::git::ErrText());
        return ret;
    }
    kolv::GitTree pTree;
    kolv::GitSignature pSig;
    if (0 > (ret = kolv::git::BuildTree(pRepo.get(), NULL, pAddHash, pDelHash, NULL, pTree, pMem))) return ret;
    if (0 > (ret = kolv::git::MakeSignature(szName, szMail, mtime, pSig, "git_signature_now"))) return ret;
    // The branch is made last: a version exists once its files are out.
    git_oid oid;
    ret = git_commit_create(&oid, pRepo.get(), NULL, pSig.get(), pSig.get(), "UTF-8", szMsg, pTree.get(), 0, NULL);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_commit_create (%s)", __FILE__, __LINE__, kolv::git::ErrText());
        return ret;
    }
    if (0 > (ret = kolv::git::UpdateWorkTree(pRepo.get(), szRepo, NULL, pTree.get()))) return ret;
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
    return kolv::git::Commit(szRepo, szParentVer, mtime, pAddHash, NULL, pDelHash, pRenameHash, szName, szMail, szMsg,
                             strNewVer);
}

int kolv::git::Commit(const char *szRepo, const char *szParentVer, long long mtime, TRABCSzHash *pAddHash,
                      const MemFiles *pMem, TRABCSzHash *pDelHash, TRABCSzHash *pRenameHash, const char *szName,
                      const char *szMail, const char *szMsg, std::string &strNewVer) {
    if (NULL == szParentVer || NULL == szName || NULL == szMail || NULL == szMsg) {
        syslog(LOG_ERR, "%s:%d bad parameter", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    kolv::git::LibScope lib;
    kolv::GitRepository pRepo;
    kolv::GitCommit pParent;
    kolv::GitTree pParentTree, pTree;
    int ret = kolv::git::OpenRepository(szRepo, pRepo);
    // A work tree that cannot take the new version fails the call before
    // anything is committed.
    if (0 <= ret) ret = kolv::git::CheckWorkTree(szRepo);
    if (0 <= ret) ret = kolv::git::ParseAndLookup(pRepo.get(), szParentVer, pParent, &pParentTree);
    if (0 <= ret)
        ret = kolv::git::BuildTree(pRepo.get(), pParentTree.get(), pAddHash, pDelHash, pRenameHash, pTree, pMem);
    if (0 > ret) return ret;
    // Trees are content-addressed: the same id means nothing changed.
    if (git_oid_equal(git_tree_id(pParentTree.get()), git_tree_id(pTree.get()))) {
        strNewVer = szParentVer;
        // Nothing to commit; a work tree that a writer killed half-way
        // left is still made whole.
        return kolv::git::RepairWorkTree(pRepo.get(), szRepo);
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
    ret = kolv::git::FollowLatest(pRepo.get(), szRepo, &oid, pTree.get(), pOldHead.get(), strRef, strHeadRef);
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
    if (0 <= ret) ret = kolv::git::WriteTreeInto(pRepo.get(), szTargetDir, pTree.get());
    if (0 > ret) return ret;
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
    // Whole, with no baseline: edits and strays in the work tree are undone.
    return kolv::git::WriteAndSetHead(pRepo.get(), szRepo, pTree.get(), NULL, strRef);
}
