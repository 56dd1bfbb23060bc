/*
 * Removal from the index after the file store deleted the objects, and the
 * index side of create: the row of an object the file store already holds.
 */
#include <string>

#include "backend_pgsql/kolvvessa_backend_pgsql.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_raii.h"
#include "index/kolvvessa_index_internal.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"

namespace {

// The ids as the statement quotes them: one string or an array of
// strings, none cut short by a NUL (the escaping stops at one, so
// "a\0b" would delete the row of "a").
bool IdsAreWhole(const Json::Value &jIds) {
    if (jIds.isString()) return std::string::npos == jIds.asString().find('\0');
    if (!jIds.isArray()) return false;
    for (const Json::Value &jId : jIds) {
        if (!jId.isString() || std::string::npos != jId.asString().find('\0')) return false;
    }
    return true;
}

} // namespace

bool KOLVVESSA_BACKEND_PGSQL::Delete(const Json::Value &jParm) {
    return KOLV_NO_THROW_AS(false, 1007, "index delete rejected", [&]() -> bool {
        if (KOLV_APPEND_IF(!init())) return false;
        if (KOLV_FAIL_IF(1007, !jParm["ns"].isString())) return false;
        if (KOLV_FAIL_IF(1007, !IdsAreWhole(jParm["id"]))) return false;
        kolv::CString szSQLDelete(KOLVDBEscapeStringEX3(
            1, m_conn, "DELETE FROM object where ns = '@KOLV:VAR' AND id IN ", jParm["ns"].asCString()));
        if (KOLV_FAIL_IF(1000, (NULL == szSQLDelete))) return false;
        // The namespace condition runs straight into the quoted id list.
        std::string strSQL = szSQLDelete.get() + KOLVVessaObjectEscapeStringArrayEx(m_conn, jParm["id"]);
        // Ids without a row are no error.
        if (KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(m_conn, strSQL.c_str(), NULL)))) return false;
        return true;
    });
}

// The index has no object store of its own: "creating" indexes the object
// that jParm["id"] names in jParm["ns"], read as jParm["requester"] (0 when
// absent), and hands the id back. The version stays as the caller has it.
bool KOLVVESSA_BACKEND_PGSQL::Create(const Json::Value &jParm, std::string &strId, std::string &) {
    return KOLV_NO_THROW_AS(false, 1007, "index create rejected", [&]() -> bool {
        if (KOLV_FAIL_IF(1007, !jParm["id"].isString() || !jParm["ns"].isString())) return false;
        if (KOLV_FAIL_IF(1007, jParm.isMember("requester") && !jParm["requester"].isIntegral())) return false;
        uid_t requester = jParm.isMember("requester") ? (uid_t)jParm["requester"].asLargestInt() : UID_ROOT;
        if (KOLV_APPEND_IF(!KOLVVessaObjectIndex(jParm["id"].asCString(), jParm["ns"].asCString(), requester)))
            return false;
        strId = jParm["id"].asString();
        return true;
    });
}
