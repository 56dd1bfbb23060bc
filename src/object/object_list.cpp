/*
 * The listing front ends: check the request, turn a filter owner given by
 * name into its uid, and ask the index backend.
 */
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

// "owner" (a user name) becomes the owner's uid; "owner_uid" is taken as
// it is. Works on the request copy jParm.
bool ResolveFilterOwner(Json::Value &jParm) {
    if (jParm["filter"].isMember("owner")) {
        if (KOLV_FAIL_IF(1007, !jParm["filter"]["owner"].isString())) return false;
        KOLVUSER *pUser = NULL;
        if (KOLV_FAIL_IF(1022, 0 > KOLVUserGet(jParm["filter"]["owner"].asCString(), &pUser))) return false;
        kolv::User guard(pUser);
        jParm["filter"]["owner"] = (Json::UInt)pUser->uid;
    }
    if (jParm["filter"].isMember("owner_uid")) {
        if (KOLV_FAIL_IF(1007, !jParm["filter"]["owner_uid"].isIntegral())) return false;
        if (KOLV_FAIL_IF(1007, !kolv::IsUidValue(jParm["filter"]["owner_uid"]))) return false;
        jParm["filter"]["owner"] = (Json::UInt)jParm["filter"]["owner_uid"].asLargestInt();
        jParm["filter"].removeMember("owner_uid");
    }
    return true;
}

// The checks of the front end; the backend receives a request with a uid
// for the filter owner and with "offset" and "limit" (no paging when
// absent).
bool CheckRequest(const Json::Value &jIn, Json::Value &jParm) {
    jParm = jIn;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral()))
        return false;
    if (!kolv::CheckRequest(jParm, true)) return false;
    // The switches of the settings file hold for listing as for reading:
    // with the store or the namespace off a user lists nothing.
    if (UID_ROOT != jParm["requester"].asLargestUInt() &&
        KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) {
        return false;
    }
    if (jParm.isMember("filter")) {
        if (KOLV_FAIL_IF(1007, !jParm["filter"].isObject())) return false;
        if (!ResolveFilterOwner(jParm)) return false;
    }
    if (KOLV_FAIL_IF(1007, jParm.isMember("offset") && !jParm["offset"].isIntegral())) return false;
    if (KOLV_FAIL_IF(1007, jParm.isMember("limit") && !jParm["limit"].isIntegral())) return false;
    if (!jParm.isMember("offset")) jParm["offset"] = 0;
    if (!jParm.isMember("limit")) jParm["limit"] = -1;
    return true;
}

int ListChecked(const Json::Value &jIn, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) {
    Json::Value jParm;
    if (!CheckRequest(jIn, jParm)) return -1;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendPgsql(RegisterBackend::New("pgsql"));
    if (KOLV_FAIL_IF(1000, NULL == pBackendPgsql)) return -1;
    KOLV_VESSA_OBJECT **addrPHead = ppHead;
    int count = -1;
    if (KOLV_APPEND_IF(0 > (count = pBackendPgsql->List(jParm, addrPHead, total)))) return -1;
    return count;
}

// A decimal text as an integer; anything else stays text, for the checks
// to refuse.
Json::Value DecimalOrText(const char *szVal) {
    char *endPtr = NULL;
    long long ll = strtoll(szVal, &endPtr, 10);
    if (*szVal && endPtr && !*endPtr) return Json::Value((Json::Int64)ll);
    return Json::Value(szVal);
}

// A JSON text as its value; text that does not parse stays text.
Json::Value JsonOrText(const char *szVal) {
    kolv::KolvJson j;
    if (!j.fromString(szVal)) return Json::Value(szVal);
    return j;
}

} // namespace

int KOLVVessaObjectList(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) {
    if (KOLV_FAIL_IF(1015, NULL == ppHead)) return -1;
    *ppHead = NULL;
    total = 0;
    return KOLV_NO_THROW_AS(-1, 1007, "list request rejected",
                            [&]() -> int { return ListChecked(jParm, ppHead, total); });
}

