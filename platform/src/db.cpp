/*
 * The database layer over libpq: connections, statements, result sets by
 * row and column name, and the placeholder formatter that escapes values
 * for use inside single quotes.
 */
#include <libpq-fe.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "kolvplatform/kolv_platform.h"

// One connection; libpq connections must not be used by two threads at
// once, so every statement and every escape holds tLock.
struct _tag_kolv_db_ {
    PGconn *pConn;
    std::mutex tLock;
};

struct _tag_kolv_db_result_ {
    PGresult *pRes;
    /* Column numbers by name, filled as callers ask: a listing asks for
     * the same dozen columns of every row, and libpq looks a name up by
     * copying and folding it each time. */
    struct Column {
        const char *szAsked; /* the caller's pointer: mostly a literal */
        std::string strName;
        int col;
    };
    std::vector<Column> vColumns;
};

namespace {

// Server notices ("relation exists, skipping" and the like) are not errors;
// keep them out of the callers' standard error.
void QuietNotice(void *, const char *szMsg) {
    syslog(LOG_DEBUG, "pgsql notice: %s", szMsg);
}

PGconn *ConnectRaw(const char *szHost, const char *szUser, const char *szPass, const char *szDB) {
    const char *rgKeys[5] = {NULL};
    const char *rgVals[5] = {NULL};
    int n = 0;
    // A NULL parameter is simply left out, so libpq's defaults apply.
    auto add = [&](const char *szKey, const char *szVal) {
        if (!szVal) return;
        rgKeys[n] = szKey;
        rgVals[n++] = szVal;
    };
    add("host", szHost);
    add("user", szUser);
    add("password", szPass);
    add("dbname", szDB);
    PGconn *pConn = PQconnectdbParams(rgKeys, rgVals, 0);
    if (!pConn) return NULL;
    if (PQstatus(pConn) != CONNECTION_OK) {
        syslog(LOG_ERR, "%s:%d connect to [%s] failed: %s", __FILE__, __LINE__, szDB ? szDB : "",
               PQerrorMessage(pConn));
        PQfinish(pConn);
        return NULL;
    }
    PQsetNoticeProcessor(pConn, QuietNotice, NULL);
    return pConn;
}

bool IsOkStatus(ExecStatusType status) {
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_EMPTY_QUERY;
}

// Appends szVal escaped for a single-quoted literal, as the connection's
// server reads it: with standard_conforming_strings off a backslash in a
// plain literal is an escape, so only the connection knows how to write
// one (and whether the text is valid in its encoding). Without a
// connection a quote is doubled, which is right either way, and a
// backslash is refused: no guess can be right for both settings.
bool AppendEscaped(KOLVDB *pConn, std::string &strOut, const char *szVal) {
    if (!szVal) return false;
    size_t cbVal = strlen(szVal);
    if (!pConn) {
        if (strchr(szVal, '\\')) {
            syslog(LOG_ERR, "%s:%d a backslash cannot be escaped without a connection", __FILE__, __LINE__);
            return false;
        }
        for (const char *p = szVal; *p; ++p) {
            if (*p == '\'') strOut += '\'';
            strOut += *p;
        }
        return true;
    }
    std::string strBuf(cbVal * 2 + 1, '\0');
    int err = 0;
    size_t cbOut;
    {
        std::lock_guard<std::mutex> guard(pConn->tLock);
        cbOut = PQescapeStringConn(pConn->pConn, &strBuf[0], szVal, cbVal, &err);
    }
    if (err) {
        syslog(LOG_ERR, "%s:%d escape failed: %s", __FILE__, __LINE__, PQerrorMessage(pConn->pConn));
        return false;
    }
    strOut.append(strBuf.data(), cbOut);
    return true;
}

bool StartsWith(const char *sz, const char *szPrefix, size_t &cbPrefix) {
    cbPrefix = strlen(szPrefix);
    return 0 == strncmp(sz, szPrefix, cbPrefix);
}

} // namespace

