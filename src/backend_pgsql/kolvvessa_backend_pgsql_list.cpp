/*
 * Listing from the index: the request's filter becomes a condition on the
 * table "object"; the requester's own objects are paged in the database,
 * the shared objects of others in code, after the sharing and permission
 * checks that only code can make.
 */
#include <stdio.h>
#include <stdlib.h>

#include <string.h>

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "backend_pgsql/kolvvessa_backend_pgsql.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "index/kolvvessa_index_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa/kolvvessa_perm.h"

namespace {

// The shared-only condition in the form of the shared listing index's
// predicate; the permission check in code wants the JSON true, which is
// exactly the text 'true'.
const char szCondShared[] = "((acl->>'enabled') = 'true')";
// Newest first, ties by id in byte order: the order of the listing
// indexes, and one that code can compare.
const char szOrder[] = " ORDER BY mtime DESC, id COLLATE \"C\" DESC ";
// Rows that a query paged in code reads at most per statement.
const int kBatchMax = 4096;
const char *const rgJsonColumns[] = {"commit_msg", "text", "metatext", "binary_info", "metabinary_info", "extra_info"};

// Answers kept for the life of the process, deliberately, so that a long
// list asks the settings file and the user database once per owner. The
// sharing answer depends on the namespace as well.
std::mutex gCacheLock;
std::map<std::pair<std::string, uid_t>, bool> gSharingCache;
std::map<uid_t, bool> gOwnerValidCache;

bool SharingCached(const std::string &strNs, uid_t owner) {
    std::lock_guard<std::mutex> guard(gCacheLock);
    auto key = std::make_pair(strNs, owner);
    auto it = gSharingCache.find(key);
    if (it != gSharingCache.end()) return it->second;
    bool blRet = KOLVVessaSharingCheck(strNs.c_str(), owner);
    gSharingCache[key] = blRet;
    return blRet;
}

bool OwnerValidCached(uid_t owner) {
    std::lock_guard<std::mutex> guard(gCacheLock);
    auto it = gOwnerValidCache.find(owner);
    if (it != gOwnerValidCache.end()) return it->second;
    bool blRet = KOLVVessaObjectOwnerIsValid(owner);
    gOwnerValidCache[owner] = blRet;
    return blRet;
}

void AddCond(std::string &strCondition, const std::string &strFragment) {
    if (!strCondition.empty()) strCondition += " AND ";
    strCondition += strFragment;
}

// Formats one fragment for the connection it will run on and adds it;
// false with 1014 when formatting fails.
template <typename... Args>
bool AddFormatted(KOLVDB *pConn, std::string &strCondition, const char *szTemplate, Args... args) {
    kolv::CString szFragment(KOLVDBEscapeStringEX3(1, pConn, szTemplate, args...));
    if (KOLV_FAIL_IF(1014, NULL == szFragment)) return false;
    AddCond(strCondition, szFragment.get());
    return true;
}

// One member of a text filter: its value decides the comparison.
bool add_condition_text_member(KOLVDB *pConn, const std::string &strName, const Json::Value &jVal, const char *szColumn,
                               std::string &strCondition) {
    const char *szName = strName.c_str();
    if (jVal.isBool()) {
        return AddFormatted(pConn, strCondition, "(@KOLV:VAR->>'@KOLV:VAR')='@KOLV:VAR'", szColumn, szName,
                            jVal.asBool() ? "true" : "false");
    }
    if (jVal.isString()) {
        return AddFormatted(pConn, strCondition, "(@KOLV:VAR->>'@KOLV:VAR')='@KOLV:VAR'", szColumn, szName,
                            jVal.asCString());
    }
    if (jVal.isArray()) {
        // Every element must be in the stored array; an element compares
        // by its JSON text, as the database renders it.
        for (Json::ArrayIndex i = 0; i < jVal.size(); ++i) {
            std::string strElem = kolv::JsonToString(jVal[i]);
            if (!AddFormatted(pConn, strCondition,
                              "0<(SELECT COUNT(*) FROM json_array_elements(@KOLV:VAR->'@KOLV:VAR') AS elem WHERE "
                              "(elem)::text='@KOLV:VAR')",
                              szColumn, szName, strElem.c_str()))
                return false;
        }
        return true;
    }
    std::string strVal = kolv::JsonToString(jVal);
    return AddFormatted(pConn, strCondition, "(@KOLV:VAR->>'@KOLV:VAR')='@KOLV:VAR'", szColumn, szName, strVal.c_str());
}

// A text or meta text filter: an object of member conditions, or an array
// of member names that must be present.
bool AddConditionText(KOLVDB *pConn, const Json::Value &jFilter, const char *szColumn, std::string &strCondition) {
    if (jFilter.isArray()) {
        for (Json::ArrayIndex i = 0; i < jFilter.size(); ++i) {
            if (KOLV_FAIL_IF(1007, !jFilter[i].isString())) return false;
            if (!AddFormatted(pConn, strCondition, "(@KOLV:VAR->'@KOLV:VAR') IS NOT NULL", szColumn,
                              jFilter[i].asCString()))
                return false;
        }
        return true;
    }
    if (KOLV_FAIL_IF(1007, !jFilter.isObject())) return false;
    for (const std::string &strName : jFilter.getMemberNames()) {
        if (!add_condition_text_member(pConn, strName, jFilter[strName], szColumn, strCondition)) return false;
    }
    return true;
}

// A binary or meta binary filter: names of files that must be present.
bool AddConditionBinary(KOLVDB *pConn, const Json::Value &jFilter, const char *szKind, std::string &strCondition) {
    if (KOLV_FAIL_IF(1007, !jFilter.isArray())) return false;
    for (Json::ArrayIndex i = 0; i < jFilter.size(); ++i) {
        if (KOLV_FAIL_IF(1007, !jFilter[i].isString())) return false;
        if (!AddFormatted(pConn, strCondition, "(@KOLV:VAR_info->'@KOLV:VAR') IS NOT NULL", szKind,
                          jFilter[i].asCString()))
            return false;
    }
    return true;
}

bool add_condition_parent(KOLVDB *pConn, const Json::Value &jParent, std::string &strCondition) {
    if (jParent.isArray()) {
        AddCond(strCondition, "parent_id IN " + KOLVVessaObjectEscapeStringArrayEx(pConn, jParent));
        return true;
    }
    if (KOLV_FAIL_IF(1007, !jParent.isString())) return false;
    return AddFormatted(pConn, strCondition, "parent_id = '@KOLV:VAR'", jParent.asCString());
}

// The excluded owners; an empty list excludes nobody.
bool add_condition_not_owner(KOLVDB *pConn, const Json::Value &jOwners, std::string &strCondition) {
    if (KOLV_FAIL_IF(1007, !jOwners.isArray())) return false;
    if (jOwners.empty()) return true;
    AddCond(strCondition, " owner NOT IN " + KOLVVessaObjectEscapeStringArrayEx(pConn, jOwners));
    return true;
}

// The filter fragments but the owner's, in a fixed order.
bool BuildFilterCondition(KOLVDB *pConn, const Json::Value &jParm, std::string &strCondition) {
    // Bound to the connection here, so that a failure names the call as
    // the listing has always named it.
    auto add_condition_text = [pConn](const Json::Value &jFilter, const char *szColumn, std::string &strCond) {
        return AddConditionText(pConn, jFilter, szColumn, strCond);
    };
    auto add_condition_binary = [pConn](const Json::Value &jFilter, const char *szKind, std::string &strCond) {
        return AddConditionBinary(pConn, jFilter, szKind, strCond);
    };
    const Json::Value &jFilter = jParm["filter"];
    if (jFilter.isMember("parent_id") && !add_condition_parent(pConn, jFilter["parent_id"], strCondition)) return false;
    if (jFilter.isMember("category")) {
        if (KOLV_FAIL_IF(1007, !jFilter["category"].isString())) return false;
        if (!AddFormatted(pConn, strCondition, "category = '@KOLV:VAR'", jFilter["category"].asCString())) return false;
    }
    if (jFilter.isMember("text") && KOLV_APPEND_IF(!add_condition_text(jParm["filter"]["text"], "text", strCondition)))
        return false;
    if (jFilter.isMember("metatext") &&
        KOLV_APPEND_IF(!add_condition_text(jParm["filter"]["metatext"], "metatext", strCondition)))
        return false;
    if (jFilter.isMember("binary") &&
        KOLV_APPEND_IF(!add_condition_binary(jParm["filter"]["binary"], "binary", strCondition)))
        return false;
    if (jFilter.isMember("metabinary") &&
        KOLV_APPEND_IF(!add_condition_binary(jParm["filter"]["metabinary"], "metabinary", strCondition)))
        return false;
    if (jFilter.isMember("_not_owner_") && !add_condition_not_owner(pConn, jFilter["_not_owner_"], strCondition))
        return false;
    return true;
}

// The namespace (none for the root requester asking for "*"), then the
// filter.
bool BuildCondition(KOLVDB *pConn, const Json::Value &jParm, uid_t requester, std::string &strCondition) {
    std::string strNs = jParm["ns"].asString();
    if (!(UID_ROOT == requester && strNs == "*")) {
        if (!AddFormatted(pConn, strCondition, "ns = '@KOLV:VAR'", strNs.c_str())) return false;
    }
    if (!jParm.isMember("filter")) return true;
    if (KOLV_FAIL_IF(1007, !jParm["filter"].isObject())) return false;
    return BuildFilterCondition(pConn, jParm, strCondition);
}

// A uid member; -1 is the anonymous requester (UID_ERR).
uid_t JsonUid(const Json::Value &j) {
    return j.isInt64() ? (uid_t)j.asInt64() : (uid_t)j.asUInt64();
}

void SetPerm(KOLV_VESSA_OBJECT *pHead, const char *szPerm) {
    for (KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next)
        p->set_perm(szPerm);
}

bool IsDecimal(const char *sz) {
    if (!sz || !*sz) return false;
    for (; *sz; ++sz) {
        if (*sz < '0' || *sz > '9') return false;
    }
    return true;
}

// The select of Data model: basic columns and the ACL always, the JSON
// columns whose key "field" has (whatever its value), in the listing's
// order.
std::string BuildSelect(const Json::Value &jParm, const std::string &strCondition, const std::string &strOrder) {
    std::string strSql = "SELECT id, ns, category, parent_id, version, owner, mtime, ctime, acl";
    const Json::Value &jField = jParm["field"];
    for (const char *szColumn : rgJsonColumns) {
        if (jField.isObject() && jField.isMember(szColumn)) strSql += std::string(", ") + szColumn;
    }
    strSql += " FROM object WHERE " + (strCondition.empty() ? std::string("TRUE") : strCondition);
    return strSql + (strOrder.empty() ? std::string(szOrder) : strOrder);
}

// The database's paging of a query without per-row checks.
bool AddPaging(KOLVDB *pConn, const Json::Value &jParm, std::string &strSql) {
    // A negative offset goes to the database as it is, which refuses it.
    int offset = jParm["offset"].asInt(), limit = jParm["limit"].asInt();
    kolv::CString szPage(limit < 0
                             ? KOLVDBEscapeStringEX3(1, pConn, " OFFSET @KOLV:INT ", offset)
                             : KOLVDBEscapeStringEX3(1, pConn, " OFFSET @KOLV:INT LIMIT @KOLV:INT ", offset, limit));
    if (KOLV_FAIL_IF(1014, NULL == szPage)) return false;
    strSql += szPage.get();
    return true;
}

// Rows strictly after the row (mtime, id) in the listing's order. A row
// without a time comes before every row that has one.
bool AddAfterRow(KOLVDB *pConn, const char *szMtime, const char *szId, std::string &strCondition) {
    if (!*szMtime)
        return AddFormatted(pConn, strCondition, "(mtime IS NOT NULL OR id COLLATE \"C\" < '@KOLV:VAR')", szId);
    return AddFormatted(pConn, strCondition, "(mtime, id COLLATE \"C\") < (@KOLV:LLINT, '@KOLV:VAR')",
                        strtoll(szMtime, NULL, 10), szId);
}

// Reads the owner of a row; false skips the row.
bool RowOwner(KOLVDBRESULT *pResult, int Row, uid_t &owner) {
    const char *szVal = NULL;
    if (KOLV_FAIL_IF(1000, NULL == (szVal = KOLVDBFetchField(pResult, Row, "owner")))) return false;
    char *endPtr = NULL;
    unsigned long long ullOwner = strtoull(szVal, &endPtr, 10);
    if (KOLV_FAIL_IF(1007, endPtr && *endPtr)) return false;
    owner = (uid_t)ullOwner;
    return true;
}

std::string TextField(KOLVDBRESULT *pResult, int Row, const char *szColumn) {
    const char *szVal = KOLVDBFetchField(pResult, Row, szColumn);
    return szVal ? szVal : "";
}

// Turns the rows of one call into records: one JSON reader for every
// column of every row, and the permission of each owner and ACL text
// worked out once per call.
class RowReader {
  public:
    RowReader(const Json::Value &jParm, bool blCheckSharing, bool blCalcPerm)
        : m_pReader(Json::CharReaderBuilder().newCharReader()), m_jField(jParm["field"]),
          m_requester(JsonUid(jParm["requester"])), m_blCheckSharing(blCheckSharing), m_blCalcPerm(blCalcPerm) {}

