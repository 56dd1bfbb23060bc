// The write path against a live server: create, set (text, meta text,
// binary) and get (latest, older version) of one object. Each subject runs
// beside its floor, the least libgit2 + JSON + libpq work that leaves the
// same result, alternating in one process:
//  - create and set: the files the subject wrote (found by comparing the
//    object folder before and after) written to a twin object with fsync,
//    the same commit made on the twin from blobs in memory, and the twin's
//    row upserted in one statement;
//  - get: the object's JSON file and the version's text and binary info
//    blobs read through libgit2 and parsed.
// Listing and reindex have benchmarks of their own (bench_list,
// bench_reindex).
//
//   eval "$(scripts/pg_cluster.sh start)"; build/bench/bench_index [rounds]
#include <dirent.h>
#include <fcntl.h>
#include <git2.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "kolvvessa/kolvvessa.h"

namespace {

using kolvbench::Median;
using kolvbench::Now;
using kolvbench::UserEntry;
using kolvbench::WriteText;

const char szNs[] = "note";
const unsigned kAlice = 1101;
std::string gstrRepo; // the store, found once the sysroot is made

void Die(const char *szWhat) {
    fprintf(stderr, "%s failed\n", szWhat);
    KOLVVessaErrPrint(stderr);
    exit(1);
}

std::string ReadText(const std::string &strPath) {
    std::ifstream ifs(strPath, std::ios::binary);
    std::stringstream ss;
    ss << ifs.rdbuf();
    return ss.str();
}

// Alice alone.
std::string MakeSysroot() {
    std::string strRoot = kolvbench::MakeSysroot("[" + UserEntry(kAlice, "alice") + "]");
    // Settled, as a settings file is between changes.
    struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    utimensat(AT_FDCWD, (strRoot + "/usr/kolv/etc/kolvvessa.conf").c_str(), times, 0);
    return strRoot;
}

// ---- an object folder as files ----

struct Snapshot {
    std::vector<std::string> dirs;            // relative, parents first
    std::map<std::string, std::string> files; // relative path -> content
};

// The folder below strBase, without the repository's own ".git".
void Walk(const std::string &strBase, const std::string &strRel, Snapshot &snap) {
    DIR *pDir = opendir((strBase + "/" + strRel).c_str());
    if (!pDir) return;
    while (dirent *pEnt = readdir(pDir)) {
        std::string strName = pEnt->d_name;
        if (strName == "." || strName == ".." || strName == ".git") continue;
        std::string strPath = strRel.empty() ? strName : strRel + "/" + strName;
        struct stat st;
        if (0 != lstat((strBase + "/" + strPath).c_str(), &st)) continue;
        if (S_ISDIR(st.st_mode)) {
            snap.dirs.push_back(strPath);
            Walk(strBase, strPath, snap);
        } else {
            snap.files[strPath] = ReadText(strBase + "/" + strPath);
        }
    }
    closedir(pDir);
}

Snapshot Snap(const std::string &strBase) {
    Snapshot snap;
    Walk(strBase, "", snap);
    return snap;
}

// The files of after that differ from before.
std::map<std::string, std::string> Changed(const Snapshot &before, const Snapshot &after) {
    std::map<std::string, std::string> changed;
    for (const auto &kv : after.files) {
        auto it = before.files.find(kv.first);
        if (it == before.files.end() || it->second != kv.second) changed.insert(kv);
    }
    return changed;
}

void WriteSynced(const std::string &strPath, const std::string &strText) {
    mkdir(strPath.substr(0, strPath.rfind('/')).c_str(), 0755); // a version's first binary file
    int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, strText.data(), strText.size()) != (ssize_t)strText.size() || 0 != fsync(fd))
        Die("floor write");
    close(fd);
}

// ---- versions ----

struct CommitMade {
    bool blMade = false;
    std::string strMsg, strName, strMail;
    git_time_t time = 0;
};

std::string ObjectPath(const std::string &strId) {
    return gstrRepo + "/" + szNs + "/" + strId;
}

