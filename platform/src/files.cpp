/*
 * Files: existence checks, mkdir -p, rm -rf, atomic copy, flock.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "io_internal.h"
#include "kolvplatform/kolv_platform.h"

namespace {

/* Makes one directory; *pblCreated tells whether this call created it. */
int MakeOne(const std::string &strDir, mode_t mode, uid_t uid, gid_t gid, bool *pblCreated) {
    *pblCreated = false;
    if (mkdir(strDir.c_str(), mode) != 0) {
        int err = errno;
        struct stat st;
        if (err == EEXIST && stat(strDir.c_str(), &st) == 0) {
            if (S_ISDIR(st.st_mode)) return 0;
            err = ENOTDIR;
        }
        errno = err;
        return -1;
    }
    *pblCreated = true;
    // chown first: it may clear mode bits that chmod then sets.
    if ((uid != (uid_t)-1 || gid != (gid_t)-1) && chown(strDir.c_str(), uid, gid) != 0 && errno != EPERM) return -1;
    // Exactly mode, whatever the umask.
    if (chmod(strDir.c_str(), mode) != 0) return -1;
    return 0;
}

/* Removes name below dirfd, recursing into directories. Goes on after a
 * failure, like rm -rf, and reports it at the end. */
int RemoveAt(int dirfd, const char *szName) {
    if (unlinkat(dirfd, szName, 0) == 0 || errno == ENOENT) return 0;
    if (errno != EISDIR && errno != EPERM) return -1;
    int fd = openat(dirfd, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT ? 0 : -1;
    DIR *pDir = fdopendir(fd);
    if (!pDir) {
        close(fd);
        return -1;
    }
    int ret = 0, err = 0;
    struct dirent *pEnt;
    while ((errno = 0, pEnt = readdir(pDir)) != NULL) {
        if (!strcmp(pEnt->d_name, ".") || !strcmp(pEnt->d_name, "..")) continue;
        if (RemoveAt(::dirfd(pDir), pEnt->d_name) != 0) {
            ret = -1;
            err = errno;
        }
    }
    if (errno != 0) {
        ret = -1;
        err = errno;
    }
    closedir(pDir);
    if (unlinkat(dirfd, szName, AT_REMOVEDIR) != 0 && errno != ENOENT) return -1;
    if (ret) errno = err;
    return ret;
}

} // namespace

namespace kolvplat {

ssize_t WriteAll(int fd, const char *p, size_t cb) {
    while (cb > 0) {
        ssize_t n = write(fd, p, cb);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        p += n;
        cb -= static_cast<size_t>(n);
    }
    return 0;
}

} // namespace kolvplat