    // The per-row checks of a query that code pages: the owner's sharing,
    // the owner's validity and the requester's permission. False hides the
    // row.
    bool Visible(KOLVDBRESULT *pResult, int Row, std::string &strPerm);
    // One row as a record; NULL when it cannot be allocated.
    KOLV_VESSA_OBJECT *Record(KOLVDBRESULT *pResult, int Row, const std::string &strPerm);

  private:
    // A column's JSON; null for no text or text that does not parse (as
    // nested too deep), as a parse of its own would leave it.
    Json::Value Parse(const char *szVal);
    // The ACL of a row: rows mostly repeat a few ACL texts, each parsed
    // once per call.
    const Json::Value &Acl(const char *szAcl);
    Json::Value Field(KOLVDBRESULT *pResult, int Row, const char *szColumn) {
        return Parse(KOLVDBFetchField(pResult, Row, szColumn));
    }
    // "rw" or "ro" when the requester may see the row, else empty.
    std::string GrantedPerm(uid_t owner, const char *szAcl);

    std::unique_ptr<Json::CharReader> m_pReader;
    const Json::Value &m_jField;
    uid_t m_requester;
    bool m_blCheckSharing, m_blCalcPerm;
    std::unordered_map<std::string, std::string> m_mapPerm;
    std::unordered_map<std::string, Json::Value> m_mapAcl;
};

Json::Value RowReader::Parse(const char *szVal) {
    Json::Value j;
    if (!szVal || !*szVal) return j;
    try {
        Json::Value jParsed;
        if (m_pReader->parse(szVal, szVal + strlen(szVal), &jParsed, NULL)) j.swap(jParsed);
    } catch (const std::exception &) {
    }
    return j;
}

const Json::Value &RowReader::Acl(const char *szAcl) {
    std::string strAcl = szAcl ? szAcl : "";
    auto it = m_mapAcl.find(strAcl);
    if (it == m_mapAcl.end()) it = m_mapAcl.emplace(strAcl, Parse(szAcl)).first;
    return it->second;
}

std::string RowReader::GrantedPerm(uid_t owner, const char *szAcl) {
    const Json::Value &jACL = Acl(szAcl);
    bool ret = OwnerValidCached(owner);
    if (KOLV_FAIL_IF(1020, !ret)) return "";
    std::string strPerm;
    if (KOLV_APPEND_IF(!KOLVVessaObjectPermCalculate(m_requester, owner, jACL, strPerm))) return "";
    // Only a granted permission makes a row visible.
    return strPerm == "rw" || strPerm == "ro" ? strPerm : "";
}

bool RowReader::Visible(KOLVDBRESULT *pResult, int Row, std::string &strPerm) {
    if (!m_blCheckSharing && !m_blCalcPerm) return true;
    uid_t owner = UID_ERR;
    if (!RowOwner(pResult, Row, owner)) return false;
    const char *szNs = KOLVDBFetchField(pResult, Row, "ns");
    if (m_blCheckSharing && !SharingCached(szNs ? szNs : "", owner)) return false;
    if (!m_blCalcPerm) return true;
    const char *szAcl = KOLVDBFetchField(pResult, Row, "acl");
    std::string strKey = std::to_string(owner) + ":" + (szAcl ? szAcl : "");
    auto it = m_mapPerm.find(strKey);
    if (it == m_mapPerm.end()) it = m_mapPerm.emplace(strKey, GrantedPerm(owner, szAcl)).first;
    strPerm = it->second;
    return !strPerm.empty();
}

KOLV_VESSA_OBJECT *RowReader::Record(KOLVDBRESULT *pResult, int Row, const std::string &strPerm) {
    KOLV_VESSA_OBJECT *pObject = NULL;
    if (KOLV_APPEND_IF(NULL == (pObject = KOLVVessaObjectAlloc()))) return NULL;
    pObject->set_id(TextField(pResult, Row, "id"));
    pObject->set_ns(TextField(pResult, Row, "ns"));
    pObject->set_category(TextField(pResult, Row, "category"));
    pObject->set_parent_id(TextField(pResult, Row, "parent_id"));
    pObject->set_version(TextField(pResult, Row, "version"));
    pObject->set_owner((unsigned long)strtoll(TextField(pResult, Row, "owner").c_str(), NULL, 10));
    pObject->set_mtime(strtol(TextField(pResult, Row, "mtime").c_str(), NULL, 10));
    pObject->set_ctime(strtol(TextField(pResult, Row, "ctime").c_str(), NULL, 10));
    bool blField = m_jField.isObject();
    if (blField && m_jField.isMember("commit_msg")) pObject->set_commit_msg(Field(pResult, Row, "commit_msg"));
    if (blField && m_jField.isMember("text")) pObject->set_text(Field(pResult, Row, "text"));
    if (blField && m_jField.isMember("metatext")) pObject->set_metatext(Field(pResult, Row, "metatext"));
    if (blField && m_jField.isMember("binary_info")) pObject->set_binary_info(Field(pResult, Row, "binary_info"));
    if (blField && m_jField.isMember("metabinary_info"))
        pObject->set_metabinary_info(Field(pResult, Row, "metabinary_info"));
    if (blField && m_jField.isMember("extra_info")) pObject->set_extra_info(Field(pResult, Row, "extra_info"));
    pObject->set_acl(Acl(KOLVDBFetchField(pResult, Row, "acl")));
    pObject->set_perm(strPerm);
    return pObject;
}

// The records of a listing, in order.
struct Chain {
    KOLV_VESSA_OBJECT *pHead = NULL, **ppTail = &pHead;
    int count = 0;
    void Add(KOLV_VESSA_OBJECT *pObject) {
        *ppTail = pObject;
        ppTail = &pObject->m_next;
        ++count;
    }
};

// The rows of one result at the chain's end: the first skip visible ones
// left out (the countdown goes on into the next batch), up to a positive
// limit. False when a record cannot be made.
bool ReadRows(RowReader &reader, KOLVDBRESULT *pResult, int &skip, int limit, Chain &chain) {
    for (int Row = -1; 0 == KOLVDBFetchRow(pResult, &Row);) {
        std::string strPerm;
        if (!reader.Visible(pResult, Row, strPerm)) continue;
        // The offset counts visible objects only.
        if (skip > 0) {
            --skip;
            continue;
        }
        KOLV_VESSA_OBJECT *pObject = reader.Record(pResult, Row, strPerm);
        if (!pObject) return false;
        chain.Add(pObject);
        if (limit > 0 && chain.count >= limit) return true;
    }
    return true;
}

// Holds the objects of others that the requester could be granted: a
// grant to everybody, to the requester by uid, or to one of the
// requester's groups (looked up once here; without them no group grant
// can apply). Code still decides each row.
bool AddGrantCondition(KOLVDB *pConn, uid_t requester, std::string &strCondition) {
    std::string strGrant = "(acl->'public'->>'perm' IN ('ro','rw')";
    if (UID_ERR != requester) {
        std::vector<std::string> vKeys(1, std::to_string(requester));
        std::string strName;
        TRABCSzList *pGrpList = NULL;
        if (KOLVVessaGetUserName(requester, strName, true) &&
            NULL != (pGrpList = TRABGroupInfoListGet(strName.c_str(), FALSE))) {
            kolv::SzList grpList(pGrpList);
            for (int i = 0; i < TRABCSzListCount(pGrpList); ++i) {
                const char *szGid = TRABCSzListGet(pGrpList, i);
                if (szGid) vKeys.push_back(szGid);
            }
        }
        for (size_t i = 0; i < vKeys.size(); ++i) {
            kolv::CString szTerm(KOLVDBEscapeStringEX3(1, pConn, "(acl->'@KOLV:VAR'->'@KOLV:VAR') IS NOT NULL",
                                                       0 == i ? "hmx_user" : "hmx_group", vKeys[i].c_str()));
            if (KOLV_FAIL_IF(1014, NULL == szTerm)) return false;
            strGrant += std::string(" OR ") + szTerm.get();
        }
    }
    AddCond(strCondition, strGrant + ")");
    return true;
}

// The condition that keeps the objects of others that the requester may
// see: not the requester's, shared, granted, and of none of the owners who
// switched sharing off in the namespace.
bool BuildSharedCondition(KOLVDB *pConn, const std::string &strNs, uid_t requester, std::string &strCondition) {
    if (!AddFormatted(pConn, strCondition, "owner != @KOLV:LLINT", (long long)requester)) return false;
    AddCond(strCondition, szCondShared);
    if (!AddGrantCondition(pConn, requester, strCondition)) return false;
    // The calls that grow the list may move it: the guard frees whatever
    // it holds last.
    kolv::SzListRef list;
    TRABCSzList *&pList = list.ref();
    if (KOLV_FAIL_IF(1014, NULL == (pList = TRABCSzListAlloc(BUFSIZ)))) return false;
    if (KOLV_APPEND_IF(0 > KOLVVessaSettingsNoSharingUserList(strNs.c_str(), &pList))) return false;
    for (int i = 0; i < TRABCSzListCount(pList); ++i) {
        const char *szUser = TRABCSzListGet(pList, i);
        // The fragment takes the uid unquoted; anything but a decimal uid
        // could not match an owner anyway.
        if (!IsDecimal(szUser)) continue;
        if (!AddFormatted(pConn, strCondition, "owner != @KOLV:VAR", szUser)) return false;
    }
    return true;
}

// The keyset cursor of the request: rows strictly after {"mtime", "id"}
// in the listing's order, in every part of the listing.
bool AddRequestAfter(KOLVDB *pConn, const Json::Value &jParm, std::string &strCondition) {
    if (!jParm.isMember("after")) return true;
    const Json::Value &jAfter = jParm["after"];
    if (KOLV_FAIL_IF(1007, !jAfter.isObject() || !jAfter["mtime"].isInt64() || !jAfter["id"].isString())) return false;
    std::string strId = jAfter["id"].asString();
    if (KOLV_FAIL_IF(1007, std::string::npos != strId.find('\0'))) return false;
    return AddFormatted(pConn, strCondition, "(mtime, id COLLATE \"C\") < (@KOLV:LLINT, '@KOLV:VAR')",
                        (long long)jAfter["mtime"].asInt64(), strId.c_str());
}

} // namespace

