/*
 * The version record's JSON form. extra_info never goes into it: it is
 * reachable through its accessor only.
 */
#include <exception>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_version.h"
#include "version/version_internal.h"

namespace {

// "ns" and "id" must be asked for; the other keys are on unless switched
// off.
bool Wanted(const Json::Value &jFields, const char *szKey, bool blDefault) {
    if (!jFields.isObject() || !jFields.isMember(szKey) || !jFields[szKey].isBool()) return blDefault;
    return jFields[szKey].asBool();
}

void ToJson(const KOLV_VESSA_OBJECT_VERSION_IMPL &impl, const Json::Value &jFields, Json::Value &jRet) {
    jRet = Json::Value(Json::objectValue);
    if (Wanted(jFields, "ns", false)) jRet["ns"] = impl.ns;
    if (Wanted(jFields, "id", false)) jRet["id"] = impl.id;
    if (Wanted(jFields, "version", true)) jRet["version"] = impl.version;
    if (Wanted(jFields, "author", true)) {
        std::string strName;
        if (!KOLVVessaGetUserName((uid_t)impl.author, strName, false)) strName.clear();
        jRet["author"] = strName;
    }
    if (Wanted(jFields, "mtime", true)) jRet["mtime"] = (Json::Int64)impl.mtime;
    if (Wanted(jFields, "commit_msg", true)) jRet["commit_msg"] = impl.commit_msg;
    if (Wanted(jFields, "last_version", true)) jRet["last_version"] = impl.last_version;
}

} // namespace

bool KOLV_VESSA_OBJECT_VERSION::toJson(const Json::Value &jFields, Json::Value &jRet) const {
    if (KOLV_FAIL_IF(1015, !jRet.isObject())) return false;
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        ToJson(*m_impl, jFields, jRet);
        return true;
    });
}
