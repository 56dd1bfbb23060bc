/*
 * kolvvessaBackend_fs.h - the file-store backend: one directory per object
 * (repo/ns/id) with basic.json, metatext.json, git_info.json, the meta
 * binary directories and a git repository "version" for the versioned
 * text fields and binary files.
 *
 * Source files: kolvvessaBackend_fs.cpp (construction, public operations),
 * utils.cpp (mf_init, path info, field selection, directory readers),
 * meta.cpp (the JSON files and their merge), metabinary.cpp (the meta
 * binary store), git.cpp (versions: write, read, list, diff),
 * binary.cpp (a version's files on disk), rename.cpp (field rename),
 * delete.cpp (object delete) and download.cpp (a binary file as a CGI
 * response).
 */
#ifndef KOLVVESSA_BACKEND_FS_H
#define KOLVVESSA_BACKEND_FS_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <map>
#include <string>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_field.h"

namespace kolv {
/* Files of a version given by content: tree path -> bytes. */
typedef std::map<std::string, std::string> MemFiles;
} // namespace kolv

class KOLV_VESSA_OBJECT;
class KOLV_VESSA_OBJECT_VERSION;
namespace kolv {
class ObjectLock;
}

class KOLVVESSA_BACKEND_FS : public KOLVVESSA_BACKEND_OP {
  public:
    KOLVVESSA_BACKEND_FS();
    ~KOLVVESSA_BACKEND_FS() override;

    bool Get(const Json::Value &jParm, KOLV_VESSA_OBJECT *pObject) override;
    int List(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) override;
    /* Writes one binary file ("segment" "binary": of the latest or the
     * request's "version"; "metabinary") as a CGI response on standard
     * output, "format" "base64" or "raw", with an ETag and a one-day
     * expiry; 304 when "HTTP_IF_NONE_MATCH" is the tag. Nothing is printed
     * before the file and its info record are found and opened: 1008 for
     * a missing file, 1002/1003 for one that cannot be opened or read
     * (a link, a FIFO), the version store's codes for a missing version.
     * An unknown segment or format is logged and fails without a code
     * (download.cpp). */
    bool Download(const Json::Value &jParm) override;
    bool Set(const Json::Value &jParm, std::string &strNewVer) override;
    /* Renames "old_field" to "new_field" in "segment" under the object's
     * lock: "text" and "binary" by a commit on "version" (strNewVer the
     * new version), "metatext" and "metabinary" in place (strNewVer the
     * request's "version" when it has one). The new name must be free
     * (1007, or 1037 from the version repository); a missing old name is
     * 1008, a missing object 1008. */
    bool FieldRename(const Json::Value &jParm, std::string &strNewVer) override;
    bool Create(const Json::Value &jParm, std::string &strId, std::string &strNewVer) override;
    /* Moves the object's folder out of the namespace under its lock, then
     * removes it (a folder left behind is logged). No folder is success. */
    bool Delete(const Json::Value &jParm) override;
    bool VersionGet(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION *pVer) override;
    bool VersionDiff(const Json::Value &jParm, Json::Value &jDiff) override;
    int VersionList(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION **ppHead, unsigned int &total,
                    unsigned int &listableTotal) override;

    /* Takes the object's exclusive lock for a change and checks that the
     * folder locked is still the object's: a delete renames the folder
     * away under this lock, so a writer that waited for it finds it gone.
     * 1008 when the object is missing or went away (kolvvessaBackend_fs.cpp). */
    bool mf_LockObject(kolv::ObjectLock &lock);
    /* After mf_init: the request's ns is a namespace (not the scratch
     * folder "@tmp", not hidden) and its id not a hidden folder (a create
     * or delete in progress); 1007 otherwise (delete.cpp). */
    bool mf_CheckObjectPlace();

    // ---- download (download.cpp) ----
    bool mf_DownloadVersionBinary();
    bool mf_DownloadMetaBinary();
    /* Prints the file "field" of strBinaryDir, its info record read from
     * strBinaryInfoDir. pLock, when given, is the object's shared lock,
     * released once the file is read or open. */
    bool mf_DownloadBinaryByDir(const std::string &strBinaryDir, const std::string &strBinaryInfoDir,
                                kolv::ObjectLock *pLock = NULL);

    // ---- field rename (rename.cpp) ----
    bool mf_RenameGitField(std::string &strNewVer);
    bool mf_RenameMetaText();
    bool mf_RenameMetaBinary();

