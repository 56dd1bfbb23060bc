/*
 * kolvvessa_backend_pgsql.h - the index backend: answers listings and
 * removals from the table "object"; the object operations it has nothing
 * to say to succeed without doing anything.
 */
#ifndef KOLVVESSA_BACKEND_PGSQL_H
#define KOLVVESSA_BACKEND_PGSQL_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

#include "kolvvessa/kolvvessa_backend.h"

class KOLVVESSA_BACKEND_PGSQL : public KOLVVESSA_BACKEND_OP {
  public:
    KOLVVESSA_BACKEND_PGSQL();
    ~KOLVVESSA_BACKEND_PGSQL() override;

    bool Get(const Json::Value &jParm, KOLV_VESSA_OBJECT *pObject) override;
    int List(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) override;
    bool Download(const Json::Value &jParm) override;
    bool Set(const Json::Value &jParm, std::string &strNewVer) override;
    bool FieldRename(const Json::Value &jParm, std::string &strNewVer) override;
    bool Create(const Json::Value &jParm, std::string &strId, std::string &strNewVer) override;
    bool Delete(const Json::Value &jParm) override;
    bool VersionGet(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION *pVer) override;
    bool VersionDiff(const Json::Value &jParm, Json::Value &jDiff) override;
    int VersionList(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION **ppHead, unsigned int &total,
                    unsigned int &listableTotal) override;

    /* Fills m_conn from the process's connection on first use. */
    bool init();
    /* Runs one select and chains its rows at *ppHead (see List). */
    int ExecuteSelectObjectList(const Json::Value &jParm, const std::string &strCondition, bool blCheckSharing,
                                bool blCalcPerm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total);

    /* Runs one select of the listing; false with 1000 when the database
     * refuses. */
    bool Select(const std::string &strSql, KOLVDBRESULT *&pResult);

    KOLVDB *m_conn;
    /* The ORDER BY of the listing in progress when it is not the usual
     * one (best "search" matches first); empty for newest first. */
    std::string m_strOrder;
};

namespace kolv {

/* A listing's "search": adds to strCondition the test that a row's words
 * hold every word of it as a prefix, and, with "order": "rank", sets the
 * backend's order to the best matches first. False with 1007 for a
 * malformed "search", "order" or an "after" with rank; 1014 or 1000 when
 * the words cannot be split. */
bool AddSearch(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm, std::string &strCondition);

} // namespace kolv

#endif /* KOLVVESSA_BACKEND_PGSQL_H */
