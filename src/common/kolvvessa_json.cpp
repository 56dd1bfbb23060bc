/*
 * JSON utilities: the top-level diff of two objects, the safe writing of a
 * value to a file (exclusive flock on the target, a temporary file of a
 * random name beside it, flushed and renamed into place, never through a
 * link), and the parse/serialise conveniences on Json::Value.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

namespace {

// A busy lock is tried this often, with a wait between tries.
constexpr int kLockTries = 6;
constexpr useconds_t kLockWaitUs = 500 * 1000;

Json::Value DiffRecord(const std::string &strKey, const char *szType) {
    Json::Value jRecord(Json::objectValue);
    jRecord["key"] = strKey;
    jRecord["type"] = szType;
    return jRecord;
}

// Releases the flock before the descriptor is closed.
class FlockRelease {
  public:
    explicit FlockRelease(int fd) : m_fd(fd) {}
    ~FlockRelease() { flock(m_fd, LOCK_UN); }
    FlockRelease(const FlockRelease &) = delete;
    FlockRelease &operator=(const FlockRelease &) = delete;

  private:
    int m_fd;
};

// Takes the exclusive lock without blocking: a busy lock is tried six
// times, five waits of 500 ms apart; any other error gives up at once.
bool LockWithRetry(int fdLock, const std::string &strPath) {
    for (int nFailed = 1; 0 != flock(fdLock, LOCK_EX | LOCK_NB); ++nFailed) {
        if (EWOULDBLOCK != errno || kLockTries <= nFailed) {
            KOLV_FAIL_FMT(1001, "flock [%s] failed for %d times.", strPath.c_str(), kLockTries - 1);
            return false;
        }
        usleep(kLockWaitUs);
    }
    return true;
}

// Whether fd still is the file that strName names in fdDir. A writer that
// waited for the lock may hold the inode an earlier writer has just
// renamed away; it must lock the new one instead.
bool LockedFileIsCurrent(int fd, int fdDir, const std::string &strName) {
    struct stat stLocked, stPath;
    if (0 != fstat(fd, &stLocked) || 0 != fstatat(fdDir, strName.c_str(), &stPath, AT_SYMLINK_NOFOLLOW)) return false;
    return stLocked.st_dev == stPath.st_dev && stLocked.st_ino == stPath.st_ino;
}

// Opens the target as its own lock file, never through a link, and locks
// it, until the locked inode is the one the name holds.
bool OpenAndLock(const std::string &strPath, int fdDir, const std::string &strName, kolv::Fd &lock) {
    for (;;) {
        int fdLock = openat(fdDir, strName.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0600);
        lock.reset(fdLock);
        if (KOLV_FAIL_IF(1002, 0 > fdLock)) return false;
        if (!LockWithRetry(fdLock, strPath)) return false;
        if (LockedFileIsCurrent(fdLock, fdDir, strName)) return true;
    }
}

// Writes the text to a new temporary file beside the target, flushes it
// and renames it onto the target. The caller holds the lock.
bool WriteAndRename(const Json::Value &value, int fdDir, const std::string &strName, const std::string &strPath) {
    std::string strTmp;
    kolv::Fd ofs(kolv::fs::CreateTempAt(fdDir, strName.c_str(), 0644, strTmp));
    if (KOLV_FAIL_IF(1002, 0 > ofs.get())) return false;
    std::string strText = kolv::JsonToString(value);
    if (KOLV_FAIL_IF(1003, !kolv::fs::WriteAll(ofs.get(), strText.data(), strText.size()))) {
        unlinkat(fdDir, strTmp.c_str(), 0);
        return false;
    }
    if (!kolv::fs::FinishTempAt(fdDir, ofs.get(), strTmp, strName.c_str(), 0644)) {
        kolv::SetNoLog(KOLV_ERR_RENAME, __FILE__, __LINE__, "Failed to rename [%s] to [%s]", strTmp.c_str(),
                       strPath.c_str());
        return false;
    }
    return true;
}

} // namespace

bool KOLVVessaJsonDiff(const Json::Value &jData1, const Json::Value &jData2, Json::Value &result) {
    if (KOLV_FAIL_IF(1015, !jData1.isObject())) return false;
    if (KOLV_FAIL_IF(1015, !jData2.isObject())) return false;

    Json::Value jChanges(Json::arrayValue);
    for (const std::string &strKey : jData1.getMemberNames()) {
        if (!jData2.isMember(strKey)) {
            Json::Value jRecord = DiffRecord(strKey, "del");
            jRecord["value"] = jData1[strKey];
            jChanges.append(jRecord);
        } else if (jData1[strKey] != jData2[strKey]) {
            Json::Value jRecord = DiffRecord(strKey, "sub");
            jRecord["old_value"] = jData1[strKey];
            jRecord["new_value"] = jData2[strKey];
            jChanges.append(jRecord);
        }
    }
    for (const std::string &strKey : jData2.getMemberNames()) {
        if (jData1.isMember(strKey)) continue;
        Json::Value jRecord = DiffRecord(strKey, "ins");
        jRecord["value"] = jData2[strKey];
        jChanges.append(jRecord);
    }
    // Equal objects leave the caller's result as it was, deliberately.
    if (!jChanges.empty()) result = jChanges;
    return true;
}

bool KOLVVessaJsonToFile(const Json::Value &value, const std::string &strPath) {
    if (KOLV_FAIL_IF(1015, strPath.empty())) return false;
    // What can throw here is memory for the serialised text.
    return KOLV_NO_THROW_AS(false, 1014, "write aborted", [&]() -> bool {
        std::string strName;
        kolv::Fd fdDir(kolv::fs::OpenParent(strPath, strName));
        if (KOLV_FAIL_IF(1002, 0 > fdDir.get())) return false;
        kolv::Fd lock;
        if (!OpenAndLock(strPath, fdDir.get(), strName, lock)) return false;
        FlockRelease release(lock.get());
        return WriteAndRename(value, fdDir.get(), strName, strPath);
    });
}

namespace kolv {

std::string JsonToString(const Json::Value &j) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, j);
}

bool JsonFromString(Json::Value &j, const std::string &str) {
    // The reader throws past its nesting limit: text nested too deep is
    // text that does not parse.
    try {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> pReader(builder.newCharReader());
        Json::Value jParsed;
        std::string strErr;
        if (!pReader->parse(str.data(), str.data() + str.size(), &jParsed, &strErr)) return false;
        j.swap(jParsed);
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

bool JsonFromFile(Json::Value &j, const std::string &strPath) {
    // Never through a link, never a FIFO or a device.
    std::string strText;
    if (!fs::ReadFile(strPath, strText)) return false;
    return JsonFromString(j, strText);
}

bool KolvJson::toFile(const std::string &strPath) const {
    return KOLVVessaJsonToFile(*this, strPath);
}

} // namespace kolv