// HEAD's commit of an object, as its id and what a twin commit needs.
std::string HeadOf(const std::string &strId, CommitMade *pMade) {
    git_repository *pRepo = NULL;
    git_object *pObj = NULL;
    if (0 > git_repository_open(&pRepo, (ObjectPath(strId) + "/version").c_str()) ||
        0 > git_revparse_single(&pObj, pRepo, "HEAD^{commit}"))
        Die("HEAD lookup");
    git_commit *pCommit = reinterpret_cast<git_commit *>(pObj);
    char sz[GIT_OID_HEXSZ + 1];
    std::string strVer = git_oid_tostr(sz, sizeof(sz), git_commit_id(pCommit));
    if (pMade) {
        pMade->strMsg = git_commit_message(pCommit);
        pMade->strName = git_commit_author(pCommit)->name;
        pMade->strMail = git_commit_author(pCommit)->email;
        pMade->time = git_commit_time(pCommit);
    }
    git_object_free(pObj);
    git_repository_free(pRepo);
    return strVer;
}

// The changed work tree files of the version as tree updates, their blobs
// written from memory.
std::vector<git_tree_update> VersionUpdates(git_repository *pRepo, const std::map<std::string, std::string> &changed,
                                            std::vector<std::string> &vPaths) {
    std::vector<git_tree_update> updates;
    vPaths.clear();
    for (const auto &kv : changed) {
        if (kv.first.compare(0, 8, "version/") == 0) vPaths.push_back(kv.first.substr(8));
    }
    for (const std::string &strPath : vPaths) {
        git_tree_update up = {};
        up.action = GIT_TREE_UPDATE_UPSERT;
        const std::string &strText = changed.at("version/" + strPath);
        if (0 > git_blob_create_from_buffer(&up.id, pRepo, strText.data(), strText.size())) Die("blob");
        up.filemode = GIT_FILEMODE_BLOB;
        up.path = strPath.c_str();
        updates.push_back(up);
    }
    return updates;
}

void CommitOnHead(git_repository *pRepo, const git_oid *pTree, const CommitMade &made, git_commit *pParent) {
    git_tree *pNewTree = NULL;
    git_signature *pSig = NULL;
    git_oid commit;
    const git_commit *parents[] = {pParent};
    if (0 > git_tree_lookup(&pNewTree, pRepo, pTree) ||
        0 > git_signature_new(&pSig, made.strName.c_str(), made.strMail.c_str(), made.time, 0) ||
        0 > git_commit_create(&commit, pRepo, "HEAD", pSig, pSig, NULL, made.strMsg.c_str(), pNewTree, pParent ? 1 : 0,
                              parents))
        Die("floor commit");
    git_signature_free(pSig);
    git_tree_free(pNewTree);
}

// ---- the index row ----

// The upsert of strFrom's row under the id strTo, as one statement.
std::string UpsertOf(KOLVDB *pConn, const std::string &strFrom, const std::string &strTo) {
    std::string strSQL = "SELECT format('(%L,%L,%s,%L,%L,%L,%L,%L,%L,%L,%L,%L,%s,%s,%L)', '" + strTo +
                         "', ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, binary_info, "
                         "metabinary_info, ctime, mtime, extra_info) AS v FROM object WHERE id = '" +
                         strFrom + "';";
    KOLVDBRESULT *pResult = NULL;
    if (0 != KOLVDBExecute(pConn, strSQL.c_str(), &pResult) || KOLVDBResultRows(pResult) != 1) Die("row lookup");
    std::string strValues = KOLVDBFetchField(pResult, 0, "v");
    KOLVDBFreeResult(pResult);
    return "INSERT INTO object(id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
           "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES " +
           strValues +
           " ON CONFLICT (id) DO UPDATE SET ns=EXCLUDED.ns, owner=EXCLUDED.owner, category=EXCLUDED.category, "
           "parent_id=EXCLUDED.parent_id, version=EXCLUDED.version, commit_msg=EXCLUDED.commit_msg, "
           "acl=EXCLUDED.acl, text=EXCLUDED.text, metatext=EXCLUDED.metatext, binary_info=EXCLUDED.binary_info, "
           "metabinary_info=EXCLUDED.metabinary_info, ctime=EXCLUDED.ctime, mtime=EXCLUDED.mtime, "
           "extra_info=EXCLUDED.extra_info;";
}

