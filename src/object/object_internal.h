/*
 * object_internal.h - the object's data record and the helpers the object
 * operations share.
 */
#ifndef KOLVVESSA_OBJECT_INTERNAL_H
#define KOLVVESSA_OBJECT_INTERNAL_H

#include <json/json.h>
#include <stdint.h>
#include <syslog.h>

#include <exception>
#include <string>
#include <vector>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_nothrow.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_ns_hook.h"
#include "kolvvessa/kolvvessa_object.h"

/* The data of one object, the two reserved members included. */
struct KOLV_VESSA_OBJECT_IMPL {
    uint32_t flags; // reserved word, emptied with the record
    std::string ns;
    std::string id;
    std::string category;
    std::string version;
    Json::Value commit_msg;
    std::string parent_id;
    unsigned long owner;
    Json::Value metatext;
    Json::Value text;
    Json::Value metabinary_info;
    Json::Value binary_info;
    Json::Value path_info;
    Json::Value acl;
    std::string perm;
    long ctime;
    long mtime;
    Json::Value scratch; // reserved value, emptied with the record
    Json::Value extra_info;
};

namespace kolv {

/* Reads "ns", "id" and a decimal "requester" from a platform string hash
 * into jParm: the head every plain-function entry shares. 1007 for a
 * missing key or trailing characters after the requester. */
bool HashToObjectParm(TRABSZHASH *pParmHash, Json::Value &jParm);

/* The read of the object jParm names ("ns", "id") for its "requester",
 * every field selected: what a change reads before it changes. */
Json::Value WholeObjectParm(const Json::Value &jParm);

/* The checks a change of an existing object makes before reading it: the
 * request as every entry checks it, the namespace switch (not for the
 * system requester 0) and the id. The codes are those of the checks.
 * REQUIRES: string "ns" and "id", integral "requester". */
bool CheckChangeAccess(const Json::Value &jParm);

/* Reads jParm["parent_id"] for jParm["requester"] with its ACL into obj;
 * a new parent must be writable by the requester ("rw" or "owner", else
 * 1023). */
bool GetWritableParent(const Json::Value &jParm, KOLV_VESSA_OBJECT &obj);

/* Marks every grant of an ACL as pushed down from an ancestor. */
void AclMarkInherited(Json::Value &jAcl);

/* Checks and completes the record of a change against the object as the
 * requester read it (Set and the multi-object set share it). */
bool PrepareSetParm(Json::Value &jParm, const Json::Value &jAcl, const KOLV_VESSA_OBJECT *pObj);

/* The ids the index lists, as requester sees them, directly below jParent
 * (one id, or an array of ids) in namespace strNs: every page at once, so
 * that changes made between pages cannot shift them. Appended to vIds. */
bool ListChildIds(const std::string &strNs, const Json::Value &jParent, uid_t requester,
                  std::vector<std::string> &vIds);

/* Upserts the index row of an object in hand, read back after its write
 * with every field for the requester of the write: the row a fresh read
 * would give, without the read. Codes as KOLVVessaObjectIndex. */
bool IndexObject(const KOLV_VESSA_OBJECT &Object);

/* The record a failed index write of jParm's object ("ns", "id",
 * "requester") appends, whichever way the row was built. */
extern const char szIndexCall[];

/* Re-indexes an object jParm ("ns", "id", "requester") changed to version
 * strNewVer: from pObj, the object read back after the change, or read
 * again when pObj is NULL. A failure is logged and does not undo the
 * change. */
void IndexChanged(const Json::Value &jParm, const std::string &strNewVer, const KOLV_VESSA_OBJECT *pObj);

/* Applies one sharing request ("type", "op", "perm", "uid"/"gid",
 * "enabled", "recursive") to acl in place. Gives 1 when acl changed, 0
 * when there is nothing to change, -1 (1007 on the stack) for a bad
 * request. */
int prepare_acl(const Json::Value &jsParm, Json::Value &acl);

/* Opens the namespace's hook library and fetches one operation's hooks;
 * all stay NULL when the namespace has none. Closes the library only when
 * asked to (object create does, the other operations leave it open). */
class NsHooks {
  public:
    NsHooks(const std::string &strNs, const char *szOperation, bool blClose);
    ~NsHooks();
    NsHooks(const NsHooks &) = delete;
    NsHooks &operator=(const NsHooks &) = delete;
    void Pre(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pObject) const;
    void Post(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pObject) const;
    /* Whether a post hook runs: one may change the object again, so the
     * object in hand is no longer the one stored. */
    bool HasPost() const { return NULL != m_pfnPost; }

  private:
    void *m_dlHandle;
    bool m_blClose;
    KOLVVESSA_NS_HOOK m_pfnPre;
    KOLVVESSA_NS_HOOK m_pfnPost;
};

} // namespace kolv

/* A syslog line at error priority that starts with the source and line. */
#define KOLV_OBJECT_SYSLOG(fmt, ...)                                                                                   \
    do {                                                                                                               \
        char szSource_[512];                                                                                           \
        syslog(LOG_ERR, "%s:%d " fmt, kolv::SourceName(__FILE__, szSource_, sizeof(szSource_)), __LINE__,              \
               __VA_ARGS__);                                                                                           \
    } while (0)

#endif /* KOLVVESSA_OBJECT_INTERNAL_H */
