/*
 * Indexing objects: one object's row is upserted after every change; a
 * chain of objects replaces its rows in one statement; reindex asks for
 * one value tuple at a time.
 */
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "index/index_row.h"
#include "index/kolvvessa_index_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

// One statement: the row is inserted, or the row of that id overwritten
// in place.
const char szSQLUpsertPrefix[] =
    "INSERT INTO object(id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
    "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES";
const char szSQLUpsertSuffix[] =
    " ON CONFLICT (id) DO UPDATE SET ns=EXCLUDED.ns, owner=EXCLUDED.owner, category=EXCLUDED.category, "
    "parent_id=EXCLUDED.parent_id, version=EXCLUDED.version, commit_msg=EXCLUDED.commit_msg, acl=EXCLUDED.acl, "
    "text=EXCLUDED.text, metatext=EXCLUDED.metatext, binary_info=EXCLUDED.binary_info, "
    "metabinary_info=EXCLUDED.metabinary_info, ctime=EXCLUDED.ctime, mtime=EXCLUDED.mtime, "
    "extra_info=EXCLUDED.extra_info;";

const char szSQLBatchInsertPrefix[] =
    "INSERT INTO object(id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
    "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";

const char szSQLBatchDeletePrefix[] = "DELETE FROM object where id IN ";

// The row's upsert, escaped for pConn; empty when formatting fails.
std::string FormatUpsert(KOLVDB *pConn, const kolv::IndexRow &Row) {
    kolv::CString szValues(kolv::FormatIndexRowValues(pConn, Row));
    if (!szValues) return std::string();
    return szSQLUpsertPrefix + std::string(szValues.get()) + szSQLUpsertSuffix;
}

// Writes the row of an object read with every field.
bool UpsertObject(KOLVDB *pConn, const KOLV_VESSA_OBJECT &Object) {
    // The old row, if any, stays as it was.
    if (KOLV_FAIL_IF(1007, KOLVVessaObjectHoldsNul(Object))) return false;
    std::string strSQL = FormatUpsert(pConn, kolv::IndexRowFromObject(Object));
    const char *szSQLUpsert = strSQL.empty() ? NULL : strSQL.c_str();
    if (KOLV_FAIL_IF(1000, (NULL == szSQLUpsert))) return false;
    if (KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(pConn, szSQLUpsert, NULL)))) return false;
    return true;
}

bool StringHoldsNul(const std::string &str) {
    return std::string::npos != str.find('\0');
}

// Reads one object with every field. The one uid serves as requester and
// as owner of the read, deliberately.
bool ReadForIndex(const char *szID, const char *szNs, uid_t uid, KOLV_VESSA_OBJECT &Object) {
    Json::Value jGetParm;
    jGetParm["ns"] = szNs ? szNs : "";
    jGetParm["id"] = szID ? szID : "";
    jGetParm["requester"] = (Json::UInt)uid;
    jGetParm["owner"] = (Json::UInt)uid;
    jGetParm["field"] = KOLVVessaObjectFieldAll();
    if (KOLV_APPEND_IF(!Object.Get(jGetParm))) return false;
    return true;
}

// The quoted list element by element; false after the first failure.
bool AppendEscapedElements(KOLVDB *pConn, const Json::Value &jsArray, std::string &strOut) {
    if (jsArray.isString()) {
        kolv::CString szSQL(KOLVDBEscapeStringEX3(1, pConn, "'@KOLV:VAR'", jsArray.asCString()));
        if (KOLV_APPEND_IF(!szSQL)) return false;
        strOut += szSQL.get();
        return true;
    }
    if (KOLV_APPEND_IF(!jsArray.isArray())) return false;
    for (Json::ArrayIndex i = 0; i < jsArray.size(); ++i) {
        kolv::CString szSQL(KOLVDBEscapeStringEX3(1, pConn, "'@KOLV:VAR'", jsArray[i].asString().c_str()));
        if (KOLV_APPEND_IF(NULL == szSQL)) return false;
        strOut += szSQL.get();
        if (i + 1 < jsArray.size()) strOut += ",";
    }
    return true;
}

} // namespace

bool KOLVVessaObjectHoldsNul(const KOLV_VESSA_OBJECT &Object) {
    for (const std::string &str :
         {Object.get_id(), Object.get_ns(), Object.get_category(), Object.get_parent_id(), Object.get_version()}) {
        if (StringHoldsNul(str)) return true;
    }
    for (const Json::Value &jVal : {Object.get_commit_msg(), Object.get_acl(), Object.get_text(), Object.get_metatext(),
                                    Object.get_binary_info(), Object.get_metabinary_info(), Object.get_extra_info()}) {
        if (kolv::JsonHoldsNul(jVal)) return true;
    }
    return false;
}

bool KOLVVessaObjectIndexEx(KOLVDB *pConn, const char *szID, const char *szNs, uid_t requester) {
    return KOLV_NO_THROW_AS(false, 1000, "index aborted", [&]() -> bool {
        KOLV_VESSA_OBJECT Object;
        if (!ReadForIndex(szID, szNs, requester, Object)) return false;
        return UpsertObject(pConn, Object);
    });
}

