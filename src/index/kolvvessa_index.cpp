/*
 * The index database: the one connection of the process, the database and
 * its schema made on first use, and the vacuum that a forked child runs
 * after every so many process exits.
 */
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
#include "index/kolvvessa_index_internal.h"
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
    if (!kolv::CreateIndexSchema(gpConn)) {
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

} // namespace

KOLVDB *KOLVVessaOpenConn(void) {
    std::lock_guard<std::mutex> guard(gConnLock);
    if (gpConn) return gpConn;
    if (KOLV_FAIL_IF(1024, FALSE == TRABServiceIsRunning(SZ_PGSQL_SERVICE_NAME))) return NULL;
    gpConn = KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa");
    if (!gpConn && !CreateAndConnect()) return NULL;
    kolv::MigrateIndexSchema(gpConn);
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