bool KOLVVESSA_BACKEND_PGSQL::init() {
    if (m_conn) return true;
    if (KOLV_APPEND_IF(NULL == (m_conn = KOLVVessaOpenConn()))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_PGSQL::Select(const std::string &strSql, KOLVDBRESULT *&pResult) {
    pResult = NULL;
    return !KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(m_conn, strSql.c_str(), &pResult)));
}

// A query without per-row checks, paged by the database.
static bool SelectPaged(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm, const std::string &strCondition,
                        RowReader &reader, Chain &chain) {
    std::string strSql = BuildSelect(jParm, strCondition, pBackend->m_strOrder);
    if (!AddPaging(pBackend->m_conn, jParm, strSql)) return false;
    KOLVDBRESULT *pResult = NULL;
    if (!pBackend->Select(strSql, pResult)) return false;
    kolv::DBResult guard(pResult);
    int skip = 0;
    return ReadRows(reader, pResult, skip, -1, chain);
}

// A query paged in code: bounded batches in the listing's order, each
// after the last row of the one before, until offset + limit visible rows
// are found or the rows run out. A limit of 0 or less is no limit here,
// unlike in the database. The usual order goes on from the last row's
// (mtime, id); an order by rank, which no index holds, by the rows read.
static bool SelectInBatches(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm,
                            const std::string &strCondition, RowReader &reader, Chain &chain) {
    int skip = jParm["offset"].asInt(), limit = jParm["limit"].asInt();
    long long want = limit > 0 ? (long long)std::max(skip, 0) + limit : kBatchMax;
    int batch = (int)std::min<long long>(want, kBatchMax);
    long long read = 0;
    std::string strBatchCond = strCondition;
    for (;;) {
        kolv::CString szLimit(KOLVDBEscapeStringEX3(1, pBackend->m_conn, " OFFSET @KOLV:LLINT LIMIT @KOLV:INT ",
                                                    pBackend->m_strOrder.empty() ? 0LL : read, batch));
        if (KOLV_FAIL_IF(1014, NULL == szLimit)) return false;
        std::string strSql = BuildSelect(jParm, strBatchCond, pBackend->m_strOrder) + szLimit.get();
        KOLVDBRESULT *pResult = NULL;
        if (!pBackend->Select(strSql, pResult)) return false;
        kolv::DBResult guard(pResult);
        if (!ReadRows(reader, pResult, skip, limit, chain)) return false;
        int rows = KOLVDBResultRows(pResult);
        if ((limit > 0 && chain.count >= limit) || rows < batch) return true;
        read += rows;
        batch = std::min(2 * batch, kBatchMax);
        if (!pBackend->m_strOrder.empty()) continue;
        strBatchCond = strCondition;
        if (!AddAfterRow(pBackend->m_conn, KOLVDBFetchField(pResult, rows - 1, "mtime"),
                         KOLVDBFetchField(pResult, rows - 1, "id"), strBatchCond))
            return false;
    }
}

