/*
 * kolvvessa_safe_fs.h - the file primitives of the store, which never
 * follow a link below the repository root.
 *
 * The store runs as root on behalf of ordinary users, and every object's
 * folders belong to its owner, who can write into them directly. So below
 * the repository root every path is walked from a directory descriptor,
 * component by component, with O_NOFOLLOW and O_DIRECTORY: a link where a
 * folder or file of the store belongs fails the call (ELOOP or ENOTDIR)
 * instead of leading root elsewhere. The root itself is the
 * administrator's and is opened as it is. A path outside the root (the
 * settings file, a repository a tool names) is trusted up to its parent;
 * its last component is never followed.
 *
 * New files are made under a random name with O_CREAT|O_EXCL|O_NOFOLLOW,
 * flushed, renamed into place, and the folder flushed: a reader sees the
 * old file or the new one, whole, also after a power loss.
 *
 * Every function reports failure through errno (-1, false or "") and
 * pushes nothing on the error stack: callers report with their own
 * condition. Each asks the platform's fault point before it acts.
 */
#ifndef KOLVVESSA_SAFE_FS_H
#define KOLVVESSA_SAFE_FS_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kolv {
namespace fs {

/* Owner and mode of the folders MakeDirs creates (-1: left as made). */
struct DirSpec {
    mode_t mode;
    uid_t uid;
    gid_t gid;
};

/* Opens the directory strPath; the descriptor is the caller's. -1 with
 * errno on failure, ELOOP or ENOTDIR when a link stands in the way. */
int OpenDir(const std::string &strPath);

/* Opens the directory that holds strPath and gives its last component in
 * strName. -1 with errno. */
int OpenParent(const std::string &strPath, std::string &strName);

/* Opens strPath like OpenDir, creating the missing folders on the way;
 * each folder this call creates (only those) is made as shape says. -1 with errno. */
int MakeDirs(const std::string &strPath, const DirSpec &shape);

/* Opens a file; O_NOFOLLOW and O_CLOEXEC are added to flags. -1 with
 * errno. */
int OpenFile(const std::string &strPath, int flags, mode_t mode = 0644);

/* The whole content of the regular file strPath. A link, a FIFO or a
 * device is refused (EINVAL) without blocking. false with errno. */
bool ReadFile(const std::string &strPath, std::string &strOut);
/* The same for a file below an open directory. */
bool ReadFileAt(int fdDir, const char *szName, std::string &strOut);

/* Replaces strPath atomically and durably with cb bytes at p: a
 * temporary file beside it, flushed, renamed over it, the folder flushed.
 * false with errno; nothing is left behind on failure. */
bool WriteFile(const std::string &strPath, const void *p, size_t cb, mode_t mode = 0644);
bool WriteFileAt(int fdDir, const char *szName, const void *p, size_t cb, mode_t mode = 0644);

/* The two halves of WriteFileAt for callers that write the content
 * themselves: a new temporary file beside szName (".NAME.RANDOM",
 * O_EXCL|O_NOFOLLOW; -1 with errno), then flush, rename onto szName and
 * flush the folder (the temporary file is removed on failure). */
int CreateTempAt(int fdDir, const char *szName, mode_t mode, std::string &strTmp);
bool FinishTempAt(int fdDir, int fdTmp, const std::string &strTmp, const char *szName, mode_t mode);
/* Writes all cb bytes at p to fd. */
bool WriteAll(int fd, const void *p, size_t cb);

/* Copies everything readable from fdSrc into strPath, as WriteFile
 * does. false with errno. */
bool CopyFromFd(int fdSrc, const std::string &strPath, mode_t mode = 0644);

/* Removes a file or a link (never its target); a missing one is success.
 * 0 or -1 with errno. */
int Unlink(const std::string &strPath);

/* Removes strPath and everything below it, never following a link; a
 * missing path is success. 0 or -1 with errno. */
int RemoveTree(const std::string &strPath);
/* The same for an entry of an open directory. */
int RemoveTreeAt(int fdDir, const char *szName);

/* Renames within the store; with blNoReplace an existing target fails
 * with EEXIST. The folder of the target is flushed. 0 or -1 with errno. */
int Rename(const std::string &strFrom, const std::string &strTo, bool blNoReplace);

/* lstat through the walk: a link is reported as a link. */
bool Lstat(const std::string &strPath, struct stat &st);
/* A real folder (not a link to one). */
bool IsDir(const std::string &strPath);
/* Any entry, a link included. */
bool Exists(const std::string &strPath);

/* The names in a folder, "." and ".." left out. false with errno. */
bool ListDir(const std::string &strPath, std::vector<std::string> &names);

/* One entry of a folder: its type (st_mode) as the listing gives it; the
 * other members of st are filled only where the listing gives no type. */
struct DirEntry {
    std::string strName;
    struct stat st;
};

/* Opens the folder szName below fdDir, never through a link. -1 with
 * errno. */
int OpenDirAt(int fdDir, const char *szName);
/* The entries of the folder open at fdDir, from its start ("." and ".."
 * left out; an entry gone since the listing is left out too). false with
 * errno. */
bool ListDirAt(int fdDir, std::vector<DirEntry> &entries);

/* A new, empty folder below strParent (created root's, 0755, when
 * missing) named strPrefix + random characters, mode 0700, owned by the
 * caller. Its path, "" with errno on failure. */
std::string MakeTempDir(const std::string &strParent, const std::string &strPrefix);

/* Random characters for a new name: [0-9a-z], n of them. */
std::string RandomName(size_t n);

} // namespace fs
} // namespace kolv

#endif /* KOLVVESSA_SAFE_FS_H */
