/*
 * The index backend. The object operations the index has nothing to say to
 * succeed without doing anything; listing, indexing on create and removal
 * are answered from the table "object".
 */
#include "backend_pgsql/kolvvessa_backend_pgsql.h"

#include "common/kolvvessa_fail.h"
#include "kolvvessa/kolvvessa_error.h"

KOLVVESSA_BACKEND_PGSQL::KOLVVESSA_BACKEND_PGSQL() : m_conn(NULL) {}

// The connection is the process's own; the backend never closes it.
KOLVVESSA_BACKEND_PGSQL::~KOLVVESSA_BACKEND_PGSQL() {}

bool KOLVVESSA_BACKEND_PGSQL::Get(const Json::Value &, KOLV_VESSA_OBJECT *) {
    return true;
}

bool KOLVVESSA_BACKEND_PGSQL::Download(const Json::Value &) {
    return true;
}

bool KOLVVESSA_BACKEND_PGSQL::Set(const Json::Value &, std::string &) {
    return true;
}

bool KOLVVESSA_BACKEND_PGSQL::FieldRename(const Json::Value &, std::string &) {
    return true;
}

bool KOLVVESSA_BACKEND_PGSQL::VersionGet(const Json::Value &, KOLV_VESSA_OBJECT_VERSION *) {
    return true;
}

bool KOLVVESSA_BACKEND_PGSQL::VersionDiff(const Json::Value &, Json::Value &) {
    return true;
}

int KOLVVESSA_BACKEND_PGSQL::VersionList(const Json::Value &, KOLV_VESSA_OBJECT_VERSION **, unsigned int &,
                                         unsigned int &) {
    return 0;
}

KOLVVESSA_BACKEND_OP *CreatePgsqlBackend(void) {
    return new KOLVVESSA_BACKEND_PGSQL();
}
