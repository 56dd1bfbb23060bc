/*
 * Copying an object: a creation record is built from the source object as
 * the requester reads it, and created as a new object of the requester.
 */
#include <stdlib.h>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

// The info members may hold their serialised text (as fromJson keeps
// them) or the object itself.
Json::Value InfoObject(const Json::Value &jInfo) {
    kolv::KolvJson jObj;
    if (jInfo.isString() && jObj.fromString(jInfo.asString()) && jObj.isObject()) return jObj;
    return jInfo.isObject() ? jInfo : Json::Value(Json::objectValue);
}

// Binary files are taken from the source's current version by reference;
// the store re-reads them and their digests.
Json::Value CopyBinaryFiles(const KOLV_VESSA_OBJECT &srcObj) {
    Json::Value jFiles(Json::arrayValue);
    Json::Value jInfo = InfoObject(srcObj.get_binary_info());
    for (const std::string &strName : jInfo.getMemberNames()) {
        Json::Value jItem(Json::objectValue);
        jItem["name"] = strName;
        jItem["format"] = "object";
        jItem["id"] = srcObj.get_id();
        jFiles.append(jItem);
    }
    return jFiles;
}

// Meta binary files are copied from the source's meta binary folder.
Json::Value CopyMetaBinaryFiles(const KOLV_VESSA_OBJECT &srcObj) {
    Json::Value jFiles(Json::arrayValue);
    Json::Value jInfo = InfoObject(srcObj.get_metabinary_info());
    for (const std::string &strName : jInfo.getMemberNames()) {
        std::string strPath;
        if (!KOLVVessaGetMetaBinaryPath(srcObj.get_ns(), srcObj.get_id(), strName, strPath)) continue;
        Json::Value jItem(Json::objectValue);
        jItem["name"] = strName;
        jItem["format"] = jInfo[strName].isObject() && jInfo[strName]["format"].isString()
                              ? jInfo[strName]["format"].asString()
                              : std::string("raw");
        jItem["path"] = strPath;
        jFiles.append(jItem);
    }
    return jFiles;
}

// The copy goes under the named parent, else under the source's parent
// when the requester owns the source, else under the requester's root.
// Create inherits the ACL of a non-root parent; the source's own ACL is
// not copied.
std::string CopyParent(const Json::Value &jParm, const KOLV_VESSA_OBJECT &srcObj) {
    if (jParm.isMember("parent_id") && jParm["parent_id"].isString()) return jParm["parent_id"].asString();
    uid_t requester = (uid_t)jParm["requester"].asInt64();
    if (UID_ROOT == requester || srcObj.get_owner() == requester) return srcObj.get_parent_id();
    return KOLVVessaObjectDefaultID(requester);
}

bool PrepareCopyParm(const Json::Value &jParm, Json::Value &jCreateParm) {
    KOLV_VESSA_OBJECT srcObj;
    Json::Value jGetParm = kolv::WholeObjectParm(jParm);
    if (KOLV_APPEND_IF(!srcObj.Get(jGetParm))) return false;
    jCreateParm = Json::Value(Json::objectValue);
    jCreateParm["ns"] = jParm["ns"];
    jCreateParm["category"] = srcObj.get_category();
    jCreateParm["requester"] = jParm["requester"];
    jCreateParm["owner"] = (Json::UInt64)srcObj.get_owner(); // only requester 0 keeps it
    jCreateParm["parent_id"] = CopyParent(jParm, srcObj);
    if (srcObj.get_text().isObject()) jCreateParm["text"] = srcObj.get_text();
    if (srcObj.get_metatext().isObject()) jCreateParm["metatext"] = srcObj.get_metatext();
    Json::Value jBinary = CopyBinaryFiles(srcObj), jMetaBinary = CopyMetaBinaryFiles(srcObj);
    if (!jBinary.empty()) jCreateParm["binary_files"] = jBinary;
    if (!jMetaBinary.empty()) jCreateParm["metabinary_files"] = jMetaBinary;
    if (jParm.isMember("commit_msg")) jCreateParm["commit_msg"] = jParm["commit_msg"];
    return true;
}

} // namespace

bool KOLV_VESSA_OBJECT::Copy(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    bool blOk = KOLV_NO_THROW(false, [&]() -> bool {
        if (!kolv::CheckObjectMembers(jParm)) return false;
        if (!kolv::CheckRequest(jParm)) return false;
        if (KOLV_APPEND_IF(FALSE == KOLVVessaObjectIDIsValid(jParm["id"].asCString()))) return false;
        Json::Value jCreateParm;
        if (KOLV_APPEND_IF(!PrepareCopyParm(jParm, jCreateParm))) return false;
        if (KOLV_APPEND_IF(!Create(jCreateParm))) return false;
        return true;
    });
    if (!blOk) {
        KOLV_OBJECT_SYSLOG("Failed to copy id:[%s] by requester [%u]",
                           jParm.isObject() && jParm["id"].isString() ? jParm["id"].asCString() : "",
                           jParm.isObject() && kolv::IsUidValue(jParm["requester"]) ? jParm["requester"].asUInt()
                                                                                    : (unsigned)UID_ERR);
    }
    return blOk;
}

bool KOLV_VESSA_OBJECT::Copy(const Json::Value &jsParm, std::string &strNewID, std::string &strNewVer) {
    KOLV_VESSA_OBJECT tmpNewObj;
    if (KOLV_APPEND_IF(!tmpNewObj.Copy(jsParm))) return false;
    strNewID = tmpNewObj.get_id();
    strNewVer = tmpNewObj.get_version();
    return true;
}

namespace {

// Calls the member the way the plain entry has always reported it.
class CopyEntry : public KOLV_VESSA_OBJECT {
  public:
    bool Run(const Json::Value &jParm, std::string &strNewID, std::string &strNewVer) {
        if (KOLV_APPEND_IF(!KOLV_VESSA_OBJECT::Copy(jParm, strNewID, strNewVer))) return false;
        return true;
    }
};

bool HashToCopyParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    if (!kolv::HashToObjectParm(pParmHash, jParm)) return false;
    const char *pParm = NULL;
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "parent_id"))) jParm["parent_id"] = pParm;
    if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, "commit_msg"))) {
        kolv::KolvJson jMsg;
        if (KOLV_FAIL_IF(1007, !jMsg.fromString(pParm))) return false;
        jParm["commit_msg"] = jMsg;
    }
    return true;
}

} // namespace

bool KOLVVessaObjectCopy(TRABSZHASH *pParmHash, std::string &strNewID, std::string &strNewVer) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return false;
    Json::Value jParm(Json::objectValue);
    if (!HashToCopyParm(pParmHash, jParm)) return false;
    CopyEntry entry;
    return entry.Run(jParm, strNewID, strNewVer);
}
