/*
 * Renaming one field of an object: a text field or binary file (a new
 * version), a meta text key or a meta binary file (none). Only the owner
 * or the system may rename; the object is read back and re-indexed.
 */
#include <stdlib.h>
#include <time.h>

#include <memory>
#include <string>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

bool CheckRenameParm(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm["id"].isString() || !jParm.isMember("segment") || !jParm["segment"].isString() ||
                               !jParm.isMember("old_field") || !jParm["old_field"].isString() ||
                               !jParm.isMember("new_field") || !jParm["new_field"].isString() ||
                               !jParm.isMember("requester") || !jParm["requester"].isIntegral())) {
        return false;
    }
    if (KOLV_FAIL_IF(1007, ("binary" == jParm["segment"].asString() || "text" == jParm["segment"].asString()) &&
                               (!jParm.isMember("version") || !jParm["version"].isString()))) {
        return false;
    }
    return kolv::CheckChangeAccess(jParm);
}

// The optional members' types; a rename without "mtime" is stamped now, so
// that the commit and a meta key's stamp carry the same time.
bool PrepareFieldRenameParm(Json::Value &jParm) {
    if (jParm.isMember("commit_msg") && KOLV_FAIL_IF(1007, !jParm["commit_msg"].isObject())) return false;
    if (jParm.isMember("mtime") && KOLV_FAIL_IF(1007, !jParm["mtime"].isIntegral())) return false;
    if (!jParm.isMember("mtime")) jParm["mtime"] = (Json::Int64)time(NULL);
    return true;
}

} // namespace

bool KOLV_VESSA_OBJECT::FieldRename(const Json::Value &jsParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        Json::Value jParm(jsParm);
        if (!CheckRenameParm(jParm)) return false;
        if (KOLV_APPEND_IF(!PrepareFieldRenameParm(jParm))) return false;
        KOLV_VESSA_OBJECT tmpOldObj;
        Json::Value jGetParm = kolv::WholeObjectParm(jParm);
        if (KOLV_APPEND_IF(!tmpOldObj.Get(jGetParm))) return false;
        // Written so that no permission passes it: a user with whom the
        // object is shared "rw" may change its fields but not rename them.
        uid_t requester = (uid_t)jParm["requester"].asInt64();
        if (UID_ROOT != requester && requester != tmpOldObj.get_owner() &&
            KOLV_FAIL_IF(1023, "rw" != tmpOldObj.get_perm() || "owner" != tmpOldObj.get_perm())) {
            return false;
        }
        kolv::NsHooks hooks(jParm["ns"].asString(), "field_rename", false);
        hooks.Pre(jParm, &tmpOldObj);
        std::string strNewVer;
        if (KOLV_APPEND_IF(!pBackendFs->FieldRename(jParm, strNewVer))) return false;
        if (KOLV_APPEND_IF(!Get(jGetParm))) return false;
        hooks.Post(jParm, this);
        // The object in hand is the row, unless a post hook may have
        // changed the object again.
        bool blIndexed = hooks.HasPost() ? KOLVVessaObjectIndex(jParm["id"].asCString(), jParm["ns"].asCString(),
                                                                (uid_t)jParm["requester"].asInt64())
                                         : kolv::IndexObject(*this);
        if (!blIndexed) {
            kolv::FailAppend(__FILE__, __LINE__, kolv::szIndexCall);
            KOLV_OBJECT_SYSLOG("Failed to record field rename of KOLV_VESSA_OBJECT in db. ns=[%s] id=[%s] ver=[%s]",
                               jParm["ns"].asCString(), jParm["id"].asCString(), strNewVer.c_str());
        }
        return true;
    });
}

bool KOLV_VESSA_OBJECT::FieldRename(const Json::Value &jsParm, std::string &strNewVer) {
    KOLV_VESSA_OBJECT tmpNewObj;
    if (KOLV_APPEND_IF(!tmpNewObj.FieldRename(jsParm))) return false;
    strNewVer = tmpNewObj.get_version();
    return true;
}

namespace {

// Calls the member the way the plain entry reports it.
class FieldRenameEntry : public KOLV_VESSA_OBJECT {
  public:
    bool Run(const Json::Value &jParm, std::string &strNewVer) {
        if (KOLV_APPEND_IF(!KOLV_VESSA_OBJECT::FieldRename(jParm, strNewVer))) return false;
        return true;
    }
};

bool HashToRenameParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    if (!kolv::HashToObjectParm(pParmHash, jParm)) return false;
    const char *pParm = NULL;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "segment")))) return false;
    jParm["segment"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "old_field")))) return false;
    jParm["old_field"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "new_field")))) return false;
    jParm["new_field"] = pParm;
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "version"))) jParm["version"] = pParm;
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "commit_msg"))) {
        kolv::KolvJson jMsg;
        if (KOLV_FAIL_IF(1007, !jMsg.fromString(pParm))) return false;
        jParm["commit_msg"] = jMsg;
    }
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "mtime"))) {
        char *endPtr = NULL;
        long long value = strtoll(pParm, &endPtr, 10);
        if (KOLV_FAIL_IF(1007, !*pParm || (endPtr && *endPtr))) return false;
        jParm["mtime"] = (Json::Int64)value;
    }
    return true;
}

} // namespace

bool KOLVVessaObjectFieldRename(TRABSZHASH *pParmHash, std::string &strNewVer) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return false;
    Json::Value jParm(Json::objectValue);
    if (!HashToRenameParm(pParmHash, jParm)) return false;
    return FieldRenameEntry().Run(jParm, strNewVer);
}
