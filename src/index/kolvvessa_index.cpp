/*
 * The index database: the one connection of the process, the database and
 * its schema made on first use, the vacuum that a forked child runs after
 * every so many process exits, and the reindex that rebuilds the table
 * "object" from the repository.
 */
#include <glob.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"

#define SZ_PGSQL_SERVICE_NAME "pgsql"
#define SZ_VACUUM_FILE "/tmp/kolvvessa.tmp"
#define SZ_VACUUM_LOCK "/tmp/kolvvessa.tmp.lock"
#define VACUUM_THRESHOLD 50000
// Detached, inherited descriptors closed, standard streams on /dev/null:
// the child must outlive the exiting parent without holding its socket.
#define VACUUM_FORK_FLAGS (TRAB_FORK_DETACH | TRAB_FORK_CLOSE_FDS | TRAB_FORK_NULL_STDIO)

namespace {

const char szSQLSchema[] =
    "BEGIN;CREATE TABLE IF NOT EXISTS object(id text PRIMARY KEY, ns text, owner bigint, category text, "
    "parent_id text, version text, commit_msg json, acl json, text json, metatext json, binary_info json, "
    "metabinary_info json,ctime int,mtime int,extra_info json);CREATE INDEX id_idx ON object (id);CREATE INDEX "
    "owner_idx ON object (owner);CREATE INDEX ns_idx ON object (ns);CREATE INDEX category_idx ON object "
    "(category);CREATE INDEX parent_id_idx ON object (parent_id);CREATE INDEX acl_idx ON object "
    "((acl->>'enabled'));CREATE INDEX mtime_idx ON object (mtime);END;";

const char szSQLReindexPrefix[] =
    "INSERT INTO object (id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
    "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";

// The connection and its opener are shared by every thread of the process.
std::mutex gConnLock;
KOLVDB *gpConn = NULL;
pid_t gOpenerPid = 0;
bool gblAtExitRegistered = false;

// The database is taken to be missing when the first connect fails: create
// it, connect again and lay down the schema. Called with gConnLock held.
KOLVDB *CreateAndConnect() {
    // Its result is not looked at: the second connect tells.
    KOLVDBCreateDatabase("postgres", "kolvvessa");
    if (KOLV_FAIL_IF(1025, NULL == (gpConn = KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa")))) return NULL;
    if (-1 == KOLVDBExecute(gpConn, szSQLSchema, NULL)) {
        // Logged only, deliberately: no code on the stack for this path.
        syslog(LOG_ERR, "%s:%d DBExec error %s\n", __FILE__, __LINE__, KOLVDBErrorGet(gpConn));
        KOLVDBClose(gpConn);
        gpConn = NULL;
        return NULL;
    }
    return gpConn;
}

int ReadVacuumCount(const std::string &strFile) {
    kolv::KolvJson jCnt;
    if (!jCnt.fromFile(strFile) || !jCnt.isObject() || !jCnt["vacuum_cnt"].isIntegral()) return 0;
    return jCnt["vacuum_cnt"].asInt();
}

// The vacuum on a connection of its own. False leaves the counter as it
// is, so the next counted exit tries again.
bool RunVacuum() {
    if (KOLV_FAIL_IF(1024, FALSE == TRABServiceIsRunning(SZ_PGSQL_SERVICE_NAME))) return false;
    kolv::DBConn connGuard(KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa"));
    KOLVDB *pVacuumConn = connGuard.get();
    if (KOLV_FAIL_IF(1000, NULL == pVacuumConn)) return false;
    const char *szSQL = "VACUUM ANALYZE";
    KOLVDBRESULT *pResult = NULL;
    bool blRet = !KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(pVacuumConn, szSQL, &pResult)));
    // The result goes before its connection.
    kolv::DBResult resultGuard(pResult);
    return blRet;
}

// The child's work: count one exit, vacuum past the threshold.
void CountExitAndVacuum() {
    char szFile[4096], szLock[4096];
    if (!KOLVSysPath(SZ_VACUUM_FILE, szFile, sizeof(szFile)) || !KOLVSysPath(SZ_VACUUM_LOCK, szLock, sizeof(szLock)))
        return;
    int hLock = -1;
    if (1 != TRABCFileLockByFile(szLock, TRUE, &hLock)) return;
    int cnt = ReadVacuumCount(szFile);
    bool blWrite = true;
    if (cnt > VACUUM_THRESHOLD) {
        blWrite = RunVacuum();
        cnt = 0;
    } else {
        ++cnt;
    }
    if (blWrite) {
        kolv::KolvJson jCnt(Json::objectValue);
        jCnt["vacuum_cnt"] = cnt;
        jCnt.toFile(szFile);
    }
    TRABCFileUnlockByFile(hLock);
}

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

KOLVDB *KOLVVessaOpenConn(void) {
    std::lock_guard<std::mutex> guard(gConnLock);
    if (gpConn) return gpConn;
    if (KOLV_FAIL_IF(1024, FALSE == TRABServiceIsRunning(SZ_PGSQL_SERVICE_NAME))) return NULL;
    gpConn = KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa");
    if (!gpConn && !CreateAndConnect()) return NULL;
    gOpenerPid = getpid();
    if (!gblAtExitRegistered) {
        gblAtExitRegistered = (0 == atexit(KOLVVessaCloseGlobalConn));
    }
    return gpConn;
}

void KOLVVessaCloseConn(void) {
    // Deliberately nothing: the connection lives until process exit.
}

void KOLVVessaCloseGlobalConn(void) {
    {
        std::lock_guard<std::mutex> guard(gConnLock);
        // A forked child inherited the handle; only the opener closes it
        // and counts its exit.
        if (getpid() != gOpenerPid) return;
        if (gpConn) KOLVDBClose(gpConn);
        gpConn = NULL;
    }
    KOLVVessaCheckVaccum();
}

int KOLVVessaCheckVaccum(void) {
    int pid = TRABCProcForkEx(VACUUM_FORK_FLAGS);
    if (0 != pid) return pid;
    CountExitAndVacuum();
    // _exit: the child must not run the parent's exit handlers nor flush
    // its copies of the parent's stdio buffers.
    _exit(0);
}

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
