/*
 * kolvvessa_version.h - the version record (one version of one object),
 * its list, and the version operations: get, list and diff.
 *
 * The operations take a parameter record ("ns", "id", "requester" as for
 * an object read) and return TRUE/FALSE or a count, negative on failure,
 * leaving the reason on the error stack (kolvvessa_error.h). Each one
 * checks the record (1007), that the namespace is switched on and the id
 * is valid, and reads the current object for the requester first: who may
 * not read the object sees none of its versions, and gets the read's
 * failure. No exception leaves an operation.
 */
#ifndef KOLVVESSA_VERSION_H
#define KOLVVESSA_VERSION_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <stddef.h>

#include <string>

#include "kolvvessa_export.h"

struct KOLV_VESSA_OBJECT_VERSION_IMPL;

class KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION {
  public:
    KOLV_VESSA_OBJECT_VERSION();
    /* Frees the record's data; does not follow m_next. */
    ~KOLV_VESSA_OBJECT_VERSION();
    KOLV_VESSA_OBJECT_VERSION(const KOLV_VESSA_OBJECT_VERSION &) = delete;
    KOLV_VESSA_OBJECT_VERSION &operator=(const KOLV_VESSA_OBJECT_VERSION &) = delete;

    /* "new KOLV_VESSA_OBJECT_VERSION" gives NULL when memory runs out
     * instead of throwing, so callers test its result. */
    static void *operator new(size_t cb) noexcept;
    static void operator delete(void *p) noexcept;

    /* Resets every field to its default. */
    void clear();

    std::string get_ns() const;
    std::string get_id() const;
    unsigned long get_author() const;
    long get_mtime() const;
    std::string get_version() const;
    Json::Value get_commit_msg() const;
    Json::Value get_last_version() const;
    Json::Value get_extra_info() const;

    void set_ns(const std::string &str);
    void set_id(const std::string &str);
    void set_author(unsigned long author);
    void set_mtime(long t);
    void set_version(const std::string &str);
    void set_commit_msg(const Json::Value &j);
    void set_last_version(const Json::Value &j);
    void set_extra_info(const Json::Value &j);

    /* Writes the selected fields into jRet (must be an object: else 1015):
     * "ns" and "id" only when asked, the others unless switched off. */
    bool toJson(const Json::Value &jFields, Json::Value &jRet) const;

    /* Reads one version of {"ns", "id", "requester"} into this record:
     * "ver" names it (a version id), absent means the latest. 1010 without
     * a file store, 1007 for a bad record, the codes of the access check
     * and of the object read, 1008 for an unknown version, 1037 for other
     * version-store failures. On failure the record is left cleared. */
    BOOL Get(const Json::Value &jParm);
    /* The difference between "old_version" and "new_version" (absent: the
     * latest) of {"ns", "id", "old_version", "requester"}: jDiff (must be an
     * object, else 1015) receives {"text": {name: status}, "binary": {name:
     * status}}, status "created", "deleted" or "modified"; binary info
     * records never show. Codes as Get; jDiff is untouched on failure. */
    static BOOL Diff(const Json::Value &jParm, Json::Value &jDiff);

    KOLV_VESSA_OBJECT_VERSION *m_next;
    KOLV_VESSA_OBJECT_VERSION_IMPL *m_impl;
};

/* Owns a chain of version records; the destructor frees it. */
class KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION_LIST {
  public:
    KOLV_VESSA_OBJECT_VERSION_LIST();
    ~KOLV_VESSA_OBJECT_VERSION_LIST();
    KOLV_VESSA_OBJECT_VERSION_LIST(const KOLV_VESSA_OBJECT_VERSION_LIST &) = delete;
    KOLV_VESSA_OBJECT_VERSION_LIST &operator=(const KOLV_VESSA_OBJECT_VERSION_LIST &) = delete;

    /* Frees the whole chain. */
    void clear();
    /* Reads one version as KOLV_VESSA_OBJECT_VERSION::Get; on success the
     * list holds exactly it, on failure the old chain stays. */
    BOOL GetVersion(const Json::Value &jParm);
    /* Lists versions as KOLVVessaObjectVersionList into the list
     * (replacing its chain). The count, negative on failure. */
    int ListVersion(const Json::Value &jParm, unsigned int &total, unsigned int &listable_total);

