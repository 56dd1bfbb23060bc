/*
 * Full-text search in listings: the words of a request's "search", split
 * by the server with the configuration that made the rows' words, as
 * quoted prefix terms.
 */
#include <string>

#include "backend_pgsql/kolvvessa_backend_pgsql.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_raii.h"

namespace {

// A lexeme as a quoted prefix term of the text-search query syntax: in
// quotes a backslash and a quote are escaped, so that nothing the word
// holds is read as an operator.
std::string PrefixTerm(const char *szLexeme) {
    std::string str = "'";
    for (const char *p = szLexeme; *p; ++p) {
        if (*p == '\\') str += '\\';
        if (*p == '\'') str += '\'';
        str += *p;
    }
    return str + "':*";
}

// The words of the request's "search" as the server splits them, with the
// same configuration that made the rows' words: each word a prefix, all of
// them wanted. Empty when the text holds no word.
bool SearchTerms(KOLVVESSA_BACKEND_PGSQL *pBackend, const std::string &strSearch, std::string &strTerms) {
    kolv::CString szSql(KOLVDBEscapeStringEX3(
        1, pBackend->m_conn, "SELECT lexeme FROM unnest(to_tsvector('simple', '@KOLV:VAR'))", strSearch.c_str()));
    if (KOLV_FAIL_IF(1014, NULL == szSql)) return false;
    KOLVDBRESULT *pResult = NULL;
    if (!pBackend->Select(szSql.get(), pResult)) return false;
    kolv::DBResult guard(pResult);
    for (int Row = -1; 0 == KOLVDBFetchRow(pResult, &Row);) {
        const char *szLexeme = KOLVDBFetchField(pResult, Row, "lexeme");
        if (!szLexeme || !*szLexeme) continue;
        strTerms += (strTerms.empty() ? "" : " & ") + PrefixTerm(szLexeme);
    }
    return true;
}

} // namespace

// "search": the rows whose words hold every word of it as a prefix, in
// every part of the listing; "order": "rank" puts the best matches first.
// A search without any word filters nothing, and ranks nothing. The
// keyset cursor follows the usual order only: with "rank" it is refused.
bool kolv::AddSearch(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm, std::string &strCondition) {
    bool blRank = jParm.isMember("order");
    if (KOLV_FAIL_IF(1007, blRank && jParm["order"] != "rank")) return false;
    if (KOLV_FAIL_IF(1007, blRank && jParm.isMember("after"))) return false;
    if (!jParm.isMember("search")) return true;
    if (KOLV_FAIL_IF(1007, !jParm["search"].isString())) return false;
    std::string strTerms;
    if (!SearchTerms(pBackend, jParm["search"].asString(), strTerms)) return false;
    if (strTerms.empty()) return true;
    kolv::CString szQuery(KOLVDBEscapeStringEX3(1, pBackend->m_conn, "'@KOLV:VAR'::tsquery", strTerms.c_str()));
    if (KOLV_FAIL_IF(1014, NULL == szQuery)) return false;
    if (!strCondition.empty()) strCondition += " AND ";
    strCondition += std::string("search @@ ") + szQuery.get();
    if (blRank) {
        pBackend->m_strOrder =
            std::string(" ORDER BY ts_rank(search, ") + szQuery.get() + ") DESC, mtime DESC, id COLLATE \"C\" DESC ";
    }
    return true;
}