int KOLVVESSA_BACKEND_PGSQL::ExecuteSelectObjectList(const Json::Value &jParm, const std::string &strCondition,
                                                     bool blCheckSharing, bool blCalcPerm, KOLV_VESSA_OBJECT **ppHead,
                                                     unsigned int &total) {
    RowReader reader(jParm, blCheckSharing, blCalcPerm);
    Chain chain;
    // Only a query without per-row checks can be paged by the database.
    bool blOk = !blCheckSharing && !blCalcPerm ? SelectPaged(this, jParm, strCondition, reader, chain)
                                               : SelectInBatches(this, jParm, strCondition, reader, chain);
    if (!blOk) {
        KOLVVessaObjectFreeList(chain.pHead);
        return -1;
    }
    *ppHead = chain.pHead;
    total = (unsigned)chain.count;
    return chain.count;
}

// The objects of one owner: the requester's own (or any for root), or the
// shared ones of another owner who shares.
static int ListOneOwner(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm, std::string strCondition,
                        uid_t requester, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) {
    if (KOLV_FAIL_IF(1007, !jParm["filter"]["owner"].isIntegral())) return -1;
    uid_t owner = JsonUid(jParm["filter"]["owner"]);
    bool blOther = UID_ROOT != requester && owner != requester;
    if (UID_ROOT != requester) {
        // An owner who is gone or does not share gives an empty list, not
        // a failure.
        if (!KOLVVessaObjectOwnerIsValid(owner)) return 0;
        if (blOther && !KOLVVessaSharingCheck(jParm["ns"].asCString(), owner)) return 0;
    }
    if (!AddFormatted(pBackend->m_conn, strCondition, "owner = @KOLV:LLINT", (long long)owner)) return -1;
    if (blOther) {
        AddCond(strCondition, szCondShared);
        if (!AddGrantCondition(pBackend->m_conn, requester, strCondition)) return -1;
        return pBackend->ExecuteSelectObjectList(jParm, strCondition, false, true, ppHead, total);
    }
    int count = pBackend->ExecuteSelectObjectList(jParm, strCondition, false, false, ppHead, total);
    if (count > 0) SetPerm(*ppHead, owner == requester ? "owner" : "rw");
    return count;
}

