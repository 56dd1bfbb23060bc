/*
 * Index operations not built yet: they fail loudly, never succeed silently.
 */
#include "backend_pgsql/kolvvessa_backend_pgsql.h"

#include "common/kolvvessa_fail.h"

bool KOLVVESSA_BACKEND_PGSQL::init() {
    KOLV_FAIL_IF(1000, NULL == m_conn);
    return false;
}

int KOLVVESSA_BACKEND_PGSQL::List(const Json::Value &, KOLV_VESSA_OBJECT **, unsigned int &) {
    KOLV_FAIL_IF(1000, "index listing is not available yet");
    return -1;
}

bool KOLVVESSA_BACKEND_PGSQL::Create(const Json::Value &, std::string &, std::string &) {
    KOLV_FAIL_IF(1000, "index create is not available yet");
    return false;
}

bool KOLVVESSA_BACKEND_PGSQL::Delete(const Json::Value &) {
    KOLV_FAIL_IF(1000, "index delete is not available yet");
    return false;
}

int KOLVVESSA_BACKEND_PGSQL::ExecuteSelectObjectList(const Json::Value &, const std::string &, bool, bool,
                                                     KOLV_VESSA_OBJECT **, unsigned int &) {
    KOLV_FAIL_IF(1000, "index listing is not available yet");
    return -1;
}
