// The index against a live server: create, set and get of objects, a page
// of 50 listed from 100,000 indexed objects (with and without a text
// filter), and reindex of 10,000 objects. Each subject is timed beside the
// least work that gives the same result; the two alternate in one run.
//
//   eval "$(scripts/pg_cluster.sh start)"; build/bench/bench_index [objects]
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa.h"

namespace {

const char szNs[] = "note";
const unsigned kAlice = 1101, kBob = 1102;

double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void WriteText(const std::string &strPath, const std::string &strText) {
    std::ofstream(strPath) << strText;
}

// A private sysroot: the homes share, two users, the namespace switched on.
std::string MakeSysroot() {
    char szTemplate[] = "/tmp/kolvbench.XXXXXX";
    std::string strRoot = mkdtemp(szTemplate);
    setenv("KOLV_SYSROOT", strRoot.c_str(), 1);
    std::string strCmd = "mkdir -p " + strRoot + "/volume1/homes " + strRoot + "/usr/kolv/etc " + strRoot + "/tmp";
    if (system(strCmd.c_str()) != 0) exit(1);
    WriteText(strRoot + "/usr/kolv/etc/platform.conf",
              R"({"shares":{"homes":"/volume1/homes"},"user_home":{"local":true,"domain":false,"directory":true},)"
              R"("users":[{"uid":1101,"name":"alice","gid":100,"mail":"a@x","expired":false,"groups":[100]},)"
              R"({"uid":1102,"name":"bob","gid":100,"mail":"b@x","expired":false,"groups":[100]}]})");
    WriteText(strRoot + "/usr/kolv/etc/kolvvessa.conf", R"({"Access":{"enable":true,"enable_ns_note":true}})");
    return strRoot;
}

bool Exec(KOLVDB *pConn, const std::string &strSQL) {
    if (0 == KOLVDBExecute(pConn, strSQL.c_str(), NULL)) return true;
    fprintf(stderr, "SQL failed: %s\n", KOLVDBErrorGet(pConn));
    return false;
}

// The same statement the listing sends, with its rows read in full.
bool SelectDirect(KOLVDB *pConn, const std::string &strSQL) {
    KOLVDBRESULT *pResult = NULL;
    if (0 != KOLVDBExecute(pConn, strSQL.c_str(), &pResult)) return false;
    KOLVDBFreeResult(pResult);
    return true;
}

void Report(const char *szName, const std::vector<double> &vSubject, const std::vector<double> &vBase) {
    double subject = Median(vSubject), base = Median(vBase);
    printf("%-34s %10.3f ms   floor %10.3f ms   ratio %5.2f\n", szName, subject * 1e3, base * 1e3,
           base > 0 ? subject / base : 0);
}

// Alternates subject and baseline rounds times and reports the medians.
void Compare(const char *szName, int rounds, const std::function<void()> &subject,
             const std::function<void()> &baseline) {
    std::vector<double> vSubject, vBase;
    for (int i = 0; i < rounds; ++i) {
        double t0 = Now();
        subject();
        double t1 = Now();
        baseline();
        double t2 = Now();
        vSubject.push_back(t1 - t0);
        vBase.push_back(t2 - t1);
    }
    Report(szName, vSubject, vBase);
}

Json::Value CreateParm(unsigned owner, int i) {
    Json::Value j;
    j["ns"] = szNs;
    j["requester"] = owner;
    j["category"] = "memo";
    j["text"]["title"] = "title " + std::to_string(i);
    j["acl"]["enabled"] = true;
    j["acl"]["public"]["perm"] = "ro";
    return j;
}

// Create, set and get through the object store; the index's share of each
// is the upsert alone on the same object.
void BenchObjects(KOLVDB *pConn, int n, std::vector<std::string> &vIds) {
    std::vector<double> vCreate, vSet, vGet, vUpsert;
    for (int i = 0; i < n; ++i) {
        KOLV_VESSA_OBJECT Object;
        std::string strId, strVer;
        double t0 = Now();
        if (!Object.Create(CreateParm(kAlice, i), strId, strVer)) {
            KOLVVessaErrPrint(stderr);
            exit(1);
        }
        double t1 = Now();
        Json::Value jSet;
        jSet["ns"] = szNs;
        jSet["id"] = strId;
        jSet["requester"] = kAlice;
        jSet["version"] = strVer;
        jSet["text"]["title"] = "changed " + std::to_string(i);
        if (!Object.Set(jSet, strVer)) KOLVVessaErrPrint(stderr);
        double t2 = Now();
        Json::Value jGet;
        jGet["ns"] = szNs;
        jGet["id"] = strId;
        jGet["requester"] = kBob;
        if (!Object.Get(jGet)) KOLVVessaErrPrint(stderr);
        double t3 = Now();
        KOLVVessaObjectIndexEx(pConn, strId.c_str(), szNs, kAlice);
        double t4 = Now();
        vCreate.push_back(t1 - t0);
        vSet.push_back(t2 - t1);
        vGet.push_back(t3 - t2);
        vUpsert.push_back(t4 - t3);
        vIds.push_back(strId);
    }
    printf("%-34s %10.3f ms   of which index upsert %7.3f ms\n", "create (object store + index)", Median(vCreate) * 1e3,
           Median(vUpsert) * 1e3);
    printf("%-34s %10.3f ms   of which index upsert %7.3f ms\n", "set (object store + index)", Median(vSet) * 1e3,
           Median(vUpsert) * 1e3);
    printf("%-34s %10.3f ms   (no index work)\n", "get", Median(vGet) * 1e3);
}

const char szSelect[] = "SELECT id, ns, category, parent_id, version, owner, mtime, ctime, acl FROM object WHERE ";

void BenchList(KOLVDB *pConn) {
    // 100,000 rows in one INSERT: half alice's, half bob's, a third shared.
    Exec(pConn, "DELETE FROM object;");
    Exec(pConn, "INSERT INTO object (id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
                "binary_info, metabinary_info, ctime, mtime, extra_info) SELECT 'id' || i, 'note', "
                "CASE WHEN i % 2 = 0 THEN 1101 ELSE 1102 END, 'memo', 'root', 'v', '{}', CASE WHEN i % 3 = 0 THEN "
                "'{\"enabled\":true,\"public\":{\"perm\":\"ro\"}}' ELSE '{\"enabled\":false}' END::json, "
                "('{\"title\":\"t' || i || '\",\"tag\":\"' || (i % 10) || '\"}')::json, '{}', '{}', '{}', i, i, '{}' "
                "FROM generate_series(1, 100000) AS i;");
    Exec(pConn, "ANALYZE object;");
    for (bool blFilter : {false, true}) {
        Json::Value jParm;
        jParm["ns"] = szNs;
        jParm["requester"] = kAlice;
        jParm["offset"] = 0;
        jParm["limit"] = 50;
        std::string strFilter = blFilter ? " AND (text->>'tag')='3'" : "";
        if (blFilter) jParm["filter"]["text"]["tag"] = "3";
        std::string strOwn = szSelect + std::string("ns = 'note'") + strFilter +
                             " AND owner = 1101 ORDER BY mtime DESC, id DESC  OFFSET 0 LIMIT 50 ";
        std::string strShared = szSelect + std::string("ns = 'note'") + strFilter +
                                " AND owner != 1101 AND (CAST(acl->>'enabled' AS BOOL) = true) ORDER BY mtime DESC, "
                                "id DESC ";
        Compare(
            blFilter ? "list 50 of 100000, text filter" : "list 50 of 100000", 21,
            [&]() {
                KOLV_VESSA_OBJECT *pHead = NULL;
                unsigned total = 0;
                if (KOLVVessaObjectList(jParm, &pHead, total) != 100) KOLVVessaErrPrint(stderr);
                KOLVVessaObjectFreeList(pHead);
            },
            [&]() {
                SelectDirect(pConn, strOwn);
                SelectDirect(pConn, strShared);
            });
    }
}

// Reindex of the namespace against the least work with the same end
// state: delete the namespace's rows and insert them in one statement.
void BenchReindex(KOLVDB *pConn) {
    Json::Value jParm;
    jParm["ns"] = szNs;
    Exec(pConn, "DELETE FROM object;");
    if (!KOLVVessaReindex(jParm)) KOLVVessaErrPrint(stderr);
    // The same rows as one multi-row VALUES list, built by the server.
    KOLVDBRESULT *pResult = NULL;
    if (0 != KOLVDBExecute(pConn,
                           "SELECT string_agg(format('(%L,%L,%s,%L,%L,%L,%L,%L,%L,%L,%L,%L,%s,%s,%L)', id, ns, owner, "
                           "category, parent_id, version, commit_msg, acl, text, metatext, binary_info, "
                           "metabinary_info, ctime, mtime, extra_info), ',') AS v FROM object;",
                           &pResult))
        return;
    std::string strInsert = "DELETE FROM object WHERE ns='note'; INSERT INTO object (id, ns, owner, category, "
                            "parent_id, version, commit_msg, acl, text, metatext, binary_info, metabinary_info, "
                            "ctime, mtime, extra_info) VALUES " +
                            std::string(KOLVDBFetchField(pResult, 0, "v")) + ";";
    KOLVDBFreeResult(pResult);
    Compare(
        "reindex of the namespace", 5, [&]() { KOLVVessaReindex(jParm); }, [&]() { Exec(pConn, strInsert); });
    // Where the reindex spends its time: reading the objects back from the
    // store and the full vacuum; the one INSERT is the floor itself.
    if (0 != KOLVDBExecute(pConn, "SELECT id, owner FROM object;", &pResult)) return;
    double t0 = Now();
    for (int row = -1; 0 == KOLVDBFetchRow(pResult, &row);) {
        std::string strValue;
        KOLVVessaObjectCreateIndexValue(KOLVDBFetchField(pResult, row, "id"), szNs,
                                        (uid_t)atol(KOLVDBFetchField(pResult, row, "owner")), strValue);
    }
    double t1 = Now();
    Exec(pConn, "VACUUM FULL;");
    double t2 = Now();
    printf("  of which: read %d objects %.1f ms, VACUUM FULL %.1f ms\n", KOLVDBResultRows(pResult), (t1 - t0) * 1e3,
           (t2 - t1) * 1e3);
    KOLVDBFreeResult(pResult);
}

} // namespace

int main(int argc, char **argv) {
    if (!getenv("PGHOST")) {
        printf("PGHOST is not set: start a server with scripts/pg_cluster.sh start\n");
        return 0;
    }
    int nObjects = argc > 1 ? atoi(argv[1]) : 10000;
    std::string strRoot = MakeSysroot();
    KOLVDB *pAdmin = KOLVDBConnect(NULL, "postgres", NULL, "postgres");
    if (!pAdmin || !Exec(pAdmin, "DROP DATABASE IF EXISTS kolvvessa WITH (FORCE)")) return 1;
    KOLVDBClose(pAdmin);
    KOLVDB *pConn = KOLVVessaOpenConn();
    if (!pConn) {
        KOLVVessaErrPrint(stderr);
        return 1;
    }
    std::vector<std::string> vIds;
    printf("objects: %d\n", nObjects);
    BenchObjects(pConn, nObjects, vIds);
    if (nObjects > 0) BenchReindex(pConn);
    BenchList(pConn);
    std::string strCmd = "rm -rf " + strRoot;
    if (system(strCmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", strRoot.c_str());
    return 0;
}
