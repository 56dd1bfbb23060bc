/*
 * Indexing objects: one object's row is upserted after every change; a
 * chain of objects replaces its rows in one statement; reindex asks for
 * one value tuple at a time.
 */
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

const char szSQLUpsertTemplate[] =
    "UPDATE object SET ns='@KOLV:VAR', owner=@KOLV:LLINT, category='@KOLV:VAR',parent_id='@KOLV:VAR',"
    "version='@KOLV:VAR',commit_msg='@KOLV:VAR', acl='@KOLV:VAR', text='@KOLV:VAR', metatext='@KOLV:VAR', "
    "binary_info='@KOLV:VAR', metabinary_info='@KOLV:VAR', ctime=@KOLV:INT, mtime=@KOLV:INT, "
    "extra_info='@KOLV:VAR' WHERE id='@KOLV:VAR'; INSERT INTO object(id, ns, owner, category, parent_id, "
    "version, commit_msg, acl, text, metatext, binary_info, metabinary_info, ctime, mtime, extra_info)SELECT "
    "'@KOLV:VAR', '@KOLV:VAR', @KOLV:LLINT, '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', "
    "'@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', @KOLV:INT, @KOLV:INT, '@KOLV:VAR' WHERE NOT EXISTS "
    "(SELECT 1 FROM object where id = '@KOLV:VAR');";

const char szSQLBatchInsertPrefix[] =
    "INSERT INTO object(id, ns, owner, category, parent_id, version, commit_msg, acl, text, metatext, "
    "binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";

const char szSQLValueTemplate[] =
    " ('@KOLV:VAR', '@KOLV:VAR', @KOLV:LLINT, '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', "
    "'@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', @KOLV:INT, @KOLV:INT, '@KOLV:VAR')";

const char szSQLBatchDeletePrefix[] = "DELETE FROM object where id IN ";

// A JSON member as the database receives it: a null value is stored as an
// empty object so that every JSON column holds valid JSON.
std::string JsonText(const Json::Value &j) {
    return j.isNull() ? std::string("{}") : kolv::JsonToString(j);
}

// The columns of one row, in table order, as texts that outlive the
// formatting call.
struct IndexRow {
    std::string strId, strNs, strCategory, strParentId, strVersion;
    std::string strCommitMsg, strAcl, strText, strMetatext, strBinaryInfo, strMetabinaryInfo, strExtraInfo;
    long long owner;
    int ctime, mtime;

    explicit IndexRow(const KOLV_VESSA_OBJECT &Object)
        : strId(Object.get_id()), strNs(Object.get_ns()), strCategory(Object.get_category()),
          strParentId(Object.get_parent_id()), strVersion(Object.get_version()),
          strCommitMsg(JsonText(Object.get_commit_msg())), strAcl(JsonText(Object.get_acl())),
          strText(JsonText(Object.get_text())), strMetatext(JsonText(Object.get_metatext())),
          strBinaryInfo(JsonText(Object.get_binary_info())), strMetabinaryInfo(JsonText(Object.get_metabinary_info())),
          strExtraInfo(JsonText(Object.get_extra_info())),
          // The uid is unsigned 32-bit: widen without sign.
          owner((long long)(uint32_t)Object.get_owner()), ctime((int)Object.get_ctime()),
          mtime((int)Object.get_mtime()) {}
};

char *FormatValue(KOLVDB *pConn, const IndexRow &r) {
    return KOLVDBEscapeStringEX3(1, pConn, szSQLValueTemplate, r.strId.c_str(), r.strNs.c_str(), r.owner,
                                 r.strCategory.c_str(), r.strParentId.c_str(), r.strVersion.c_str(),
                                 r.strCommitMsg.c_str(), r.strAcl.c_str(), r.strText.c_str(), r.strMetatext.c_str(),
                                 r.strBinaryInfo.c_str(), r.strMetabinaryInfo.c_str(), r.ctime, r.mtime,
                                 r.strExtraInfo.c_str());
}

