/*
 * binary.cpp - a version's files: staging a request's text fields, binary
 * files and binary info records in the call's scratch folder (with the
 * commit's add and delete lists), reading a version's files back, and the
 * MD5 of a file.
 *
 * Every source is copied into the scratch folder before the commit reads
 * it: a "path" as the requester may open it, an "object" file from the
 * other object's folder without following a link. The scratch folder is
 * the store's alone, so what is committed is what was checked.
 */
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_fs/source_file.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

/* Folders of the scratch folder: the store's alone. */
const kolv::fs::DirSpec kScratchSpec = {0700, UID_ERR, GID_ERR};

/* Text fields: a null value deletes the field's file from the next
 * version, any other value is added as text/NAME with the bytes a JSON
 * file of it would hold. */
bool TextToMemory(kolv::MemFiles &mem, TRABCSzHash *&pDelHash, const Json::Value &jParm) {
    if (!jParm.isMember("text")) return true;
    if (KOLV_FAIL_IF(1007, !jParm["text"].isObject())) return false;
    for (Json::Value::const_iterator itr = jParm["text"].begin(); itr != jParm["text"].end(); ++itr) {
        std::string strFileNameEncode;
        if (KOLV_APPEND_IF(!KOLVVessaEncode(itr.name(), strFileNameEncode))) return false;
        std::string strRelativePath = "text/" + strFileNameEncode;
        if (itr->isNull()) {
            if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pDelHash, strRelativePath.c_str(), "delete"))) return false;
            continue;
        }
        mem[strRelativePath] = kolv::JsonToString(*itr);
    }
    return true;
}

/* Adds the binary file and its info record {"format","md5"} to the
 * commit. */
bool AddBinary(TRABCSzHash *&pAddHash, kolv::MemFiles &mem, const std::string &strEncoded,
               const std::string &strBinaryPath, const Json::Value &jInfo) {
    std::string strRelativeBinaryPath = "binary/" + strEncoded;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pAddHash, strRelativeBinaryPath.c_str(), strBinaryPath.c_str())))
        return false;
    mem["binary_info/" + strEncoded] = kolv::JsonToString(jInfo);
    return true;
}

/* A file taken from item["path"] as the requester may read it, copied
 * into the scratch folder, with the MD5 of the copy. */
bool BinaryFromPath(TRABCSzHash *&pAddHash, kolv::MemFiles &mem, const Json::Value &jItem,
                    const std::string &strEncoded, const std::string &strBinaryFolder, uid_t requester) {
    if (KOLV_FAIL_IF(1007, !jItem["path"].isString())) return false;
    std::string strSource = jItem["path"].asString();
    std::string strBinaryPath = strBinaryFolder + "/" + strEncoded;
    kolv::Fd fdAsRequester(kolv::OpenSourceFile(strSource, requester));
    if (KOLV_FAIL_IF(1023, 0 > fdAsRequester.get())) return false;
    if (KOLV_FAIL_IF(1003, !kolv::fs::CopyFromFd(fdAsRequester.get(), strBinaryPath))) return false;
    std::string strMD5;
    if (KOLV_APPEND_IF(!KOLVVessaObjectEvalFileMd5(strBinaryPath.c_str(), strMD5))) return false;
    Json::Value jInfo;
    jInfo["format"] = jItem["format"];
    jInfo["md5"] = strMD5;
    return AddBinary(pAddHash, mem, strEncoded, strBinaryPath, jInfo);
}

/* A file of another object's current version, copied into the scratch
 * folder without following a link, with the MD5 its info records. */
