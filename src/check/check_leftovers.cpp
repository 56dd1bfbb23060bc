/*
 * check_leftovers.cpp - what an interrupted writer leaves behind: scratch
 * folders below "@tmp", hidden half-made or half-deleted object folders
 * (".ID.RANDOM"), temporary files beside the files they were to replace
 * (".NAME.RANDOM"), and libgit2's partial objects and lock files.
 *
 * A leftover counts only once it is older than the safe age: a younger
 * one may belong to a writer still at work, so it is not even reported.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "check/check_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"

namespace kolv {
namespace check {

namespace {

bool EndsWith(const std::string &str, const char *szEnd) {
    size_t cb = strlen(szEnd);
    return str.size() > cb && 0 == str.compare(str.size() - cb, cb, szEnd);
}

bool IsGitTemporary(const std::string &strName) {
    return 0 == strName.compare(0, 7, "tmp_obj");
}

/* A folder whose entries are leftovers when pfnIs says so. */
void ScanFolder(Run &run, const std::string &strNs, const std::string &strId, int fdParent, const char *szName,
                const std::string &strRel, bool (*pfnIs)(const std::string &), const char *szWhat) {
    Fd fdDir(OpenDirAt(fdParent, szName));
    std::vector<Entry> entries;
    if (0 > fdDir.get() || !kolv::fs::ListDirAt(fdDir.get(), entries)) return;
    for (const Entry &entry : entries) {
        if (pfnIs(entry.strName)) Leftover(run, strNs, strId, fdDir.get(), entry, strRel + "/" + entry.strName, szWhat);
    }
}

bool IsRefLock(const std::string &strName) {
    return EndsWith(strName, ".lock");
}

} // namespace

bool IsTemporaryName(const std::string &strName) {
    if (strName.empty()) return false;
    if ('.' == strName[0]) return ".lock" != strName && ".git" != strName;
    return EndsWith(strName, ".tmp");
}

void Leftover(Run &run, const std::string &strNs, const std::string &strId, int fdDir, const Entry &listed,
              const std::string &strRel, const char *szWhat) {
    Entry entry = listed;
    if (0 != fstatat(fdDir, entry.strName.c_str(), &entry.st, AT_SYMLINK_NOFOLLOW) || !run.PastSafeAge(entry.st))
        return;
    std::string strSeen = std::string(szWhat) + (S_ISLNK(entry.st.st_mode) ? " (a link)" : "") + ", unchanged for " +
                          std::to_string((long long)(run.now - entry.st.st_mtime)) + " s";
    Json::Value &jFinding = run.Add("leftover", strNs, strId, strRel, strSeen,
                                    "remove it (older than the safe age of " + std::to_string(run.safeAge) + " s)");
    if (!run.blRepair) return;
    std::string strWhy;
    bool blDone = RemoveLeftover(fdDir, entry.strName, strWhy);
    Mended(jFinding, blDone, blDone ? "removed" : "not removed: " + strWhy);
}

void CheckScratch(Run &run, const std::set<std::string> &ids) {
    Fd fdTmp(fs::OpenDir(run.strRepo + "/@tmp"));
    std::vector<Entry> entries;
    if (0 > fdTmp.get() || !kolv::fs::ListDirAt(fdTmp.get(), entries)) return;
    bool blAll = run.strNs.empty() && run.strId.empty();
    for (const Entry &entry : entries) {
        // "ID.PID.RANDOM": the object's id comes first.
        std::string strId = entry.strName.substr(0, entry.strName.find('.'));
        if (!blAll && !ids.count(strId)) continue;
        Leftover(run, run.strNs, strId, fdTmp.get(), entry, "@tmp/" + entry.strName, "a scratch folder");
    }
}

void CheckGitLeftovers(Run &run, const std::string &strNs, const std::string &strId, int fdGit,
                       const std::string &strRel) {
    std::vector<Entry> entries;
    if (!kolv::fs::ListDirAt(fdGit, entries)) return;
    for (const Entry &entry : entries) {
        // "index.lock" is the write lock's file and stays for good.
        if (IsRefLock(entry.strName) && "index.lock" != entry.strName) {
            Leftover(run, strNs, strId, fdGit, entry, strRel + "/" + entry.strName, "a partial git lock file");
        }
    }
    Fd fdRefs(OpenDirAt(fdGit, "refs"));
    if (0 <= fdRefs.get())
        ScanFolder(run, strNs, strId, fdRefs.get(), "heads", strRel + "/refs/heads", IsRefLock,
                   "a partial git lock file");
    Fd fdObjects(OpenDirAt(fdGit, "objects"));
    if (0 > fdObjects.get() || !kolv::fs::ListDirAt(fdObjects.get(), entries)) return;
    // libgit2 writes an object to a temporary file in "objects" itself
    // and renames it into its fan-out folder when whole.
    for (const Entry &entry : entries) {
        if (IsGitTemporary(entry.strName))
            Leftover(run, strNs, strId, fdObjects.get(), entry, strRel + "/objects/" + entry.strName,
                     "a partial git object");
    }
}

} // namespace check
} // namespace kolv
