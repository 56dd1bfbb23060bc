// Reindex of N objects (default 100,000) against its floor: reading the
// same files and each HEAD commit's tree through libgit2, plus one
// multi-row INSERT of the same rows into a scratch table with the same
// columns and indexes. Subject and floor alternate in one process.
//
// A few hundred objects are made through the library; the rest are their
// folders cloned under new ids (no file of an object folder holds its id),
// files hard-linked, which the reindex only reads.
//
//   eval "$(scripts/pg_cluster.sh start)"; build/bench/bench_reindex [objects] [rounds]
#include <dirent.h>
#include <fcntl.h>
#include <git2.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "index/index_row.h"
#include "index/index_row_store.h"
#include "kolvvessa/kolvvessa.h"

namespace {

using kolvbench::Median;
using kolvbench::Now;
using kolvbench::UserEntry;

const unsigned kAlice = 1101, kBob = 1102;
const unsigned kSeeds = 100;

// Alice and bob.
std::string MakeSysroot() {
    return kolvbench::MakeSysroot("[" + UserEntry(kAlice, "alice") + "," + UserEntry(kBob, "bob") + "]");
}

// A seed object: text, meta text, an ACL, two versions.
std::string MakeSeed(unsigned i) {
    unsigned owner = i % 2 ? kAlice : kBob;
    Json::Value j;
    j["ns"] = "note";
    j["requester"] = owner;
    j["category"] = i % 3 ? "memo" : "todo";
    j["text"]["title"] = "Note " + std::to_string(i);
    j["text"]["body"] = "The first draft of the body text, long enough to look like a note.";
    j["metatext"]["tag"] = "t" + std::to_string(i % 7);
    j["acl"]["enabled"] = true;
    j["acl"]["public"]["perm"] = "ro";
    KOLV_VESSA_OBJECT obj;
    std::string strId, strVer;
    if (!obj.Create(j, strId, strVer)) {
        KOLVVessaErrPrint(stderr);
        exit(1);
    }
    Json::Value jSet;
    jSet["ns"] = "note";
    jSet["id"] = strId;
    jSet["requester"] = owner;
    jSet["version"] = strVer;
    jSet["text"]["body"] = "The second draft.";
    if (!KOLV_VESSA_OBJECT().Set(jSet, strVer)) {
        KOLVVessaErrPrint(stderr);
        exit(1);
    }
    return strId;
}

// One entry of a seed folder, relative to it.
struct Entry {
    std::string strRel;
    bool blDir;
};

void Walk(const std::string &strBase, const std::string &strRel, std::vector<Entry> &out) {
    DIR *pDir = opendir((strBase + strRel).c_str());
    if (!pDir) return;
    while (dirent *pEnt = readdir(pDir)) {
        std::string strName = pEnt->d_name;
        if ("." == strName || ".." == strName) continue;
        std::string strChild = strRel + "/" + strName;
        struct stat st;
        if (0 != lstat((strBase + strChild).c_str(), &st)) continue;
        out.push_back({strChild, S_ISDIR(st.st_mode)});
        if (S_ISDIR(st.st_mode)) Walk(strBase, strChild, out);
    }
    closedir(pDir);
}

// Clones seed folders until strNsDir holds n objects.
void Clone(const std::string &strNsDir, const std::vector<std::string> &seeds, unsigned n) {
    std::vector<std::vector<Entry>> trees(seeds.size());
    for (size_t s = 0; s < seeds.size(); ++s)
        Walk(strNsDir + "/" + seeds[s], "", trees[s]);
    char szId[128];
    for (unsigned i = (unsigned)seeds.size(); i < n; ++i) {
        size_t s = i % seeds.size();
        std::string strOwner = seeds[s].substr(0, seeds[s].find('_'));
        snprintf(szId, sizeof(szId), "%s_%096X", strOwner.c_str(), i);
        std::string strSrc = strNsDir + "/" + seeds[s], strDst = strNsDir + "/" + szId;
        if (0 != mkdir(strDst.c_str(), 0755)) exit(1);
        for (const Entry &e : trees[s]) {
            int rc = e.blDir ? mkdir((strDst + e.strRel).c_str(), 0755)
                             : link((strSrc + e.strRel).c_str(), (strDst + e.strRel).c_str());
            if (0 != rc) {
                perror((strDst + e.strRel).c_str());
                exit(1);
            }
        }
    }
}

bool ReadAll(const std::string &strPath, std::string &strOut) {
    int fd = open(strPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (0 > fd) return false;
    char buf[8192];
    ssize_t cb;
    strOut.clear();
    while (0 < (cb = read(fd, buf, sizeof(buf))))
        strOut.append(buf, (size_t)cb);
    close(fd);
    return true;
}

// Every blob of folder szDir of the tree.
size_t ReadTreeFolder(git_repository *pRepo, git_tree *pTree, const char *szDir) {
    const git_tree_entry *pEntry = git_tree_entry_byname(pTree, szDir);
    if (!pEntry) return 0;
    git_tree *pSub = NULL;
    if (0 > git_tree_lookup(&pSub, pRepo, git_tree_entry_id(pEntry))) return 0;
    size_t cb = 0;
    for (size_t i = 0; i < git_tree_entrycount(pSub); ++i) {
        git_blob *pBlob = NULL;
        if (0 > git_blob_lookup(&pBlob, pRepo, git_tree_entry_id(git_tree_entry_byindex(pSub, i)))) continue;
        cb += std::string(static_cast<const char *>(git_blob_rawcontent(pBlob)), git_blob_rawsize(pBlob)).size();
        git_blob_free(pBlob);
    }
    git_tree_free(pSub);
    return cb;
}

// The floor's reading: the object's files and HEAD's tree, nothing more.
size_t ReadObjectFloor(const std::string &strBase) {
    std::string strText;
    size_t cb = 0;
    if (ReadAll(strBase + "/basic.json", strText)) cb += strText.size();
    if (ReadAll(strBase + "/metatext.json", strText)) cb += strText.size();
    if (DIR *pDir = opendir((strBase + "/metabinary_info").c_str())) {
        while (dirent *pEnt = readdir(pDir)) {
            if ('.' != pEnt->d_name[0] && ReadAll(strBase + "/metabinary_info/" + pEnt->d_name, strText))
                cb += strText.size();
        }
        closedir(pDir);
    }
    git_repository *pRepo = NULL;
    if (0 > git_repository_open_bare(&pRepo, (strBase + "/version/.git").c_str())) return cb;
    git_oid oid;
    git_commit *pCommit = NULL;
    git_tree *pTree = NULL;
    if (0 == git_reference_name_to_id(&oid, pRepo, "HEAD") && 0 == git_commit_lookup(&pCommit, pRepo, &oid) &&
        0 == git_commit_tree(&pTree, pCommit)) {
        cb += strlen(git_commit_message(pCommit));
        cb += ReadTreeFolder(pRepo, pTree, "text") + ReadTreeFolder(pRepo, pTree, "binary_info");
    }
    git_tree_free(pTree);
    git_commit_free(pCommit);
    git_repository_free(pRepo);
    return cb;
}

bool Exec(KOLVDB *pConn, const std::string &strSQL) {
    if (0 <= KOLVDBExecute(pConn, strSQL.c_str(), NULL)) return true;
    fprintf(stderr, "SQL failed: %s\n", KOLVDBErrorGet(pConn));
    return false;
}

// The same rows as one multi-row INSERT into the scratch table.
std::string FloorInsert(KOLVDB *pConn, const std::string &strRepo, const std::vector<std::string> &ids) {
    kolv::IndexRowReader reader(strRepo);
    std::string strSQL = "INSERT INTO object_floor (id, ns, owner, category, parent_id, version, commit_msg, acl, "
                         "text, metatext, binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";
    for (size_t i = 0; i < ids.size(); ++i) {
        kolv::IndexRow row;
        std::string strWhy;
        if (!reader.Read("note", ids[i].c_str(), row, strWhy)) continue;
        char *szValue = kolv::FormatIndexRowValues(pConn, row);
        if (i) strSQL += ",";
        strSQL += szValue;
        free(szValue);
    }
    return strSQL;
}

} // namespace

int main(int argc, char **argv) {
    unsigned n = argc > 1 ? (unsigned)atoi(argv[1]) : 100000;
    int rounds = argc > 2 ? atoi(argv[2]) : 3;
    if (n < kSeeds || rounds < 1) {
        fprintf(stderr, "usage: %s [objects >= %u] [rounds]\n", argv[0], kSeeds);
        return 2;
    }
    if (!getenv("PGHOST")) {
        fprintf(stderr, "PGHOST is not set: start a server with scripts/pg_cluster.sh\n");
        return 2;
    }
    std::string strRoot = MakeSysroot();
    KOLVDB *pConn = KOLVVessaOpenConn();
    if (!pConn || !Exec(pConn, "DELETE FROM object")) return 1;
    double t0 = Now();
    std::vector<std::string> seeds;
    for (unsigned i = 0; i < kSeeds; ++i)
        seeds.push_back(MakeSeed(i));
    std::string strRepo;
    KOLVVessaGetRepoPath(strRepo);
    Clone(strRepo + "/note", seeds, n);
    std::vector<std::string> ids;
    {
        DIR *pDir = opendir((strRepo + "/note").c_str());
        while (dirent *pEnt = readdir(pDir)) {
            if ('.' != pEnt->d_name[0]) ids.push_back(pEnt->d_name);
        }
        closedir(pDir);
        std::sort(ids.begin(), ids.end());
    }
    if (!Exec(pConn, "DROP TABLE IF EXISTS object_floor; CREATE TABLE object_floor (LIKE object INCLUDING ALL)"))
        return 1;
    std::string strInsert = FloorInsert(pConn, strRepo, ids);
    fprintf(stderr, "set-up: %zu objects in %.1f s\n", ids.size(), Now() - t0);

    git_libgit2_init();
    Json::Value jParm;
    jParm["ns"] = "note";
    std::vector<double> vSubject, vFloor, vRead, vInsert;
    for (int r = 0; r < rounds; ++r) {
        double t = Now();
        if (!KOLVVessaReindex(jParm)) {
            KOLVVessaErrPrint(stderr);
            return 1;
        }
        vSubject.push_back(Now() - t);
        if (!Exec(pConn, "TRUNCATE object_floor")) return 1;
        t = Now();
        size_t cb = 0;
        for (const std::string &strId : ids)
            cb += ReadObjectFloor(strRepo + "/note/" + strId);
        double tRead = Now() - t;
        if (!Exec(pConn, strInsert)) return 1;
        vFloor.push_back(Now() - t);
        vRead.push_back(tRead);
        vInsert.push_back(Now() - t - tRead);
        if (0 == cb) return 1;
    }
    // Where the subject's time goes: building the rows alone.
    double t = Now();
    strInsert = FloorInsert(pConn, strRepo, ids);
    fprintf(stderr, "subject parts: rows read and escaped %.1f ms\n", (Now() - t) * 1e3);
    std::string strRows = std::to_string(ids.size());
    printf("%-22s %12s %12s %7s\n", "name", "subject_ms", "floor_ms", "ratio");
    printf("%-22s %12.1f %12.1f %7.2f\n", ("reindex_" + strRows).c_str(), Median(vSubject) * 1e3, Median(vFloor) * 1e3,
           Median(vSubject) / Median(vFloor));
    fprintf(stderr, "floor parts: reading %.1f ms, INSERT %.1f ms\n", Median(vRead) * 1e3, Median(vInsert) * 1e3);
    std::string strCmd = "rm -rf '" + strRoot + "'";
    if (system(strCmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", strRoot.c_str());
    return 0;
}
