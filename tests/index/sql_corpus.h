/*
 * sql_corpus.h - values that try to leave an SQL string literal, for every
 * test that sends a request's strings to the index. Each must be stored and
 * matched as data, whatever the server's standard_conforming_strings.
 */
#ifndef KOLV_TEST_SQL_CORPUS_H
#define KOLV_TEST_SQL_CORPUS_H

namespace kolvtest {

constexpr const char *kSqlInjectionCorpus[] = {
    "it's",
    "back\\slash",
    "trailing\\",
    "\\\\",
    "\\'",
    "x\\' OR true --",
    "\\'; CREATE TABLE pwned(a int); --",
    "'); DELETE FROM object; --",
    "\\'); DELETE FROM object WHERE true; --",
    "E'\\x27' OR owner != 0 OR '",
    "' OR ''='",
    "$$; DROP TABLE object; $$",
    "/* open comment",
    "-- line comment",
    "; SELECT 1;",
    "\"double\" \\u0027 \\n",
    "\xc3\xa9\xe2\x9c\x93\xf0\x9f\x98\x80 \xe2\x80\x99",
};

} // namespace kolvtest

#endif /* KOLV_TEST_SQL_CORPUS_H */