bool BinaryFromObject(TRABCSzHash *&pAddHash, kolv::MemFiles &mem, const Json::Value &jPathInfo,
                      const std::string &strEncoded, const std::string &strBinaryFolder) {
    std::string strSource = jPathInfo[KOLVVES_BIN_PATH].asString() + "/" + strEncoded;
    std::string strSourceInfo = jPathInfo[KOLVVES_BIN_INFO_PATH].asString() + "/" + strEncoded;
    std::string strBinaryPath = strSource, strBinaryInfoPath = strSourceInfo;
    if (KOLV_APPEND_IF(!TRABCFileExist(strBinaryPath.c_str()))) return false;
    if (KOLV_APPEND_IF(!TRABCFileExist(strBinaryInfoPath.c_str()))) return false;
    Json::Value jObjTmp;
    if (!kolv::JsonFromFile(jObjTmp, strSourceInfo) || !jObjTmp.isObject()) jObjTmp = Json::Value();
    if (KOLV_APPEND_IF(!jObjTmp.isMember("md5"))) return false;
    kolv::Fd fdSource(kolv::fs::OpenFile(strSource, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat st;
    if (KOLV_FAIL_IF(1002, 0 > fdSource.get() || 0 != fstat(fdSource.get(), &st) || !S_ISREG(st.st_mode))) return false;
    std::string strCopy = strBinaryFolder + "/" + strEncoded;
    if (KOLV_FAIL_IF(1003, !kolv::fs::CopyFromFd(fdSource.get(), strCopy))) return false;
    Json::Value jInfo;
    jInfo["format"] = "raw";
    jInfo["md5"] = jObjTmp["md5"];
    return AddBinary(pAddHash, mem, strEncoded, strCopy, jInfo);
}

bool BinaryDelete(TRABCSzHash *&pDelHash, const std::string &strEncoded) {
    std::string strRelativeBinaryPath = "binary/" + strEncoded;
    std::string strRelativeBinaryInfoPath = "binary_info/" + strEncoded;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pDelHash, strRelativeBinaryPath.c_str(), "delete"))) return false;
    if (KOLV_FAIL_IF(1036, 0 > TRABCSzHashSetValue(&pDelHash, strRelativeBinaryInfoPath.c_str(), "delete")))
        return false;
    return true;
}

/* The version's files of one folder ("text/NAME" -> content) by decoded
 * name, only those named in pjOnly when it is an object. */
bool FolderFiles(const std::map<std::string, std::string> &files, const char *szDir, const Json::Value *pjOnly,
                 std::map<std::string, const std::string *> &out) {
    std::string strPrefix = std::string(szDir) + "/";
    for (auto it = files.lower_bound(strPrefix);
         it != files.end() && 0 == it->first.compare(0, strPrefix.size(), strPrefix); ++it) {
        std::string strName;
        if (KOLV_APPEND_IF(!KOLVVessaDecode(it->first.substr(strPrefix.size()), strName))) return false;
        if (pjOnly && pjOnly->isObject() && !pjOnly->isMember(strName)) continue;
        out[strName] = &it->second;
    }
    return true;
}

} // namespace

