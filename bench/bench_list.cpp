// Listing at scale: N index rows (default 100,000) of ten owners, about a
// quarter of them shared with the requester, filled by the server itself.
// Searches (the words of "title N" and a one-letter tag) are timed beside
// the same full-text statement sent raw.
// Each listing is timed beside its floor: one statement that returns the
// same rows under the same visibility rules, (own ... LIMIT 50) UNION ALL
// (shared ... LIMIT 50); the ids of both are compared once before timing,
// then subject and floor alternate in one run.
//
//   eval "$(scripts/pg_cluster.sh start)"; build/bench/bench_list [rows [profile]]
//
// With "profile" only the default page is listed, 5,000 times, for a
// profiler to look at.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "kolvvessa/kolvvessa.h"

namespace {

using kolvbench::Median;
using kolvbench::Now;
using kolvbench::UserEntry;

const char szNs[] = "note";
const unsigned kAlice = 1101;
const int kRounds = 31;

// Ten users, alice in groups 100 and 2001.
std::string MakeSysroot() {
    std::string strUsers;
    for (unsigned uid = 1101; uid <= 1110; ++uid)
        strUsers +=
            (strUsers.empty() ? "[" : ",") + UserEntry(uid, "u" + std::to_string(uid), uid == kAlice ? ",2001" : "");
    return kolvbench::MakeSysroot(strUsers + "]");
}

bool Exec(KOLVDB *pConn, const std::string &strSQL) {
    if (0 == KOLVDBExecute(pConn, strSQL.c_str(), NULL)) return true;
    fprintf(stderr, "SQL failed: %s\n", KOLVDBErrorGet(pConn));
    return false;
}

// N rows: owners 1101 to 1110 in turn; three times in a second; of every
// twenty rows four shared with everybody, one with alice by name, one
// with another user only, the rest not shared.
void Fill(KOLVDB *pConn, int nRows) {
    Exec(pConn, "TRUNCATE object;");
    Exec(pConn,
         "INSERT INTO object (id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
         "binary_info, metabinary_info, ctime, mtime, extra_info) SELECT (1101 + i % 10) || '_' || "
         "upper(md5(i::text)), 'note', 1101 + i % 10, 'memo', (1101 + i % 10) || '_#00000000', "
         "md5('v' || i), '{}', (CASE WHEN (i / 10) % 20 < 4 THEN "
         "'{\"enabled\":true,\"public\":{\"perm\":\"ro\"}}' WHEN (i / 10) % 20 = 4 THEN "
         "'{\"enabled\":true,\"hmx_user\":{\"1101\":{\"perm\":\"rw\",\"inherit\":false}}}' WHEN "
         "(i / 10) % 20 = 5 THEN '{\"enabled\":true,\"hmx_user\":{\"1105\":{\"perm\":\"ro\",\"inherit\":false}}}' "
         "ELSE '{\"enabled\":false}' END)::json, ('{\"title\":\"title ' || i || '\",\"tag\":\"' || "
         "substr(md5(i::text), 1, 1) || '\"}')::json, '{}', '{}', '{}', 1600000000 + i / 3, 1600000000 + i / 3, '{}' "
         "FROM generate_series(1, " +
             std::to_string(nRows) + ") AS i;");
    Exec(pConn, "VACUUM ANALYZE object;");
}

const char szColumns[] = "SELECT id, ns, category, parent_id, version, owner, mtime, ctime, acl FROM object WHERE ";
const char szOrder[] = " ORDER BY mtime DESC, id COLLATE \"C\" DESC ";

// The floor: one statement, each part with the listing's own conditions,
// so that the server plans both alike. Alice's visibility is in them: the
// shared rows with a grant to everybody, to her or to her groups. Over
// these rows (every grant "ro" or "rw", every owner valid and sharing)
// that is exactly who may see what; the ids are compared to make sure.
// (Spelling the grant's word out as well, COALESCE(...) IN ('ro','rw'),
// returns the same rows but makes the server guess few matches and sort
// every shared row: a floor three to four times slower than this one.)
std::string FloorSql(const std::string &strExtra, int offset) {
    std::string strPage = " OFFSET " + std::to_string(offset) + " LIMIT 50)";
    return "(" + std::string(szColumns) + "ns = 'note'" + strExtra + " AND owner = 1101" + szOrder + strPage +
           " UNION ALL (" + szColumns + "ns = 'note'" + strExtra +
           " AND owner != 1101 AND ((acl->>'enabled') = 'true') AND (acl->'public'->>'perm' IN ('ro','rw') OR "
           "(acl->'hmx_user'->'1101') IS NOT NULL OR (acl->'hmx_group'->'100') IS NOT NULL OR "
           "(acl->'hmx_group'->'2001') IS NOT NULL)" +
           szOrder + strPage;
}

// The floor of a search: the words as prefix terms, newest first or best
// first.
std::string SearchFloorSql(const std::string &strTsquery, bool blRank) {
    std::string strQuery = "to_tsquery('simple', '" + strTsquery + "')";
    std::string strSql = FloorSql(" AND search @@ " + strQuery, 0);
    if (!blRank) return strSql;
    std::string strRankOrder = " ORDER BY ts_rank(search, " + strQuery + ") DESC, mtime DESC, id COLLATE \"C\" DESC ";
    for (size_t pos = 0; std::string::npos != (pos = strSql.find(szOrder, pos)); pos += strRankOrder.size())
        strSql.replace(pos, strlen(szOrder), strRankOrder);
    return strSql;
}

std::vector<std::string> SubjectIds(const Json::Value &jParm) {
    std::vector<std::string> v;
    KOLV_VESSA_OBJECT *pHead = NULL;
    unsigned total = 0;
    if (KOLVVessaObjectList(jParm, &pHead, total) < 0) KOLVVessaErrPrint(stderr);
    for (KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next)
        v.push_back(p->get_id());
    KOLVVessaObjectFreeList(pHead);
    return v;
}

std::vector<std::string> FloorIds(KOLVDB *pConn, const std::string &strSql) {
    std::vector<std::string> v;
    KOLVDBRESULT *pResult = NULL;
    if (0 != KOLVDBExecute(pConn, strSql.c_str(), &pResult)) {
        fprintf(stderr, "SQL failed: %s\n", KOLVDBErrorGet(pConn));
        return v;
    }
    for (int row = -1; 0 == KOLVDBFetchRow(pResult, &row);)
        v.push_back(KOLVDBFetchField(pResult, row, "id"));
    KOLVDBFreeResult(pResult);
    return v;
}

// Checks that subject and floor give the same ids, then alternates them
// and prints "name  subject_ms  floor_ms  ratio".
void Compare(KOLVDB *pConn, const std::string &strName, const Json::Value &jParm, const std::string &strFloor) {
    std::vector<std::string> vSubject = SubjectIds(jParm), vFloor = FloorIds(pConn, strFloor);
    if (vSubject != vFloor || vSubject.empty()) {
        printf("%-28s DIFFERENT ROWS: %zu listed, %zu by the floor\n", strName.c_str(), vSubject.size(), vFloor.size());
        return;
    }
    std::vector<double> vS, vF;
    for (int i = 0; i < kRounds; ++i) {
        double t0 = Now();
        SubjectIds(jParm);
        double t1 = Now();
        FloorIds(pConn, strFloor);
        double t2 = Now();
        vS.push_back(t1 - t0);
        vF.push_back(t2 - t1);
    }
    double s = Median(vS), f = Median(vF);
    printf("%-28s %9.3f %9.3f %6.2f   (%zu rows)\n", strName.c_str(), s * 1e3, f * 1e3, f > 0 ? s / f : 0,
           vSubject.size());
}

void BenchList(KOLVDB *pConn, int nRows) {
    std::string strN = std::to_string(nRows);
    Json::Value jParm;
    jParm["ns"] = szNs;
    jParm["requester"] = kAlice;
    jParm["offset"] = 0;
    jParm["limit"] = 50;
    Compare(pConn, "list " + strN, jParm, FloorSql("", 0));

    Json::Value jFilter = jParm;
    jFilter["filter"]["text"]["tag"] = "3"; // one row in sixteen
    Compare(pConn, "list " + strN + " text filter", jFilter, FloorSql(" AND (text->>'tag')='3'", 0));

    const struct {
        const char *szName, *szSearch, *szTsquery;
        bool blRank;
    } rgSearches[] = {
        {"search every row", "title", "title:*", false},
        {"search 1 in 9", "3", "3:*", false},
        {"search 2 words", "Title 77", "title:* & 77:*", false},
        {"search 2 words rank", "Title 77", "title:* & 77:*", true},
        {"search 11 rows", "43210", "43210:*", false},
    };
    for (const auto &c : rgSearches) {
        Json::Value jSearch = jParm;
        jSearch["search"] = c.szSearch;
        if (c.blRank) jSearch["order"] = "rank";
        Compare(pConn, c.szName, jSearch, SearchFloorSql(c.szTsquery, c.blRank));
    }

    Json::Value jOffset = jParm;
    jOffset["offset"] = 5000;
    Compare(pConn, "list " + strN + " offset 5000", jOffset, FloorSql("", 5000));

    // The cursor of the page at offset 5000: the next page by "after".
    KOLV_VESSA_OBJECT *pHead = NULL;
    unsigned total = 0;
    KOLVVessaObjectList(jOffset, &pHead, total);
    Json::Value jAfter = jParm;
    jAfter["after"] = KOLVVessaObjectListNext(jOffset, pHead);
    KOLVVessaObjectFreeList(pHead);
    if (jAfter["after"].isNull()) {
        printf("no cursor after offset 5000\n");
        return;
    }
    std::string strAfter = " AND (mtime, id COLLATE \"C\") < (" + std::to_string(jAfter["after"]["mtime"].asInt64()) +
                           ", '" + jAfter["after"]["id"].asString() + "')";
    Compare(pConn, "list " + strN + " cursor", jAfter, FloorSql(strAfter, 0));
}

} // namespace

int main(int argc, char **argv) {
    if (!getenv("PGHOST")) {
        printf("PGHOST is not set: start a server with scripts/pg_cluster.sh start\n");
        return 0;
    }
    int nRows = argc > 1 ? atoi(argv[1]) : 100000;
    std::string strRoot = MakeSysroot();
    KOLVDB *pConn = KOLVVessaOpenConn();
    if (!pConn) {
        KOLVVessaErrPrint(stderr);
        return 1;
    }
    Fill(pConn, nRows);
    if (argc > 2 && std::string(argv[2]) == "profile") {
        Json::Value jParm;
        jParm["ns"] = szNs;
        jParm["requester"] = kAlice;
        jParm["offset"] = 0;
        jParm["limit"] = 50;
        for (int i = 0; i < 5000; ++i)
            SubjectIds(jParm);
        return 0;
    }
    printf("%-28s %9s %9s %6s\n", "name", "subject_ms", "floor_ms", "ratio");
    BenchList(pConn, nRows);
    std::string strCmd = "rm -rf " + strRoot;
    if (system(strCmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", strRoot.c_str());
    return 0;
}