extern "C" {

KOLVDB *KOLVDBConnect(const char *szHost, const char *szUser, const char *szPass, const char *szDB) {
    if (TRUE == KOLVFaultCheck("KOLVDBConnect")) return NULL;
    PGconn *pPg = ConnectRaw(szHost, szUser, szPass, szDB);
    if (!pPg) return NULL;
    KOLVDB *pConn = new (std::nothrow) KOLVDB;
    if (!pConn) {
        PQfinish(pPg);
        return NULL;
    }
    pConn->pConn = pPg;
    return pConn;
}

int KOLVDBExecute(KOLVDB *pConn, const char *szSQL, KOLVDBRESULT **ppResult) {
    if (ppResult) *ppResult = NULL;
    if (!pConn || !pConn->pConn || !szSQL) return -1;
    if (TRUE == KOLVFaultCheck("KOLVDBExecute")) return -1;
    PGresult *pRes;
    {
        std::lock_guard<std::mutex> guard(pConn->tLock);
        // The simple query protocol runs every statement of the text and
        // hands back the result of the last one.
        pRes = PQexec(pConn->pConn, szSQL);
    }
    if (!pRes || !IsOkStatus(PQresultStatus(pRes))) {
        syslog(LOG_ERR, "%s:%d [%.512s] failed: %s", __FILE__, __LINE__, szSQL, PQerrorMessage(pConn->pConn));
        PQclear(pRes);
        return -1;
    }
    if (!ppResult) {
        PQclear(pRes);
        return 0;
    }
    KOLVDBRESULT *pResult = new (std::nothrow) KOLVDBRESULT;
    if (!pResult) {
        PQclear(pRes);
        return -1;
    }
    pResult->pRes = pRes;
    *ppResult = pResult;
    return 0;
}

int KOLVDBFetchRow(KOLVDBRESULT *pResult, int *pRow) {
    if (!pResult || !pRow) return -1;
    int next = *pRow < 0 ? 0 : *pRow + 1;
    if (next >= PQntuples(pResult->pRes)) return -1;
    *pRow = next;
    return 0;
}

namespace {

/* The column's number, -1 for none: the same pointer as an earlier call
 * first (a literal, mostly; a reused buffer must still hold the same
 * name), then the same name, then libpq. */
int ColumnOf(KOLVDBRESULT *pResult, const char *szColumn) {
    for (const auto &column : pResult->vColumns) {
        if (column.szAsked == szColumn && 0 == strcmp(column.strName.c_str(), szColumn)) return column.col;
    }
    for (const auto &column : pResult->vColumns) {
        if (column.strName == szColumn) return column.col;
    }
    int col = PQfnumber(pResult->pRes, szColumn);
    if (col < 0) return -1;
    try {
        pResult->vColumns.push_back({szColumn, szColumn, col});
    } catch (const std::bad_alloc &) {
        // Not kept: the next call looks it up again.
    }
    return col;
}

} // namespace

const char *KOLVDBFetchField(KOLVDBRESULT *pResult, int row, const char *szColumn) {
    if (!pResult || !szColumn || row < 0 || row >= PQntuples(pResult->pRes)) return NULL;
    int col = ColumnOf(pResult, szColumn);
    if (col < 0) return NULL;
    // PQgetvalue gives "" for SQL NULL.
    return PQgetvalue(pResult->pRes, row, col);
}

int KOLVDBResultRows(const KOLVDBRESULT *pResult) {
    return pResult ? PQntuples(pResult->pRes) : 0;
}

void KOLVDBFreeResult(KOLVDBRESULT *pResult) {
    if (!pResult) return;
    PQclear(pResult->pRes);
    delete pResult;
}

const char *KOLVDBErrorGet(KOLVDB *pConn) {
    if (!pConn || !pConn->pConn) return "";
    return PQerrorMessage(pConn->pConn);
}

void KOLVDBClose(KOLVDB *pConn) {
    if (!pConn) return;
    PQfinish(pConn->pConn);
    delete pConn;
}

int KOLVDBCreateDatabase(const char *szUser, const char *szDB) {
    if (!szDB || !*szDB) return -1;
    PGconn *pPg = ConnectRaw(NULL, szUser, NULL, "postgres");
    if (!pPg) return -1;
    int ret = -1;
    char *szIdent = PQescapeIdentifier(pPg, szDB, strlen(szDB));
    if (szIdent) {
        std::string strSQL = std::string("CREATE DATABASE ") + szIdent;
        PGresult *pRes = PQexec(pPg, strSQL.c_str());
        const char *szState = pRes ? PQresultErrorField(pRes, PG_DIAG_SQLSTATE) : NULL;
        if (pRes && PQresultStatus(pRes) == PGRES_COMMAND_OK) {
            ret = 0;
        } else if (szState && 0 == strcmp(szState, "42P04")) {
            ret = 0; // duplicate_database: another process was first
        } else {
            syslog(LOG_ERR, "%s:%d [%s] failed: %s", __FILE__, __LINE__, strSQL.c_str(), PQerrorMessage(pPg));
        }
        PQclear(pRes);
        PQfreemem(szIdent);
    }
    PQfinish(pPg);
    return ret;
}

char *KOLVDBEscapeStringEX3V(int kind, KOLVDB *pConn, const char *szTemplate, va_list ap) {
    if (kind != 1 || !szTemplate) return NULL;
    std::string strOut;
    strOut.reserve(strlen(szTemplate) + 64);
    for (const char *p = szTemplate; *p;) {
        size_t cb = 0;
        if (*p != '@') {
            strOut += *p++;
        } else if (StartsWith(p, "@KOLV:VAR", cb)) {
            if (!AppendEscaped(pConn, strOut, va_arg(ap, const char *))) return NULL;
            p += cb;
        } else if (StartsWith(p, "@KOLV:INT", cb)) {
            strOut += std::to_string(va_arg(ap, int));
            p += cb;
        } else if (StartsWith(p, "@KOLV:LLINT", cb)) {
            strOut += std::to_string(va_arg(ap, long long));
            p += cb;
        } else {
            strOut += *p++;
        }
    }
    return strdup(strOut.c_str());
}

char *KOLVDBEscapeStringEX3(int kind, KOLVDB *pConn, const char *szTemplate, ...) {
    va_list ap;
    va_start(ap, szTemplate);
    char *szOut = KOLVDBEscapeStringEX3V(kind, pConn, szTemplate, ap);
    va_end(ap);
    return szOut;
}

} // extern "C"
