/*
 * kolvvessa_safe_fs.cpp - file primitives that never follow a link below
 * the repository root (see kolvvessa_safe_fs.h).
 */
#include "common/kolvvessa_safe_fs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <kolvplatform/kolv_platform.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include "common/kolvvessa_raii.h"

namespace kolv {
namespace fs {

std::string TrustedRoot();

namespace {

/* Fails the operation when the armed fault point says so. */
bool Injected(const char *szSite) {
    return TRUE == KOLVFaultCheck(szSite);
}

/* Keeps errno across the clean-up that follows a failure. */
class ErrnoKeeper {
  public:
    ErrnoKeeper() : m_err(errno) {}
    ~ErrnoKeeper() { errno = m_err; }

  private:
    int m_err;
};

/* Splits strPath into the part to trust as it is and the components to
 * walk below it. */
void SplitTrusted(const std::string &strPath, std::string &strBase, std::vector<std::string> &components) {
    components.clear();
    std::string strRoot = TrustedRoot();
    std::string strRest;
    if (!strRoot.empty() && strPath.size() > strRoot.size() && 0 == strPath.compare(0, strRoot.size(), strRoot) &&
        '/' == strPath[strRoot.size()]) {
        strBase = strRoot;
        strRest = strPath.substr(strRoot.size() + 1);
    } else if (strPath == strRoot && !strRoot.empty()) {
        strBase = strRoot;
    } else {
        // Outside the store: trusted up to the parent.
        size_t slash = strPath.find_last_of('/');
        strBase = (std::string::npos == slash) ? "." : (0 == slash ? "/" : strPath.substr(0, slash));
        strRest = (std::string::npos == slash) ? strPath : strPath.substr(slash + 1);
    }
    size_t pos = 0;
    while (pos <= strRest.size()) {
        size_t next = strRest.find('/', pos);
        if (std::string::npos == next) next = strRest.size();
        if (next > pos) components.push_back(strRest.substr(pos, next - pos));
        pos = next + 1;
    }
}

bool IsDotName(const std::string &str) {
    return "." == str || ".." == str;
}

/* One step of the walk: the folder szName below fd, made as shape says when
 * pSpec is given and it is missing. */
int StepInto(int fd, const char *szName, const DirSpec *pSpec) {
    int fdNext = openat(fd, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (0 <= fdNext || ENOENT != errno || NULL == pSpec) return fdNext;
    if (Injected("mkdir")) return -1;
    bool blCreated = 0 == mkdirat(fd, szName, pSpec->mode);
    if (!blCreated && EEXIST != errno) return -1;
    fdNext = openat(fd, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (0 > fdNext || !blCreated) return fdNext;
    // Through the descriptor: the folder made is the one given away.
    // chown first, it may clear mode bits that chmod then sets; a chown
    // refused for lack of privilege leaves it ours.
    if ((uid_t)-1 != pSpec->uid || (gid_t)-1 != pSpec->gid) {
        if (0 != fchown(fdNext, pSpec->uid, pSpec->gid) && EPERM != errno) {
            ErrnoKeeper keep;
            close(fdNext);
            return -1;
        }
    }
    if (0 != fchmod(fdNext, pSpec->mode)) {
        ErrnoKeeper keep;
        close(fdNext);
        return -1;
    }
    return fdNext;
}

/* Opens the folder of the walk's base and goes down every component but
 * the last nKeep ones. */
int Walk(const std::string &strPath, size_t nKeep, const DirSpec *pSpec, std::string *pStrLast) {
    if (strPath.empty()) {
        errno = EINVAL;
        return -1;
    }
    std::string strBase;
    std::vector<std::string> components;
    SplitTrusted(strPath, strBase, components);
    for (const std::string &str : components) {
        if (IsDotName(str)) {
            errno = EINVAL;
            return -1;
        }
    }
    if (components.size() < nKeep) {
        errno = EINVAL;
        return -1;
    }
    Fd fd(open(strBase.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (0 > fd.get()) return -1;
    for (size_t i = 0; i + nKeep < components.size(); ++i) {
        int fdNext = StepInto(fd.get(), components[i].c_str(), pSpec);
        if (0 > fdNext) return -1;
        fd.reset(fdNext);
    }
    if (pStrLast) *pStrLast = nKeep ? components.back() : std::string();
    return fd.release();
}

} // namespace

bool WriteAll(int fd, const void *pv, size_t cb) {
    const char *p = static_cast<const char *>(pv);
    while (cb > 0) {
        ssize_t n = write(fd, p, cb);
        if (n < 0 && EINTR == errno) continue;
        if (n <= 0) return false;
        p += n;
        cb -= static_cast<size_t>(n);
    }
    return true;
}

int CreateTempAt(int fdDir, const char *szName, mode_t mode, std::string &strTmp) {
    for (int i = 0; i < 16; ++i) {
        strTmp = std::string(".") + szName + "." + RandomName(10);
        int fd = openat(fdDir, strTmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (0 <= fd || EEXIST != errno) return fd;
    }
    return -1;
}

bool FinishTempAt(int fdDir, int fdTmp, const std::string &strTmp, const char *szName, mode_t mode) {
    bool blOk = !Injected("fsync") && 0 == fchmod(fdTmp, mode) && 0 == fsync(fdTmp);
    blOk = blOk && !Injected("rename") && 0 == renameat(fdDir, strTmp.c_str(), fdDir, szName);
    if (!blOk) {
        ErrnoKeeper keep;
        unlinkat(fdDir, strTmp.c_str(), 0);
        return false;
    }
    return 0 == fsync(fdDir);
}

namespace {

/* Writes with fill(fdTmp) into a temporary file, then Commit. */
template <typename F> bool ReplaceAt(int fdDir, const char *szName, mode_t mode, F fill) {
    if (Injected("write")) return false;
    std::string strTmp;
    Fd fdTmp(CreateTempAt(fdDir, szName, mode, strTmp));
    if (0 > fdTmp.get()) return false;
    if (!fill(fdTmp.get())) {
        ErrnoKeeper keep;
        unlinkat(fdDir, strTmp.c_str(), 0);
        return false;
    }
    return FinishTempAt(fdDir, fdTmp.get(), strTmp, szName, mode);
}

bool ReadAll(int fd, std::string &strOut) {
    struct stat st;
    if (0 != fstat(fd, &st)) return false;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return false;
    }
    std::string str;
    str.reserve(static_cast<size_t>(st.st_size));
    char rgBuf[65536];
    for (;;) {
        ssize_t n = read(fd, rgBuf, sizeof(rgBuf));
        if (n < 0 && EINTR == errno) continue;
        if (n < 0) return false;
        if (0 == n) break;
        str.append(rgBuf, static_cast<size_t>(n));
    }
    strOut.swap(str);
    return true;
}

} // namespace

int OpenDir(const std::string &strPath) {
    if (Injected("opendir")) return -1;
    return Walk(strPath, 0, NULL, NULL);
}

int OpenParent(const std::string &strPath, std::string &strName) {
    if (Injected("openparent")) return -1;
    return Walk(strPath, 1, NULL, &strName);
}

int MakeDirs(const std::string &strPath, const DirSpec &shape) {
    if (Injected("mkdirs")) return -1;
    return Walk(strPath, 0, &shape, NULL);
}

int OpenFile(const std::string &strPath, int flags, mode_t mode) {
    if (Injected("open")) return -1;
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return -1;
    return openat(fdDir.get(), strName.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
}

bool ReadFileAt(int fdDir, const char *szName, std::string &strOut) {
    if (Injected("read")) return false;
    Fd fd(openat(fdDir, szName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (0 > fd.get()) return false;
    return ReadAll(fd.get(), strOut);
}

bool ReadFile(const std::string &strPath, std::string &strOut) {
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return false;
    return ReadFileAt(fdDir.get(), strName.c_str(), strOut);
}

bool WriteFileAt(int fdDir, const char *szName, const void *p, size_t cb, mode_t mode) {
    return ReplaceAt(fdDir, szName, mode, [&](int fdTmp) { return WriteAll(fdTmp, static_cast<const char *>(p), cb); });
}

bool WriteFile(const std::string &strPath, const void *p, size_t cb, mode_t mode) {
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return false;
    return WriteFileAt(fdDir.get(), strName.c_str(), p, cb, mode);
}

bool CopyFromFd(int fdSrc, const std::string &strPath, mode_t mode) {
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return false;
    return ReplaceAt(fdDir.get(), strName.c_str(), mode, [&](int fdTmp) {
        char rgBuf[65536];
        for (;;) {
            ssize_t n = read(fdSrc, rgBuf, sizeof(rgBuf));
            if (n < 0 && EINTR == errno) continue;
            if (n < 0) return false;
            if (0 == n) return true;
            if (!WriteAll(fdTmp, rgBuf, static_cast<size_t>(n))) return false;
        }
    });
}

int Unlink(const std::string &strPath) {
    if (Injected("unlink")) return -1;
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return ENOENT == errno ? 0 : -1;
    if (0 == unlinkat(fdDir.get(), strName.c_str(), 0) || ENOENT == errno) return 0;
    return -1;
}

int RemoveTreeAt(int fdDir, const char *szName) {
    if (0 == unlinkat(fdDir, szName, 0) || ENOENT == errno) return 0;
    if (EISDIR != errno && EPERM != errno) return -1;
    Fd fd(openat(fdDir, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (0 > fd.get()) return ENOENT == errno ? 0 : -1;
    DIR *pRaw = fdopendir(fd.get());
    if (NULL == pRaw) return -1;
    fd.release();
    Dir pDir(pRaw);
    int ret = 0, err = 0;
    // Goes on after a failure, like rm -rf, and reports it at the end.
    while (struct dirent *pEnt = readdir(pDir.get())) {
        if (0 == strcmp(pEnt->d_name, ".") || 0 == strcmp(pEnt->d_name, "..")) continue;
        if (0 != RemoveTreeAt(dirfd(pDir.get()), pEnt->d_name)) {
            ret = -1;
            err = errno;
        }
    }
    pDir.reset();
    if (0 != unlinkat(fdDir, szName, AT_REMOVEDIR) && ENOENT != errno) return -1;
    if (ret) errno = err;
    return ret;
}

int RemoveTree(const std::string &strPath) {
    if (Injected("rmtree")) return -1;
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return ENOENT == errno ? 0 : -1;
    return RemoveTreeAt(fdDir.get(), strName.c_str());
}

int Rename(const std::string &strFrom, const std::string &strTo, bool blNoReplace) {
    if (Injected("rename")) return -1;
    std::string strFromName, strToName;
    Fd fdFrom(Walk(strFrom, 1, NULL, &strFromName));
    if (0 > fdFrom.get()) return -1;
    Fd fdTo(Walk(strTo, 1, NULL, &strToName));
    if (0 > fdTo.get()) return -1;
    int ret =
        renameat2(fdFrom.get(), strFromName.c_str(), fdTo.get(), strToName.c_str(), blNoReplace ? RENAME_NOREPLACE : 0);
    if (0 != ret) return -1;
    fsync(fdTo.get());
    return 0;
}

bool Lstat(const std::string &strPath, struct stat &st) {
    std::string strName;
    Fd fdDir(Walk(strPath, 1, NULL, &strName));
    if (0 > fdDir.get()) return false;
    return 0 == fstatat(fdDir.get(), strName.c_str(), &st, AT_SYMLINK_NOFOLLOW);
}

bool IsDir(const std::string &strPath) {
    struct stat st;
    return Lstat(strPath, st) && S_ISDIR(st.st_mode);
}

bool Exists(const std::string &strPath) {
    struct stat st;
    return Lstat(strPath, st);
}

bool ListDir(const std::string &strPath, std::vector<std::string> &names) {
    names.clear();
    Fd fd(OpenDir(strPath));
    if (0 > fd.get()) return false;
    DIR *pRaw = fdopendir(fd.get());
    if (NULL == pRaw) return false;
    fd.release();
    Dir pDir(pRaw);
    errno = 0;
    while (struct dirent *pEnt = readdir(pDir.get())) {
        if (0 == strcmp(pEnt->d_name, ".") || 0 == strcmp(pEnt->d_name, "..")) continue;
        names.push_back(pEnt->d_name);
    }
    return 0 == errno;
}

// A listing's entry type as a file mode; 0 when the listing gives none.
static mode_t TypeOf(unsigned char type) {
    switch (type) {
    case DT_DIR:
        return S_IFDIR;
    case DT_REG:
        return S_IFREG;
    case DT_LNK:
        return S_IFLNK;
    case DT_FIFO:
        return S_IFIFO;
    case DT_SOCK:
        return S_IFSOCK;
    case DT_CHR:
        return S_IFCHR;
    case DT_BLK:
        return S_IFBLK;
    default:
        return 0;
    }
}

int OpenDirAt(int fdDir, const char *szName) {
    return openat(fdDir, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool ListDirAt(int fdDir, std::vector<DirEntry> &entries) {
    entries.clear();
    int fdList = dup(fdDir);
    if (0 > fdList) return false;
    DIR *pRaw = fdopendir(fdList);
    if (NULL == pRaw) {
        close(fdList);
        return false;
    }
    Dir pDir(pRaw);
    // The copy shares its offset with fdDir: start from the beginning.
    rewinddir(pDir.get());
    while (struct dirent *pEnt = readdir(pDir.get())) {
        if (0 == strcmp(pEnt->d_name, ".") || 0 == strcmp(pEnt->d_name, "..")) continue;
        DirEntry entry;
        entry.strName = pEnt->d_name;
        memset(&entry.st, 0, sizeof(entry.st));
        // The type from the listing spares a stat of every entry; the
        // times are read only for what may be a leftover.
        entry.st.st_mode = TypeOf(pEnt->d_type);
        // An entry gone since the listing (a writer finishing) is no finding.
        if (0 == entry.st.st_mode && 0 != fstatat(fdDir, pEnt->d_name, &entry.st, AT_SYMLINK_NOFOLLOW)) continue;
        entries.push_back(entry);
    }
    return true;
}

std::string MakeTempDir(const std::string &strParent, const std::string &strPrefix) {
    DirSpec root = {0755, (uid_t)-1, (gid_t)-1};
    Fd fdParent(MakeDirs(strParent, root));
    if (0 > fdParent.get()) return "";
    if (Injected("mkdtemp")) return "";
    for (int i = 0; i < 16; ++i) {
        std::string strName = strPrefix + RandomName(10);
        if (0 == mkdirat(fdParent.get(), strName.c_str(), 0700)) return strParent + "/" + strName;
        if (EEXIST != errno) return "";
    }
    return "";
}

std::string RandomName(size_t n) {
    static const char szChars[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string str(n, '0');
    unsigned char rgRandom[64];
    size_t cb = n < sizeof(rgRandom) ? n : sizeof(rgRandom);
    if ((ssize_t)cb != getrandom(rgRandom, cb, 0)) {
        // No entropy yet (early boot): the time and the address still
        // make a collision unlikely, and O_EXCL catches one.
        unsigned long long seed =
            (unsigned long long)time(NULL) ^ (unsigned long long)(uintptr_t)&str ^ ((unsigned long long)getpid() << 20);
        for (size_t i = 0; i < cb; ++i) {
            seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
            rgRandom[i] = (unsigned char)(seed >> 33);
        }
    }
    for (size_t i = 0; i < n; ++i)
        str[i] = szChars[rgRandom[i % cb] % 36];
    return str;
}

} // namespace fs
} // namespace kolv