namespace kolv {
namespace nofollow {

/* fopen for reading that never follows a link below the repository root
 * and never blocks on a FIFO: within this namespace it stands for the C
 * library's. */
FILE *fopen(const char *szPath, const char *szMode) {
    Fd fd(fs::OpenFile(szPath, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (0 > fd.get()) return NULL;
    FILE *pFile = fdopen(fd.get(), szMode);
    if (pFile) fd.release();
    return pFile;
}

bool EvalFileMd5(const char *szPath, std::string &strMd5) {
    FILE *inFile = NULL;
    // clang-format off
    if (KOLV_FAIL_IF(1002, NULL == (inFile = fopen (szPath, "rb")))) return false;
    // clang-format on
    File pFile(inFile);
    MdCtx pCtx(EVP_MD_CTX_new());
    if (KOLV_FAIL_IF(1014, NULL == pCtx)) return false;
    if (KOLV_FAIL_IF(1000, 1 != EVP_DigestInit_ex(pCtx.get(), EVP_md5(), NULL))) return false;
    unsigned char rgBuf[65536];
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

} // namespace nofollow
} // namespace kolv

bool KOLVVessaObjectEvalFileMd5(const char *szPath, std::string &strMd5) {
    return kolv::nofollow::EvalFileMd5(szPath, strMd5);
}

bool KOLVVESSA_BACKEND_FS::KOLVVessaObjectVersionDataToDisk(TRABCSzHash *&pAddHash, TRABCSzHash *&pDelHash,
                                                            kolv::MemFiles &mem, const Json::Value &jParm,
                                                            const std::string &strDir) {
    if (!TextToMemory(mem, pDelHash, jParm)) return false;
    if (!jParm.isMember("binary_files")) return true;
    if (KOLV_FAIL_IF(1007, !jParm["binary_files"].isArray())) return false;
    std::string strBinaryFolder = strDir + "/binary";
    uid_t requester = kolv::RequesterOf(jParm);
    for (Json::ArrayIndex idx = 0; idx < jParm["binary_files"].size(); idx++) {
        const Json::Value &jItem = jParm["binary_files"][idx];
        if (KOLV_FAIL_IF(1007, !jItem.isObject() || !jItem["name"].isString())) return false;
        std::string strFileNameEncode;
        if (KOLV_APPEND_IF(!KOLVVessaEncode(jParm["binary_files"][idx]["name"].asString(), strFileNameEncode)))
            return false;
        std::string strFormat = jItem["format"].isString() ? jItem["format"].asString() : "";
        if ("delete" == strFormat) {
            if (!BinaryDelete(pDelHash, strFileNameEncode)) return false;
            continue;
        }
        // Binary files are copied into the scratch folder: what is
        // committed is what its MD5 was taken of.
        kolv::Fd fdBinary(kolv::fs::MakeDirs(strBinaryFolder, kScratchSpec));
        if (KOLV_FAIL_IF(1032, 0 > fdBinary.get())) return false;
        if ("object" != strFormat) {
            if (!BinaryFromPath(pAddHash, mem, jItem, strFileNameEncode, strBinaryFolder, requester)) return false;
        } else {
            Json::Value jPathInfoTmp;
            if (KOLV_APPEND_IF(!mf_GetBinaryObjectPath(jItem, jPathInfoTmp))) return false;
            if (!BinaryFromObject(pAddHash, mem, jPathInfoTmp, strFileNameEncode, strBinaryFolder)) return false;
        }
    }
    return true;
}

bool KOLVVESSA_BACKEND_FS::mf_VersionDataFromFiles(const std::map<std::string, std::string> &files,
                                                   KOLV_VESSA_OBJECT *pObject) {
    const Json::Value &jParm = m_jParm;
    const Json::Value &jField = jParm.isMember("field") && jParm["field"].isObject() ? jParm["field"] : Json::Value();
    Json::Value jText;
    const Json::Value &jTextSel = jField.isObject() ? jField["text"] : Json::Value::nullSingleton();
    if ((jTextSel.isBool() && jTextSel.asBool()) || jTextSel.isObject()) {
        jText = Json::Value(Json::objectValue);
        std::map<std::string, const std::string *> texts;
        if (KOLV_APPEND_IF(!FolderFiles(files, "text", &jTextSel, texts))) return false;
        for (const auto &text : texts) {
            if (KOLV_FAIL_IF(1003, !kolv::JsonFromString(jText[text.first], *text.second))) return false;
        }
    }
    Json::Value jBinaryInfo(Json::objectValue);
    const Json::Value *pjOnly = jField.isObject() && jField.isMember("binary_info") ? &jField["binary_info"] : NULL;
    std::map<std::string, const std::string *> infos;
    if (KOLV_APPEND_IF(!FolderFiles(files, "binary_info", pjOnly, infos))) return false;
    for (const auto &info : infos) {
        Json::Value jRecord;
        // A record that does not parse is skipped, as a folder of them is read.
        if (kolv::JsonFromString(jRecord, *info.second)) jBinaryInfo[info.first] = jRecord;
    }
    if (pObject) {
        pObject->set_text(jText);
        pObject->set_binary_info(jBinaryInfo);
    }
    return true;
}