void Exec(KOLVDB *pConn, const std::string &strSQL) {
    if (0 != KOLVDBExecute(pConn, strSQL.c_str(), NULL)) Die(KOLVDBErrorGet(pConn));
}

// ---- the floors ----

// A new object folder at strBase holding snap, its version committed.
void FloorCreate(const std::string &strBase, const Snapshot &snap, const CommitMade &made) {
    mkdir(strBase.c_str(), 0755);
    for (const std::string &strDir : snap.dirs)
        mkdir((strBase + "/" + strDir).c_str(), 0755);
    for (const auto &kv : snap.files)
        WriteSynced(strBase + "/" + kv.first, kv.second);
    git_repository *pRepo = NULL;
    if (0 > git_repository_init(&pRepo, (strBase + "/version").c_str(), 0)) Die("floor init");
    git_treebuilder *pRoot = NULL;
    git_tree *pEmpty = NULL;
    git_oid empty;
    git_treebuilder_new(&pRoot, pRepo, NULL);
    git_treebuilder_write(&empty, pRoot);
    git_tree_lookup(&pEmpty, pRepo, &empty);
    std::vector<std::string> vPaths;
    std::vector<git_tree_update> updates = VersionUpdates(pRepo, snap.files, vPaths);
    git_oid tree;
    if (0 > git_tree_create_updated(&tree, pRepo, pEmpty, updates.size(), updates.data())) Die("floor tree");
    CommitOnHead(pRepo, &tree, made, NULL);
    git_tree_free(pEmpty);
    git_treebuilder_free(pRoot);
    git_repository_free(pRepo);
}

// The changed files written over strBase, and the commit on HEAD.
void FloorSet(const std::string &strBase, const std::map<std::string, std::string> &changed, const CommitMade &made) {
    for (const auto &kv : changed)
        WriteSynced(strBase + "/" + kv.first, kv.second);
    if (!made.blMade) return;
    git_repository *pRepo = NULL;
    git_object *pObj = NULL;
    if (0 > git_repository_open(&pRepo, (strBase + "/version").c_str()) ||
        0 > git_revparse_single(&pObj, pRepo, "HEAD^{commit}"))
        Die("floor open");
    git_commit *pParent = reinterpret_cast<git_commit *>(pObj);
    git_tree *pTree = NULL;
    git_commit_tree(&pTree, pParent);
    std::vector<std::string> vPaths;
    std::vector<git_tree_update> updates = VersionUpdates(pRepo, changed, vPaths);
    git_oid tree;
    if (0 > git_tree_create_updated(&tree, pRepo, pTree, updates.size(), updates.data())) Die("floor tree");
    CommitOnHead(pRepo, &tree, made, pParent);
    git_tree_free(pTree);
    git_object_free(pObj);
    git_repository_free(pRepo);
}

// The JSON blobs below szDir of the tree, parsed.
void ParseBlobs(git_repository *pRepo, git_tree *pTree, const char *szDir) {
    git_tree_entry *pEntry = NULL;
    if (0 > git_tree_entry_bypath(&pEntry, pTree, szDir)) return;
    git_tree *pSub = NULL;
    git_tree_lookup(&pSub, pRepo, git_tree_entry_id(pEntry));
    for (size_t i = 0; pSub && i < git_tree_entrycount(pSub); ++i) {
        git_blob *pBlob = NULL;
        if (0 > git_blob_lookup(&pBlob, pRepo, git_tree_entry_id(git_tree_entry_byindex(pSub, i)))) Die("blob read");
        const char *p = static_cast<const char *>(git_blob_rawcontent(pBlob));
        Json::Value j;
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> pReader(builder.newCharReader());
        pReader->parse(p, p + git_blob_rawsize(pBlob), &j, NULL);
        git_blob_free(pBlob);
    }
    git_tree_free(pSub);
    git_tree_entry_free(pEntry);
}

