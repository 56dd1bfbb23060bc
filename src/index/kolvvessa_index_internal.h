/*
 * kolvvessa_index_internal.h - the index's own helpers shared by indexing
 * and the index backend: SQL built with the connection it will run on.
 */
#ifndef KOLVVESSA_INDEX_INTERNAL_H
#define KOLVVESSA_INDEX_INTERNAL_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

class KOLV_VESSA_OBJECT;

/* KOLVVessaObjectEscapeStringArray escaped for pConn: only the connection
 * knows how its server reads a backslash (standard_conforming_strings).
 * REQUIRES: pConn is the connection the text will run on. */
std::string KOLVVessaObjectEscapeStringArrayEx(KOLVDB *pConn, const Json::Value &jsArray);

/* Whether a value of the object holds a NUL character: in a string column,
 * or in a string or member name at any depth of a JSON column. The
 * database can store such JSON but no operator can read it back, so one
 * such row would fail every filtered listing of its namespace: it is never
 * written. */
bool KOLVVessaObjectHoldsNul(const KOLV_VESSA_OBJECT &Object);

namespace kolv {
/* Lays down the table "object" and its indexes on a new database; false
 * with nothing on the stack when the database refuses. */
bool CreateIndexSchema(KOLVDB *pConn);
/* Adds the listing indexes and the search column with its index to a
 * table made before them, once, under a database lock so that two
 * processes opening at once do it once; the stored values are untouched.
 * False (logged, nothing on the stack) when the database refuses: listings
 * then still answer, only slower, and a "search" fails with 1000. */
bool MigrateIndexSchema(KOLVDB *pConn);
} // namespace kolv

#endif /* KOLVVESSA_INDEX_INTERNAL_H */
