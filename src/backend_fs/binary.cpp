/*
 * binary.cpp - a version's files on disk: writing a request's text fields
 * and binary info records into a folder (with the commit's add and delete
 * lists), reading them back, and the MD5 of a file.
 *
 * Binary files themselves are never copied: the commit takes each blob
 * straight from its source path and the checkout puts it in the work
 * tree.
 */
#include <glob.h>
#include <openssl/evp.h>
#include <stdio.h>

#include <memory>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

struct MdCtxFree {
    void operator()(EVP_MD_CTX *p) const { EVP_MD_CTX_free(p); }
};

struct GlobFree {
    void operator()(glob_t *p) const { globfree(p); }
};

/* Text fields: a null value deletes the field's file from the next
 * version, any other value is written to strDir/text/NAME and added. */
bool TextToDisk(TRABCSzHash *&pAddHash, TRABCSzHash *&pDelHash, const Json::Value &jParm, const std::string &strDir,
                uid_t owner) {
    if (!jParm.isMember("text")) return true;
    if (KOLV_FAIL_IF(1007, !jParm["text"].isObject())) return false;
    std::string strTextFolder = strDir + "/text";
    for (Json::Value::const_iterator itr = jParm["text"].begin(); itr != jParm["text"].end(); ++itr) {
        std::string strFileNameEncode;
        if (KOLV_APPEND_IF(!KOLVVessaEncode(itr.name(), strFileNameEncode))) return false;
        std::string strRelativePath = "text/" + strFileNameEncode;
        if (itr->isNull()) {
            if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pDelHash, strRelativePath.c_str(), "delete"))) return false;
            continue;
        }
        if (KOLV_FAIL_IF(1032, 0 > KOLVFSMkdirP(strTextFolder.c_str(), NULL, TRUE, owner, GID_USERS, -1))) return false;
        std::string strFilePath = strTextFolder + "/" + strFileNameEncode;
        if (KOLV_APPEND_IF(!KOLVVessaJsonToFile(*itr, strFilePath))) return false;
        if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pAddHash, strRelativePath.c_str(), strFilePath.c_str())))
            return false;
    }
    return true;
}

/* Writes the info record {"format","md5"} and adds the binary file and
 * its info to the commit. */
bool AddBinary(TRABCSzHash *&pAddHash, const std::string &strEncoded, const std::string &strBinaryPath,
               const Json::Value &jInfo, const std::string &strBinaryInfoFolder) {
    std::string strRelativeBinaryPath = "binary/" + strEncoded;
    std::string strRelativeBinaryInfoPath = "binary_info/" + strEncoded;
    std::string strInfoPath = strBinaryInfoFolder + "/" + strEncoded;
    if (KOLV_APPEND_IF(!KOLVVessaJsonToFile(jInfo, strInfoPath))) return false;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pAddHash, strRelativeBinaryPath.c_str(), strBinaryPath.c_str())))
        return false;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pAddHash, strRelativeBinaryInfoPath.c_str(), strInfoPath.c_str())))
        return false;
    return true;
}

/* A file taken from item["path"], with its MD5. */
bool BinaryFromPath(TRABCSzHash *&pAddHash, const Json::Value &jItem, const std::string &strEncoded,
                    const std::string &strBinaryInfoFolder) {
    if (KOLV_FAIL_IF(1007, !jItem["path"].isString())) return false;
    std::string strBinaryPath = jItem["path"].asString();
    std::string strMD5;
    if (KOLV_APPEND_IF(!KOLVVessaObjectEvalFileMd5(strBinaryPath.c_str(), strMD5))) return false;
    Json::Value jInfo;
    jInfo["format"] = jItem["format"];
    jInfo["md5"] = strMD5;
    return AddBinary(pAddHash, strEncoded, strBinaryPath, jInfo, strBinaryInfoFolder);
}

bool BinaryDelete(TRABCSzHash *&pDelHash, const std::string &strEncoded) {
    std::string strRelativeBinaryPath = "binary/" + strEncoded;
    std::string strRelativeBinaryInfoPath = "binary_info/" + strEncoded;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pDelHash, strRelativeBinaryPath.c_str(), "delete"))) return false;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pDelHash, strRelativeBinaryInfoPath.c_str(), "delete")))
        return false;
    return true;
}