// What a get reads: the object's JSON file and the version's blobs.
void FloorGet(const std::string &strBase, const char *szVersion) {
    Json::Value jBasic;
    std::istringstream iss(ReadText(strBase + "/basic.json"));
    Json::CharReaderBuilder builder;
    Json::parseFromStream(builder, iss, &jBasic, NULL);
    git_repository *pRepo = NULL;
    git_object *pObj = NULL;
    std::string strSpec = szVersion ? std::string(szVersion) : std::string("HEAD");
    if (0 > git_repository_open(&pRepo, (strBase + "/version").c_str()) ||
        0 > git_revparse_single(&pObj, pRepo, (strSpec + "^{commit}").c_str()))
        Die("floor get");
    git_tree *pTree = NULL;
    git_commit_tree(&pTree, reinterpret_cast<git_commit *>(pObj));
    ParseBlobs(pRepo, pTree, "text");
    ParseBlobs(pRepo, pTree, "binary_info");
    git_tree_free(pTree);
    git_object_free(pObj);
    git_repository_free(pRepo);
}

// ---- the runs ----

struct Pair {
    std::vector<double> vSubject, vFloor;
};

void Report(const char *szName, const Pair &p) {
    double subject = Median(p.vSubject), floor = Median(p.vFloor);
    printf("%-22s %9.3f %9.3f %6.2f\n", szName, subject * 1e3, floor * 1e3, floor > 0 ? subject / floor : 0);
    fflush(stdout);
}

Json::Value CreateParm(int i) {
    Json::Value j;
    j["ns"] = szNs;
    j["requester"] = kAlice;
    j["category"] = "memo";
    j["text"]["title"] = "title " + std::to_string(i);
    j["text"]["body"] = "The first draft of the body text, long enough to look like a note.";
    j["metatext"]["tag"] = "draft";
    j["acl"]["enabled"] = true;
    j["acl"]["public"]["perm"] = "ro";
    return j;
}

std::string Create(const Json::Value &jParm) {
    KOLV_VESSA_OBJECT Object;
    std::string strId, strVer;
    if (!Object.Create(jParm, strId, strVer)) Die("create");
    return strId;
}

void BenchCreate(KOLVDB *pConn, int rounds) {
    Pair p;
    for (int i = 0; i < rounds; ++i) {
        double t0 = Now();
        std::string strId = Create(CreateParm(i));
        double t1 = Now();
        Snapshot snap = Snap(ObjectPath(strId));
        CommitMade made;
        HeadOf(strId, &made);
        std::string strTwin = strId + "f";
        std::string strUpsert = UpsertOf(pConn, strId, strTwin);
        double t2 = Now();
        FloorCreate(ObjectPath(strTwin), snap, made);
        Exec(pConn, strUpsert);
        double t3 = Now();
        p.vSubject.push_back(t1 - t0);
        p.vFloor.push_back(t3 - t2);
    }
    Report("create", p);
}

// One kind of set: subject on strA, floor on its twin strB.
void BenchSet(KOLVDB *pConn, const char *szName, int rounds, const std::string &strA, const std::string &strB,
              const std::function<void(Json::Value &, int)> &fill) {
    Pair p;
    for (int i = 0; i < rounds; ++i) {
        Json::Value jSet;
        jSet["ns"] = szNs;
        jSet["id"] = strA;
        jSet["requester"] = kAlice;
        std::string strOld = HeadOf(strA, NULL);
        jSet["version"] = strOld;
        fill(jSet, i);
        Snapshot before = Snap(ObjectPath(strA));
        KOLV_VESSA_OBJECT Object;
        std::string strVer;
        double t0 = Now();
        if (!Object.Set(jSet, strVer)) Die("set");
        double t1 = Now();
        std::map<std::string, std::string> changed = Changed(before, Snap(ObjectPath(strA)));
        CommitMade made;
        made.blMade = HeadOf(strA, &made) != strOld;
        if (getenv("SHOW")) {
            for (const auto &kv : changed)
                fprintf(stderr, "%s changed %s\n", szName, kv.first.c_str());
        }
        std::string strUpsert = UpsertOf(pConn, strA, strB);
        double t2 = Now();
        FloorSet(ObjectPath(strB), changed, made);
        Exec(pConn, strUpsert);
        double t3 = Now();
        p.vSubject.push_back(t1 - t0);
        p.vFloor.push_back(t3 - t2);
    }
    Report(szName, p);
}

