/*
 * check_internal.h - one run of the check: its parameters, its findings,
 * and the steps that look at one part of the store.
 *
 * A step reports what it sees with Run::Add; when the run repairs, the
 * step mends right away and says so in the finding. The walk below the
 * repository root goes from directory descriptors opened with
 * O_NOFOLLOW, like every other access of the store: a link is seen and
 * reported, never followed.
 */
#ifndef KOLVVESSA_CHECK_INTERNAL_H
#define KOLVVESSA_CHECK_INTERNAL_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>
#include <sys/stat.h>
#include <time.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_check.h"

namespace kolv {

class IndexRowReader;

namespace check {

/* One entry of a folder, as the safe file layer lists it. */
using Entry = kolv::fs::DirEntry;
using kolv::fs::OpenDirAt;

/* The stored columns of one row, as text. */
typedef std::map<std::string, std::string> StoredRow;

struct Run {
    // Parameters.
    std::string strRepo, strNs, strId;
    bool blRepair = false, blBlobs = true;
    long long safeAge = 3600;
    time_t now = 0;
    KOLVVessaCheckProgressFn pfnProgress = NULL;
    void *pArg = NULL;
    unsigned done = 0, total = 0;

    KOLVDB *pConn = NULL;
    std::unique_ptr<IndexRowReader> pReader;

    Json::Value jFindings = Json::Value(Json::arrayValue);
    unsigned checked = 0;

    Run();
    ~Run();

    /* Records a finding; returns it so that a repair can complete it. */
    Json::Value &Add(const char *szKind, const std::string &strObjNs, const std::string &strObjId,
                     const std::string &strPath, const std::string &strSeen, const std::string &strRepair);
    /* Whether an entry last changed longer than safeAge ago. */
    bool PastSafeAge(const struct stat &st) const { return (long long)(now - st.st_mtime) >= safeAge; }
};

/* Marks a finding repaired with what was done, or not with the reason. */
void Mended(Json::Value &jFinding, bool blDone, const std::string &strWhat);

/* ---- check_entry_word.cpp --------------------------------------------------- */

/* What a non-folder, non-file entry is, in a word ("a link", "a FIFO"). */
const char *EntryWord(const struct stat &st);

/* ---- check_files.cpp: one object's folder and JSON files --------------- */

/* Checks the JSON files and the entries of the object folder open at
 * fdObj; jGitInfo receives git_info.json when it parses. */
void CheckObjectFiles(Run &run, const std::string &strNs, const std::string &strId, int fdObj, Json::Value &jGitInfo);

/* ---- check_leftovers.cpp ------------------------------------------------ */

/* Whether a name is one the store gives a temporary file or a half-made
 * folder (".NAME.RANDOM"); ".lock" is the lock file and stays. */
bool IsTemporaryName(const std::string &strName);
/* A leftover at strPath (relative to the repository: strRel): reported,
 * and removed past the safe age when the run repairs. Younger ones are
 * left to the writer that may still own them. */
void Leftover(Run &run, const std::string &strNs, const std::string &strId, int fdDir, const Entry &entry,
              const std::string &strRel, const char *szWhat);
/* Scratch folders of "@tmp" that belong to the objects in scope. */
void CheckScratch(Run &run, const std::set<std::string> &ids);
/* Partial git files below the ".git" folder open at fdGit. */
void CheckGitLeftovers(Run &run, const std::string &strNs, const std::string &strId, int fdGit,
                       const std::string &strRel);

/* ---- check_repo.cpp ------------------------------------------------------ */

/* HEAD and every branch resolve, every reachable object reads back, and
 * git_info.json agrees with the history. */
void CheckRepository(Run &run, const std::string &strNs, const std::string &strId, int fdObj,
                     const Json::Value &jGitInfo);

/* ---- check_index.cpp ----------------------------------------------------- */

/* The stored rows of a namespace (or of one id), keyed by id. */
bool FetchRows(Run &run, const std::string &strNs, const std::string &strId, std::map<std::string, StoredRow> &rows);
/* The namespaces that have rows. */
bool FetchRowNamespaces(Run &run, std::set<std::string> &namespaces);
/* Compares the object's row with what indexing it now would write. */
void CheckRow(Run &run, const std::string &strNs, const std::string &strId, const StoredRow *pStored);
/* A row whose object is not on disk. */
void CheckOrphan(Run &run, const std::string &strNs, const std::string &strId);

/* ---- check_repair.cpp ---------------------------------------------------- */

/* Writes the object's row afresh, under the object's shared lock so that
 * no save comes between reading its files and writing the row. */
bool RepairRow(Run &run, const std::string &strNs, const std::string &strId, std::string &strWhy);
/* Deletes the row of an object that is not on disk (checked again first). */
bool DeleteRow(Run &run, const std::string &strNs, const std::string &strId, std::string &strWhy);
/* Removes a leftover entry of the folder fdDir (never through a link). */
bool RemoveLeftover(int fdDir, const std::string &strName, std::string &strWhy);

} // namespace check
} // namespace kolv

#endif /* KOLVVESSA_CHECK_INTERNAL_H */
