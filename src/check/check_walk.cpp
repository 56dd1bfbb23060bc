/*
 * check_walk.cpp - folders of the store read from directory descriptors,
 * every step with O_NOFOLLOW: the check sees a link and never walks it.
 */
#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "check/check_internal.h"
#include "common/kolvvessa_raii.h"

namespace kolv {
namespace check {

namespace {

mode_t TypeOf(unsigned char type) {
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

} // namespace

int OpenDirAt(int fdDir, const char *szName) {
    return openat(fdDir, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool ListAt(int fdDir, std::vector<Entry> &entries) {
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
        Entry entry;
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

const char *EntryWord(const struct stat &st) {
    if (S_ISLNK(st.st_mode)) return "a link";
    if (S_ISDIR(st.st_mode)) return "a folder";
    if (S_ISREG(st.st_mode)) return "a file";
    if (S_ISFIFO(st.st_mode)) return "a FIFO";
    if (S_ISSOCK(st.st_mode)) return "a socket";
    return "a device";
}

} // namespace check
} // namespace kolv
