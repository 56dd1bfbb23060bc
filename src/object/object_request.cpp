/*
 * The checks every entry makes of a request before it reads or writes
 * anything: requester, depth, NUL characters, namespace, binary sources.
 */
#include "object/object_request.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>

#include <set>
#include <string>

#include "common/kolvvessa_path_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "object/object_internal.h"

namespace kolv {

bool IsUidValue(const Json::Value &jVal) {
    // The type, not isIntegral(): 1101.0 is a double that the JSON library
    // calls integral, and a double is no uid.
    if (Json::intValue == jVal.type()) return jVal.asLargestInt() >= 0 && jVal.asLargestInt() < (Json::Int64)UID_ERR;
    if (Json::uintValue == jVal.type()) return jVal.asLargestUInt() < (Json::UInt64)UID_ERR;
    return false;
}

unsigned RequestDepth(const Json::Value &jVal, unsigned limit) {
    if (!jVal.isObject() && !jVal.isArray()) return 0;
    if (0 == limit) return 1;
    unsigned deepest = 0;
    for (const Json::Value &jMember : jVal) {
        unsigned depth = RequestDepth(jMember, limit - 1);
        if (depth > deepest) deepest = depth;
        if (deepest >= limit) break;
    }
    return 1 + deepest;
}

bool HasNulCharacter(const Json::Value &jVal) {
    if (jVal.isString()) {
        const char *pBegin = NULL, *pEnd = NULL;
        return jVal.getString(&pBegin, &pEnd) && std::string::npos != std::string(pBegin, pEnd).find('\0');
    }
    if (jVal.isArray()) {
        for (const Json::Value &jMember : jVal) {
            if (HasNulCharacter(jMember)) return true;
        }
        return false;
    }
    if (!jVal.isObject()) return false;
    for (Json::Value::const_iterator it = jVal.begin(); it != jVal.end(); ++it) {
        if (std::string::npos != it.name().find('\0') || HasNulCharacter(*it)) return true;
    }
    return false;
}

// A requester out of range was once read as 0 (the system) or as another
// user; a NUL is cut by every C layer below and breaks the index; a deep
// record overflows the readers of what was stored.
bool CheckRequest(const Json::Value &jParm, bool blAllNamespaces) {
    if (KOLV_FAIL_IF(1007, !kolv::IsUidValue(jParm["requester"]))) return false;
    if (KOLV_FAIL_IF(1007, KOLVVESSA_REQUEST_DEPTH_MAX < kolv::RequestDepth(jParm))) return false;
    if (KOLV_FAIL_IF(1007, kolv::HasNulCharacter(jParm))) return false;
    // "*" names every namespace, for the system's listing only.
    if (blAllNamespaces && UID_ROOT == jParm["requester"].asLargestUInt() && "*" == jParm["ns"].asString()) {
        return true;
    }
    if (KOLV_FAIL_IF(1007, !kolv::IsNamespaceName(jParm["ns"].asString()))) return false;
    return true;
}

bool HashRequester(const char *szVal, Json::Value &jOut) {
    if (!isdigit((unsigned char)szVal[0])) {
        jOut = szVal;
        return true;
    }
    char *endPtr = NULL;
    errno = 0;
    unsigned long long requester = strtoull(szVal, &endPtr, 10);
    if (KOLV_FAIL_IF(1007, endPtr && *endPtr)) return false;
    jOut = ERANGE == errno ? Json::Value(szVal) : Json::Value((Json::UInt64)requester);
    return true;
}

namespace {

// Read as Get reads for the requester: access, owner, sharing, and a
// permission ("ro", "rw" or "owner"; "NA" is none).
bool RequesterMayRead(const Json::Value &jParm, const std::string &strID) {
    Json::Value jGetParm(Json::objectValue);
    jGetParm["ns"] = jParm["ns"];
    jGetParm["id"] = strID;
    jGetParm["requester"] = jParm["requester"];
    jGetParm["field"] = Json::Value(Json::objectValue);
    KOLV_VESSA_OBJECT srcObj;
    if (!srcObj.Get(jGetParm)) return false;
    return "NA" != srcObj.get_perm() && !srcObj.get_perm().empty();
}

} // namespace

bool CheckBinarySources(const Json::Value &jParm) {
    if (!jParm.isMember("binary_files") || !jParm["binary_files"].isArray()) return true;
    std::set<std::string> readable;
    for (const Json::Value &jItem : jParm["binary_files"]) {
        if (!jItem.isObject() || !jItem["format"].isString() || "object" != jItem["format"].asString()) continue;
        if (KOLV_FAIL_IF(1007, !jItem["id"].isString() || !kolv::IsSafePathName(jItem["id"].asString()))) {
            return false;
        }
        const std::string strSourceID = jItem["id"].asString();
        if (readable.count(strSourceID)) continue;
        // The reason Get gives stays in the log; the caller learns only
        // that he may not read it, not whether it exists.
        if (KOLV_FAIL_IF(1023, !RequesterMayRead(jParm, strSourceID))) return false;
        readable.insert(strSourceID);
    }
    return true;
}

bool CheckObjectMembers(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm["id"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral())) {
        return false;
    }
    return true;
}

} // namespace kolv
