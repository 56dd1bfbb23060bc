/*
 * object_lock.h - the per-object write lock of the file store.
 *
 * Merging a JSON file is read, merge, write; two writers that interleave
 * those steps lose each other's keys even though every single write is
 * atomic. So every writer of an object holds one advisory flock for the
 * whole of its save: the file ".lock" in the object's directory, created
 * on first use with mode 0600 and never renamed or replaced (a lock on a
 * file that is renamed away would not exclude the next writer).
 *
 * Create takes the lock exclusively once the directories exist, Set right
 * after its path info is known; both hold it across basic.json,
 * metatext.json, the meta binary files and the git commit, so nothing
 * called from the save needs a lock of its own. Get takes it shared, so a
 * read never sees a commit's checkout half done.
 *
 * flock locks belong to the open file: a second ObjectLock on the same
 * object, even in the same thread, waits for the first. Never take it
 * twice in one call chain.
 */
#ifndef KOLVVESSA_BACKEND_FS_OBJECT_LOCK_H
#define KOLVVESSA_BACKEND_FS_OBJECT_LOCK_H

#include <sys/types.h>

#include <string>

namespace kolv {

class ObjectLock {
  public:
    ObjectLock() : m_handle(-1) {}
    /* Releases the lock when one is held. */
    ~ObjectLock() { Release(); }
    ObjectLock(const ObjectLock &) = delete;
    ObjectLock &operator=(const ObjectLock &) = delete;

    /* The lock file of the object directory strObjectDir. */
    static std::string PathOf(const std::string &strObjectDir);

    /* Blocks until the lock of strObjectDir is held (exclusive or shared).
     * A new lock file is given to owner and GID_USERS (UID_ERR leaves it
     * as created). False with 1001 when the lock cannot be taken, for
     * instance because the directory does not exist. */
    bool Acquire(const std::string &strObjectDir, bool blExclusive, uid_t owner);
    /* Like Acquire(shared) but a missing object directory is no failure:
     * answers true without holding anything, and pushes no error. */
    bool AcquireSharedIfExists(const std::string &strObjectDir, uid_t owner);
    bool Held() const { return m_handle >= 0; }
    void Release();

  private:
    int m_handle;
};

} // namespace kolv

#endif /* KOLVVESSA_BACKEND_FS_OBJECT_LOCK_H */
