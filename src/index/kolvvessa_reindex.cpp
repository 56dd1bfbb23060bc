/*
 * Reindex: the rows of one namespace (or of all) rebuilt from the
 * repository in one transaction on a connection of its own, so that a
 * concurrent listing sees the old rows or the new ones, never none. Rows
 * are built from the stored files (IndexRowReader) and sent in multi-row
 * INSERTs of kChunkRows rows.
 */
#include <errno.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "index/index_row_store.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"

namespace {

const char szSQLReindexPrefix[] =
    "INSERT INTO object (id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
    "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";

const size_t kChunkRows = 1000;

/* One object folder: namespace and id. */
using Entry = std::pair<std::string, std::string>;

/* The progress hook of one run. */
struct Progress {
    void (*pfn)(unsigned done, unsigned total, void *pv);
    void *pv;
    unsigned total;
    void Report(unsigned done) const {
        if (pfn) pfn(done, total, pv);
    }
};

/* The object folders of namespace szNs, in byte order. A missing
 * namespace has none. */
bool ListObjects(const std::string &strRepo, const std::string &strNs, std::vector<Entry> &entries) {
    std::vector<std::string> names;
    if (!kolv::fs::ListDir(strRepo + "/" + strNs, names)) {
        if (ENOENT == errno) return true;
        KOLV_FAIL_FMT(1000, "cannot list namespace [%s] (%m)", strNs.c_str());
        return false;
    }
    std::sort(names.begin(), names.end());
    for (std::string &strId : names) {
        // Hidden folders are objects being made or removed.
        if ('.' != strId[0]) entries.emplace_back(strNs, std::move(strId));
    }
    return true;
}

/* Every namespace folder of the repository, in byte order; "@tmp" and
 * hidden folders are none. */
bool ListNamespaces(const std::string &strRepo, std::vector<std::string> &namespaces) {
    if (!kolv::fs::ListDir(strRepo, namespaces)) {
        if (ENOENT == errno) return true;
        KOLV_FAIL_FMT(1000, "cannot list the repository (%m)");
        return false;
    }
    namespaces.erase(std::remove_if(namespaces.begin(), namespaces.end(),
                                    [](const std::string &s) { return !kolv::IsNamespaceName(s); }),
                     namespaces.end());
    std::sort(namespaces.begin(), namespaces.end());
    return true;
}

bool Execute(KOLVDB *pConn, const std::string &strSQL) {
    if (KOLV_FAIL_IF(1000, 0 > KOLVDBExecute(pConn, strSQL.c_str(), NULL))) return false;
    return true;
}

/* Reads the rows of entries and INSERTs them in chunks on pConn. An
 * object whose row cannot be built is logged and left out. */
bool InsertRows(KOLVDB *pConn, const std::string &strRepo, const std::vector<Entry> &entries,
                const Progress &progress) {
    kolv::IndexRowReader reader(strRepo);
    std::string strSQL;
    size_t rows = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        const char *szNs = entries[i].first.c_str(), *szId = entries[i].second.c_str();
        kolv::IndexRow row;
        std::string strWhy;
        // A row the connection cannot carry (bytes that are no text in
        // its encoding) is refused when it is escaped.
        kolv::CString szValue(reader.Read(szNs, szId, row, strWhy) ? kolv::FormatIndexRowValues(pConn, row) : NULL);
        if (NULL == szValue.get()) {
            // One bad object never stops the reindex.
            syslog(LOG_ERR, "%s:%d fail to reindex object ns=%s, id=%s, owner=%u (%s)", __FILE__, __LINE__, szNs, szId,
                   KOLVVessaObjectGetOwnerByID(szId),
                   strWhy.empty() ? "a value the database cannot hold" : strWhy.c_str());
        } else {
            strSQL += (0 == rows) ? szSQLReindexPrefix : ",";
            strSQL += szValue.get();
            ++rows;
        }
        bool blLast = i + 1 == entries.size();
        if (rows == kChunkRows || (blLast && rows > 0)) {
            if (KOLV_APPEND_IF(!Execute(pConn, strSQL))) return false;
            strSQL.clear();
            rows = 0;
        }
        if (blLast || 0 == (i + 1) % kChunkRows) progress.Report((unsigned)(i + 1));
    }
    return true;
}

/* The rebuild inside its transaction: the old rows go, the new ones come. */
bool Rebuild(KOLVDB *pConn, const Json::Value &jParam, const std::string &strRepo, const std::vector<Entry> &entries,
             const Progress &progress) {
    kolv::CString sqlGuard(
        jParam.isMember("ns")
            ? KOLVDBEscapeStringEX3(1, pConn, "DELETE FROM object WHERE ns='@KOLV:VAR'", jParam["ns"].asCString())
            : KOLVDBEscapeStringEX3(1, pConn, "DELETE FROM object"));
    const char *szSQLDelete = sqlGuard.get();
    if (KOLV_FAIL_IF(1000, NULL == szSQLDelete)) return false;
    if (KOLV_FAIL_IF(1000, 0 > KOLVDBExecute(pConn, szSQLDelete, NULL))) return false;
    if (KOLV_APPEND_IF(!InsertRows(pConn, strRepo, entries, progress))) return false;
    return true;
}