namespace kolv {

bool IndexObject(const KOLV_VESSA_OBJECT &Object) {
    KOLVDB *pConn = NULL;
    if (KOLV_APPEND_IF(NULL == (pConn = KOLVVessaOpenConn()))) return false;
    bool blRet = KOLV_NO_THROW_AS(false, 1000, "index aborted", [&]() -> bool { return UpsertObject(pConn, Object); });
    KOLVVessaCloseConn();
    return blRet;
}

} // namespace kolv

bool KOLVVessaObjectIndex(const char *szID, const char *szNs, uid_t requester) {
    KOLVDB *pConn = NULL;
    if (KOLV_APPEND_IF(NULL == (pConn = KOLVVessaOpenConn()))) return false;
    bool blRet = true;
    if (KOLV_APPEND_IF(!KOLVVessaObjectIndexEx(pConn, szID, szNs, requester))) blRet = false;
    KOLVVessaCloseConn();
    return blRet;
}

bool KOLVVessaObjectCreateIndexValue(const char *szID, const char *szNs, uid_t owner, std::string &strOut) {
    return KOLV_NO_THROW_AS(false, 1000, "index value aborted", [&]() -> bool {
        KOLV_VESSA_OBJECT Object;
        if (!ReadForIndex(szID, szNs, owner, Object)) return false;
        if (KOLV_FAIL_IF(1007, KOLVVessaObjectHoldsNul(Object))) return false;
        // Reindex runs its INSERT on the process's connection: escape for it.
        KOLVDB *pConn = NULL;
        if (KOLV_APPEND_IF(NULL == (pConn = KOLVVessaOpenConn()))) return false;
        kolv::CString sqlGuard(kolv::FormatIndexRowValues(pConn, kolv::IndexRowFromObject(Object)));
        const char *szSQLUpsert = sqlGuard.get();
        if (KOLV_APPEND_IF(!szSQLUpsert)) return false;
        strOut.assign(szSQLUpsert);
        return true;
    });
}

std::string KOLVVessaObjectEscapeStringArrayEx(KOLVDB *pConn, const Json::Value &jsArray) {
    std::string strOut = "(";
    // asString of an object or array element throws; the list stays short.
    KOLV_NO_THROW_AS(false, 1000, "escape of a list element aborted",
                     [&]() -> bool { return AppendEscapedElements(pConn, jsArray, strOut); });
    strOut += ")";
    return strOut;
}

std::string KOLVVessaObjectEscapeStringArray(const Json::Value &jsArray) {
    KOLVDB *pConn = NULL;
    if (KOLV_APPEND_IF(NULL == (pConn = KOLVVessaOpenConn()))) return "()";
    return KOLVVessaObjectEscapeStringArrayEx(pConn, jsArray);
}

bool KOLVVessaObjectBatchIndexEx(KOLV_VESSA_OBJECT *pList, KOLVDB *pConn) {
    if (KOLV_APPEND_IF(NULL == pConn)) return false;
    return KOLV_NO_THROW_AS(false, 1000, "batch index aborted", [&]() -> bool {
        std::string strValues;
        Json::Value jIds(Json::arrayValue);
        for (KOLV_VESSA_OBJECT *pObject = pList; pObject; pObject = pObject->m_next) {
            kolv::IndexRow Row = kolv::IndexRowFromObject(*pObject);
            kolv::CString szValue(KOLVVessaObjectHoldsNul(*pObject) ? NULL : kolv::FormatIndexRowValues(pConn, Row));
            if (!szValue) {
                // As in reindex, one object whose row cannot be written
                // (a NUL, text invalid in the database's encoding) is
                // logged and left out, its old row untouched; the others
                // go on.
                syslog(LOG_ERR, "%s:%d fail to index object ns=%s, id=%s", __FILE__, __LINE__, Row.strNs.c_str(),
                       Row.strId.c_str());
                continue;
            }
            jIds.append(Row.strId);
            if (!strValues.empty()) strValues += ",";
            strValues += szValue.get();
        }
        // Nothing left to write of a chain that had objects: done. An empty
        // chain still goes to the database, which refuses it.
        if (pList && jIds.empty()) return true;
        // One DELETE of every id and one multi-row INSERT, in one execution:
        // a failure leaves every row of the batch as it was.
        std::string strSQL = szSQLBatchDeletePrefix + KOLVVessaObjectEscapeStringArrayEx(pConn, jIds) + "; " +
                             szSQLBatchInsertPrefix + strValues + ";";
        if (KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(pConn, strSQL.c_str(), NULL)))) return false;
        return true;
    });
}

bool KOLVVessaObjectBatchIndex(KOLV_VESSA_OBJECT *pList) {
    KOLVDB *pConn = NULL;
    if (KOLV_APPEND_IF(NULL == (pConn = KOLVVessaOpenConn()))) return false;
    bool blRet = KOLVVessaObjectBatchIndexEx(pList, pConn);
    KOLVVessaCloseConn();
    return blRet;
}
