/*
 * kolv_platform.h - the appliance SDK stand-in on plain Linux.
 *
 * The object library reaches the operating system only through this
 * header: string hashes and lists, files and processes, shares, users and
 * groups, services, the database layer, base64 and the platform's own
 * error stack. Every fixed appliance path is relocated under the directory
 * named by the environment variable KOLV_SYSROOT (see KOLVSysPath).
 *
 * Functions returning int use 0 (or a count) for success and a negative
 * value for failure unless stated otherwise. BOOL functions return TRUE
 * or FALSE.
 */
#ifndef KOLV_PLATFORM_H
#define KOLV_PLATFORM_H

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KOLV_PLATFORM_API __attribute__((visibility("default")))

typedef int BOOL;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#define GID_ERR ((gid_t)-1)

/* ---- platform error stack ------------------------------------------- */

/* Invalid argument: the code the accessor wrappers report. */
#define ERR_INVALID_ARG 0x0D00

/* Records a platform error: code, source file and line. Thread-safe; the
 * last call wins. */
KOLV_PLATFORM_API void TRABCErrSetEx(int code, const char *szFile, int line);
/* The code of the last recorded platform error, 0 when none. */
KOLV_PLATFORM_API int TRABCErrGet(void);
/* The file of the last recorded platform error ("" when none). The text
 * stays valid until the next TRABCErrSetEx. */
KOLV_PLATFORM_API const char *TRABCErrorGetFile(void);
/* The line of the last recorded platform error. */
KOLV_PLATFORM_API int TRABCErrorGetLine(void);

/* ---- fault points (tests) ------------------------------------------ */

/* Arms the fault point: the nth KOLVFaultCheck from now (1: the next one)
 * reports a failure, once; 0 disarms. Thread-safe. */
KOLV_PLATFORM_API void KOLVFaultArm(long n);
/* TRUE, with errno EIO and a syslog line naming szSite, when this is the
 * armed call; FALSE otherwise. Every file, process and database operation
 * asks before it acts. */
KOLV_PLATFORM_API BOOL KOLVFaultCheck(const char *szSite);
/* TRUE when the armed failure was reported since the last KOLVFaultArm. */
KOLV_PLATFORM_API BOOL KOLVFaultFired(void);

/* ---- relocation of appliance paths ---------------------------------- */

/* Writes $KOLV_SYSROOT + szPath into szBuf (szPath itself when the
 * variable is unset or empty) and returns szBuf; NULL when it does not
 * fit. */
KOLV_PLATFORM_API const char *KOLVSysPath(const char *szPath, char *szBuf, size_t cbBuf);

/* ---- string hash and string list ------------------------------------ */

typedef struct _tag_trab_sz_list_ TRABCSzList;
typedef struct _tag_trab_sz_hash_ TRABCSzHash;
typedef TRABCSzHash TRABSZHASH;

/* A growable list of strings; size is the initial capacity (> 0).
 * Free with TRABCSzListFree. NULL on failure. */
KOLV_PLATFORM_API TRABCSzList *TRABCSzListAlloc(int size);
/* Appends a copy of szValue; may reallocate *ppList. Returns the new
 * count, negative on failure. */
KOLV_PLATFORM_API int TRABCSzListPush(TRABCSzList **ppList, const char *szValue);
/* Item idx (0-based), NULL when out of range. */
KOLV_PLATFORM_API const char *TRABCSzListGet(const TRABCSzList *pList, int idx);
/* Number of items; 0 for NULL. */
KOLV_PLATFORM_API int TRABCSzListCount(const TRABCSzList *pList);
/* Frees a list; NULL is allowed. */
KOLV_PLATFORM_API void TRABCSzListFree(TRABCSzList *pList);

/* A string-to-string hash with key enumeration; size is a capacity hint.
 * Free with TRABCSzHashFree. NULL on failure. */
KOLV_PLATFORM_API TRABCSzHash *TRABCSzHashAlloc(int size);
/* Inserts or replaces key -> value (both copied); may reallocate *ppHash.
 * Returns 0, negative on failure (NULL arguments included). */
KOLV_PLATFORM_API int TRABCSzHashSetValue(TRABCSzHash **ppHash, const char *szKey, const char *szValue);
/* The value of szKey, NULL when absent. Valid until the key is replaced or
 * the hash freed. */
KOLV_PLATFORM_API const char *TRABCSzHashGetValue(const TRABCSzHash *pHash, const char *szKey);
/* Appends every key, in insertion order, to *ppList. Returns the number of
 * keys, negative on failure. */
KOLV_PLATFORM_API int TRABCSzHashEnumKey(const TRABCSzHash *pHash, TRABCSzList **ppList);
/* Number of keys; 0 for NULL. */
KOLV_PLATFORM_API int TRABCSzHashCount(const TRABCSzHash *pHash);
/* Frees a hash; NULL is allowed. */
KOLV_PLATFORM_API void TRABCSzHashFree(TRABCSzHash *pHash);

