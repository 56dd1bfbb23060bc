/*
 * check.cpp - KOLVVessaCheck: the run's parameters, the walk over the
 * namespaces and objects in scope, and the report.
 */
#include <errno.h>
#include <sys/stat.h>
#include <time.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "check/check_internal.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "index/index_row_store.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa_git_internal.h"

namespace kolv {
namespace check {

Run::Run() : now(time(NULL)) {}
Run::~Run() {}

Json::Value &Run::Add(const char *szKind, const std::string &strObjNs, const std::string &strObjId,
                      const std::string &strPath, const std::string &strSeen, const std::string &strRepair) {
    Json::Value jFinding(Json::objectValue);
    jFinding["kind"] = szKind;
    jFinding["ns"] = strObjNs;
    jFinding["id"] = strObjId;
    if (!strPath.empty()) jFinding["path"] = strPath;
    jFinding["seen"] = strSeen;
    jFinding["repair"] = strRepair;
    jFinding["repaired"] = false;
    return jFindings.append(jFinding);
}

void Mended(Json::Value &jFinding, bool blDone, const std::string &strWhat) {
    jFinding["repaired"] = blDone;
    jFinding["repair"] = strWhat;
}

namespace {

/* The objects of one namespace folder: object folders by id. */
struct Namespace {
    std::string strNs;
    Fd fdNs;
    std::vector<Entry> objects;
};

bool ReadParameters(const Json::Value &jParm, Run &run) {
    if (KOLV_FAIL_IF(1007, !jParm.isNull() && !jParm.isObject())) return false;
    const Json::Value &jNs = jParm["ns"], &jId = jParm["id"], &jAge = jParm["safe_age"];
    if (KOLV_FAIL_IF(1007, !jNs.isNull() && (!jNs.isString() || !IsNamespaceName(jNs.asString())))) return false;
    if (KOLV_FAIL_IF(1007,
                     !jId.isNull() && (!jId.isString() || !IsSafePathName(jId.asString()) || '.' == jId.asString()[0])))
        return false;
    if (KOLV_FAIL_IF(1007, !jId.isNull() && jNs.isNull())) return false;
    if (KOLV_FAIL_IF(1007, !jParm["repair"].isNull() && !jParm["repair"].isBool())) return false;
    if (KOLV_FAIL_IF(1007, !jParm["blobs"].isNull() && !jParm["blobs"].isBool())) return false;
    if (KOLV_FAIL_IF(1007, !jAge.isNull() && (!jAge.isIntegral() || jAge.asLargestInt() < 0))) return false;
    run.strNs = jNs.asString();
    run.strId = jId.asString();
    run.blRepair = jParm["repair"].asBool();
    run.blBlobs = jParm["blobs"].isNull() || jParm["blobs"].asBool();
    if (!jAge.isNull()) run.safeAge = jAge.asLargestInt();
    return true;
}

/* A namespace folder's entries: object folders into ns.objects, hidden
 * half-made or half-deleted ones as leftovers, anything else that stands
 * where an object folder would as unexpected. */
void ListNamespace(Run &run, Namespace &ns) {
    std::vector<Entry> entries;
    if (!kolv::fs::ListDirAt(ns.fdNs.get(), entries)) return;
    for (const Entry &entry : entries) {
        const std::string &strName = entry.strName;
        const std::string strRel = ns.strNs + "/" + strName;
        if ('.' == strName[0]) {
            // ".ID.RANDOM": a create not finished or a delete not finished.
            std::string strId = strName.substr(1, strName.find('.', 1) - 1);
            if (run.strId.empty() || run.strId == strId)
                Leftover(run, ns.strNs, strId, ns.fdNs.get(), entry, strRel,
                         "a half-made or half-deleted object folder");
        } else if (!run.strId.empty() && run.strId != strName) {
            continue;
        } else if (S_ISDIR(entry.st.st_mode)) {
            ns.objects.push_back(entry);
        } else {
            run.Add("unexpected_entry", ns.strNs, strName, strRel,
                    std::string(EntryWord(entry.st)) + " where the store keeps an object folder",
                    "none: an entry the store did not make is left to the administrator, never followed");
        }
    }
}

/* The namespaces in scope, each open and listed. */
void ListNamespaces(Run &run, std::vector<std::unique_ptr<Namespace>> &namespaces) {
    if (!run.strNs.empty()) {
        std::unique_ptr<Namespace> pNs(new Namespace);
        pNs->strNs = run.strNs;
        pNs->fdNs.reset(fs::OpenDir(run.strRepo + "/" + run.strNs));
        if (0 <= pNs->fdNs.get()) ListNamespace(run, *pNs);
        namespaces.push_back(std::move(pNs));
        return;
    }
    Fd fdRoot(fs::OpenDir(run.strRepo));
    std::vector<Entry> entries;
    if (0 > fdRoot.get() || !kolv::fs::ListDirAt(fdRoot.get(), entries)) return;
    for (const Entry &entry : entries) {
        // The store's own folders ("@tmp") stand beside the namespaces.
        if (!IsNamespaceName(entry.strName)) continue;
        if (!S_ISDIR(entry.st.st_mode)) {
            run.Add("unexpected_entry", entry.strName, "", entry.strName,
                    std::string(EntryWord(entry.st)) + " where the store keeps a namespace folder",
                    "none: an entry the store did not make is left to the administrator, never followed");
            continue;
        }
        std::unique_ptr<Namespace> pNs(new Namespace);
        pNs->strNs = entry.strName;
        pNs->fdNs.reset(OpenDirAt(fdRoot.get(), entry.strName.c_str()));
        if (0 <= pNs->fdNs.get()) ListNamespace(run, *pNs);
        namespaces.push_back(std::move(pNs));
    }
}

void CheckObject(Run &run, Namespace &ns, const std::string &strId, const StoredRow *pStored) {
    Fd fdObj(OpenDirAt(ns.fdNs.get(), strId.c_str()));
    // Deleted since the listing: its row, if any, is the next run's.
    if (0 > fdObj.get()) return;
    Json::Value jGitInfo;
    CheckObjectFiles(run, ns.strNs, strId, fdObj.get(), jGitInfo);
    CheckRepository(run, ns.strNs, strId, fdObj.get(), jGitInfo);
    CheckRow(run, ns.strNs, strId, pStored);
    ++run.checked;
    if (run.pfnProgress) run.pfnProgress(++run.done, run.total, run.pArg);
}

bool CheckNamespace(Run &run, Namespace &ns, std::set<std::string> &ids) {
    std::map<std::string, StoredRow> rows;
    if (KOLV_APPEND_IF(!FetchRows(run, ns.strNs, run.strId, rows))) return false;
    for (const Entry &entry : ns.objects) {
        auto it = rows.find(entry.strName);
        CheckObject(run, ns, entry.strName, it == rows.end() ? NULL : &it->second);
        ids.insert(entry.strName);
        if (it != rows.end()) rows.erase(it);
    }
    for (const auto &row : rows)
        CheckOrphan(run, ns.strNs, row.first);
    return true;
}

/* Rows of namespaces that have no folder at all. */
bool CheckRowsWithoutNamespace(Run &run, const std::vector<std::unique_ptr<Namespace>> &namespaces) {
    std::set<std::string> withRows;
    if (KOLV_APPEND_IF(!FetchRowNamespaces(run, withRows))) return false;
    for (const auto &pNs : namespaces)
        withRows.erase(pNs->strNs);
    for (const std::string &strNs : withRows) {
        std::map<std::string, StoredRow> rows;
        if (KOLV_APPEND_IF(!FetchRows(run, strNs, "", rows))) return false;
        for (const auto &row : rows)
            CheckOrphan(run, strNs, row.first);
    }
    return true;
}

bool Walk(Run &run) {
    std::vector<std::unique_ptr<Namespace>> namespaces;
    ListNamespaces(run, namespaces);
    for (const auto &pNs : namespaces)
        run.total += (unsigned)pNs->objects.size();
    std::set<std::string> ids;
    for (const auto &pNs : namespaces) {
        if (KOLV_APPEND_IF(!CheckNamespace(run, *pNs, ids))) return false;
    }
    if (run.strNs.empty() && KOLV_APPEND_IF(!CheckRowsWithoutNamespace(run, namespaces))) return false;
    // Scratch folders of an object scope: its ids, or the one asked for.
    if (!run.strId.empty()) ids.insert(run.strId);
    CheckScratch(run, ids);
    return true;
}

void Report(const Run &run, double seconds, Json::Value &jReport) {
    jReport = Json::Value(Json::objectValue);
    jReport["findings"] = run.jFindings;
    jReport["checked"] = run.checked;
    Json::Value jByKind(Json::objectValue);
    unsigned cRepaired = 0;
    for (const Json::Value &jFinding : run.jFindings) {
        std::string strKind = jFinding["kind"].asString();
        jByKind[strKind] = jByKind[strKind].asUInt() + 1;
        if (jFinding["repaired"].asBool()) ++cRepaired;
    }
    jReport["by_kind"] = jByKind;
    jReport["repaired"] = cRepaired;
    jReport["remaining"] = run.jFindings.size() - cRepaired;
    jReport["seconds"] = seconds;
}

double Elapsed(const struct timespec &tStart) {
    struct timespec tNow;
    clock_gettime(CLOCK_MONOTONIC, &tNow);
    return (double)(tNow.tv_sec - tStart.tv_sec) + (double)(tNow.tv_nsec - tStart.tv_nsec) / 1e9;
}

} // namespace
} // namespace check
} // namespace kolv

