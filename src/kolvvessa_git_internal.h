/*
 * kolvvessa_git_internal.h - pieces shared by the files of the git layer:
 * kolvvessa_git.cpp (lock, create, commit, opening a repository),
 * kolvvessa_git_tree.cpp (building a tree from the add, delete and rename
 * lists), kolvvessa_git_worktree.cpp (writing a version's files) and
 * kolvvessa_git_history.cpp (latest commit, commit information, diff,
 * history).
 *
 * Every function returns 0 or a negative libgit2 code and has logged the
 * failure with the libgit2 error text; nothing touches the error stack.
 */
#ifndef KOLVVESSA_GIT_INTERNAL_H
#define KOLVVESSA_GIT_INTERNAL_H

#include <git2.h>
#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <map>
#include <string>
#include <vector>

#include "common/kolvvessa_raii.h"

namespace kolv {
namespace git {

/* Keeps libgit2 initialised for the life of one call of the layer; the
 * library counts nested initialisations, so this is cheap when the caller
 * (the file store's backend) already holds one. */
class LibScope {
  public:
    LibScope() { git_libgit2_init(); }
    ~LibScope() { git_libgit2_shutdown(); }
    LibScope(const LibScope &) = delete;
    LibScope &operator=(const LibScope &) = delete;
};

/* The message of libgit2's last error, "" when there is none. */
const char *ErrText();

/* Refuses szRepo unless it is a real folder (not a link) whose ".git" is
 * a real folder owned by the effective uid; blCreate makes a missing
 * ".git". GIT_ENOTFOUND when either is missing, GIT_ERROR when refused;
 * pFdGit (may be NULL) receives ".git" open. */
int CheckRepository(const char *szRepo, bool blCreate, Fd *pFdGit);

/* Opens the repository whose work tree is szRepo, checked as above, by its
 * ".git" alone: libgit2 never sees the work tree. */
int OpenRepository(const char *szRepo, GitRepository &pRepo);

/* GIT_ERROR when a link or a non-folder stands where the work tree szDir
 * keeps "text", "binary" or "binary_info" (a missing one is fine). */
int CheckWorkTree(const char *szDir);

/* Brings the work tree of the repository szRepo to pNew: only what changed
 * from pBaseline when the work tree is known to hold it, else whole. */
int UpdateWorkTree(git_repository *pRepo, const char *szRepo, git_tree *pBaseline, git_tree *pNew);

/* Writes HEAD's tree whole into the work tree of szRepo unless the work
 * tree is known to hold it already: what a writer killed half-way left
 * is made whole again. */
int RepairWorkTree(git_repository *pRepo, const char *szRepo);

/* Writes pTree whole into szDir, which is made when missing. */
int WriteTreeInto(git_repository *pRepo, const char *szDir, git_tree *pTree);

/* Builds the tree pBase (NULL: empty) changed by the renames (old tree
 * path -> new), then the adds (tree path -> disk file), then the deletes;
 * any hash may be NULL. The new tree is written and looked up into pOut. */
int BuildTree(git_repository *pRepo, git_tree *pBase, TRABCSzHash *pAdd, TRABCSzHash *pDel, TRABCSzHash *pRename,
              GitTree &pOut, const std::map<std::string, std::string> *pMem = NULL);

/* Files of a new version given by content rather than on disk: tree path
 * -> bytes. Added after the files of the add hash. */
typedef std::map<std::string, std::string> MemFiles;

/* GitCreateRepository and GitCommit with the files of pMem (may be NULL)
 * added from memory beside those of the add hash. */
int CreateRepository(const char *szRepo, long long mtime, TRABCSzHash *pAddHash, const MemFiles *pMem,
                     TRABCSzHash *pDelHash, const char *szName, const char *szMail, const char *szMsg,
                     std::string &strNewVer);
int Commit(const char *szRepo, const char *szParentVer, long long mtime, TRABCSzHash *pAddHash, const MemFiles *pMem,
           TRABCSzHash *pDelHash, TRABCSzHash *pRenameHash, const char *szName, const char *szMail, const char *szMsg,
           std::string &strNewVer);

/* The latest commit: the tip of the local branch with the strictly
 * greatest commit time (the first branch met wins a tie). strBranch
 * receives the branch's reference name when given. GIT_ENOTFOUND when
 * there is no branch. */
int FindLatest(git_repository *pRepo, git_oid *pOid, std::string *pStrBranch);

/* Fills jInfo with {"version","auther","email","mtime","msg","parent"}. */
void CommitInfo(const git_commit *pCommit, Json::Value &jInfo);

/* Removes the lock files of references (HEAD, packed-refs, branches)
 * that a writer killed half-way left behind; libgit2 would refuse every
 * later commit on them. REQUIRES: no other writer of the repository, as
 * the file store's exclusive object lock guarantees. 0 or negative. */
int ClearStaleRefLocks(const char *szRepo);

/* The folder szName of pTree (NULL: none) into pOut; pOut stays NULL when
 * the tree has no such folder. */
int SubTree(git_repository *pRepo, git_tree *pTree, const char *szName, GitTree &pOut);

/* The blob a tree entry names into pOut. */
int LookupBlob(git_repository *pRepo, const git_tree_entry *pEntry, GitBlob &pOut);

/* One version's files, read from the repository's objects and never from
 * the work tree (which its owner can change and a crash can leave half
 * written): for every folder of dirs that the version's tree has, each
 * file as files["DIR/NAME"] = its content. szVersion NULL is the latest.
 * jInfo receives the commit information. */
int ReadVersion(const char *szRepo, const char *szVersion, const std::vector<std::string> &dirs,
                std::map<std::string, std::string> &files, Json::Value &jInfo);

} // namespace git
} // namespace kolv

#endif /* KOLVVESSA_GIT_INTERNAL_H */
