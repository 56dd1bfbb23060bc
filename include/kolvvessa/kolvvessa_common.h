/*
 * kolvvessa_common.h - identifiers, name encoding, JSON utilities, users,
 * owners and the repository location.
 */
#ifndef KOLVVESSA_COMMON_H
#define KOLVVESSA_COMMON_H

#include <json/json.h>
#include <pthread.h>

#include <string>

#include "kolvvessa_export.h"

/* ---- identifiers ---------------------------------------------------- */

/* A new id for uid: the uid in decimal, "_", 96 upper-case hex digits. */
KOLV_EXPORT std::string KOLVVessaObjectGenerateID(unsigned int uid);
/* The root id of uid, "%u_#00000000": the parent of top-level objects. */
KOLV_EXPORT std::string KOLVVessaObjectDefaultID(unsigned int uid);
/* The uid before the first "_" of id (0 for an empty part); -1 with code
 * 1015 (NULL id) or 1007 (too long, not a number) on failure. */
KOLV_EXPORT long long KOLVVessaExtractUid(const char *id);
/* The owner uid encoded in id (0 for an empty part); UID_ERR with code
 * 1007 "Bad ID [id]" when it is not a number. */
KOLV_EXPORT uid_t KOLVVessaObjectGetOwnerByID(const std::string &strID);
/* Whether id names an owner that may own objects. Leaves 1015, or appends
 * to the owner test's error. */
KOLV_EXPORT bool KOLVVessaObjectIDIsValid(const char *szID);
/* The selection of all fields: commit_msg, acl, metatext, metabinary_info,
 * text, binary_info, all true. */
KOLV_EXPORT Json::Value KOLVVessaObjectFieldAll();

/* ---- name encoding -------------------------------------------------- */

/* Encodes bytes as base64 and, unless blBase64Only, escapes every
 * character outside 0-9 A-Z as "{code}", giving a name safe on any file
 * system. Fails with 1015 for NULL or empty input. */
KOLV_EXPORT bool KOLVVessaEncode(const unsigned char *szIn, unsigned int nIn, std::string &strOut,
                                 bool blBase64Only = false);
KOLV_EXPORT bool KOLVVessaEncode(const std::string &strIn, std::string &strOut, bool blBase64Only = false);
/* Reverses KOLVVessaEncode into szOut (zeroed over nOut bytes first).
 * Fails with 1015 (empty input), 1014, an appended "NULL == szEnd"
 * (unterminated brace) or 1000 (bad base64). */
KOLV_EXPORT bool KOLVVessaDecode(const std::string &strIn, unsigned char *szOut, unsigned int nOut,
                                 bool blBase64Only = false);
/* The string form: the decoded bytes up to the first zero byte. */
KOLV_EXPORT bool KOLVVessaDecode(const std::string &strIn, std::string &strOut, bool blBase64Only = false);

/* ---- JSON utilities ------------------------------------------------- */

/* Top-level changes from jOld to jNew as [{"key","type":"sub"|"del"|"ins",
 * ...}]; result is left untouched when nothing differs. 1015 when either
 * side is not an object. */
KOLV_EXPORT bool KOLVVessaJsonDiff(const Json::Value &jOld, const Json::Value &jNew, Json::Value &result);
/* Writes value to strPath under an exclusive flock on the target, through
 * strPath + ".tmp" and a rename. Codes 1015, 1002, 1001 (lock busy for 3
 * seconds), 1003, 1033. */
KOLV_EXPORT bool KOLVVessaJsonToFile(const Json::Value &value, const std::string &strPath);

/* ---- users, owners and repository ------------------------------------- */

/* Guards the platform share lookup of the repository root. */
extern KOLV_EXPORT pthread_mutex_t tShare;
/* Guards the platform user lookup. */
extern KOLV_EXPORT pthread_mutex_t tUser;

/* The repository root: the volume of the "homes" share + "/@KolvVessa",
 * computed once per process. 1000 on failure. */
KOLV_EXPORT bool KOLVVessaGetRepoPath(std::string &strPath);
/* Whether the directory of object ns/id exists. */
KOLV_EXPORT bool KOLVVessaIDIsExist(const std::string &strNs, const std::string &strID);
/* The path of a meta binary file of ns/id (set even when absent); true
 * when it exists. */
KOLV_EXPORT bool KOLVVessaGetMetaBinaryPath(const std::string &strNs, const std::string &strID,
                                            const std::string &strName, std::string &strPath);
/* Whether uid is an existing user (false for UID_ERR). */
KOLV_EXPORT bool KOLVVessaCheckUID(uid_t uid);
/* The cached facts {"name","mail","exist","expire","gid"} of uid. With
 * blMustExist an unknown user (or UID_ERR) gives false, no error. */
KOLV_EXPORT bool KOLVVessaGetUserInfo(uid_t uid, Json::Value &jInfo, bool blMustExist);
KOLV_EXPORT bool KOLVVessaGetGID(uid_t uid, unsigned int &gid, bool blMustExist);
KOLV_EXPORT bool KOLVVessaGetUserName(uid_t uid, std::string &strName, bool blMustExist);
KOLV_EXPORT bool KOLVVessaGetUserNameAndMail(uid_t uid, std::string &strName, std::string &strMail,
                                             bool blMustExist);
/* Whether uid may own objects: not 0 or UID_ERR (1007), exists (1022),
 * user home on for its authentication type (1011), not expired (1030).
 * Results are cached; a cached false pushes no new error. */
KOLV_EXPORT bool KOLVVessaObjectOwnerIsValid(uid_t owner);
/* The "app priv" of the namespace descriptor, "" when none. */
KOLV_EXPORT std::string KOLVVessaAppPrivName(const std::string &strNs);

#endif /* KOLVVESSA_COMMON_H */
