/*
 * The schema of the index database: the table "object" and its indexes,
 * laid down when the database is made, and the listing indexes and the
 * search column added once to a table made before them.
 */
#include <syslog.h>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_raii.h"
#include "index/kolvvessa_index_internal.h"

namespace {

// The listing indexes: the order of every listing (newest first, ties by
// id in byte order) under the requester's own objects and under the shared
// objects of a namespace. The shared one holds enabled rows only.
#define KOLV_LIST_INDEXES                                                                                              \
    "CREATE INDEX IF NOT EXISTS object_ns_owner_order_idx ON object (ns, owner, mtime DESC, id COLLATE \"C\" "         \
    "DESC);CREATE INDEX IF NOT EXISTS object_ns_shared_order_idx ON object (ns, mtime DESC, id COLLATE \"C\" DESC) "   \
    "WHERE ((acl->>'enabled') = 'true');"

// The words of an object for the listing's "search": every string value
// of text and meta text at any depth (member names are not words), split
// and lower-cased by the 'simple' configuration, so any language is words
// as written. The server computes it on every insert and update of a row,
// so a set is searchable at once. A tsvector holds at most 1 MiB: past
// 256 KiB of JSON (about three bytes of vector per byte of text at worst)
// only the first 256 KiB of the string values are taken, rather than the
// row being refused.
#define KOLV_SEARCH_PATH "'strict $.** ? (@.type() == \"string\")'"
#define KOLV_SEARCH_FULL                                                                                               \
    "json_to_tsvector('simple', coalesce(text, '{}'), '[\"string\"]') || "                                             \
    "json_to_tsvector('simple', coalesce(metatext, '{}'), '[\"string\"]')"
#define KOLV_SEARCH_HEAD                                                                                               \
    "to_tsvector('simple', left(jsonb_path_query_array(coalesce(text::jsonb, 'null'), " KOLV_SEARCH_PATH ")::text "    \
    "|| ' ' || jsonb_path_query_array(coalesce(metatext::jsonb, 'null'), " KOLV_SEARCH_PATH ")::text, 262144))"
#define KOLV_SEARCH_SCHEMA                                                                                             \
    "ALTER TABLE object ADD COLUMN IF NOT EXISTS search tsvector GENERATED ALWAYS AS (CASE WHEN "                      \
    "octet_length(coalesce(text::text, '')) + octet_length(coalesce(metatext::text, '')) <= 262144 "                   \
    "THEN " KOLV_SEARCH_FULL " ELSE " KOLV_SEARCH_HEAD " END) STORED;"                                                 \
    "CREATE INDEX IF NOT EXISTS object_search_idx ON object USING gin (search);"

const char szSQLSchema[] =
    "BEGIN;CREATE TABLE IF NOT EXISTS object(id text PRIMARY KEY, ns text, owner bigint, category text, "
    "parent_id text, version text, commit_msg json, acl json, text json, metatext json, binary_info json, "
    "metabinary_info json,ctime int,mtime int,extra_info json);CREATE INDEX id_idx ON object (id);CREATE INDEX "
    "owner_idx ON object (owner);CREATE INDEX ns_idx ON object (ns);CREATE INDEX category_idx ON object "
    "(category);CREATE INDEX parent_id_idx ON object (parent_id);CREATE INDEX acl_idx ON object "
    "((acl->>'enabled'));CREATE INDEX mtime_idx ON object (mtime);" KOLV_LIST_INDEXES KOLV_SEARCH_SCHEMA "END;";

// Whether the last of the additions, the search index, is in place: the
// quick look of every connection, no lock taken.
const char szSQLHasListIndexes[] = "SELECT 1 FROM pg_class WHERE relname = 'object_search_idx' "
                                   "AND relkind = 'i' AND pg_table_is_visible(oid)";

// One transaction under a lock of its own: of two processes opening at
// once, the second waits and then finds the indexes made. A table not
// there yet (a database made by hand) is left to the schema. The search
// column is computed for every row here, once: the table is locked for
// that time.
const char szSQLMigrate[] = "BEGIN;SELECT pg_advisory_xact_lock(4243);"
                            "DO $$BEGIN IF to_regclass('object') IS NOT NULL THEN " KOLV_LIST_INDEXES KOLV_SEARCH_SCHEMA
                            " END IF;END$$;COMMIT;";

bool HasListIndexes(KOLVDB *pConn) {
    KOLVDBRESULT *pResult = NULL;
    if (0 != KOLVDBExecute(pConn, szSQLHasListIndexes, &pResult)) return false;
    kolv::DBResult guard(pResult);
    return KOLVDBResultRows(pResult) > 0;
}

} // namespace

bool kolv::CreateIndexSchema(KOLVDB *pConn) {
    return 0 == KOLVDBExecute(pConn, szSQLSchema, NULL);
}

bool kolv::MigrateIndexSchema(KOLVDB *pConn) {
    if (HasListIndexes(pConn)) return true;
    if (0 == KOLVDBExecute(pConn, szSQLMigrate, NULL)) return true;
    // A failed transaction is ended, so the connection stays usable; the
    // listings still answer, only slower.
    syslog(LOG_ERR, "%s:%d index migration failed: %s\n", __FILE__, __LINE__, KOLVDBErrorGet(pConn));
    KOLVDBExecute(pConn, "ROLLBACK;", NULL);
    return false;
}
