/*
 * delete.cpp - removing an object's folder from the file store.
 *
 * The folder is first renamed out of the namespace, under the object's
 * exclusive lock, to a hidden name beside it (".ID.RANDOM": not an id, so
 * neither listed nor found by a get); only then is it removed, in-process
 * and without following a link. A writer that was in the middle of a save
 * finishes first; one that waited for the lock finds the object gone
 * (mf_LockObject). Readers and writers see the whole object or none.
 */
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/object_lock.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_error.h"

namespace {

/* Renames the object folder strDir to a hidden name beside it, given in
 * strHidden ("" when there was no folder to move: deleting twice
 * succeeds twice). */
bool MoveOutOfNamespace(const std::string &strDir, uid_t owner, std::string &strHidden) {
    strHidden.clear();
    struct stat st;
    if (!kolv::fs::Lstat(strDir, st)) {
        if (KOLV_FAIL_IF(1000, ENOENT != errno)) return false;
        return true;
    }
    if (KOLV_FAIL_IF(1000, !S_ISDIR(st.st_mode))) return false;
    // A writer in the middle of a save finishes first. Whatever fails
    // here (the owner may have planted a link or a FIFO as the lock file,
    // which nobody can hold), the rename below decides.
    kolv::ObjectLock lock;
    lock.Acquire(strDir, true, owner);
    std::string strTo = kolv::HiddenBeside(strDir);
    if (0 != kolv::fs::Rename(strDir, strTo, true)) {
        // Another delete was first while this one waited.
        if (ENOENT == errno && !kolv::fs::Exists(strDir)) return true;
        KOLV_FAIL_FMT(KOLV_ERR_RENAME, "Failed to rename [%s] to [%s]", strDir.c_str(), strTo.c_str());
        return false;
    }
    strHidden = strTo;
    return true;
}

} // namespace

bool KOLVVESSA_BACKEND_FS::mf_CheckObjectPlace() {
    // The path info has made sure both are one plain name each.
    const std::string strNs = m_jParm["ns"].asString(), strId = m_jParm["id"].asString();
    if (KOLV_FAIL_IF(1007, !kolv::IsNamespaceName(strNs) || strId.empty() || '.' == strId[0])) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::Delete(const Json::Value &jParm) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_FAIL_IF(1015, !jParm.isMember("ns"))) return false;
        if (KOLV_FAIL_IF(1015, !jParm.isMember("id"))) return false;
        if (KOLV_APPEND_IF(!mf_init(jParm))) return false;
        if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_ID_PATH))) return false;
        // What is removed below is one object folder, never the
        // namespace or the repository.
        if (KOLV_APPEND_IF(!mf_CheckObjectPlace())) return false;
        std::string strHidden;
        uid_t owner = (uid_t)m_jParm["owner"].asUInt();
        if (KOLV_APPEND_IF(!MoveOutOfNamespace(m_jPathInfo[KOLVVES_ID_PATH].asString(), owner, strHidden)))
            return false;
        // The object is gone from the namespace: a folder that cannot be
        // removed now is logged, not a failure. A second pass takes what a
        // passing failure of the first left.
        if (!strHidden.empty() && 0 != kolv::fs::RemoveTree(strHidden) && 0 != kolv::fs::RemoveTree(strHidden)) {
            syslog(LOG_ERR, "%s:%d fail to remove [%s], err=%m\n", __FILE__, __LINE__, strHidden.c_str());
        }
        return true;
    });
}