// The requester's own objects (paged in the database), then the visible
// shared objects of others (paged in code), as one list.
static int ListOwnThenShared(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm,
                             const std::string &strCondition, uid_t requester, KOLV_VESSA_OBJECT **ppHead,
                             unsigned int &total) {
    std::string strOwn = strCondition, strShared = strCondition;
    if (!AddFormatted(pBackend->m_conn, strOwn, "owner = @KOLV:LLINT", (long long)requester)) return -1;
    KOLV_VESSA_OBJECT *pHead = NULL;
    unsigned total1 = 0, total2 = 0;
    int cnt1 = pBackend->ExecuteSelectObjectList(jParm, strOwn, false, false, &pHead, total1);
    if (cnt1 < 0) return -1;
    SetPerm(pHead, "owner");
    KOLV_VESSA_OBJECT **ppTail = &pHead;
    while (*ppTail)
        ppTail = &(*ppTail)->m_next;
    std::string strNs = jParm["ns"].asString();
    int cnt2 = -1;
    if (BuildSharedCondition(pBackend->m_conn, strNs, requester, strShared)) {
        cnt2 = pBackend->ExecuteSelectObjectList(jParm, strShared, true, true, ppTail, total2);
    }
    if (cnt2 < 0) {
        KOLVVessaObjectFreeList(pHead);
        return -1;
    }
    *ppHead = pHead;
    total = total1 + total2;
    return cnt1 + cnt2;
}

