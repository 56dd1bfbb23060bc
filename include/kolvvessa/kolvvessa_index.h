/*
 * kolvvessa_index.h - the PostgreSQL index of all objects: connection,
 * indexing, reindex and listing.
 */
#ifndef KOLVVESSA_INDEX_H
#define KOLVVESSA_INDEX_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

#include "kolvvessa_export.h"

class KOLV_VESSA_OBJECT;

/* The process's one index connection, opened (and the database created)
 * on first use. NULL with 1024 or 1025. Never close it yourself. */
KOLV_EXPORT KOLVDB *KOLVVessaOpenConn(void);
/* Does nothing: the connection lives until process exit. */
KOLV_EXPORT void KOLVVessaCloseConn(void);
/* At exit of the opener: closes the connection and forks the vacuum
 * counter. */
KOLV_EXPORT void KOLVVessaCloseGlobalConn(void);
/* Forks the child that counts exits and vacuums past 50000; the child's
 * pid (negative when the fork failed). */
KOLV_EXPORT int KOLVVessaCheckVaccum(void);
/* Rebuilds the index from the repository's files, for jParam["ns"] only
 * when given: a listing meanwhile sees the old rows or the new ones. 1000
 * on failure, 1007 for a bad "ns"; the old rows then stay. */
KOLV_EXPORT bool KOLVVessaReindex(const Json::Value &jParam);
/* KOLVVessaReindex reporting its progress: pfnProgress (may be NULL) is
 * called with pv after every 1,000 objects read and once at the end, with
 * the objects done so far and the total found. The old rows stay until
 * the new ones are committed, in one transaction on a connection of its
 * own; any failure rolls back and leaves them (1000, or 1007 for a bad
 * "ns"). Objects whose row cannot be built are logged and left out. */
KOLV_EXPORT bool KOLVVessaReindexEx(const Json::Value &jParam,
                                    void (*pfnProgress)(unsigned done, unsigned total, void *pv), void *pv);
/* Indexes every object directory of strRepo/szNs on pConn, in INSERTs of
 * 1,000 rows, without deleting anything and in the caller's transaction
 * (if any); objects whose row cannot be built are logged and left out.
 * 1007 for a namespace that is not a plain directory name, 1000 when an
 * INSERT fails. */
KOLV_EXPORT bool KOLVVessaReindexByNs(KOLVDB *pConn, const std::string &strRepo, const char *szNs);

/* Upserts the row of one object, read as requester. An object holding a
 * NUL in any value or member name is refused (1007), as is one whose text
 * the database's encoding cannot hold (1000): its old row stands. */
KOLV_EXPORT bool KOLVVessaObjectIndex(const char *szID, const char *szNs, uid_t requester);
KOLV_EXPORT bool KOLVVessaObjectIndexEx(KOLVDB *pConn, const char *szID, const char *szNs, uid_t requester);
/* Replaces the rows of every object of a chain in one statement. Objects
 * whose row cannot be written (as for the upsert) are logged and left out,
 * their old rows untouched; the others are written. */
KOLV_EXPORT bool KOLVVessaObjectBatchIndex(KOLV_VESSA_OBJECT *pList);
KOLV_EXPORT bool KOLVVessaObjectBatchIndexEx(KOLV_VESSA_OBJECT *pList, KOLVDB *pConn);
/* The escaped value tuple of one object, read as owner, for the process's
 * index connection. Fails as the upsert refuses. */
KOLV_EXPORT bool KOLVVessaObjectCreateIndexValue(const char *szID, const char *szNs, uid_t owner,
                                                 std::string &strOut);
/* "(" + quoted, escaped, comma-separated strings + ")"; a string gives one
 * element. Escaped for the process's index connection (opened if need be).
 * Errors are appended to the stack and shorten the list. */
KOLV_EXPORT std::string KOLVVessaObjectEscapeStringArray(const Json::Value &jsArray);

/* Lists objects from the index: the requester's own first, then the
 * shared ones, each part newest first (ties by id in byte order). An
 * optional "after" {"mtime": integer, "id": string} keeps, in every part,
 * only the rows strictly after that one in this order (a deep page without
 * an offset; 1007 when malformed). The chain at *ppHead is owned by the
 * caller (free with KOLVVessaObjectFreeList). Returns the count (= total),
 * negative on failure. */
KOLV_EXPORT int KOLVVessaObjectList(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total);
/* The same from a string hash: "ns", "requester", and "filter", "field",
 * "after" as JSON text, "offset", "limit" in decimal. */
KOLV_EXPORT int KOLVVessaObjectList(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT **ppHead, unsigned int &total);
/* The "after" that continues a listing made with jParm whose chain is
 * pHead: {"mtime", "id"} of a last row, or null when no part of the
 * listing filled its "limit" (nothing more to list). With both parts
 * full, the part that ended first in the order gives it, so the next page
 * skips nothing and may show again a few rows of the other part. */
KOLV_EXPORT Json::Value KOLVVessaObjectListNext(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead);

#endif /* KOLVVESSA_INDEX_H */
