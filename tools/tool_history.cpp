/*
 * The verbs that look back and tidy up: an object's versions, one older
 * version, the difference of two, renaming a field and deleting objects.
 */
#include <memory>
#include <string>

#include "tool_verbs.h"

namespace kolvtool {

namespace {

// Every field of a version record, "ns" and "id" included.
Json::Value VersionJson(const KOLV_VESSA_OBJECT_VERSION &ver) {
    Json::Value jFields(Json::objectValue);
    jFields["ns"] = true;
    jFields["id"] = true;
    Json::Value jOut(Json::objectValue);
    ver.toJson(jFields, jOut);
    return jOut;
}

} // namespace

bool RunVersions(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
    unsigned int total = 0, listableTotal = 0;
    int count = KOLVVessaObjectVersionList(jReq, &pHead, total, listableTotal);
    std::unique_ptr<KOLV_VESSA_OBJECT_VERSION, void (*)(KOLV_VESSA_OBJECT_VERSION *)> chain(
        pHead, KOLVVessaObjectVersionFreeList);
    if (count < 0) return false;
    jOut["count"] = count;
    jOut["total"] = total;
    jOut["listable_total"] = listableTotal;
    jOut["versions"] = Json::Value(Json::arrayValue);
    for (KOLV_VESSA_OBJECT_VERSION *p = pHead; p; p = p->m_next)
        jOut["versions"].append(VersionJson(*p));
    return true;
}

// The record of the version and the object as it stood then. The tool
// takes "version" as the object reads do; the record's own key is "ver".
bool RunVersion(const Json::Value &jReq, Json::Value &jOut) {
    Json::Value jParm = jReq;
    if (!jParm.isMember("ver") && jParm.isMember("version")) jParm["ver"] = jParm["version"];
    if (!jParm.isMember("version") && jParm.isMember("ver")) jParm["version"] = jParm["ver"];
    KOLV_VESSA_OBJECT_VERSION ver;
    if (!ver.Get(jParm)) return false;
    KOLV_VESSA_OBJECT object;
    jParm.removeMember("ver");
    if (!jParm.isMember("field")) jParm["field"] = KOLVVessaObjectFieldAll();
    if (!object.Get(jParm)) return false;
    jOut["record"] = VersionJson(ver);
    jOut["object"] = ObjectJson(object);
    return true;
}

bool RunDiff(const Json::Value &jReq, Json::Value &jOut) {
    Json::Value jDiff(Json::objectValue);
    if (!KOLV_VESSA_OBJECT_VERSION::Diff(jReq, jDiff)) return false;
    jOut = jDiff;
    return true;
}

bool RunRename(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT object;
    if (!object.FieldRename(jReq)) return false;
    jOut = ObjectJson(object);
    return true;
}

bool RunDelete(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT object;
    if (!object.Delete(jReq)) return false;
    jOut["deleted"] = jReq["id"];
    jOut["recursive"] = jReq["recursive"].isBool() && jReq["recursive"].asBool();
    return true;
}

} // namespace kolvtool