    KOLV_VESSA_OBJECT_VERSION *m_head;
};

/* Lists the versions of {"ns", "id", "requester"}, newest first
 * ("sort_direction": "ASC" for oldest first), skipping "offset" and giving
 * at most "limit" (absent, 0 or negative: all); "filter" keeps the versions
 * whose commit message has every member of it. *ppHead receives a new
 * chain the caller frees with KOLVVessaObjectVersionFreeList (NULL when
 * empty or on failure); total counts every version of the object,
 * listable_total those committed with "commit_msg" {"listable": true}.
 * Returns the number of records chained, negative on failure: 1015 for a
 * NULL ppHead, 1007 for a bad record (an "offset" that is negative or past
 * 4294967295 included), otherwise the codes of Get. */
KOLV_EXPORT int KOLVVessaObjectVersionList(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION **ppHead,
                                           unsigned int &total, unsigned int &listable_total);

/* Plain-function entries over a platform string hash: "ns", "id" and
 * "requester" (decimal) required; 1015 for a NULL hash or out argument,
 * 1007 naming a missing key or for a bad requester or number; otherwise
 * the member operation's codes with its call appended. */

/* List with optional "offset" and "limit" (decimal). */
KOLV_EXPORT int KOLVVessaObjectVersionList(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT_VERSION **ppHead,
                                           unsigned int &total, unsigned int &listable_total);
/* Diff: "old_version" required, "new_version" optional. */
KOLV_EXPORT BOOL KOLVVessaObjectVersionDiff(TRABSZHASH *pParmHash, Json::Value &jDiff);

extern "C" {

/* A new empty record (free with KOLVVessaObjectVersionFreeList); NULL with
 * 1014. */
KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION *KOLVVessaObjectVersionAlloc(void);
/* Destroys every record of a chain; NULL is allowed. */
KOLV_EXPORT void KOLVVessaObjectVersionFreeList(KOLV_VESSA_OBJECT_VERSION *pVer);
/* The next record (NULL for NULL). */
KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION *KOLVVessaObjectVersionNext(KOLV_VESSA_OBJECT_VERSION *pVer);
/* clear() on a non-NULL record. */
KOLV_EXPORT void KOLVVessaObjectVersionClear(KOLV_VESSA_OBJECT_VERSION *pVer);

/* Get over a string hash ("ver" optional) into pVer. */
KOLV_EXPORT BOOL KOLVVessaObjectVersionGet(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT_VERSION *pVer);

/* Accessors. All return 0, or -1 on a NULL argument or a zero cbBuf,
 * reported on the platform error stack (ERR_INVALID_ARG), not on the
 * library's. Text getters write the value (JSON members as their
 * serialised text) into szBuf, truncated to cbBuf and terminated. JSON
 * setters parse szVal; text that does not parse is -1 with ERR_INVALID_ARG
 * too, and the record is left as it was. */
KOLV_EXPORT int KOLVVessaObjectVersionItemGetNameSpace(char *szBuf, size_t cbBuf,
                                                       const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetID(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetVersion(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetCommitMsg(char *szBuf, size_t cbBuf,
                                                       const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetLastVersion(char *szBuf, size_t cbBuf,
                                                         const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetExtraInfo(char *szBuf, size_t cbBuf,
                                                       const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetAuthor(unsigned long *pVal, const KOLV_VESSA_OBJECT_VERSION *pVer);
KOLV_EXPORT int KOLVVessaObjectVersionItemGetModifyTime(long *pVal, const KOLV_VESSA_OBJECT_VERSION *pVer);

KOLV_EXPORT int KOLVVessaObjectVersionItemSetNameSpace(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetID(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetVersion(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetCommitMsg(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetLastVersion(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetExtraInfo(KOLV_VESSA_OBJECT_VERSION *pVer, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetAuthor(KOLV_VESSA_OBJECT_VERSION *pVer, unsigned long val);
KOLV_EXPORT int KOLVVessaObjectVersionItemSetModifyTime(KOLV_VESSA_OBJECT_VERSION *pVer, long val);

} /* extern "C" */

#endif /* KOLVVESSA_VERSION_H */
