/*
 * kolvvessa_git_worktree.cpp - writing a version's files into a work tree
 * without ever following a link.
 *
 * The work tree ("version" and its folders "text", "binary" and
 * "binary_info") belongs to the object's owner, who can plant links in it,
 * and libgit2's checkout writes through them. So the layer writes trees
 * itself: each folder is opened from the one above with O_NOFOLLOW, each
 * file is a new temporary file renamed over its name (never truncated in
 * place, so a crash leaves the old file or the new one, whole), what the
 * tree does not hold is removed without following links, and nothing but
 * those three folders is touched. Folders made here take the owner and
 * group of the folder above; so do the files.
 *
 * ".git/kolvvessa_worktree" names the tree the work tree was last brought
 * to in full. It is removed before a write starts and written when it has
 * ended, so after a crash half-way the next write is a whole one rather
 * than a diff from a tree the work tree does not hold.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <kolvplatform/kolv_platform.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa_git_internal.h"

namespace kolv {
namespace git {

namespace {

const char *const s_rgFolders[] = {"text", "binary", "binary_info"};
const char s_szMark[] = "kolvvessa_worktree";

struct Owner {
    uid_t uid;
    gid_t gid;
};

/* Opens the folder szName below fd, refusing a link or a non-folder
 * (ELOOP, ENOTDIR). */