extern "C" {

BOOL TRABCFileExist(const char *szPath) {
    struct stat st;
    return szPath && *szPath && stat(szPath, &st) == 0 ? TRUE : FALSE;
}

BOOL TRABCFileCheckDir(const char *szPath) {
    struct stat st;
    return szPath && *szPath && stat(szPath, &st) == 0 && S_ISDIR(st.st_mode) ? TRUE : FALSE;
}

int KOLVFSMkdirP(const char *szPath, const char *szUnused, BOOL blParents, uid_t uid, gid_t gid, int mode) {
    (void)szUnused;
    if (TRUE == KOLVFaultCheck("KOLVFSMkdirP")) return -1;
    if (!szPath || !*szPath) {
        errno = EINVAL;
        return -1;
    }
    mode_t m = mode >= 0 ? static_cast<mode_t>(mode) & 07777 : 0755;
    std::string strPath(szPath);
    while (strPath.size() > 1 && strPath.back() == '/')
        strPath.pop_back();
    if (TRABCFileCheckDir(strPath.c_str())) return 0;
    bool blCreated;
    if (!blParents) return MakeOne(strPath, m, uid, gid, &blCreated);
    // Every prefix ending before a '/', then the path itself.
    for (size_t pos = strPath.find('/', 1); pos != std::string::npos; pos = strPath.find('/', pos + 1)) {
        if (strPath[pos - 1] == '/') continue;
        std::string strPrefix = strPath.substr(0, pos);
        if (TRABCFileCheckDir(strPrefix.c_str())) continue;
        if (MakeOne(strPrefix, m, uid, gid, &blCreated) != 0) return -1;
    }
    return MakeOne(strPath, m, uid, gid, &blCreated);
}

int KOLVFSRemoveTree(const char *szPath) {
    if (TRUE == KOLVFaultCheck("KOLVFSRemoveTree")) return -1;
    if (!szPath || !*szPath) {
        errno = EINVAL;
        return -1;
    }
    // Like rm's --preserve-root.
    std::string strPath(szPath);
    if (strPath.find_first_not_of('/') == std::string::npos) {
        errno = EPERM;
        return -1;
    }
    return RemoveAt(AT_FDCWD, szPath);
}

int KOLVFileCopy(const char *szSrc, const char *szDst) {
    if (TRUE == KOLVFaultCheck("KOLVFileCopy")) return -1;
    if (!szSrc || !*szSrc || !szDst || !*szDst) {
        errno = EINVAL;
        return -1;
    }
    int fdIn = open(szSrc, O_RDONLY | O_CLOEXEC);
    if (fdIn < 0) return -1;
    struct stat st;
    int errStat = fstat(fdIn, &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : !S_ISREG(st.st_mode) ? EINVAL : 0;
    if (errStat) {
        close(fdIn);
        errno = errStat;
        return -1;
    }
    // The temporary file sits next to the target: ".name.XXXXXX".
    std::string strDst(szDst);
    size_t slash = strDst.rfind('/');
    std::string strDir = slash == std::string::npos ? "" : strDst.substr(0, slash + 1);
    std::string strBase = slash == std::string::npos ? strDst : strDst.substr(slash + 1);
    std::string strTmp = strDir + "." + strBase + ".XXXXXX";
    int fdOut = mkostemp(&strTmp[0], O_CLOEXEC);
    if (fdOut < 0) {
        int err = errno;
        close(fdIn);
        errno = err;
        return -1;
    }
    int ret = 0;
    char rgBuf[65536];
    for (;;) {
        ssize_t n = read(fdIn, rgBuf, sizeof(rgBuf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || (n > 0 && kolvplat::WriteAll(fdOut, rgBuf, static_cast<size_t>(n)) != 0)) ret = -1;
        if (n <= 0) break;
    }
    if (ret == 0 && fchmod(fdOut, st.st_mode & 0777) != 0) ret = -1;
    int err = errno;
    close(fdIn);
    if (close(fdOut) != 0 && ret == 0) {
        ret = -1;
        err = errno;
    }
    if (ret == 0 && rename(strTmp.c_str(), szDst) != 0) {
        ret = -1;
        err = errno;
    }
    if (ret != 0) {
        unlink(strTmp.c_str());
        errno = err;
    }
    return ret;
}

int TRABCFileLockByFile(const char *szPath, BOOL blExclusive, int *pHandle) {
    if (!szPath || !*szPath || !pHandle) return 0;
    if (TRUE == KOLVFaultCheck("TRABCFileLockByFile")) return 0;
    int fd = open(szPath, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return 0;
    int r;
    while ((r = flock(fd, blExclusive ? LOCK_EX : LOCK_SH)) != 0 && errno == EINTR) {
    }
    if (r != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return 0;
    }
    *pHandle = fd;
    return 1;
}

int TRABCFileUnlockByFile(int handle) {
    if (handle < 0) {
        errno = EBADF;
        return -1;
    }
    int r = flock(handle, LOCK_UN);
    int err = errno;
    if (close(handle) != 0 && r == 0) return -1;
    if (r != 0) {
        errno = err;
        return -1;
    }
    return 0;
}

} // extern "C"
