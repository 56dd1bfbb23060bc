/*
 * meta.cpp - basic.json and metatext.json: reading them into the object
 * record, and the per-key merge that writes them.
 *
 * Every key of "basic" and "metatext" carries in "auto_mtime" the request
 * time of its last change, and an older request never overwrites a newer
 * value. Equal times lose: the first writer of a second keeps the key. The
 * ACL is the one exception and is applied whatever the times. A removed
 * key's "auto_mtime" entry stays behind.
 */
#include <errno.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_object.h"

bool KOLVVESSA_BACKEND_FS::mf_GetJsonFile(const char *szType, Json::Value &jOut) {
    if (KOLV_FAIL_IF(1015, !szType || 0 == szType[0])) return false;
    if (KOLV_FAIL_IF(1015, 0 != strcmp(szType, KOLVVES_BASIC) && 0 != strcmp(szType, KOLVVES_META_TEXT) &&
                               0 != strcmp(szType, KOLVVES_GIT_INFO)))
        return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(szType))) return false;
    // A missing file is no failure: a new object has none yet. One that
    // cannot be read is: taken as empty, a merge would write back a file
    // that lost every other member.
    std::string strText;
    if (!kolv::fs::ReadFile(m_jPathInfo[szType].asString(), strText)) {
        if (KOLV_FAIL_IF(1003, ENOENT != errno)) return false;
        return true;
    }
    kolv::JsonFromString(jOut, strText);
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetJsonFile(const char *szType, KOLV_VESSA_OBJECT *pObject) {
    Json::Value jTmp;
    if (KOLV_APPEND_IF(!mf_GetJsonFile(szType, jTmp))) return false;
    bool blBasic = 0 == strcmp(szType, KOLVVES_BASIC);
    if (!blBasic && 0 != strcmp(szType, KOLVVES_META_TEXT)) {
        syslog(LOG_ERR, "%s:%d bad type=%s\n", __FILE__, __LINE__, szType);
        return false;
    }
    if (KOLV_FAIL_IF(1015, NULL == pObject)) return false;
    const char *szKey = blBasic ? "basic" : KOLVVES_META_TEXT_KEY;
    if (!jTmp.isObject() || !jTmp.isMember(szKey)) {
        pObject->fromJson(Json::Value(Json::objectValue));
        return true;
    }
    // basic.json gives its fields; metatext.json is its own record form
    // (the member "metatext").
    pObject->fromJson(blBasic ? jTmp["basic"] : jTmp);
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetBasic(KOLV_VESSA_OBJECT *pObject) {
    if (KOLV_APPEND_IF(!mf_GetJsonFile(KOLVVES_BASIC, pObject))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetMetaText(KOLV_VESSA_OBJECT *pObject) {
    if (KOLV_APPEND_IF(!mf_GetJsonFile(KOLVVES_META_TEXT, pObject))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_GetConfigFieldFromJson(const char *szType, Json::Value &jOut) {
    if (KOLV_FAIL_IF(1015, !szType || 0 == szType[0])) return false;
    if (KOLV_FAIL_IF(1015, 0 != strcmp(szType, KOLVVES_BASIC) && 0 != strcmp(szType, KOLVVES_META_TEXT))) return false;
    const Json::Value &jParm = m_jParm;
    Json::Value jFields(Json::objectValue);
    for (Json::Value::const_iterator itr = m_jFieldTable.begin(); itr != m_jFieldTable.end(); ++itr) {
        if ((*itr)[0].asString() == szType && jParm.isMember(itr.name())) jFields[itr.name()] = jParm[itr.name()];
    }
    if (0 == strcmp(szType, KOLVVES_BASIC)) {
        jOut["basic"] = jFields;
    } else if (!jFields.empty()) {
        jOut = jFields;
    } else {
        jOut[KOLVVES_META_TEXT_KEY] = Json::Value(Json::objectValue);
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_SetJsonFile(const char *szType) {
    if (KOLV_FAIL_IF(1015, !szType || 0 == szType[0])) return false;
    if (KOLV_FAIL_IF(1015, 0 != strcmp(szType, KOLVVES_BASIC) && 0 != strcmp(szType, KOLVVES_META_TEXT))) return false;
    if (KOLV_FAIL_IF(1015, !m_jPathInfo.isMember(szType))) return false;
    // Read, merge and write: the caller holds the object's lock across all
    // three, or concurrent writers would lose each other's keys.
    Json::Value jOld;
    if (KOLV_APPEND_IF(!mf_GetJsonFile(szType, jOld))) return false;
    if (!jOld.isObject()) jOld = Json::Value(Json::objectValue);
    Json::Value jObj;
    if (KOLV_APPEND_IF(!mf_GetConfigFieldFromJson(szType, jObj))) return false;
    if (KOLV_APPEND_IF(!mf_MergeAndCheckMtime(szType, jOld, jObj))) return false;
    if (KOLV_APPEND_IF(!KOLVVessaJsonToFile(jOld, m_jPathInfo[szType].asString()))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_SaveBasic() {
    if (KOLV_APPEND_IF(!mf_SetJsonFile(KOLVVES_BASIC))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_SaveMetaText() {
    if (KOLV_APPEND_IF(!mf_SetJsonFile(KOLVVES_META_TEXT))) return false;
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_MergeAndCheckMtime(const char *szType, Json::Value &jObj, Json::Value &jNew) {
    if (KOLV_FAIL_IF(1015, !szType || !szType[0])) return false;
    std::string strKey;
    if (0 == strcmp(szType, KOLVVES_META_TEXT)) {
        strKey = KOLVVES_META_TEXT_KEY;
    } else if (0 == strcmp(szType, KOLVVES_BASIC)) {
        strKey = "basic";
    } else {
        KOLV_FAIL_FMT(1015, "incorrect type, szType=%s", szType);
        return false;
    }
    if (!jNew.isMember(strKey)) {
        syslog(LOG_ERR, "%s:%d no info to merge, skip\n", __FILE__, __LINE__);
        return true;
    }
    if (!jObj[strKey].isObject()) jObj[strKey] = Json::Value(Json::objectValue);
    if (0 == jNew[strKey].size()) return true;
    Json::Value::Members jmb = jNew[strKey].getMemberNames();
    for (size_t i = 0; i < jmb.size(); ++i) {
        if (KOLV_APPEND_IF(!mf_OverrideJsonItem(jObj[strKey], jNew[strKey], jmb[i], true, jObj["auto_mtime"], szType)))
            return false;
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_OverrideJsonItem(Json::Value &jObj, Json::Value &jNew, std::string strKey,
                                               bool bCheckMtime, Json::Value &jObjMtime, const char *szType) {
    if (!m_jParm.isMember("mtime")) {
        syslog(LOG_ERR, "%s:%d lost mtime, auto generate\n", __FILE__, __LINE__);
        m_jParm["mtime"] = (Json::Int64)time(NULL);
    }
    if (!jNew.isMember(strKey)) return true;
    const Json::Value &jValue = jNew[strKey];
    if (!jObj.isMember(strKey)) {
        // A new key; a null for a key that is not there has nothing to remove.
        if (jValue.isNull()) return true;
        jObj[strKey] = jValue;
        if (bCheckMtime) jObjMtime[strKey] = m_jParm["mtime"];
        return true;
    }
    if (bCheckMtime) {
        if (KOLV_APPEND_IF(!jObjMtime.isMember(strKey))) return false;
        // The stored change is as new as the request or newer: it stays.
        // The ACL alone is always applied, whatever the times.
        bool blAcl = 0 == strcmp(szType ? szType : "", KOLVVES_BASIC) && "acl" == strKey;
        if (jObjMtime[strKey].asInt64() >= m_jParm["mtime"].asInt64() && !blAcl) return true;
    }
    if (jValue.isNull()) {
        jObj.removeMember(strKey);
    } else {
        jObj[strKey] = jValue;
    }
    if (bCheckMtime) jObjMtime[strKey] = m_jParm["mtime"];
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_SaveConfig(std::string &strNewVer) {
    // In this order, each unit only when the request holds one of its
    // fields; the first failure stops, leaving earlier units written.
    if (mf_NeedToSave(KOLVVES_BASIC) && KOLV_APPEND_IF(!mf_SaveBasic())) return false;
    if (mf_NeedToSave(KOLVVES_META_TEXT) && KOLV_APPEND_IF(!mf_SaveMetaText())) return false;
    if (mf_NeedToSave(KOLVVES_META_BIN) && KOLV_APPEND_IF(!mf_SaveMetaBinary())) return false;
    // Binary files alone make a version too: "binary_files" is a request
    // member, not a field of the table.
    bool blVersion = mf_NeedToSave(KOLVVES_VERSION) || m_jParm.isMember("binary_files");
    if (blVersion && KOLV_APPEND_IF(!mf_SaveGit(strNewVer))) return false;
    return true;
}