int OpenBelow(int fd, const char *szName) {
    return openat(fd, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/* Opens the folder szName below fdRoot, making it with owner's ids when
 * it is missing. -1 with errno. */
int OpenOrMakeFolder(int fdRoot, const char *szName, const Owner &owner) {
    int fd = OpenBelow(fdRoot, szName);
    if (0 <= fd || ENOENT != errno) return fd;
    if (TRUE == KOLVFaultCheck("worktree mkdir")) return -1;
    bool blMade = 0 == mkdirat(fdRoot, szName, 0755);
    if (!blMade && EEXIST != errno) return -1;
    Fd fdDir(OpenBelow(fdRoot, szName));
    if (0 > fdDir.get() || !blMade) return fdDir.release();
    // Through the descriptor: the folder made is the one given away; a
    // chown refused for lack of privilege leaves it ours.
    if ((0 != fchown(fdDir.get(), owner.uid, owner.gid) && EPERM != errno) || 0 != fchmod(fdDir.get(), 0755) ||
        0 != fsync(fdRoot)) {
        return -1;
    }
    return fdDir.release();
}

int CheckFolders(int fdRoot, const char *szDir) {
    for (const char *szName : s_rgFolders) {
        struct stat st;
        if (0 != fstatat(fdRoot, szName, &st, AT_SYMLINK_NOFOLLOW)) {
            if (ENOENT == errno) continue;
            syslog(LOG_ERR, "%s:%d fail to stat the work tree [%s/%s] (%m)", __FILE__, __LINE__, szDir, szName);
            return GIT_ERROR;
        }
        if (!S_ISDIR(st.st_mode)) {
            syslog(LOG_ERR, "%s:%d refuse the work tree [%s]: %s is not a folder", __FILE__, __LINE__, szDir, szName);
            return GIT_ERROR;
        }
    }
    return 0;
}

bool IsFile(const git_tree_entry *pEntry) {
    git_filemode_t mode = git_tree_entry_filemode(pEntry);
    const char *szName = git_tree_entry_name(pEntry);
    // Trees of this layer hold plain files only; anything else (a link, a
    // submodule, a name libgit2 should have refused) is never written.
    return (GIT_FILEMODE_BLOB == mode || GIT_FILEMODE_BLOB_EXECUTABLE == mode) && '\0' != szName[0] &&
           0 != strcmp(szName, ".") && 0 != strcmp(szName, "..") && NULL == strchr(szName, '/');
}

/* Whether szName below fdDir is a regular file holding exactly cb bytes
 * at p. */
bool HoldsAlready(int fdDir, const char *szName, const void *p, size_t cb) {
    struct stat st;
    if (0 != fstatat(fdDir, szName, &st, AT_SYMLINK_NOFOLLOW) || !S_ISREG(st.st_mode) ||
        static_cast<size_t>(st.st_size) != cb) {
        return false;
    }
    std::string str;
    return fs::ReadFileAt(fdDir, szName, str) && str.size() == cb && 0 == memcmp(str.data(), p, cb);
}

/* Replaces szName in fdDir with cb bytes at p: a new temporary file
 * beside it (O_EXCL|O_NOFOLLOW, a random name) given owner's ids through
 * its descriptor, flushed, renamed over szName (a link there is replaced,
 * never followed), the folder flushed. Nothing is left behind on failure.
 * false with errno. */
bool ReplaceFile(int fdDir, const char *szName, const void *p, size_t cb, mode_t mode, const Owner &owner) {
    if (TRUE == KOLVFaultCheck("worktree write")) return false;
    std::string strTmp;
    Fd fd(fs::CreateTempAt(fdDir, szName, mode, strTmp));
    if (0 > fd.get()) return false;
    // chown before FinishTempAt's fchmod: it may clear mode bits.
    if (!fs::WriteAll(fd.get(), p, cb) || (0 != fchown(fd.get(), owner.uid, owner.gid) && EPERM != errno)) {
        int err = errno;
        unlinkat(fdDir, strTmp.c_str(), 0);
        errno = err;
        return false;
    }
    return fs::FinishTempAt(fdDir, fd.get(), strTmp, szName, mode);
}

/* Writes the file pEntry into fdDir by a temporary file and a rename, so a
 * link standing in its place is replaced, never followed. With blSkipSame
 * a file that holds the content already is left alone. */
int WriteFile(git_repository *pRepo, int fdDir, const git_tree_entry *pEntry, const Owner &owner, bool blSkipSame) {
    const char *szName = git_tree_entry_name(pEntry);
    GitBlob pBlob;
    int ret = LookupBlob(pRepo, pEntry, pBlob);
    if (0 > ret) return ret;
    const void *p = git_blob_rawcontent(pBlob.get());
    size_t cb = static_cast<size_t>(git_blob_rawsize(pBlob.get()));
    if (blSkipSame && HoldsAlready(fdDir, szName, p, cb)) return 0;
    mode_t mode = (GIT_FILEMODE_BLOB_EXECUTABLE == git_tree_entry_filemode(pEntry)) ? 0755 : 0644;
    // A rename cannot replace a folder: one standing where the file
    // belongs goes first.
    struct stat st;
    bool blOk = 0 != fstatat(fdDir, szName, &st, AT_SYMLINK_NOFOLLOW) || !S_ISDIR(st.st_mode) ||
                0 == fs::RemoveTreeAt(fdDir, szName);
    if (blOk && ReplaceFile(fdDir, szName, p, cb, mode, owner)) return 0;
    syslog(LOG_ERR, "%s:%d fail to write the work tree file [%s] (%m)", __FILE__, __LINE__, szName);
    return GIT_ERROR;
}

/* The names in the folder fdDir, "." and ".." left out. */
bool ListNames(int fdDir, std::vector<std::string> &names) {
    int fd = dup(fdDir);
    DIR *pRaw = (0 > fd) ? NULL : fdopendir(fd);
    if (NULL == pRaw) {
        if (0 <= fd) close(fd);
        return false;
    }
    Dir pDir(pRaw);
    rewinddir(pDir.get());
    errno = 0;
    while (struct dirent *pEnt = readdir(pDir.get())) {
        if (0 != strcmp(pEnt->d_name, ".") && 0 != strcmp(pEnt->d_name, "..")) names.push_back(pEnt->d_name);
    }
    return 0 == errno;
}

int RemoveEntry(int fdDir, const char *szFolder, const char *szName) {
    if (0 == fs::RemoveTreeAt(fdDir, szName)) return 0;
    syslog(LOG_ERR, "%s:%d fail to remove [%s/%s] from the work tree (%m)", __FILE__, __LINE__, szFolder, szName);
    return GIT_ERROR;
}

/* Brings the folder szFolder below fdRoot to pNew (NULL: the folder goes):
 * whole (pOld NULL), every entry is written and whatever pNew does not
 * hold is removed; else only the entries that differ from pOld. */
int WriteFolder(git_repository *pRepo, int fdRoot, const char *szFolder, git_tree *pOld, git_tree *pNew,
                const Owner &owner) {
    if (NULL == pNew) return RemoveEntry(fdRoot, ".", szFolder);
    bool blWhole = NULL == pOld;
    Fd fdDir(OpenOrMakeFolder(fdRoot, szFolder, owner));
    if (0 > fdDir.get()) {
        syslog(LOG_ERR, "%s:%d fail to open the work tree folder [%s] (%m)", __FILE__, __LINE__, szFolder);
        return GIT_ERROR;
    }
    int ret = 0;
    for (size_t i = 0; i < git_tree_entrycount(pNew); ++i) {
        const git_tree_entry *pEntry = git_tree_entry_byindex(pNew, i);
        if (!IsFile(pEntry)) continue;
        const git_tree_entry *pWas = blWhole ? NULL : git_tree_entry_byname(pOld, git_tree_entry_name(pEntry));
        if (pWas && git_oid_equal(git_tree_entry_id(pWas), git_tree_entry_id(pEntry)) &&
            git_tree_entry_filemode(pWas) == git_tree_entry_filemode(pEntry)) {
            continue;
        }
        if (0 > (ret = WriteFile(pRepo, fdDir.get(), pEntry, owner, blWhole))) return ret;
    }
    std::vector<std::string> names;
    if (blWhole) {
        if (!ListNames(fdDir.get(), names)) {
            syslog(LOG_ERR, "%s:%d fail to list the work tree folder [%s] (%m)", __FILE__, __LINE__, szFolder);
            return GIT_ERROR;
        }
    } else {
        for (size_t i = 0; i < git_tree_entrycount(pOld); ++i)
            names.push_back(git_tree_entry_name(git_tree_entry_byindex(pOld, i)));
    }
    for (const std::string &strName : names) {
        const git_tree_entry *pKeep = git_tree_entry_byname(pNew, strName.c_str());
        if (pKeep && IsFile(pKeep)) continue;
        if (0 > (ret = RemoveEntry(fdDir.get(), szFolder, strName.c_str()))) return ret;
    }
    return 0;
}

/* Writes pNew into the open work tree fdRoot: whole (pOld NULL), or the
 * difference from pOld; a folder pOld lacks is written whole. */
int WriteTree(git_repository *pRepo, int fdRoot, const char *szDir, git_tree *pOld, git_tree *pNew) {
    struct stat st;
    if (0 != fstat(fdRoot, &st)) {
        syslog(LOG_ERR, "%s:%d fail to stat the work tree [%s] (%m)", __FILE__, __LINE__, szDir);
        return GIT_ERROR;
    }
    int ret = CheckFolders(fdRoot, szDir);
    if (0 > ret) return ret;
    Owner owner = {st.st_uid, st.st_gid};
    for (const char *szFolder : s_rgFolders) {
        GitTree pOldSub, pNewSub;
        if (0 > (ret = SubTree(pRepo, pOld, szFolder, pOldSub))) return ret;
        if (0 > (ret = SubTree(pRepo, pNew, szFolder, pNewSub))) return ret;
        ret = WriteFolder(pRepo, fdRoot, szFolder, pOldSub.get(), pNewSub.get(), owner);
        if (0 > ret) return ret;
    }
    return 0;
}

std::string TreeId(git_tree *pTree) {
    char szOid[GIT_OID_HEXSZ + 1];
    return git_oid_tostr(szOid, sizeof(szOid), git_tree_id(pTree));
}

} // namespace

int CheckWorkTree(const char *szDir) {
    Fd fdRoot(fs::OpenDir(szDir));
    if (0 > fdRoot.get()) {
        syslog(LOG_ERR, "%s:%d refuse the work tree [%s] (%m)", __FILE__, __LINE__, szDir);
        return GIT_ERROR;
    }
    return CheckFolders(fdRoot.get(), szDir);
}

int UpdateWorkTree(git_repository *pRepo, const char *szRepo, git_tree *pBaseline, git_tree *pNew) {
    Fd fdGit;
    int ret = CheckRepository(szRepo, false, &fdGit);
    if (0 > ret) return ret;
    Fd fdRoot(fs::OpenDir(szRepo));
    if (0 > fdRoot.get()) {
        syslog(LOG_ERR, "%s:%d refuse the work tree [%s] (%m)", __FILE__, __LINE__, szRepo);
        return GIT_ERROR;
    }
    std::string strMark;
    bool blKnown = pBaseline && fs::ReadFileAt(fdGit.get(), s_szMark, strMark) && strMark == TreeId(pBaseline);
    // The mark goes, durably, before the first file changes.
    if (TRUE == KOLVFaultCheck("worktree mark") || (0 != unlinkat(fdGit.get(), s_szMark, 0) && ENOENT != errno)) {
        syslog(LOG_ERR, "%s:%d fail to unlink [%s/.git/%s] (%m)", __FILE__, __LINE__, szRepo, s_szMark);
        return GIT_ERROR;
    }
    fsync(fdGit.get());
    if (0 > (ret = WriteTree(pRepo, fdRoot.get(), szRepo, blKnown ? pBaseline : NULL, pNew))) {
        syslog(LOG_ERR, "%s:%d fail to write the work tree [%s]", __FILE__, __LINE__, szRepo);
        return ret;
    }
    // Without the mark the next write is a whole one: slower, still right.
    std::string strNew = TreeId(pNew);
    if (!fs::WriteFileAt(fdGit.get(), s_szMark, strNew.data(), strNew.size(), 0644)) {
        syslog(LOG_ERR, "%s:%d fail to write [%s/.git/%s] (%m)", __FILE__, __LINE__, szRepo, s_szMark);
    }
    return 0;
}

int RepairWorkTree(git_repository *pRepo, const char *szRepo) {
    git_reference *pRawHead = NULL;
    if (0 > git_repository_head(&pRawHead, pRepo)) return 0;
    GitReference pHead(pRawHead);
    git_object *pObj = NULL;
    if (0 > git_reference_peel(&pObj, pHead.get(), GIT_OBJECT_TREE)) return 0;
    GitTree pTree(reinterpret_cast<git_tree *>(pObj));
    Fd fdGit;
    int ret = CheckRepository(szRepo, false, &fdGit);
    if (0 > ret) return ret;
    std::string strMark;
    if (fs::ReadFileAt(fdGit.get(), s_szMark, strMark) && strMark == TreeId(pTree.get())) return 0;
    return UpdateWorkTree(pRepo, szRepo, NULL, pTree.get());
}

int WriteTreeInto(git_repository *pRepo, const char *szDir, git_tree *pTree) {
    fs::DirSpec shape = {0755, (uid_t)-1, (gid_t)-1};
    Fd fdRoot(fs::MakeDirs(szDir, shape));
    if (0 > fdRoot.get()) {
        syslog(LOG_ERR, "%s:%d refuse the target folder [%s] (%m)", __FILE__, __LINE__, szDir);
        return GIT_ERROR;
    }
    int ret = WriteTree(pRepo, fdRoot.get(), szDir, NULL, pTree);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to write the version into [%s]", __FILE__, __LINE__, szDir);
    return ret;
}

} // namespace git
} // namespace kolv