/* ---- files and processes -------------------------------------------- */

KOLV_PLATFORM_API BOOL TRABCFileExist(const char *szPath);
/* TRUE when szPath is an existing directory. */
KOLV_PLATFORM_API BOOL TRABCFileCheckDir(const char *szPath);
/* Creates szPath (with its parents when blParents) with mode 0755 (or
 * mode when >= 0) and, for each created directory, owner uid / group gid
 * (UID_ERR / GID_ERR leave them unchanged). A chown refused for lack of
 * privilege is ignored. szUnused is reserved. 0 on success (also when the
 * directory exists), negative on failure. */
KOLV_PLATFORM_API int KOLVFSMkdirP(const char *szPath, const char *szUnused, BOOL blParents, uid_t uid, gid_t gid,
                                   int mode);
/* Removes a file or a directory tree; a missing path is success. 0 or
 * negative. The in-process equivalent of "/bin/rm -rf". */
KOLV_PLATFORM_API int KOLVFSRemoveTree(const char *szPath);
/* Copies szSrc to szDst atomically (temporary file in the target directory,
 * fsync-free rename). 0 or negative. */
KOLV_PLATFORM_API int KOLVFileCopy(const char *szSrc, const char *szDst);
/* Takes an advisory flock on szPath (created if absent, mode 0600),
 * blocking until it is free; *pHandle receives the descriptor. Returns 1
 * on success, 0 on failure. */
KOLV_PLATFORM_API int TRABCFileLockByFile(const char *szPath, BOOL blExclusive, int *pHandle);
/* Releases and closes a handle from TRABCFileLockByFile. 0 or negative. */
KOLV_PLATFORM_API int TRABCFileUnlockByFile(int handle);
/* Runs szProg with the NULL-terminated argv (argv[0] included) and waits.
 * Returns the exit status, negative when it could not run. */
KOLV_PLATFORM_API int TRABCExec(const char *szProg, const char *const argv[]);

/* Flags of TRABCProcForkEx. */
#define TRAB_FORK_DETACH 0x01     /* new session, outlives the parent */
#define TRAB_FORK_CLOSE_FDS 0x20  /* close inherited descriptors > 2 */
#define TRAB_FORK_NULL_STDIO 0x40 /* stdin/stdout/stderr on /dev/null */
/* fork(2) with the flags applied in the child. Returns the child's pid in
 * the parent, 0 in the child, negative on failure. */
KOLV_PLATFORM_API int TRABCProcForkEx(int flags);

/* ---- shares ---------------------------------------------------------- */

#define SZK_SECTION_HOMES "homes"

typedef struct _tag_kolv_share_ {
    char szName[256];
    char szPath[4096];
} KOLVSHARE;

/* Looks a share up by name in the platform config. 0 and *ppShare (free
 * with KOLVShareFree; its szPath already relocated under KOLV_SYSROOT),
 * negative when there is no such share. */
KOLV_PLATFORM_API int KOLVShareGet(const char *szName, KOLVSHARE **ppShare);
/* Writes the volume that holds szSharePath (its parent directory: the
 * volume of "/volume1/homes" is "/volume1") into szBuf. Negative when it
 * does not fit or the path is not absolute. */
KOLV_PLATFORM_API int KOLVShareBinPathGet(const char *szSharePath, char *szBuf, int cbBuf);
KOLV_PLATFORM_API void KOLVShareFree(KOLVSHARE *pShare);

/* ---- users, groups, services ----------------------------------------- */

#define AUTH_LOCAL 1
#define AUTH_DOMAIN 2
#define AUTH_LDAP 8

typedef struct _tag_kolv_user_ {
    uid_t uid;
    gid_t gid;
    int expired; /* 1 when the account is expired */
    char szName[256];
    char szMail[256];
} KOLVUSER;

/* User by uid: the platform table first, then NSS. 0 and *ppUser (free with
 * KOLVUserFree), non-zero when there is no such user. */
KOLV_PLATFORM_API int KOLVUserGetByUID(uid_t uid, KOLVUSER **ppUser);
/* User by login name, same sources and result. */
KOLV_PLATFORM_API int KOLVUserGet(const char *szName, KOLVUSER **ppUser);
KOLV_PLATFORM_API void KOLVUserFree(KOLVUSER *pUser);

typedef int (*TRAB_USER_ENUM_CB)(const KOLVUSER *pUser, void *pArg);
/* Calls cb for every user of authType (AUTH_LOCAL: NSS users with a uid of
 * 1000 or above and the platform table). szFilter, offset and limit are
 * reserved (NULL, 0, -1). Returns the number of users, negative on failure
 * (EIO: the platform config is there but unreadable or not a JSON object)
 * or when cb returns negative. */