int KOLVVessaObjectList(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash || NULL == ppHead)) return -1;
    *ppHead = NULL;
    total = 0;
    Json::Value jParm(Json::objectValue);
    const char *szVal = NULL;
    if ((szVal = TRABCSzHashGetValue(pParmHash, "ns"))) jParm["ns"] = szVal;
    if ((szVal = TRABCSzHashGetValue(pParmHash, "requester")) && !kolv::HashRequester(szVal, jParm["requester"])) {
        return -1;
    }
    if ((szVal = TRABCSzHashGetValue(pParmHash, "filter"))) jParm["filter"] = JsonOrText(szVal);
    if ((szVal = TRABCSzHashGetValue(pParmHash, "field"))) jParm["field"] = JsonOrText(szVal);
    if ((szVal = TRABCSzHashGetValue(pParmHash, "after"))) jParm["after"] = JsonOrText(szVal);
    if ((szVal = TRABCSzHashGetValue(pParmHash, "search"))) jParm["search"] = szVal;
    if ((szVal = TRABCSzHashGetValue(pParmHash, "order"))) jParm["order"] = szVal;
    if ((szVal = TRABCSzHashGetValue(pParmHash, "offset"))) jParm["offset"] = DecimalOrText(szVal);
    if ((szVal = TRABCSzHashGetValue(pParmHash, "limit"))) jParm["limit"] = DecimalOrText(szVal);
    return KOLVVessaObjectList(jParm, ppHead, total);
}

namespace {

// Whether row a comes after row b in the listing's order: newest first,
// ties by id in byte order.
bool ComesAfter(const KOLV_VESSA_OBJECT *a, const KOLV_VESSA_OBJECT *b) {
    if (a->get_mtime() != b->get_mtime()) return a->get_mtime() < b->get_mtime();
    return a->get_id().compare(b->get_id()) < 0;
}

// The last row of each part of a listing that filled its limit: the own
// part (permission "owner") and the shared part.
void LastOfFullParts(int limit, const KOLV_VESSA_OBJECT *pHead, std::vector<const KOLV_VESSA_OBJECT *> &vLast) {
    for (bool blOwn : {true, false}) {
        int count = 0;
        const KOLV_VESSA_OBJECT *pLast = NULL;
        for (const KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next) {
            if ((p->get_perm() == "owner") != blOwn) continue;
            pLast = p;
            ++count;
        }
        if (pLast && limit > 0 && count >= limit) vLast.push_back(pLast);
    }
}

} // namespace

Json::Value KOLVVessaObjectListNext(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead) {
    return KOLV_NO_THROW_AS(Json::Value(), 1007, "list cursor", [&]() -> Json::Value {
        // The cursor follows the usual order only: pages by rank go by offset.
        if (jParm.isMember("order")) return Json::Value();
        int limit = jParm.isMember("limit") && jParm["limit"].isIntegral() ? jParm["limit"].asInt() : -1;
        std::vector<const KOLV_VESSA_OBJECT *> vLast;
        LastOfFullParts(limit, pHead, vLast);
        if (vLast.empty()) return Json::Value();
        const KOLV_VESSA_OBJECT *pNext = vLast[0];
        for (const KOLV_VESSA_OBJECT *p : vLast) {
            if (ComesAfter(pNext, p)) pNext = p;
        }
        Json::Value jNext(Json::objectValue);
        jNext["mtime"] = (Json::Int64)pNext->get_mtime();
        jNext["id"] = pNext->get_id();
        return jNext;
    });
}

namespace kolv {

bool ListChildIds(const std::string &strNs, const Json::Value &jParent, uid_t requester,
                  std::vector<std::string> &vIds) {
    Json::Value jList(Json::objectValue);
    jList["ns"] = strNs;
    jList["requester"] = (Json::UInt)requester;
    jList["filter"]["parent_id"] = jParent;
    jList["offset"] = 0;
    jList["limit"] = -1;
    KOLV_VESSA_OBJECT_LIST list;
    unsigned int total = 0;
    if (KOLV_APPEND_IF(0 > list.ListObject(jList, total))) return false;
    for (KOLV_VESSA_OBJECT *p = list.m_head; p; p = p->m_next)
        vIds.push_back(p->get_id());
    return true;
}

} // namespace kolv

int KOLV_VESSA_OBJECT_LIST::ListObject(const Json::Value &jParm, unsigned int &total) {
    clear();
    KOLV_VESSA_OBJECT *pHead = NULL;
    int count = KOLVVessaObjectList(jParm, &pHead, total);
    if (KOLV_APPEND_IF(0 > count)) return count;
    m_head = pHead;
    return count;
}
