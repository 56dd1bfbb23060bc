/*
 * index_row.h - one row of the table "object": built from an object in
 * hand after a write, or from an object's stored files by reindex and the
 * check, and formatted for the connection it will be sent on. Both
 * builders must give the same texts for the same object, so that a row
 * written after a change and the row a reindex would write compare equal.
 */
#ifndef KOLVVESSA_INDEX_ROW_H
#define KOLVVESSA_INDEX_ROW_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>
#include <sys/types.h>

#include <string>

class KOLV_VESSA_OBJECT;

namespace kolv {

/* The columns of one row, in table order. JSON columns hold their text as
 * the database receives it: a null member is stored as "{}". */
struct IndexRow {
    std::string strId, strNs, strCategory, strParentId, strVersion;
    std::string strCommitMsg, strAcl, strText, strMetatext, strBinaryInfo, strMetabinaryInfo, strExtraInfo;
    long long owner = 0;
    int ctime = 0, mtime = 0;
};

/* A JSON member as a JSON column receives it. */
std::string IndexJsonText(const Json::Value &j);

/* The row of an object read with every field. */
IndexRow IndexRowFromObject(const KOLV_VESSA_OBJECT &Object);

/* Whether a string or member name at any depth of the value holds a NUL:
 * the database can store such JSON but no operator reads it back, so a
 * row holding one is never written. */
bool JsonHoldsNul(const Json::Value &jRoot);

/* The row as a value tuple "(…)" for a multi-row INSERT, escaped for
 * pConn; NULL with nothing on the stack when formatting fails. Owned by
 * the caller (free()). */
char *FormatIndexRowValues(KOLVDB *pConn, const IndexRow &Row);

} // namespace kolv

#endif /* KOLVVESSA_INDEX_ROW_H */
