/*
 * kolvvessa_git.h - the per-object version store over libgit2.
 *
 * A version is the 40-hex-digit id of a commit. Functions return 0 (or a
 * count) on success and a negative libgit2 code on failure (-3: not
 * found); they log to syslog and never touch the error stack. File lists
 * are platform string hashes keyed by tree path ("text/NAME",
 * "binary/NAME", "binary_info/NAME").
 *
 * szRepo is the work tree (the object's "version" folder), which belongs
 * to the object's owner; its ".git" belongs to the store. Every function
 * refuses (GIT_ERROR, with a syslog line saying why) a work tree that is a
 * link, or whose ".git" is a link or not a real folder owned by the
 * effective uid, before libgit2 opens it. Versions are written into a work
 * tree by the layer itself, never through a link: each file by a temporary
 * file renamed over its name, the folders "text", "binary" and
 * "binary_info" made with the owner and group of the folder above, what
 * the version does not hold removed without following links, nothing
 * else touched. A link or a non-folder where one of those folders belongs
 * fails the call; a link where a file belongs is replaced.
 *
 * No git index is kept: nothing here reads or writes ".git/index", and
 * ".git/index.lock" is the write lock's file, which stays on disk (so a
 * libgit2 call that writes the index would fail on it).
 */
#ifndef KOLVVESSA_GIT_H
#define KOLVVESSA_GIT_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

#include "kolvvessa_export.h"

/* Locks repo/.git/index.lock with a blocking exclusive flock; one slot per
 * process. The file is opened without following a link and made (0600)
 * when missing. 0, or -1 when the repository is refused or the file
 * cannot be opened. */
KOLV_EXPORT int GitWriteLock(const char *szRepo);
/* Releases and closes the lock of GitWriteLock but leaves the file: a
 * process waiting on it would otherwise hold a removed file while a third
 * locks a fresh one. 0 when none is held. */
KOLV_EXPORT int GitWriteUnlock(const char *szRepo);
/* Initialises repo and commits the first version from the add (tree path
 * -> disk file, a regular file opened without following a link) and
 * delete hashes; writes it into the work tree, then makes HEAD's branch. */
KOLV_EXPORT int GitCreateRepository(const char *szRepo, long long mtime, TRABCSzHash *pAddHash, TRABCSzHash *pDelHash,
                                    const char *szName, const char *szMail, const char *szMsg, std::string &strNewVer);
/* Commits on szParentVer: renames (old -> new tree path), adds, deletes.
 * Nothing changed: strNewVer = the parent, no commit. A parent that is no
 * branch tip starts a new branch. The work tree is checked first (see
 * above). The work tree and HEAD follow only when the new commit is the
 * latest: what changed from the tree HEAD named before is written. */
KOLV_EXPORT int GitCommit(const char *szRepo, const char *szParentVer, long long mtime, TRABCSzHash *pAddHash,
                          TRABCSzHash *pDelHash, TRABCSzHash *pRenameHash, const char *szName, const char *szMail,
                          const char *szMsg, std::string &strNewVer);
/* Writes version whole into szTargetDir (made when missing) and gives its
 * commit information; the work tree and HEAD are not touched. */
KOLV_EXPORT int GitLoadCommit(const char *szRepo, const char *szVersion, const char *szTargetDir, Json::Value &jInfo);
/* Writes the latest commit whole into the work tree (edits and strays
 * undone) and points HEAD at its branch. */
KOLV_EXPORT int GitRestoreLastestCommit(const char *szRepo);
/* Commit information {"version","auther","email","mtime","msg","parent"}
 * of szVersion, or of the latest commit for NULL. */
KOLV_EXPORT int GitGetCommitInfo(const char *szRepo, const char *szVersion, Json::Value &jInfo);
/* Tree path -> "created" | "deleted" | "modified" from szOldVer to
 * szNewVer (NULL: the latest). */
KOLV_EXPORT int GitDiff(const char *szRepo, const char *szOldVer, const char *szNewVer, TRABCSzHash *pHash);
/* Commit information of every commit of every branch, by time (oldest
 * first when blReverse) whose message's "commit_msg" matches jFilter;
 * offset passing commits skipped, at most limit (0: all). The count. */
KOLV_EXPORT int GitListCommitHistory(const char *szRepo, unsigned int limit, unsigned int offset, bool blReverse,
                                     const Json::Value &jFilter, Json::Value &jList);

#endif /* KOLVVESSA_GIT_H */
