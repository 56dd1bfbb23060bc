/*
 * object_lock.cpp - the per-object write lock (see object_lock.h).
 */
#include "backend_fs/object_lock.h"

#include <kolvplatform/kolv_platform.h>
#include <unistd.h>

#include "common/kolvvessa_fail.h"
#include "kolvvessa/kolvvessa_export.h"

namespace kolv {

std::string ObjectLock::PathOf(const std::string &strObjectDir) {
    return strObjectDir + "/.lock";
}

bool ObjectLock::Acquire(const std::string &strObjectDir, bool blExclusive, uid_t owner) {
    Release();
    std::string strLockPath = PathOf(strObjectDir);
    bool blNew = !TRABCFileExist(strLockPath.c_str());
    int handle = -1;
    if (KOLV_FAIL_IF(1001, !TRABCFileLockByFile(strLockPath.c_str(), blExclusive ? TRUE : FALSE, &handle)))
        return false;
    m_handle = handle;
    // The lock file belongs to the object's owner like the rest of its
    // directory; without the privilege to give it away it stays ours.
    if (blNew && UID_ERR != owner) {
        int rc = fchown(m_handle, owner, GID_USERS);
        (void)rc;
    }
    return true;
}

bool ObjectLock::AcquireSharedIfExists(const std::string &strObjectDir, uid_t owner) {
    Release();
    if (!TRABCFileCheckDir(strObjectDir.c_str())) return true;
    return Acquire(strObjectDir, false, owner);
}

void ObjectLock::Release() {
    if (m_handle < 0) return;
    TRABCFileUnlockByFile(m_handle);
    m_handle = -1;
}

} // namespace kolv
