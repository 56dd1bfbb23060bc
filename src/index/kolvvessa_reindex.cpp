/*
 * Reindex: the table "object" emptied (for one namespace or all) and
 * filled again from the repository.
 */
#include <glob.h>
#include <syslog.h>

#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

const char szSQLReindexPrefix[] =
    "INSERT INTO object (id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
    "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";

bool clear_index(KOLVDB *pConn, const Json::Value &jParam) {
    kolv::CString sqlGuard(
        jParam.isMember("ns")
            ? KOLVDBEscapeStringEX3(1, pConn, "DELETE FROM object WHERE ns='@KOLV:VAR'", jParam["ns"].asCString())
            : KOLVDBEscapeStringEX3(1, pConn, "DELETE FROM object"));
    const char *szSQLDelete = sqlGuard.get();
    if (KOLV_FAIL_IF(1000, NULL == szSQLDelete)) return false;
    if (KOLV_FAIL_IF(1000, 0 > KOLVDBExecute(pConn, szSQLDelete, NULL))) return false;
    if (KOLV_FAIL_IF(1000, 0 > KOLVDBExecute(pConn, "VACUUM FULL;", NULL))) return false;
    return true;
}

// Every namespace of the repository, in byte order.
bool ReindexAll(KOLVDB *pConn, const std::string &strRepo) {
    glob_t tGlob = {};
    kolv::Glob guard(&tGlob);
    int ret = glob((strRepo + "/*").c_str(), GLOB_ERR, NULL, &tGlob);
    if (GLOB_NOMATCH == ret) return true;
    if (KOLV_FAIL_IF(1000, 0 != ret)) return false;
    for (size_t i = 0; i < tGlob.gl_pathc; ++i) {
        const char *szNs = tGlob.gl_pathv[i] + strRepo.size() + 1;
        // Namespaces before a failing one stay indexed.
        if (KOLV_APPEND_IF(!KOLVVessaReindexByNs(pConn, strRepo, szNs))) return false;
    }
    return true;
}

} // namespace

bool KOLVVessaReindexByNs(KOLVDB *pConn, const std::string &strRepo, const char *szNs) {
    if (KOLV_FAIL_IF(1007, NULL == szNs || !kolv::IsSafePathName(szNs))) return false;
    std::string strDir = strRepo + "/" + szNs;
    glob_t tGlob = {};
    kolv::Glob guard(&tGlob);
    int ret = glob((strDir + "/*").c_str(), GLOB_ERR, NULL, &tGlob);
    if (GLOB_NOMATCH == ret) return true;
    if (KOLV_FAIL_IF(1000, 0 != ret)) return false;
    std::string strPrefix = szSQLReindexPrefix, strSQL;
    for (size_t i = 0; i < tGlob.gl_pathc; ++i) {
        const char *szId = tGlob.gl_pathv[i] + strDir.size() + 1;
        uid_t owner = KOLVVessaObjectGetOwnerByID(szId);
        std::string strValue;
        if (!KOLVVessaObjectCreateIndexValue(szId, szNs, owner, strValue)) {
            // One bad object never stops the reindex.
            syslog(LOG_ERR, "%s:%d fail to reindex object ns=%s, id=%s, owner=%u", __FILE__, __LINE__, szNs, szId,
                   owner);
            continue;
        }
        if (!strSQL.empty()) strSQL += ",";
        strSQL += strValue;
    }
    if (strSQL.empty()) return true;
    strSQL += ";";
    // The whole namespace in one INSERT, deliberately unchunked.
    if (KOLV_FAIL_IF(1000, 0 > KOLVDBExecute(pConn, (strPrefix + strSQL).c_str(), NULL))) return false;
    return true;
}

// Fills the table again after clear_index: one namespace or all of them.
static bool KOLVVessaIndex(KOLVDB *pConn, const Json::Value &jParam) {
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    if (jParam.isMember("ns")) {
        if (KOLV_APPEND_IF(!KOLVVessaReindexByNs(pConn, strRepo, jParam["ns"].asCString()))) return false;
        return true;
    }
    return ReindexAll(pConn, strRepo);
}

bool KOLVVessaReindex(const Json::Value &jParam) {
    return KOLV_NO_THROW_AS(false, 1000, "reindex aborted", [&]() -> bool {
        // The namespace becomes a directory name: refuse one that would
        // leave the repository before anything is deleted.
        if (KOLV_FAIL_IF(1007, jParam.isMember("ns") &&
                                   (!jParam["ns"].isString() || !kolv::IsSafePathName(jParam["ns"].asString()))))
            return false;
        KOLVDB *pConn = NULL;
        if (KOLV_FAIL_IF(1000, NULL == (pConn = KOLVVessaOpenConn()))) return false;
        bool blRet = true;
        if (KOLV_APPEND_IF(!clear_index(pConn, jParam))) {
            blRet = false;
        } else if (KOLV_APPEND_IF(!KOLVVessaIndex(pConn, jParam))) {
            // The table (or the namespace) stays as far as it was filled.
            blRet = false;
        }
        KOLVVessaCloseConn();
        return blRet;
    });
}
