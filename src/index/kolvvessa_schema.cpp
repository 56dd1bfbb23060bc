/*
 * The schema of the index database: the table "object" and its indexes,
 * laid down when the database is made.
 */
#include "index/kolvvessa_index_internal.h"

#include "common/kolvvessa_fail.h"

namespace {

const char szSQLSchema[] =
    "BEGIN;CREATE TABLE IF NOT EXISTS object(id text PRIMARY KEY, ns text, owner bigint, category text, "
    "parent_id text, version text, commit_msg json, acl json, text json, metatext json, binary_info json, "
    "metabinary_info json,ctime int,mtime int,extra_info json);CREATE INDEX id_idx ON object (id);CREATE INDEX "
    "owner_idx ON object (owner);CREATE INDEX ns_idx ON object (ns);CREATE INDEX category_idx ON object "
    "(category);CREATE INDEX parent_id_idx ON object (parent_id);CREATE INDEX acl_idx ON object "
    "((acl->>'enabled'));CREATE INDEX mtime_idx ON object (mtime);END;";

} // namespace

bool kolv::CreateIndexSchema(KOLVDB *pConn) {
    return 0 == KOLVDBExecute(pConn, szSQLSchema, NULL);
}