bool ParseTextFile(const std::string &strPath, Json::Value &jValue) {
    return !KOLV_FAIL_IF(1003, !kolv::JsonFromFile(jValue, strPath));
}

/* Every file of strRepoDir/text, by decoded name. */
bool KOLVVessaObjectGetTextByAll(const std::string &strRepoDir, Json::Value &jText) {
    glob_t tGlob = {};
    std::unique_ptr<glob_t, GlobFree> pGlob(&tGlob);
    // A version without text fields has no "text" folder at all: git
    // keeps no empty folders, so its absence means no fields, not a fault.
    std::string strTextDir = strRepoDir + "/text";
    if (!TRABCFileExist(strTextDir.c_str())) return true;
    std::string strPattern = strTextDir + "/*";
    int rv = glob(strPattern.c_str(), GLOB_ERR, NULL, &tGlob);
    if (GLOB_NOMATCH == rv) return true;
    if (0 != rv) {
        KOLV_FAIL_FMT(1000, "glob fail, path=%s, rv=%d", strPattern.c_str(), rv);
        return false;
    }
    for (size_t i = 0; i < tGlob.gl_pathc; i++) {
        std::string strPath = tGlob.gl_pathv[i];
        std::string strFileNameEncode = strPath.substr(strPath.rfind('/') + 1);
        std::string strName;
        if (KOLV_APPEND_IF(!KOLVVessaDecode(strFileNameEncode, strName))) return false;
        if (!ParseTextFile(strPath, jText[strName])) return false;
    }
    return true;
}

/* The fields named in jSelect; a name without a file is skipped. */
bool KOLVVessaObjectGetTextByObject(const Json::Value &jSelect, const std::string &strRepoDir, Json::Value &jText) {
    for (Json::Value::const_iterator itr = jSelect.begin(); itr != jSelect.end(); ++itr) {
        std::string strFileNameEncode;
        if (KOLV_APPEND_IF(!KOLVVessaEncode(itr.name(), strFileNameEncode))) return false;
        std::string strPath = strRepoDir + "/text/" + strFileNameEncode;
        if (!TRABCFileExist(strPath.c_str())) continue;
        if (!ParseTextFile(strPath, jText[itr.name()])) return false;
    }
    return true;
}

} // namespace

