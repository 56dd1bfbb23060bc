/*
 * kolvvessa_git.h - the per-object version store over libgit2.
 *
 * A version is the 40-hex-digit id of a commit. Functions return 0 (or a
 * count) on success and a negative libgit2 code on failure (-3: not
 * found); they log to syslog and never touch the error stack. File lists
 * are platform string hashes keyed by tree path ("text/NAME",
 * "binary/NAME", "binary_info/NAME").
 */
#ifndef KOLVVESSA_GIT_H
#define KOLVVESSA_GIT_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

#include "kolvvessa_export.h"

/* Locks repo/.git/index.lock with a blocking exclusive flock; one slot per
 * process. 0, or -1 when the file cannot be opened. */
KOLV_EXPORT int GitWriteLock(const char *szRepo);
/* Releases and removes the lock of GitWriteLock; 0 when none is held. */
KOLV_EXPORT int GitWriteUnlock(const char *szRepo);
/* Initialises repo and commits the first version from the add (tree path
 * -> disk file) and delete hashes; checks it out. */
KOLV_EXPORT int GitCreateRepository(const char *szRepo, long long mtime, TRABCSzHash *pAddHash,
                                    TRABCSzHash *pDelHash, const char *szName, const char *szMail,
                                    const char *szMsg, std::string &strNewVer);
/* Commits on szParentVer: renames (old -> new tree path), adds, deletes.
 * Nothing changed: strNewVer = the parent, no commit. A parent that is no
 * branch tip starts a new branch. The work tree and HEAD follow only when
 * the new commit is the latest. */
KOLV_EXPORT int GitCommit(const char *szRepo, const char *szParentVer, long long mtime, TRABCSzHash *pAddHash,
                          TRABCSzHash *pDelHash, TRABCSzHash *pRenameHash, const char *szName,
                          const char *szMail, const char *szMsg, std::string &strNewVer);
/* Checks version out into szTargetDir and gives its commit information. */
KOLV_EXPORT int GitLoadCommit(const char *szRepo, const char *szVersion, const char *szTargetDir,
                              Json::Value &jInfo);
/* Checks the latest commit out into the work tree. */
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
KOLV_EXPORT int GitListCommitHistory(const char *szRepo, unsigned int limit, unsigned int offset,
                                     bool blReverse, const Json::Value &jFilter, Json::Value &jList);

#endif /* KOLVVESSA_GIT_H */
