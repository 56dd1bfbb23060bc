/*
 * object_lock.cpp - the per-object write lock (see object_lock.h).
 */
#include "backend_fs/object_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <kolvplatform/kolv_platform.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_export.h"

namespace kolv {

std::string ObjectLock::PathOf(const std::string &strObjectDir) {
    return strObjectDir + "/.lock";
}

bool ObjectLock::Acquire(const std::string &strObjectDir, bool blExclusive, uid_t owner) {
    Release();
    std::string strLockPath = PathOf(strObjectDir);
    // Never through a link: the owner could point ".lock" anywhere. Nor
    // may a FIFO he planted there keep the open waiting: only a regular
    // file is a lock.
    bool blNew = !fs::Exists(strLockPath);
    Fd fd(fs::OpenFile(strLockPath, O_RDONLY | O_CREAT | O_NONBLOCK, 0600));
    if (KOLV_FAIL_IF(1001, 0 > fd.get())) return false;
    struct stat st;
    if (KOLV_FAIL_IF(1001, 0 != fstat(fd.get(), &st) || !S_ISREG(st.st_mode))) return false;
    int rc;
    while (0 != (rc = flock(fd.get(), blExclusive ? LOCK_EX : LOCK_SH)) && EINTR == errno) {
    }
    if (KOLV_FAIL_IF(1001, 0 != rc)) return false;
    m_handle = fd.release();
    // The lock file belongs to the object's owner like the rest of its
    // directory; without the privilege to give it away it stays ours.
    if (blNew && UID_ERR != owner) {
        int rcChown = fchown(m_handle, owner, GID_USERS);
        (void)rcChown;
    }
    return true;
}

bool ObjectLock::AcquireSharedIfExists(const std::string &strObjectDir, uid_t owner) {
    Release();
    if (!fs::IsDir(strObjectDir)) return true;
    return Acquire(strObjectDir, false, owner);
}

void ObjectLock::Release() {
    if (m_handle < 0) return;
    flock(m_handle, LOCK_UN);
    close(m_handle);
    m_handle = -1;
}

} // namespace kolv