bool KOLVVessaObjectEvalFileMd5(const char *szPath, std::string &strMd5) {
    FILE *inFile = NULL;
    // clang-format off
    if (KOLV_FAIL_IF(1002, NULL == (inFile = fopen (szPath, "rb")))) return false;
    // clang-format on
    kolv::File pFile(inFile);
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> pCtx(EVP_MD_CTX_new());
    if (KOLV_FAIL_IF(1014, NULL == pCtx)) return false;
    if (KOLV_FAIL_IF(1000, 1 != EVP_DigestInit_ex(pCtx.get(), EVP_md5(), NULL))) return false;
    unsigned char rgBuf[1024];
    size_t cbRead = 0;
    while (0 < (cbRead = fread(rgBuf, 1, sizeof(rgBuf), inFile))) {
        if (KOLV_FAIL_IF(1000, 1 != EVP_DigestUpdate(pCtx.get(), rgBuf, cbRead))) return false;
    }
    if (KOLV_FAIL_IF(1003, ferror(inFile))) return false;
    unsigned char rgDigest[EVP_MAX_MD_SIZE];
    unsigned int cbDigest = 0;
    if (KOLV_FAIL_IF(1000, 1 != EVP_DigestFinal_ex(pCtx.get(), rgDigest, &cbDigest))) return false;
    static const char szHex[] = "0123456789abcdef";
    strMd5.clear();
    for (unsigned int i = 0; i < cbDigest; i++) {
        strMd5 += szHex[rgDigest[i] >> 4];
        strMd5 += szHex[rgDigest[i] & 0xf];
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::KOLVVessaObjectVersionDataToDisk(TRABCSzHash *&pAddHash, TRABCSzHash *&pDelHash,
                                                            const Json::Value &jParm, const std::string &strDir) {
    uid_t owner = (uid_t)jParm["owner"].asUInt();
    if (!TextToDisk(pAddHash, pDelHash, jParm, strDir, owner)) return false;
    if (!jParm.isMember("binary_files")) return true;
    if (KOLV_FAIL_IF(1007, !jParm["binary_files"].isArray())) return false;
    std::string strBinaryFolder = strDir + "/binary";
    std::string strBinaryInfoFolder = strDir + "/binary_info";
    for (Json::ArrayIndex idx = 0; idx < jParm["binary_files"].size(); idx++) {
        const Json::Value &jItem = jParm["binary_files"][idx];
        if (KOLV_FAIL_IF(1007, !jItem.isObject() || !jItem["name"].isString())) return false;
        std::string strFileNameEncode;
        if (KOLV_APPEND_IF(!KOLVVessaEncode(jParm["binary_files"][idx]["name"].asString(), strFileNameEncode)))
            return false;
        if (KOLV_FAIL_IF(1032, 0 > KOLVFSMkdirP(strBinaryFolder.c_str(), NULL, TRUE, owner, GID_USERS, -1)) ||
            KOLV_FAIL_IF(1032, 0 > KOLVFSMkdirP(strBinaryInfoFolder.c_str(), NULL, TRUE, owner, GID_USERS, -1)))
            return false;
        std::string strFormat = jItem["format"].isString() ? jItem["format"].asString() : "";
        if ("delete" == strFormat) {
            if (!BinaryDelete(pDelHash, strFileNameEncode)) return false;
        } else if ("object" != strFormat) {
            if (!BinaryFromPath(pAddHash, jItem, strFileNameEncode, strBinaryInfoFolder)) return false;
        } else {
            // The file of another object's current version, with its MD5.
            Json::Value jPathInfoTmp, jObjTmp;
            if (KOLV_APPEND_IF(!mf_GetBinaryObjectPath(jParm["binary_files"][idx], jPathInfoTmp))) return false;
            std::string strBinaryPath = jPathInfoTmp[KOLVVES_BIN_PATH].asString() + "/" + strFileNameEncode;
            std::string strBinaryInfoPath = jPathInfoTmp[KOLVVES_BIN_INFO_PATH].asString() + "/" + strFileNameEncode;
            if (KOLV_APPEND_IF(!TRABCFileExist(strBinaryPath.c_str()))) return false;
            if (KOLV_APPEND_IF(!TRABCFileExist(strBinaryInfoPath.c_str()))) return false;
            if (!kolv::JsonFromFile(jObjTmp, strBinaryInfoPath) || !jObjTmp.isObject()) jObjTmp = Json::Value();
            if (KOLV_APPEND_IF(!jObjTmp.isMember("md5"))) return false;
            Json::Value jInfo;
            jInfo["format"] = "raw";
            jInfo["md5"] = jObjTmp["md5"];
            if (!AddBinary(pAddHash, strFileNameEncode, strBinaryPath, jInfo, strBinaryInfoFolder)) return false;
        }
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_VersionDataFromDisk(const std::string &strRepoDir, KOLV_VESSA_OBJECT *pObject) {
    const Json::Value &jParm = m_jParm;
    const Json::Value &jField = jParm.isMember("field") && jParm["field"].isObject() ? jParm["field"] : Json::Value();
    Json::Value jText;
    if (jField.isMember("text") && jField["text"].isBool() && jField["text"].asBool()) {
        jText = Json::Value(Json::objectValue);
        if (KOLV_APPEND_IF(!KOLVVessaObjectGetTextByAll(strRepoDir, jText))) return false;
    } else if (jField.isMember("text") && jField["text"].isObject()) {
        jText = Json::Value(Json::objectValue);
        if (KOLV_APPEND_IF(!KOLVVessaObjectGetTextByObject(m_jParm["field"]["text"], strRepoDir, jText))) return false;
    }
    Json::Value jBinaryInfo(Json::objectValue);
    std::string strBinaryPath = strRepoDir + "/binary_info";
    if (KOLV_APPEND_IF(!mf_GetBinaryInfoByDir(strBinaryPath, jBinaryInfo, "binary_info"))) return false;
    if (pObject) {
        pObject->set_text(jText);
        pObject->set_binary_info(jBinaryInfo);
    }
    return true;
}
