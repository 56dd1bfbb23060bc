/*
 * Listing from the index: the request's filter becomes a condition on the
 * table "object"; the requester's own objects are paged in the database,
 * the shared objects of others in code, after the sharing and permission
 * checks that only code can make.
 */
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

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

const char szCondShared[] = "(CAST(acl->>'enabled' AS BOOL) = true)";
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
// columns whose key "field" has (whatever its value), newest first. Equal
// times are ordered by id so that pages never overlap.
bool BuildSelect(KOLVDB *pConn, const Json::Value &jParm, const std::string &strCondition, bool blPaged,
                 std::string &strSql) {
    strSql = "SELECT id, ns, category, parent_id, version, owner, mtime, ctime, acl";
    const Json::Value &jField = jParm["field"];
    for (const char *szColumn : rgJsonColumns) {
        if (jField.isObject() && jField.isMember(szColumn)) strSql += std::string(", ") + szColumn;
    }
    strSql += " FROM object WHERE " + (strCondition.empty() ? std::string("TRUE") : strCondition);
    strSql += " ORDER BY mtime DESC, id DESC ";
    if (!blPaged) return true;
    // A negative offset goes to the database as it is, which refuses it.
    int offset = jParm["offset"].asInt(), limit = jParm["limit"].asInt();
    kolv::CString szPage(limit < 0
                             ? KOLVDBEscapeStringEX3(1, pConn, " OFFSET @KOLV:INT ", offset)
                             : KOLVDBEscapeStringEX3(1, pConn, " OFFSET @KOLV:INT LIMIT @KOLV:INT ", offset, limit));
    if (KOLV_FAIL_IF(1014, NULL == szPage)) return false;
    strSql += szPage.get();
    return true;
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

// The per-row checks of a query that code pages: the owner's sharing, the
// owner's validity and the requester's permission. False hides the row.
bool RowVisible(KOLVDBRESULT *pResult, int Row, uid_t requester, bool blCheckSharing, bool blCalcPerm,
                std::string &strPerm) {
    if (!blCheckSharing && !blCalcPerm) return true;
    uid_t owner = UID_ERR;
    if (!RowOwner(pResult, Row, owner)) return false;
    const char *szNs = KOLVDBFetchField(pResult, Row, "ns");
    if (blCheckSharing && !SharingCached(szNs ? szNs : "", owner)) return false;
    if (!blCalcPerm) return true;
    kolv::KolvJson jACL;
    const char *szAcl = KOLVDBFetchField(pResult, Row, "acl");
    jACL.fromString(szAcl ? szAcl : "");
    bool ret = OwnerValidCached(owner);
    if (KOLV_FAIL_IF(1020, !ret)) return false;
    strPerm.clear();
    if (KOLV_APPEND_IF(!KOLVVessaObjectPermCalculate(requester, owner, jACL, strPerm))) return false;
    // Only a granted permission makes a row visible.
    return strPerm == "rw" || strPerm == "ro";
}

Json::Value JsonField(KOLVDBRESULT *pResult, int Row, const char *szColumn) {
    kolv::KolvJson j;
    const char *szVal = KOLVDBFetchField(pResult, Row, szColumn);
    if (szVal && *szVal) j.fromString(szVal);
    return j;
}

std::string TextField(KOLVDBRESULT *pResult, int Row, const char *szColumn) {
    const char *szVal = KOLVDBFetchField(pResult, Row, szColumn);
    return szVal ? szVal : "";
}

// One row as a record; NULL when it cannot be allocated.
KOLV_VESSA_OBJECT *RowToObject(KOLVDBRESULT *pResult, int Row, const Json::Value &jField, const std::string &strPerm) {
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
    bool blField = jField.isObject();
    if (blField && jField.isMember("commit_msg")) pObject->set_commit_msg(JsonField(pResult, Row, "commit_msg"));
    if (blField && jField.isMember("text")) pObject->set_text(JsonField(pResult, Row, "text"));
    if (blField && jField.isMember("metatext")) pObject->set_metatext(JsonField(pResult, Row, "metatext"));
    if (blField && jField.isMember("binary_info")) pObject->set_binary_info(JsonField(pResult, Row, "binary_info"));
    if (blField && jField.isMember("metabinary_info"))
        pObject->set_metabinary_info(JsonField(pResult, Row, "metabinary_info"));
    if (blField && jField.isMember("extra_info")) pObject->set_extra_info(JsonField(pResult, Row, "extra_info"));
    pObject->set_acl(JsonField(pResult, Row, "acl"));
    pObject->set_perm(strPerm);
    return pObject;
}

// The condition that keeps the objects of others that the requester may
// see: not the requester's, shared, and of none of the owners who switched
// sharing off in the namespace.
bool BuildSharedCondition(KOLVDB *pConn, const std::string &strNs, uid_t requester, std::string &strCondition) {
    if (!AddFormatted(pConn, strCondition, "owner != @KOLV:LLINT", (long long)requester)) return false;
    AddCond(strCondition, szCondShared);
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

} // namespace

bool KOLVVESSA_BACKEND_PGSQL::init() {
    if (m_conn) return true;
    if (KOLV_APPEND_IF(NULL == (m_conn = KOLVVessaOpenConn()))) return false;
    return true;
}

int KOLVVESSA_BACKEND_PGSQL::ExecuteSelectObjectList(const Json::Value &jParm, const std::string &strCondition,
                                                     bool blCheckSharing, bool blCalcPerm, KOLV_VESSA_OBJECT **ppHead,
                                                     unsigned int &total) {
    // Only a query without per-row checks can be paged by the database.
    bool blPaged = !blCheckSharing && !blCalcPerm;
    std::string strSql;
    if (!BuildSelect(m_conn, jParm, strCondition, blPaged, strSql)) return -1;
    KOLVDBRESULT *pResult = NULL;
    if (KOLV_FAIL_IF(1000, (0 != KOLVDBExecute(m_conn, strSql.c_str(), &pResult)))) return -1;
    kolv::DBResult guard(pResult);
    uid_t requester = JsonUid(jParm["requester"]);
    int skip = blPaged ? 0 : jParm["offset"].asInt();
    int limit = jParm["limit"].asInt();
    KOLV_VESSA_OBJECT *pHead = NULL, **ppTail = &pHead;
    int count = 0;
    for (int Row = -1; 0 == KOLVDBFetchRow(pResult, &Row);) {
        std::string strPerm;
        if (!RowVisible(pResult, Row, requester, blCheckSharing, blCalcPerm, strPerm)) continue;
        // The offset counts visible objects only.
        if (skip > 0) {
            --skip;
            continue;
        }
        KOLV_VESSA_OBJECT *pObject = RowToObject(pResult, Row, jParm["field"], strPerm);
        if (!pObject) {
            KOLVVessaObjectFreeList(pHead);
            return -1;
        }
        *ppTail = pObject;
        ppTail = &pObject->m_next;
        ++count;
        // A limit of 0 or less is no limit here, unlike in the database.
        if (!blPaged && limit > 0 && count >= limit) break;
    }
    *ppHead = pHead;
    total = (unsigned)count;
    return count;
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
    if (!BuildCondition(pBackend->m_conn, jParm, requester, strCondition)) return -1;
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