bool KOLVVessaCheckEx(const Json::Value &jParm, Json::Value &jReport, KOLVVessaCheckProgressFn pfnProgress,
                      void *pArg) {
    return KOLV_NO_THROW(false, [&]() -> bool {
        struct timespec tStart;
        clock_gettime(CLOCK_MONOTONIC, &tStart);
        kolv::check::Run run;
        if (KOLV_APPEND_IF(!kolv::check::ReadParameters(jParm, run))) return false;
        run.pfnProgress = pfnProgress;
        run.pArg = pArg;
        if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(run.strRepo))) return false;
        if (KOLV_FAIL_IF(1000, NULL == (run.pConn = KOLVVessaOpenConn()))) return false;
        kolv::git::LibScope libgit2;
        // As the store opens them: ".git" is checked to be its own.
        git_libgit2_opts(GIT_OPT_SET_OWNER_VALIDATION, 0);
        run.pReader.reset(new kolv::IndexRowReader(run.strRepo));
        bool blRet = !KOLV_APPEND_IF(!kolv::check::Walk(run));
        KOLVVessaCloseConn();
        if (blRet) kolv::check::Report(run, kolv::check::Elapsed(tStart), jReport);
        return blRet;
    });
}

bool KOLVVessaCheck(const Json::Value &jParm, Json::Value &jReport) {
    return KOLVVessaCheckEx(jParm, jReport, NULL, NULL);
}
