/*
 * metabinary.cpp - the meta binary store: unversioned named files with one
 * JSON info record each. The format and its rules are described in
 * metabinary.h.
 */
#include "backend_fs/metabinary.h"

#include <errno.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/source_file.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

const char *const kFormatDelete = "delete";

/* One item of a request: its place on disk and the stored record's time. */
struct MetaBinaryItem {
    std::string strName;
    std::string strFormat;
    std::string strFile;
    std::string strInfo;
    bool blStored;   // an info record exists
    long long mtime; // its "mtime" (when it has one)
    bool blHasMtime;
};

bool CheckItem(const Json::Value &jItem, Json::Value &jSeen) {
    if (KOLV_FAIL_IF(1007, !jItem.isObject())) return false;
    if (KOLV_FAIL_IF(1007, !jItem["name"].isString() || jItem["name"].asString().empty())) return false;
    if (KOLV_FAIL_IF(1007, jItem.isMember("format") && !jItem["format"].isString())) return false;
    bool blDelete = kFormatDelete == jItem.get("format", "").asString();
    if (KOLV_FAIL_IF(1007, !blDelete && (!jItem["path"].isString() || jItem["path"].asString().empty()))) return false;
    // One request, one time: a second item of a name would always lose.
    if (KOLV_FAIL_IF(1007, jSeen.isMember(jItem["name"].asString()))) return false;
    jSeen[jItem["name"].asString()] = true;
    return true;
}

/* Whether the request time beats the stored record (equal times lose). */
bool RequestIsNewer(const MetaBinaryItem &item, long long requestMtime) {
    return !item.blStored || !item.blHasMtime || item.mtime < requestMtime;
}

bool UnlinkIfThere(const std::string &strPath) {
    if (KOLV_FAIL_IF(1000, 0 != kolv::fs::Unlink(strPath))) return false;
    return true;
}

bool StoreFile(const MetaBinaryItem &item, const Json::Value &jItem, long long requestMtime, uid_t requester) {
    // The source is read as the requester may read it; the copy goes
    // through a temporary file and a rename: a reader sees the old bytes
    // or the new ones, never a part, and never a link's target.
    std::string strSrc = jItem["path"].asString();
    kolv::Fd fdAsRequester(kolv::OpenSourceFile(strSrc, requester));
    if (KOLV_FAIL_IF(1023, 0 > fdAsRequester.get())) return false;
    if (KOLV_FAIL_IF(1003, !kolv::fs::CopyFromFd(fdAsRequester.get(), item.strFile))) return false;
    // The digest of what was stored, not of a source that may change since.
    std::string strMD5;
    if (KOLV_APPEND_IF(!KOLVVessaObjectEvalFileMd5(item.strFile.c_str(), strMD5))) return false;
    struct stat st;
    if (KOLV_FAIL_IF(1000, !kolv::fs::Lstat(item.strFile, st))) return false;
    Json::Value jInfo(Json::objectValue);
    jInfo["name"] = item.strName;
    jInfo["format"] = item.strFormat;
    jInfo["md5"] = strMD5;
    jInfo["size"] = (Json::Int64)st.st_size;
    jInfo["mtime"] = (Json::Int64)requestMtime;
    if (KOLV_APPEND_IF(!KOLVVessaJsonToFile(jInfo, item.strInfo))) return false;
    return true;
}

bool DeleteFile(const MetaBinaryItem &item) {
    // The record first: once it is gone the name is no longer listed.
    if (KOLV_APPEND_IF(!UnlinkIfThere(item.strInfo))) return false;
    if (KOLV_APPEND_IF(!UnlinkIfThere(item.strFile))) return false;
    return true;
}

