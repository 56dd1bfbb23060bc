/*
 * Downloading one binary file of an object: the requester must be able to
 * read the object (any permission, "ro" included); the file store writes
 * the CGI response.
 */
#include <memory>
#include <string>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

bool CheckDownloadParm(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm["id"].isString() || !jParm.isMember("segment") || !jParm["segment"].isString() ||
                               !jParm.isMember("field") || !jParm["field"].isString() || !jParm.isMember("format") ||
                               !jParm["format"].isString() || !jParm.isMember("requester") ||
                               !jParm["requester"].isIntegral())) {
        return false;
    }
    // The optional members are texts; anything else is a bad request, not
    // a silent default.
    for (const char *szKey : {"version", "mode", "filename", "HTTP_IF_NONE_MATCH", "HTTP_RANGE", "REQUEST_METHOD"}) {
        if (KOLV_FAIL_IF(1007, jParm.isMember(szKey) && !jParm[szKey].isString())) return false;
    }
    return kolv::CheckRequest(jParm);
}

} // namespace

bool KOLV_VESSA_OBJECT::Download(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1014, NULL == m_impl)) return false;
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackendFs(RegisterBackend::New("fs"));
    if (KOLV_FAIL_IF(1010, NULL == pBackendFs)) return false;
    return KOLV_NO_THROW(false, [&]() -> bool {
        if (!CheckDownloadParm(jParm)) return false;
        // The read applies the namespace switch, the owner and sharing
        // checks; whatever permission it finds is enough.
        Json::Value jGetParm(Json::objectValue);
        jGetParm["ns"] = jParm["ns"];
        jGetParm["id"] = jParm["id"];
        jGetParm["requester"] = jParm["requester"];
        jGetParm["field"] = Json::Value(Json::objectValue);
        KOLV_VESSA_OBJECT tmpObj;
        if (KOLV_APPEND_IF(!tmpObj.Get(jGetParm))) return false;
        if (KOLV_APPEND_IF(!pBackendFs->Download(jParm))) return false;
        return true;
    });
}

namespace {

// Calls the member the way the plain entry reports it.
class DownloadEntry : public KOLV_VESSA_OBJECT {
  public:
    bool Run(const Json::Value &jParm) {
        if (KOLV_APPEND_IF(!KOLV_VESSA_OBJECT::Download(jParm))) return false;
        return true;
    }
};

bool HashToDownloadParm(TRABSZHASH *pParmHash, Json::Value &jParm) {
    const char *pParm = NULL;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "ns")))) return false;
    jParm["ns"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "id")))) return false;
    jParm["id"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "segment")))) return false;
    jParm["segment"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "field")))) return false;
    jParm["field"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "format")))) return false;
    jParm["format"] = pParm;
    if (KOLV_FAIL_IF(1007, NULL == (pParm = TRABCSzHashGetValue(pParmHash, "requester")))) return false;
    if (!kolv::HashRequester(pParm, jParm["requester"])) return false;
    for (const char *szKey : {"version", "mode", "filename", "HTTP_IF_NONE_MATCH", "HTTP_RANGE", "REQUEST_METHOD"}) {
        if (NULL != (pParm = TRABCSzHashGetValue(pParmHash, szKey))) jParm[szKey] = pParm;
    }
    return true;
}

} // namespace

bool KOLVVessaObjectDownload(TRABSZHASH *pParmHash) {
    if (KOLV_FAIL_IF(1015, NULL == pParmHash)) return false;
    Json::Value jParm(Json::objectValue);
    if (!HashToDownloadParm(pParmHash, jParm)) return false;
    return DownloadEntry().Run(jParm);
}