KOLV_PLATFORM_API int TRABUserInfoEnum(int authType, const char *szFilter, int offset, int limit, TRAB_USER_ENUM_CB cb,
                                       void *pArg);
/* The groups of a user as decimal gid texts: the primary group, the NSS
 * supplementary groups and those of the platform table, each once. NULL
 * when the user is unknown. Free with TRABCSzListFree. */
KOLV_PLATFORM_API TRABCSzList *TRABGroupInfoListGet(const char *szUser, BOOL blReserved);
/* Whether the user-home service is on for an authentication type
 * (AUTH_LOCAL, AUTH_DOMAIN, AUTH_LDAP), from the platform config. */
KOLV_PLATFORM_API BOOL KOLVServiceUserHomeIsEnabled(int authType, void *pReserved);
/* Whether a service runs; "pgsql" answers whether the database server
 * (libpq's defaults, PGHOST/PGPORT) accepts connections. */
KOLV_PLATFORM_API BOOL TRABServiceIsRunning(const char *szService);

/* ---- base64 ------------------------------------------------------------ */

/* Standard base64 (A-Z a-z 0-9 + /, "=" padding) of szIn into szOut of
 * cbOut bytes, terminated; line breaks when blLineBreak. TRUE on success. */
KOLV_PLATFORM_API BOOL SzBase64EncodeFull(const unsigned char *szIn, size_t cbIn, char *szOut, size_t cbOut,
                                          BOOL blLineBreak);
/* Decodes base64 into szOut; *pcbOut holds the capacity and receives the
 * decoded length. TRUE on success, FALSE on bad input or short buffer. */
KOLV_PLATFORM_API BOOL KOLVEncodingBase64Decode(const char *szIn, size_t cbIn, char *szOut, size_t *pcbOut);

/* ---- database layer over libpq ---------------------------------------- */

typedef struct _tag_kolv_db_ KOLVDB;
typedef struct _tag_kolv_db_result_ KOLVDBRESULT;

/* Connects; a NULL host (or user, password) means libpq's defaults, so
 * PGHOST and PGPORT choose the server. NULL on failure. */
KOLV_PLATFORM_API KOLVDB *KOLVDBConnect(const char *szHost, const char *szUser, const char *szPass,
                                        const char *szDB);
/* Runs an SQL text (several statements allowed). With ppResult the last
 * statement's rows are returned (free with KOLVDBFreeResult). 0 on
 * success, -1 on failure. */
KOLV_PLATFORM_API int KOLVDBExecute(KOLVDB *pConn, const char *szSQL, KOLVDBRESULT **ppResult);
/* Advances to the next row: *pRow receives its index. 0, or -1 after the
 * last row. Start with *pRow = -1. */
KOLV_PLATFORM_API int KOLVDBFetchRow(KOLVDBRESULT *pResult, int *pRow);
/* The text of column szColumn in row; "" for SQL NULL, NULL when there is
 * no such column or row. */
KOLV_PLATFORM_API const char *KOLVDBFetchField(KOLVDBRESULT *pResult, int row, const char *szColumn);
/* Number of rows of a result. */
KOLV_PLATFORM_API int KOLVDBResultRows(const KOLVDBRESULT *pResult);
KOLV_PLATFORM_API void KOLVDBFreeResult(KOLVDBRESULT *pResult);
/* The last error text of the connection ("" when none). */
KOLV_PLATFORM_API const char *KOLVDBErrorGet(KOLVDB *pConn);
KOLV_PLATFORM_API void KOLVDBClose(KOLVDB *pConn);
/* Creates database szDB on the server of libpq's defaults, connecting as
 * szUser to its "postgres" database: the equivalent of createdb. 0 or
 * negative (an existing database is success). */
KOLV_PLATFORM_API int KOLVDBCreateDatabase(const char *szUser, const char *szDB);
/* Builds an SQL text from szTemplate, replacing each placeholder in turn
 * with the next variable argument: "@KOLV:VAR" a const char* escaped for
 * use inside single quotes as pConn's server reads them (its
 * standard_conforming_strings and encoding), "@KOLV:INT" an int,
 * "@KOLV:LLINT" a long long. kind must be 1. Pass the connection the text
 * will run on: with pConn NULL a quote is doubled and a value holding a
 * backslash is refused, since its escape depends on the server. Returns a
 * malloc'ed text (free with free), NULL on failure (a NULL string argument,
 * a value invalid in the connection's encoding). */
KOLV_PLATFORM_API char *KOLVDBEscapeStringEX3(int kind, KOLVDB *pConn, const char *szTemplate, ...);
KOLV_PLATFORM_API char *KOLVDBEscapeStringEX3V(int kind, KOLVDB *pConn, const char *szTemplate, va_list ap);

#ifdef __cplusplus
}
#endif

#endif /* KOLV_PLATFORM_H */
