/*
 * kolvvessaBackend_fs.cpp - construction of the file-store backend and its
 * object operations: create, set and get. Every operation starts with
 * mf_init (utils.cpp); writers hold the object's lock (object_lock.h)
 * across the whole save.
 */
#include "backend_fs/kolvvessaBackend_fs.h"

#include <errno.h>
#include <git2.h>
#include <sys/stat.h>

#include <exception>

#include "backend_fs/object_lock.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_error.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_export.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

/* The first git_libgit2_init of a process sets up libgit2's TLS backend
 * and certificates, which takes milliseconds, and the last shutdown tears
 * it all down again. Backends live for one operation, so one reference is
 * held for the life of the process and each backend's init and shutdown
 * only count. */
void PinLibgit2() {
    static const int s_pinned = git_libgit2_init();
    (void)s_pinned;
}

/* The field table, parsed once for the process; read-only afterwards, so
 * backends on any thread share it. */
const Json::Value &FieldTable() {
    static const Json::Value s_jTable = [] {
        Json::Value j;
        kolv::JsonFromString(j, gszKOLVVES_OBJ_FIELD);
        return j;
    }();
    return s_jTable;
}

/* Whether the folder open at fdDir is the one at strPath now. */
bool IsFolderAt(int fdDir, const std::string &strPath) {
    struct stat stOpen, stNow;
    return 0 == fstat(fdDir, &stOpen) && kolv::fs::Lstat(strPath, stNow) && S_ISDIR(stNow.st_mode) &&
           stOpen.st_dev == stNow.st_dev && stOpen.st_ino == stNow.st_ino;
}

} // namespace

std::string kolv::HiddenBeside(const std::string &strFinal) {
    size_t slash = strFinal.rfind('/');
    return strFinal.substr(0, slash + 1) + "." + strFinal.substr(slash + 1) + "." + kolv::fs::RandomName(8);
}

KOLVVESSA_BACKEND_FS::KOLVVESSA_BACKEND_FS() : m_jFieldTable(FieldTable()) {
    PinLibgit2();
    git_libgit2_init();
}

KOLVVESSA_BACKEND_FS::~KOLVVESSA_BACKEND_FS() {
    git_libgit2_shutdown();
}

KOLVVESSA_BACKEND_OP *CreateFsBackend(void) {
    return new KOLVVESSA_BACKEND_FS();
}

bool KOLVVESSA_BACKEND_FS::Create(const Json::Value &jParm, std::string &strId, std::string &strNewVer) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_FAIL_IF(1015, jParm.isMember("version"))) return false;
        if (KOLV_APPEND_IF(!mf_init(jParm, true))) return false;
        // The object is built in a hidden folder beside its place and
        // renamed into place as the last step: a reader, or a second
        // create of the id, sees all of it or nothing, and a failure
        // anywhere removes what was made.
        std::string strFinal = m_jPathInfo[KOLVVES_ID_PATH].asString();
        std::string strHidden = kolv::HiddenBeside(strFinal);
        if (KOLV_APPEND_IF(!mf_GetPathInfoByBase(strHidden, m_jPathInfo))) return false;
        kolv::TreeRemover cleanup(strHidden);
        if (KOLV_APPEND_IF(!mf_CreatePath())) return false;
        {
            kolv::ObjectLock lock;
            uid_t owner = (uid_t)m_jParm["owner"].asUInt();
            if (KOLV_APPEND_IF(!lock.Acquire(strHidden, true, owner))) return false;
            if (KOLV_APPEND_IF(!mf_SaveConfig(strNewVer))) return false;
        }
        int rc = kolv::fs::Rename(strHidden, strFinal, true);
        bool blTaken = 0 != rc && EEXIST == errno;
        if (KOLV_FAIL_IF(KOLV_ERR_ID_EXISTS, blTaken)) return false;
        if (KOLV_FAIL_IF(KOLV_ERR_RENAME, 0 != rc)) return false;
        cleanup.Keep();
        if (KOLV_APPEND_IF(!mf_GetPathInfoByBase(strFinal, m_jPathInfo))) return false;
        strId = m_jParm["id"].asString();
        return true;
    });
}

bool KOLVVESSA_BACKEND_FS::Set(const Json::Value &jParm, std::string &strNewVer) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_FAIL_IF(1015, !jParm.isMember("version"))) return false;
        if (KOLV_APPEND_IF(!mf_init(jParm))) return false;
        kolv::ObjectLock lock;
        if (KOLV_APPEND_IF(!mf_LockObject(lock))) return false;
        if (KOLV_APPEND_IF(!mf_SaveConfig(strNewVer))) return false;
        return true;
    });
}

bool KOLVVESSA_BACKEND_FS::mf_LockObject(kolv::ObjectLock &lock) {
    const std::string strDir = m_jPathInfo[KOLVVES_ID_PATH].asString();
    // A change never brings an object into being. The folder is held
    // open while the lock is waited for, so the one found afterwards at
    // the path can be told from it, and its inode is not reused meanwhile.
    if (KOLV_FAIL_IF(1008, !kolv::fs::IsDir(m_jPathInfo[KOLVVES_ID_PATH].asString()))) return false;
    kolv::Fd fdDir(kolv::fs::OpenDir(strDir));
    if (KOLV_FAIL_IF(1008, 0 > fdDir.get())) return false;
    bool blLocked = lock.Acquire(strDir, true, (uid_t)m_jParm["owner"].asUInt());
    // A delete renames the folder away under this lock and releases it:
    // a writer that waited for it must neither write into the folder
    // being removed nor make a new one at the old place.
    if (KOLV_FAIL_IF(1008, !IsFolderAt(fdDir.get(), strDir))) return false;
    if (KOLV_APPEND_IF(!blLocked)) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::Get(const Json::Value &jParm, KOLV_VESSA_OBJECT *pObject) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (KOLV_FAIL_IF(1015, NULL == pObject)) return false;
        if (KOLV_APPEND_IF(!mf_init(jParm, false, pObject))) return false;
        // Shared: readers exclude only a writer's save and checkout. An
        // object without a directory is read unlocked and found missing.
        kolv::ObjectLock lock;
        uid_t owner = (uid_t)m_jParm["owner"].asUInt();
        if (KOLV_APPEND_IF(!lock.AcquireSharedIfExists(m_jPathInfo[KOLVVES_ID_PATH].asString(), owner))) return false;
        if (mf_NeedToGet(KOLVVES_BASIC) && KOLV_APPEND_IF(!mf_GetBasic(pObject))) return false;
        if (mf_NeedToGet(KOLVVES_META_TEXT) && KOLV_APPEND_IF(!mf_GetMetaText(pObject))) return false;
        if (mf_NeedToGet(KOLVVES_META_BIN_INFO) && KOLV_APPEND_IF(!mf_GetMetaBinaryInfo(pObject, false))) return false;
        if (mf_NeedToGet(KOLVVES_VERSION) && KOLV_APPEND_IF(!mf_GetGit(pObject))) return false;
        return true;
    });
}

// Listing is the index's: the file store fails it with 1000 and says so,
// never pretending to have worked.

int KOLVVESSA_BACKEND_FS::List(const Json::Value &, KOLV_VESSA_OBJECT **, unsigned int &) {
    KOLV_FAIL_FMT(1000, "file-store listing is not available yet");
    return -1;
}
