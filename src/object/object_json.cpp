/*
 * The object's JSON form: toJson for callers, fromJson for the file store
 * filling a record from its files.
 */
#include <kolvplatform/kolv_platform.h>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"

namespace {

// A field is written unless the selection switches it off.
bool SelectedByDefault(const Json::Value &jSelection, const char *szKey) {
    return !(jSelection.isObject() && jSelection.isMember(szKey) && jSelection[szKey].isBool() &&
             !jSelection[szKey].asBool());
}

// A field is written only when the selection switches it on.
bool SelectedOnRequest(const Json::Value &jSelection, const char *szKey) {
    return jSelection.isObject() && jSelection.isMember(szKey) && jSelection[szKey].isBool() &&
           jSelection[szKey].asBool();
}

// The text and info members: true gives the whole member, an object only
// the sub-keys it switches on that the member has.
void WriteSubSelection(const Json::Value &jSelection, const char *szKey, const Json::Value &jMember,
                       Json::Value &jRet) {
    if (!jSelection.isObject() || !jSelection.isMember(szKey)) return;
    const Json::Value &jSub = jSelection[szKey];
    if (jSub.isBool() && jSub.asBool()) {
        jRet[szKey] = jMember;
        return;
    }
    if (!jSub.isObject()) return;
    Json::Value jPart(Json::objectValue);
    for (const std::string &strName : jSub.getMemberNames()) {
        if (!jSub[strName].isBool() || !jSub[strName].asBool()) continue;
        if (jMember.isObject() && jMember.isMember(strName)) jPart[strName] = jMember[strName];
    }
    jRet[szKey] = jPart;
}

Json::Value OwnerJson(unsigned long owner) {
    Json::Value jOwner(Json::objectValue);
    std::string strName;
    KOLVVessaGetUserName((uid_t)owner, strName, false);
    jOwner["uid"] = (Json::UInt64)owner;
    jOwner["display_name"] = strName;
    return jOwner;
}

bool ToJson(const KOLV_VESSA_OBJECT_IMPL &impl, const Json::Value &jSelection, Json::Value &jRet, bool blForceAcl) {
    if (KOLV_FAIL_IF(1015, !jRet.isObject())) return false;
    jRet = Json::Value(Json::objectValue);
    const std::pair<const char *, const std::string *> rgText[] = {
        {"ns", &impl.ns},           {"id", &impl.id},     {"category", &impl.category},
        {"version", &impl.version}, {"perm", &impl.perm}, {"parent_id", &impl.parent_id},
    };
    for (const auto &item : rgText) {
        if (SelectedByDefault(jSelection, item.first)) jRet[item.first] = *item.second;
    }
    if (SelectedByDefault(jSelection, "owner")) jRet["owner"] = OwnerJson(impl.owner);
    if (SelectedByDefault(jSelection, "ctime")) jRet["ctime"] = (Json::Int64)impl.ctime;
    if (SelectedByDefault(jSelection, "mtime")) jRet["mtime"] = (Json::Int64)impl.mtime;
    if (SelectedOnRequest(jSelection, "commit_msg")) jRet["commit_msg"] = impl.commit_msg;
    WriteSubSelection(jSelection, "metatext", impl.metatext, jRet);
    WriteSubSelection(jSelection, "text", impl.text, jRet);
    WriteSubSelection(jSelection, "metabinary_info", impl.metabinary_info, jRet);
    WriteSubSelection(jSelection, "binary_info", impl.binary_info, jRet);
    // A reader with "ro" sees no ACL unless the caller forces it.
    if (SelectedOnRequest(jSelection, "acl") && ("owner" == impl.perm || "rw" == impl.perm || blForceAcl)) {
        jRet["acl"] = impl.acl;
    }
    return true;
}

bool FromJson(KOLV_VESSA_OBJECT_IMPL &impl, const Json::Value &jVal) {
    if (jVal.isMember("ns")) impl.ns = jVal["ns"].asString();
    if (jVal.isMember("id")) impl.id = jVal["id"].asString();
    if (jVal.isMember("category")) impl.category = jVal["category"].asString();
    if (jVal.isMember("version")) impl.version = jVal["version"].asString();
    if (jVal.isMember("commit_msg")) impl.commit_msg = jVal["commit_msg"];
    if (jVal.isMember("parent_id")) impl.parent_id = jVal["parent_id"].asString();
    if (jVal.isMember("owner")) impl.owner = (unsigned long)jVal["owner"].asUInt64();
    if (jVal.isMember("metatext")) impl.metatext = jVal["metatext"];
    if (jVal.isMember("text")) impl.text = jVal["text"];
    // The two info members are kept as their serialised text: the file
    // store parses them back.
    if (jVal.isMember("metabinary_info")) impl.metabinary_info = kolv::JsonToString(jVal["metabinary_info"]);
    if (jVal.isMember("binary_info")) impl.binary_info = kolv::JsonToString(jVal["binary_info"]);
    if (jVal.isMember("acl")) impl.acl = jVal["acl"];
    if (jVal.isMember("ctime")) impl.ctime = (long)jVal["ctime"].asInt64();
    if (jVal.isMember("mtime")) impl.mtime = (long)jVal["mtime"].asInt64();
    return true;
}

} // namespace

bool KOLV_VESSA_OBJECT::toJson(const Json::Value &jSelection, Json::Value &jRet, bool blForceAcl) const {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    return KOLV_NO_THROW(false, [&] { return ToJson(*m_impl, jSelection, jRet, blForceAcl); });
}

bool KOLV_VESSA_OBJECT::fromJson(const Json::Value &jVal) {
    if (KOLV_ARG_FAILS(jVal.isObject())) return false;
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    return KOLV_NO_THROW(false, [&] { return FromJson(*m_impl, jVal); });
}
