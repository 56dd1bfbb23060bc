/*
 * check_index.cpp - the index against the files: an object without a
 * row, a row without an object, a row that differs from what indexing the
 * object now would write, and objects that indexing skips.
 *
 * Stored JSON columns are compared as parsed values, so the column type
 * (json keeps the text, jsonb its own form) does not matter; the other
 * columns as text.
 */
#include <string>

#include "check/check_internal.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "index/index_row_store.h"

namespace kolv {
namespace check {

namespace {

const char *const rgColumns[] = {"id",         "ns",    "owner",     "category", "parent_id",   "version",
                                 "commit_msg", "acl",   "text",      "metatext", "binary_info", "metabinary_info",
                                 "ctime",      "mtime", "extra_info"};

const char szSelect[] = "SELECT id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
                        "binary_info, metabinary_info, ctime, mtime, extra_info FROM object WHERE ns='@KOLV:VAR'";

bool IsJsonColumn(const std::string &strColumn) {
    return "commit_msg" == strColumn || "acl" == strColumn || "text" == strColumn || "metatext" == strColumn ||
           "binary_info" == strColumn || "metabinary_info" == strColumn || "extra_info" == strColumn;
}

StoredRow Expected(const IndexRow &row) {
    return StoredRow{{"id", row.strId},
                     {"ns", row.strNs},
                     {"owner", std::to_string(row.owner)},
                     {"category", row.strCategory},
                     {"parent_id", row.strParentId},
                     {"version", row.strVersion},
                     {"commit_msg", row.strCommitMsg},
                     {"acl", row.strAcl},
                     {"text", row.strText},
                     {"metatext", row.strMetatext},
                     {"binary_info", row.strBinaryInfo},
                     {"metabinary_info", row.strMetabinaryInfo},
                     {"ctime", std::to_string(row.ctime)},
                     {"mtime", std::to_string(row.mtime)},
                     {"extra_info", row.strExtraInfo}};
}

bool SameColumn(const std::string &strColumn, const std::string &strStored, const std::string &strWant) {
    if (strStored == strWant) return true;
    if (!IsJsonColumn(strColumn)) return false;
    Json::Value jStored, jWant;
    return JsonFromString(jStored, strStored) && JsonFromString(jWant, strWant) && jStored == jWant;
}

/* The names of the columns that differ, "" when none. */
std::string DifferingColumns(const StoredRow &stored, const StoredRow &want) {
    std::string strDiff;
    for (const auto &column : want) {
        auto it = stored.find(column.first);
        if (it != stored.end() && SameColumn(column.first, it->second, column.second)) continue;
        strDiff += (strDiff.empty() ? "" : ", ") + column.first;
    }
    return strDiff;
}

void MendRow(Run &run, Json::Value &jFinding, const std::string &strNs, const std::string &strId) {
    if (!run.blRepair) return;
    std::string strWhy;
    bool blDone = RepairRow(run, strNs, strId, strWhy);
    Mended(jFinding, blDone, blDone ? "row written" : "row not written: " + strWhy);
}

} // namespace

bool FetchRows(Run &run, const std::string &strNs, const std::string &strId, std::map<std::string, StoredRow> &rows) {
    rows.clear();
    CString sql(strId.empty()
                    ? KOLVDBEscapeStringEX3(1, run.pConn, szSelect, strNs.c_str())
                    : KOLVDBEscapeStringEX3(1, run.pConn, (std::string(szSelect) + " AND id='@KOLV:VAR'").c_str(),
                                            strNs.c_str(), strId.c_str()));
    if (KOLV_FAIL_IF(1000, NULL == sql)) return false;
    KOLVDBRESULT *pRaw = NULL;
    int ret = KOLVDBExecute(run.pConn, sql.get(), &pRaw);
    DBResult pResult(pRaw);
    if (KOLV_FAIL_IF(1000, 0 != ret || NULL == pResult)) return false;
    int row = -1;
    while (0 == KOLVDBFetchRow(pResult.get(), &row)) {
        StoredRow stored;
        for (const char *szColumn : rgColumns) {
            const char *sz = KOLVDBFetchField(pResult.get(), row, szColumn);
            stored[szColumn] = sz ? sz : "";
        }
        rows[stored["id"]] = stored;
    }
    return true;
}

bool FetchRowNamespaces(Run &run, std::set<std::string> &namespaces) {
    KOLVDBRESULT *pRaw = NULL;
    int ret = KOLVDBExecute(run.pConn, "SELECT DISTINCT ns FROM object", &pRaw);
    DBResult pResult(pRaw);
    if (KOLV_FAIL_IF(1000, 0 != ret || NULL == pResult)) return false;
    int row = -1;
    while (0 == KOLVDBFetchRow(pResult.get(), &row)) {
        const char *sz = KOLVDBFetchField(pResult.get(), row, "ns");
        if (sz) namespaces.insert(sz);
    }
    return true;
}

void CheckRow(Run &run, const std::string &strNs, const std::string &strId, const StoredRow *pStored) {
    IndexRow row;
    std::string strWhy;
    if (!run.pReader->Read(strNs.c_str(), strId.c_str(), row, strWhy)) {
        run.Add("skipped_by_reindex", strNs, strId, "", "indexing leaves it out: " + strWhy,
                pStored ? "none: its row stands until the object can be indexed again"
                        : "none: it gets a row once it can be indexed again");
        return;
    }
    if (!pStored) {
        Json::Value &jFinding = run.Add("row_missing", strNs, strId, "", "an object without a row", "write its row");
        MendRow(run, jFinding, strNs, strId);
        return;
    }
    std::string strDiff = DifferingColumns(*pStored, Expected(row));
    if (strDiff.empty()) return;
    Json::Value &jFinding =
        run.Add("row_differs", strNs, strId, "", "stored columns differ: " + strDiff, "write its row afresh");
    MendRow(run, jFinding, strNs, strId);
}

void CheckOrphan(Run &run, const std::string &strNs, const std::string &strId) {
    Json::Value &jFinding = run.Add("row_orphan", strNs, strId, "", "a row without an object folder", "delete the row");
    if (!run.blRepair) return;
    std::string strWhy;
    bool blDone = DeleteRow(run, strNs, strId, strWhy);
    Mended(jFinding, blDone, blDone ? "row deleted" : "row kept: " + strWhy);
}

} // namespace check
} // namespace kolv