void BenchGet(const char *szName, int rounds, const std::string &strA, const std::string &strB,
              const std::string &strVerA, const std::string &strVerB) {
    Pair p;
    for (int i = 0; i < rounds; ++i) {
        Json::Value jGet;
        jGet["ns"] = szNs;
        jGet["id"] = strA;
        jGet["requester"] = kAlice;
        if (!strVerA.empty()) jGet["version"] = strVerA;
        KOLV_VESSA_OBJECT Object;
        double t0 = Now();
        if (!Object.Get(jGet)) Die("get");
        double t1 = Now();
        FloorGet(ObjectPath(strB), strVerB.empty() ? NULL : strVerB.c_str());
        double t2 = Now();
        p.vSubject.push_back(t1 - t0);
        p.vFloor.push_back(t2 - t1);
    }
    Report(szName, p);
}

} // namespace

int main(int argc, char **argv) {
    if (!getenv("PGHOST")) {
        printf("PGHOST is not set: start a server with scripts/pg_cluster.sh start\n");
        return 0;
    }
    int rounds = argc > 1 ? atoi(argv[1]) : 200;
    std::string strRoot = MakeSysroot();
    KOLVDB *pAdmin = KOLVDBConnect(NULL, "postgres", NULL, "postgres");
    if (!pAdmin) return 1;
    Exec(pAdmin, "DROP DATABASE IF EXISTS kolvvessa WITH (FORCE)");
    KOLVDBClose(pAdmin);
    KOLVDB *pConn = KOLVVessaOpenConn();
    if (!pConn) Die("connect");
    git_libgit2_init();
    if (!KOLVVessaGetRepoPath(gstrRepo)) Die("repository path");
    printf("rounds: %d\nname subject_ms floor_ms ratio\n", rounds);
    BenchCreate(pConn, rounds);

    // Twins: made alike, kept alike by the subject's and the floor's sets.
    std::string strA = Create(CreateParm(0)), strB = Create(CreateParm(0));
    std::string strFirstA = HeadOf(strA, NULL), strFirstB = HeadOf(strB, NULL);
    BenchSet(pConn, "set text", rounds, strA, strB,
             [](Json::Value &j, int i) { j["text"]["title"] = "changed " + std::to_string(i); });
    // A meta text key keeps the first change of a request time: each round
    // asks a second later than the one before, so that every change lands.
    const time_t tFirst = time(NULL);
    BenchSet(pConn, "set meta text", rounds, strA, strB, [tFirst](Json::Value &j, int i) {
        j["metatext"]["tag"] = "tag " + std::to_string(i);
        j["mtime"] = (Json::Int64)(tFirst + 1 + i);
    });
    std::string strBinary = strRoot + "/tmp/attachment";
    chmod(strRoot.c_str(), 0755);
    chmod((strRoot + "/tmp").c_str(), 01777);
    BenchSet(pConn, "set binary", rounds, strA, strB, [&](Json::Value &j, int i) {
        WriteText(strBinary, std::string(4096, 'a' + i % 26) + std::to_string(i));
        if (0 != chown(strBinary.c_str(), kAlice, 100)) Die("chown");
        Json::Value jBin;
        jBin["name"] = "attachment";
        jBin["format"] = "raw";
        jBin["path"] = strBinary;
        j["binary_files"].append(jBin);
    });
    BenchGet("get latest", rounds, strA, strB, "", "");
    BenchGet("get older version", rounds, strA, strB, strFirstA, strFirstB);

    git_libgit2_shutdown();
    std::string strCmd = "rm -rf " + strRoot;
    if (system(strCmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", strRoot.c_str());
    return 0;
}