    // ---- layout (utils.cpp) ----
    bool mf_init(const Json::Value &jParm, bool bCreate = false, KOLV_VESSA_OBJECT *pObject = NULL);
    bool mf_GetPathInfo(KOLV_VESSA_OBJECT *pObject);
    bool mf_GetPathInfo(Json::Value &jParm, Json::Value &jPathInfo, KOLV_VESSA_OBJECT *pObject);
    bool mf_GetPathInfoByBase(const std::string &strBaseDir, Json::Value &jPathInfo);
    bool mf_GetPathInfoByGitBase(const std::string &strGitDir, Json::Value &jPathInfo);
    bool mf_CreatePath();
    bool mf_ResetPathPermission(const std::string &strPath);
    bool mf_GetBinaryObjectPath(const Json::Value &jIn, Json::Value &jPathInfo);
    bool mf_GetBinaryInfoPath(std::string &strFile, std::string &strInfo);
    bool mf_NeedToGet(const char *szType);
    bool mf_NeedToGetCheckOne(Json::Value &jValue);
    bool mf_NeedToSave(const char *szType);
    /* Reads every JSON info file of dir into jOut[decoded name]; when the
     * request's "field"[szType] is an object, only the names it has. */
    bool mf_GetBinaryInfoByDir(const std::string &strDir, Json::Value &jOut, const char *szType);

    // ---- JSON files (meta.cpp) ----
    bool mf_GetJsonFile(const char *szType, Json::Value &jOut);
    bool mf_GetJsonFile(const char *szType, KOLV_VESSA_OBJECT *pObject);
    bool mf_GetBasic(KOLV_VESSA_OBJECT *pObject);
    bool mf_GetMetaText(KOLV_VESSA_OBJECT *pObject);
    bool mf_SetJsonFile(const char *szType);
    bool mf_SaveBasic();
    bool mf_SaveMetaText();
    bool mf_GetConfigFieldFromJson(const char *szType, Json::Value &jOut);
    bool mf_MergeAndCheckMtime(const char *szType, Json::Value &jObj, Json::Value &jNew);
    bool mf_OverrideJsonItem(Json::Value &jObj, Json::Value &jNew, std::string strKey, bool bCheckMtime,
                             Json::Value &jObjMtime, const char *szType);
    /* Saves every storage unit the request touches: basic.json,
     * metatext.json, the meta binary files, then the version. */
    bool mf_SaveConfig(std::string &strNewVer);

    // ---- meta binary store (metabinary.cpp) ----
    bool mf_SaveMetaBinary();
    bool mf_GetMetaBinaryInfo(KOLV_VESSA_OBJECT *pObject, bool blAll);
    bool mf_GetMetaBinaryInfoByName(const std::string &strName, Json::Value &jInfo);

    // ---- versions (git.cpp, binary.cpp) ----
    bool mf_SaveGit(std::string &strNewVer);
    bool mf_GetGit(KOLV_VESSA_OBJECT *pObject);
    bool mf_LoadGitVersion(std::string &strGitDir, bool &blLatest);
    /* Fills the object's text and binary info from a version's files (as
     * kolv::git::ReadVersion gives them), as the request's "field" selects. */
    bool mf_VersionDataFromFiles(const std::map<std::string, std::string> &files, KOLV_VESSA_OBJECT *pObject);
    /* A new scratch folder for this call below the repository's "@tmp"
     * (the store's alone, mode 0700); the caller removes it. */
    bool mf_MakeScratch(std::string &strScratch);
    int mf_ListVersionGit(KOLV_VESSA_OBJECT_VERSION **ppHead);
    bool mf_GetVersionGit(KOLV_VESSA_OBJECT_VERSION *pVer);
    bool mf_DiffVersionGit(Json::Value &jDiff);
    /* The request's text fields and binary info records as tree path ->
     * bytes in mem, its binary files copied below strDir into the add
     * hash, its deletions in the delete hash. */
    bool KOLVVessaObjectVersionDataToDisk(TRABCSzHash *&pAddHash, TRABCSzHash *&pDelHash, kolv::MemFiles &mem,
                                          const Json::Value &jParm, const std::string &strDir);

    Json::Value m_jParm;
    Json::Value m_jPathInfo;
    const Json::Value &m_jFieldTable;
};

namespace kolv {
/* ".ID.RANDOM" in the folder of the object folder strFinal: not an id, so
 * neither listed nor found by a get. Where a create builds an object and a
 * delete moves one out of the namespace. */
std::string HiddenBeside(const std::string &strFinal);
} // namespace kolv

/* The MD5 of a file as 32 lowercase hex digits. */
bool KOLVVessaObjectEvalFileMd5(const char *szPath, std::string &strMd5);

#endif /* KOLVVESSA_BACKEND_FS_H */
