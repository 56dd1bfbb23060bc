/*
 * object_batch.h - what the operations on many objects share: the check of
 * every object before anything changes, the namespace's batch hooks, and
 * the worker threads that do the per-object storage work.
 *
 * The worker scheme: the objects of the chain are dealt round-robin into
 * 30 buckets (object i into bucket i mod 30); each non-empty bucket gets
 * one thread with a file backend of its own, started in bucket order and
 * joined in the same order. A bucket whose thread cannot be started is
 * done at once on the calling thread. A chain of one object is done on
 * the calling thread without a thread. Only the calling thread writes the
 * result, "<id>": true or false per object.
 */
#ifndef KOLVVESSA_OBJECT_BATCH_H
#define KOLVVESSA_OBJECT_BATCH_H

#include <json/json.h>

#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_ns_hook.h"
#include "kolvvessa/kolvvessa_object.h"

namespace kolv {

/* The number of work buckets, and so of worker threads per call. */
constexpr unsigned kBatchBuckets = 30;

/* How the pre-check treats the objects' owners. */
enum class BatchOwnerRule {
    /* The owner, the system requester 0 and a user with "rw" pass. */
    RwOrOwner,
    /* The same for an ACL change, whose refusal names the object pObj. */
    AclChange,
    /* Only the owner and the system requester 0 pass: deletion. */
    OwnerOnly,
    /* The system requester 0 only, and the owner may be gone (no local
     * user any more): the clean-up of such objects. */
    SystemAnyOwner,
};

/* The members every multi-object operation takes ("ns", "id" (an array),
 * "requester", "recursive"? (a bool)) and the request checks every entry
 * makes; 1007 with the failed condition written out. */
bool CheckBatchMembers(const Json::Value &jParm);

/* Checks every id of jParm["id"] in order and chains the objects, read
 * for the requester with every field, at *ppHead (which must be NULL; an
 * id given twice is taken once). Each object's m_param holds jParm with
 * that object's "id". The objects are read in the worker scheme and then
 * checked in order on the calling thread. Any failure frees what was chained and leaves
 * *ppHead NULL: the namespace switch (not for requester 0), the id and its
 * owner, 1014 when no object can be made, the read, and the permission the
 * rule asks (1023). */
bool PreCheck(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, BatchOwnerRule rule = BatchOwnerRule::RwOrOwner);

/* The namespace's batch hooks of one operation ("set" or "delete"); both
 * are NULL when the namespace has none. Each is called once per call with
 * the request and the head of the chain (the hook may walk m_next): the
 * pre-hook with the objects as read before the work, the post-hook after
 * it. The library stays open, as the single-object operations leave it. */
class BatchHooks {
  public:
    BatchHooks(const std::string &strNs, const char *szOperation);
    BatchHooks(const BatchHooks &) = delete;
    BatchHooks &operator=(const BatchHooks &) = delete;
    void Pre(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead) const;
    void Post(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead) const;

  private:
    KOLVVESSA_NS_HOOK m_pfnPre;
    KOLVVESSA_NS_HOOK m_pfnPost;
};

/* The work on one object of the chain, whose m_param is its request;
 * pBackendFs is a file backend of the thread doing it. True when the
 * object was done. Runs on worker threads: each object is worked on by
 * one thread only, which may leave it read back in pObj; the work may use
 * nothing else shared but what the library guards. */
typedef bool (*BatchItemWork)(KOLVVESSA_BACKEND_OP *pBackendFs, KOLV_VESSA_OBJECT *pObj);

/* One bucket: the objects one thread works on, in chain order. */
typedef std::vector<KOLV_VESSA_OBJECT *> BatchBucket;

/* The chain's objects dealt into kBatchBuckets buckets, object i into
 * bucket i mod kBatchBuckets. */
std::vector<BatchBucket> BatchBuckets(KOLV_VESSA_OBJECT *pHead);

/* Runs work for every object of the chain in the worker scheme and sets
 * jsResult["<id>"] to its outcome. False only when the calling thread
 * itself needed a file backend and none could be made (1010); the
 * objects' own failures are only the false members. */
bool RunBatch(KOLV_VESSA_OBJECT *pHead, BatchItemWork work, Json::Value &jsResult);

/* Deletes objects as the system, whatever became of their owners: the
 * clean-up of objects whose owner is no longer a local user. jParm is the
 * request of KOLV_VESSA_OBJECT_LIST::Delete with "requester" 0 (anything
 * else: 1023 "UID_ROOT != requester"). The pre-check does not ask whether
 * the owner still exists (the single-object checks refuse such an object
 * with 1022), only that the id names one and that the object can be read
 * as the system. Results and codes as KOLV_VESSA_OBJECT_LIST::Delete. */
bool BatchDeleteAsSystem(const Json::Value &jParm, Json::Value &jsResult);

/* Test seams of the worker scheme. BatchThreadFaultArm(n): the nth thread
 * start from now fails as if pthread_create had failed (0 disarms).
 * BatchThreadsStarted(): how many worker threads this process started. */
void BatchThreadFaultArm(long n);
unsigned long BatchThreadsStarted();

} // namespace kolv

#endif /* KOLVVESSA_OBJECT_BATCH_H */