/* Settings that cannot be read must not pass for a disabled namespace,
 * whose objects would all be left out: the run stops first. */
bool SettingsReadable(const std::string &strNs) {
    if (FALSE != KOLVVessaAccessCheck(strNs.c_str())) return true;
    if (KOLV_APPEND_IF(kolv::kErrSettingsUnreadable == KOLVVessaErrCodeGet())) return false;
    return true;
}

/* The object folders the run covers: one namespace or every one. */
bool ListEntries(const Json::Value &jParam, const std::string &strRepo, std::vector<Entry> &entries) {
    std::vector<std::string> namespaces;
    if (jParam.isMember("ns")) {
        namespaces.push_back(jParam["ns"].asString());
    } else if (KOLV_APPEND_IF(!ListNamespaces(strRepo, namespaces))) {
        return false;
    }
    for (const std::string &strNs : namespaces) {
        if (KOLV_APPEND_IF(!SettingsReadable(strNs))) return false;
        if (KOLV_APPEND_IF(!ListObjects(strRepo, strNs, entries))) return false;
    }
    return true;
}

bool ReindexOnOwnConnection(const Json::Value &jParam, const Progress &progressIn) {
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    std::vector<Entry> entries;
    if (KOLV_APPEND_IF(!ListEntries(jParam, strRepo, entries))) return false;
    Progress progress = progressIn;
    progress.total = (unsigned)entries.size();
    // The process's connection makes the database and its schema when
    // they are missing; the rebuild's long transaction runs on a
    // connection of its own, which other threads never share.
    KOLVDB *pConn = NULL;
    if (KOLV_FAIL_IF(1000, NULL == (pConn = KOLVVessaOpenConn()))) return false;
    KOLVVessaCloseConn();
    kolv::DBConn connGuard(KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa"));
    pConn = connGuard.get();
    if (KOLV_FAIL_IF(1000, NULL == pConn)) return false;
    if (KOLV_APPEND_IF(!Execute(pConn, "BEGIN"))) return false;
    if (KOLV_APPEND_IF(!Rebuild(pConn, jParam, strRepo, entries, progress))) {
        // The old rows stay.
        KOLVDBExecute(pConn, "ROLLBACK", NULL);
        return false;
    }
    if (KOLV_APPEND_IF(!Execute(pConn, "COMMIT"))) return false;
    if (0 == progress.total) progress.Report(0);
    // Fresh statistics for the planner; no table rewrite. The rows are
    // committed by now: a failure here is only logged.
    if (0 > KOLVDBExecute(pConn, "ANALYZE object", NULL))
        syslog(LOG_ERR, "%s:%d ANALYZE after reindex failed: %s", __FILE__, __LINE__, KOLVDBErrorGet(pConn));
    return true;
}

} // namespace

bool KOLVVessaReindexByNs(KOLVDB *pConn, const std::string &strRepo, const char *szNs) {
    return KOLV_NO_THROW_AS(false, 1000, "reindex of a namespace aborted", [&]() -> bool {
        if (KOLV_FAIL_IF(1007, NULL == szNs || !kolv::IsSafePathName(szNs))) return false;
        if (KOLV_FAIL_IF(1000, NULL == pConn)) return false;
        std::vector<Entry> entries;
        if (KOLV_APPEND_IF(!ListObjects(strRepo, szNs, entries))) return false;
        Progress progress = {NULL, NULL, (unsigned)entries.size()};
        if (KOLV_APPEND_IF(!InsertRows(pConn, strRepo, entries, progress))) return false;
        return true;
    });
}

bool KOLVVessaReindexEx(const Json::Value &jParam, void (*pfnProgress)(unsigned done, unsigned total, void *pv),
                        void *pv) {
    return KOLV_NO_THROW_AS(false, 1000, "reindex aborted", [&]() -> bool {
        // The namespace becomes a directory name: refuse one that would
        // leave the repository before anything is deleted.
        if (KOLV_FAIL_IF(1007, jParam.isMember("ns") &&
                                   (!jParam["ns"].isString() || !kolv::IsSafePathName(jParam["ns"].asString()))))
            return false;
        Progress progress = {pfnProgress, pv, 0};
        if (KOLV_APPEND_IF(!ReindexOnOwnConnection(jParam, progress))) return false;
        return true;
    });
}

bool KOLVVessaReindex(const Json::Value &jParam) {
    return KOLVVessaReindexEx(jParam, NULL, NULL);
}
