/*
 * The verbs on many objects at once (set, delete, share) and the
 * clean-up by user. The ids of a multi-object verb come from the request's
 * "id" or, when it has none, one per line on standard input.
 */
#include <iostream>
#include <string>

#include "tool_verbs.h"

#define KOLV_TOOL_FILE "tools/tool_batch"

namespace kolvtool {

namespace {

// The request with its "id" array: the request's own, or the lines of
// standard input (blanks around an id and blank lines dropped).
bool WithIds(const Json::Value &jReq, Json::Value &jParm) {
    jParm = jReq;
    if (jParm.isMember("id")) return true;
    jParm["id"] = Json::Value(Json::arrayValue);
    std::string strLine;
    while (std::getline(std::cin, strLine)) {
        size_t first = strLine.find_first_not_of(" \t\r");
        if (first == std::string::npos) continue;
        size_t last = strLine.find_last_not_of(" \t\r");
        jParm["id"].append(strLine.substr(first, last - first + 1));
    }
    return TOOL_REQUIRE(jParm["id"].size() > 0);
}

// The outcome per id and how many went each way.
void ResultJson(const Json::Value &jsResult, Json::Value &jOut) {
    jOut["result"] = jsResult.isObject() ? jsResult : Json::Value(Json::objectValue);
    unsigned cDone = 0, cFailed = 0;
    for (const std::string &strID : jOut["result"].getMemberNames())
        ++(jOut["result"][strID].asBool() ? cDone : cFailed);
    jOut["done"] = cDone;
    jOut["failed"] = cFailed;
}

// A uid given as a number or as a user name.
bool UidOf(const Json::Value &jReq, uid_t &uid) {
    Json::Value jParm(Json::objectValue);
    if (jReq.isMember("uid")) jParm["uid"] = jReq["uid"];
    if (!ResolvePrincipal(jParm)) return false;
    if (!TOOL_REQUIRE(jParm["uid"].isUInt() && Json::realValue != jParm["uid"].type())) return false;
    uid = (uid_t)jParm["uid"].asUInt();
    return true;
}

} // namespace

namespace {

typedef bool (KOLV_VESSA_OBJECT_LIST::*ListOperation)(const Json::Value &, Json::Value &);

// One multi-object operation on the ids of the request or of standard
// input; a "uid" or "gid" given by name becomes its number.
bool RunOnList(ListOperation operation, const Json::Value &jReq, Json::Value &jOut) {
    Json::Value jParm, jsResult(Json::objectValue);
    if (!WithIds(jReq, jParm) || !ResolvePrincipal(jParm)) return false;
    KOLV_VESSA_OBJECT_LIST list;
    if (!(list.*operation)(jParm, jsResult)) return false;
    ResultJson(jsResult, jOut);
    return true;
}

} // namespace

bool RunBatchSet(const Json::Value &jReq, Json::Value &jOut) {
    return RunOnList(&KOLV_VESSA_OBJECT_LIST::Set, jReq, jOut);
}

bool RunBatchDelete(const Json::Value &jReq, Json::Value &jOut) {
    return RunOnList(&KOLV_VESSA_OBJECT_LIST::Delete, jReq, jOut);
}

bool RunBatchShare(const Json::Value &jReq, Json::Value &jOut) {
    return RunOnList(static_cast<ListOperation>(&KOLV_VESSA_OBJECT_LIST::Sharing), jReq, jOut);
}

bool RunCleanupUser(const Json::Value &jReq, Json::Value &jOut) {
    uid_t uid = UID_ERR;
    if (!UidOf(jReq, uid) || !KOLVVessaObjectDeleteByUid(uid)) return false;
    jOut["cleaned_uid"] = (Json::UInt)uid;
    return true;
}

bool RunCleanupOrphans(const Json::Value &, Json::Value &jOut) {
    if (!KOLVVessaObjectDeleteNonExistDirSvsUid()) return false;
    jOut["cleaned"] = true;
    return true;
}

} // namespace kolvtool