static int ListChecked(KOLVVESSA_BACKEND_PGSQL *pBackend, const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead,
                       unsigned int &total) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns"))) return -1;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("requester"))) return -1;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("offset"))) return -1;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("limit"))) return -1;
    uid_t requester = JsonUid(jParm["requester"]);
    std::string strCondition;
    pBackend->m_strOrder.clear();
    if (!BuildCondition(pBackend->m_conn, jParm, requester, strCondition)) return -1;
    if (!AddRequestAfter(pBackend->m_conn, jParm, strCondition)) return -1;
    if (!kolv::AddSearch(pBackend, jParm, strCondition)) return -1;
    if (jParm["filter"].isObject() && jParm["filter"].isMember("owner")) {
        return ListOneOwner(pBackend, jParm, strCondition, requester, ppHead, total);
    }
    if (UID_ROOT == requester) {
        int count = pBackend->ExecuteSelectObjectList(jParm, strCondition, false, false, ppHead, total);
        if (count > 0) SetPerm(*ppHead, "rw");
        return count;
    }
    return ListOwnThenShared(pBackend, jParm, strCondition, requester, ppHead, total);
}

int KOLVVESSA_BACKEND_PGSQL::List(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) {
    if (KOLV_FAIL_IF(1015, NULL == ppHead)) return -1;
    *ppHead = NULL;
    total = 0;
    // A member of the wrong type (asUInt of a text and the like) is the
    // caller's error.
    return KOLV_NO_THROW_AS(-1, 1007, "list request rejected", [&]() -> int {
        if (KOLV_APPEND_IF(!init())) return -1;
        return ListChecked(this, jParm, ppHead, total);
    });
}