/* The item's encoded places and the time of its stored record. */
bool LoadItem(const Json::Value &jPathInfo, const Json::Value &jItem, MetaBinaryItem &item) {
    item.strName = jItem["name"].asString();
    item.strFormat = jItem.get("format", "").asString();
    std::string strNameEncode;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(item.strName, strNameEncode))) return false;
    item.strFile = jPathInfo[KOLVVES_META_BIN].asString() + "/" + strNameEncode;
    item.strInfo = jPathInfo[KOLVVES_META_BIN_INFO].asString() + "/" + strNameEncode;
    Json::Value jStored;
    item.blStored = kolv::JsonFromFile(jStored, item.strInfo) && jStored.isObject();
    item.blHasMtime = item.blStored && jStored["mtime"].isIntegral();
    item.mtime = item.blHasMtime ? jStored["mtime"].asInt64() : 0;
    return true;
}

} // namespace

bool KOLVVESSA_BACKEND_FS::mf_SaveMetaBinary() {
    const Json::Value jFiles = m_jParm.get("metabinary_files", Json::Value());
    if (KOLV_FAIL_IF(1007, !jFiles.isArray())) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_META_BIN) || !m_jPathInfo.isMember(KOLVVES_META_BIN_INFO)))
        return false;
    // Every item is checked before the first file is touched.
    Json::Value jSeen(Json::objectValue);
    for (Json::ArrayIndex idx = 0; idx < jFiles.size(); ++idx) {
        if (KOLV_APPEND_IF(!CheckItem(jFiles[idx], jSeen))) return false;
    }
    if (!m_jParm.isMember("mtime")) {
        syslog(LOG_ERR, "%s:%d lost mtime, auto generate\n", __FILE__, __LINE__);
        m_jParm["mtime"] = (Json::Int64)time(NULL);
    }
    long long requestMtime = m_jParm["mtime"].asInt64();
    for (Json::ArrayIndex idx = 0; idx < jFiles.size(); ++idx) {
        MetaBinaryItem item;
        if (KOLV_APPEND_IF(!LoadItem(m_jPathInfo, jFiles[idx], item))) return false;
        if (!RequestIsNewer(item, requestMtime)) {
            syslog(LOG_INFO, "%s:%d meta binary [%s] is newer than the request, skip\n", __FILE__, __LINE__,
                   item.strName.c_str());
            continue;
        }
        if (kFormatDelete == item.strFormat) {
            if (KOLV_APPEND_IF(!DeleteFile(item))) return false;
        } else if (KOLV_APPEND_IF(!StoreFile(item, jFiles[idx], requestMtime, kolv::RequesterOf(m_jParm)))) {
            return false;
        }
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetMetaBinaryInfo(KOLV_VESSA_OBJECT *pObject, bool blAll) {
    if (KOLV_FAIL_IF(1015, NULL == pObject)) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_META_BIN_INFO))) return false;
    std::string strInfoDir = m_jPathInfo[KOLVVES_META_BIN_INFO].asString();
    Json::Value jInfo(Json::objectValue);
    if (blAll) {
        if (KOLV_APPEND_IF(!kolv::ReadInfoDir(strInfoDir, jInfo, NULL))) return false;
    } else if (KOLV_APPEND_IF(!mf_GetBinaryInfoByDir(strInfoDir, jInfo, KOLVVES_META_BIN_INFO))) {
        return false;
    }
    pObject->set_metabinary_info(jInfo);
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetMetaBinaryInfoByName(const std::string &strName, Json::Value &jInfo) {
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(KOLVVES_META_BIN_INFO))) return false;
    std::string strNameEncode;
    if (KOLV_APPEND_IF(!KOLVVessaEncode(strName, strNameEncode))) return false;
    std::string strInfoPath = m_jPathInfo[KOLVVES_META_BIN_INFO].asString() + "/" + strNameEncode;
    if (KOLV_FAIL_IF(1008, !kolv::fs::Exists(strInfoPath))) return false;
    Json::Value jTmp;
    if (KOLV_FAIL_IF(1003, !kolv::JsonFromFile(jTmp, strInfoPath) || !jTmp.isObject())) return false;
    jInfo = jTmp;
    return true;
}
