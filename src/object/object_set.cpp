/*
 * Changing an existing object: read it for the requester, require "rw" or
 * "owner", let the file store write the change, read it back and re-index.
 */
#include <stdlib.h>

#include <memory>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

// The failure record names the preparation as the design does.
using kolv::PrepareSetParm;

namespace {

bool CheckSetAccess(const Json::Value &jParm) {
    if (!kolv::CheckObjectMembers(jParm)) return false;
    return kolv::CheckChangeAccess(jParm);
}

} // namespace

bool KOLV_VESSA_OBJECT::Set(const Json::Value &jsParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        Json::Value jParm(jsParm);
        if (!CheckSetAccess(jParm)) return false;
        KOLV_VESSA_OBJECT tmpOldObj;
        Json::Value jGetParm = kolv::WholeObjectParm(jParm);
        if (KOLV_APPEND_IF(!tmpOldObj.Get(jGetParm))) return false;
        // A user with whom the object is shared "rw" may change it too.
        if ("rw" != tmpOldObj.get_perm() && "owner" != tmpOldObj.get_perm()) {
            KOLV_FAIL_FMT(1023, "rw != tmpOldObj.get_perm() && owner != tmpOldObj.get_perm() [%s]",
                          tmpOldObj.get_perm().c_str());
            return false;
        }
        if (KOLV_APPEND_IF(!PrepareSetParm(jParm, tmpOldObj.get_acl(), &tmpOldObj))) return false;
        if (!kolv::CheckBinarySources(jParm)) return false;
        kolv::NsHooks hooks(jParm["ns"].asString(), "set", false);
        hooks.Pre(jParm, &tmpOldObj);
        std::string strNewVer = jParm["version"].asString();
        if (KOLV_APPEND_IF(!pBackendFs->Set(jParm, strNewVer))) return false;
        if (KOLV_APPEND_IF(!Get(jGetParm))) return false;
        hooks.Post(jParm, this);
        kolv::IndexChanged(jParm, strNewVer, hooks.HasPost() ? NULL : this);
        return true;
    });
}

namespace kolv {

const char szIndexCall[] = "!KOLVVessaObjectIndex(jParm[\"id\"].asCString(), jParm[\"ns\"].asCString(), "
                           "(uid_t)jParm[\"requester\"].asInt64())";

void IndexChanged(const Json::Value &jParm, const std::string &strNewVer, const KOLV_VESSA_OBJECT *pObj) {
    bool blOk = pObj ? IndexObject(*pObj)
                     : KOLVVessaObjectIndex(jParm["id"].asCString(), jParm["ns"].asCString(),
                                            (uid_t)jParm["requester"].asInt64());
    if (!blOk) {
        FailAppend(__FILE__, __LINE__, szIndexCall);
        KOLV_OBJECT_SYSLOG("Failed to record set action of KOLV_VESSA_OBJECT in db. ns=[%s] id=[%s] ver=[%s]",
                           jParm["ns"].asCString(), jParm["id"].asCString(), strNewVer.c_str());
    }
}

} // namespace kolv

bool KOLV_VESSA_OBJECT::Set(const Json::Value &jsParm, std::string &strNewVer) {
    KOLV_VESSA_OBJECT tmpNewObj;
    if (KOLV_APPEND_IF(!tmpNewObj.Set(jsParm))) return false;
    strNewVer = tmpNewObj.get_version();
    return true;
}

namespace {

// Text keys are copied as they are; JSON keys must parse; numbers are
// decimal. A value that does not convert is a bad request.
bool HashToSetParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    const char *pParm = NULL;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "ns")))) return false;
    jParm["ns"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "id")))) return false;
    jParm["id"] = pParm;
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "requester")) &&
        !kolv::HashRequester(pParm, jParm["requester"])) {
        return false;
    }
    for (const char *szKey : {"ctime", "mtime"}) {
        if (NULL == (pParm = TRABCSzHashGetValue(pParmHash, szKey))) continue;
        char *endPtr = NULL;
        long long value = strtoll(pParm, &endPtr, 10);
        if (KOLV_FAIL_IF(1007, endPtr && *endPtr)) return false;
        jParm[szKey] = (Json::Int64)value;
    }
    for (const char *szKey : {"version", "parent_id"}) {
        if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, szKey))) jParm[szKey] = pParm;
    }
    for (const char *szKey : {"text", "metatext", "binary_files", "metabinary_files", "commit_msg"}) {
        if (NULL == (pParm = TRABCSzHashGetValue(pParmHash, szKey))) continue;
        kolv::KolvJson jVal;
        if (KOLV_FAIL_IF(1007, !jVal.fromString(pParm))) return false;
        jParm[szKey] = jVal;
    }
    return true;
}

} // namespace

bool KOLVVessaObjectSet(TRABSZHASH *pParmHash, std::string &strNewVer) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return false;
    Json::Value jParm(Json::objectValue);
    if (!HashToSetParm(pParmHash, jParm)) return false;
    if (KOLV_APPEND_IF(!KOLV_VESSA_OBJECT().Set(jParm, strNewVer))) return false;
    return true;
}