char *FormatUpsert(KOLVDB *pConn, const IndexRow &r) {
    return KOLVDBEscapeStringEX3(
        1, pConn, szSQLUpsertTemplate,
        // the UPDATE
        r.strNs.c_str(), r.owner, r.strCategory.c_str(), r.strParentId.c_str(), r.strVersion.c_str(),
        r.strCommitMsg.c_str(), r.strAcl.c_str(), r.strText.c_str(), r.strMetatext.c_str(), r.strBinaryInfo.c_str(),
        r.strMetabinaryInfo.c_str(), r.ctime, r.mtime, r.strExtraInfo.c_str(), r.strId.c_str(),
        // the INSERT
        r.strId.c_str(), r.strNs.c_str(), r.owner, r.strCategory.c_str(), r.strParentId.c_str(), r.strVersion.c_str(),
        r.strCommitMsg.c_str(), r.strAcl.c_str(), r.strText.c_str(), r.strMetatext.c_str(), r.strBinaryInfo.c_str(),
        r.strMetabinaryInfo.c_str(), r.ctime, r.mtime, r.strExtraInfo.c_str(),
        // the NOT EXISTS test
        r.strId.c_str());
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

} // namespace

bool KOLVVessaObjectIndexEx(KOLVDB *pConn, const char *szID, const char *szNs, uid_t requester) {
    return KOLV_NO_THROW_AS(false, 1000, "index aborted", [&]() -> bool {
        KOLV_VESSA_OBJECT Object;
        if (!ReadForIndex(szID, szNs, requester, Object)) return false;
        kolv::CString szSQLUpsert(FormatUpsert(pConn, IndexRow(Object)));
        if (KOLV_FAIL_IF(1000, (NULL == szSQLUpsert))) return false;
        if (KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(pConn, szSQLUpsert.get(), NULL)))) return false;
        return true;
    });
}

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
        // The tuple is escaped for standard-conforming strings, the
        // server's default; no connection is needed to build it.
        kolv::CString szSQLUpsert(FormatValue(NULL, IndexRow(Object)));
        if (KOLV_APPEND_IF(!szSQLUpsert)) return false;
        strOut.assign(szSQLUpsert.get());
        return true;
    });
}

std::string KOLVVessaObjectEscapeStringArray(const Json::Value &jsArray) {
    std::string strOut = "(";
    // asString of an object or array element throws; the list stays short.
    KOLV_NO_THROW_AS(false, 1000, "escape of a list element aborted", [&]() -> bool {
        if (jsArray.isString()) {
            kolv::CString szSQL(KOLVDBEscapeStringEX3(1, NULL, "'@KOLV:VAR'", jsArray.asCString()));
            if (!KOLV_APPEND_IF(!szSQL)) strOut += szSQL.get();
        } else if (KOLV_APPEND_IF(!jsArray.isArray())) {
            // nothing to list
        } else {
            for (Json::ArrayIndex i = 0; i < jsArray.size(); ++i) {
                kolv::CString szSQL(KOLVDBEscapeStringEX3(1, NULL, "'@KOLV:VAR'", jsArray[i].asString().c_str()));
                if (KOLV_APPEND_IF(NULL == szSQL)) break;
                strOut += szSQL.get();
                if (i + 1 < jsArray.size()) strOut += ",";
            }
        }
        return true;
    });
    strOut += ")";
    return strOut;
}

bool KOLVVessaObjectBatchIndexEx(KOLV_VESSA_OBJECT *pList, KOLVDB *pConn) {
    if (KOLV_APPEND_IF(NULL == pConn)) return false;
    return KOLV_NO_THROW_AS(false, 1000, "batch index aborted", [&]() -> bool {
        std::string strValues = szSQLBatchInsertPrefix;
        Json::Value jIds(Json::arrayValue);
        for (KOLV_VESSA_OBJECT *pObject = pList; pObject; pObject = pObject->m_next) {
            IndexRow Row(*pObject);
            jIds.append(Row.strId);
            kolv::CString szValue(FormatValue(pConn, Row));
            if (KOLV_FAIL_IF(1000, NULL == szValue)) return false;
            strValues += szValue.get();
            strValues += pObject->m_next ? "," : ";";
        }
        // One DELETE of every id and one multi-row INSERT, in one execution:
        // a failure leaves every row of the batch as it was.
        std::string strSQL = szSQLBatchDeletePrefix + KOLVVessaObjectEscapeStringArray(jIds) + "; " + strValues;
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
