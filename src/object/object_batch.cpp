/*
 * The operations on many objects: the check of every object before
 * anything changes, the batch hooks, and the worker threads.
 */
#include "object/object_batch.h"

#include <errno.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_ns_hook.h"
#include "common/kolvvessa_raii.h"
#include "object/object_internal.h"
#include "object/object_request.h"

namespace {

std::atomic<long> g_cThreadFault{0};
std::atomic<unsigned long> g_cThreadsStarted{0};

// The armed thread start fails once, then the seam is quiet again.
bool ThreadStartFaulted() {
    if (g_cThreadFault.load(std::memory_order_relaxed) <= 0) return false;
    return 1 == g_cThreadFault.fetch_sub(1);
}

// One id of the request into the chain slot *ppObj. The system requester
// 0 may do anything; anybody else needs "rw" or "owner" on an object he
// does not own, and for a delete he must own it.
bool CheckOneId(const Json::Value &jParm, kolv::BatchOwnerRule rule, bool blReadAhead, KOLV_VESSA_OBJECT **ppObj) {
    const uid_t requester = (uid_t)jParm["requester"].asInt64();
    const Json::Value jItem = (*ppObj)->m_param;
    const std::string strId = jItem["id"].asString();
    // The clean-up of objects whose owner is gone cannot ask whether the
    // owner is valid: it is not, and that is why the objects go.
    if (kolv::BatchOwnerRule::SystemAnyOwner != rule &&
        KOLV_APPEND_IF(FALSE == KOLVVessaObjectIDIsValid(strId.c_str()))) {
        return false;
    }
    uid_t owner = UID_ERR;
    if (KOLV_APPEND_IF(UID_ERR == (owner = KOLVVessaObjectGetOwnerByID(strId)))) return false;
    if (kolv::BatchOwnerRule::OwnerOnly == rule && UID_ROOT != requester && KOLV_FAIL_IF(1023, owner != requester)) {
        return false;
    }
    // A read that failed ahead is made again here, for its own error.
    Json::Value jGetParm = kolv::WholeObjectParm(jItem);
    if (!blReadAhead && KOLV_APPEND_IF(!(*ppObj)->Get(jGetParm))) return false;
    (*ppObj)->m_param = jItem;
    KOLV_VESSA_OBJECT *pObj = *ppObj;
    if (UID_ROOT != requester && owner != requester && "rw" != pObj->get_perm() && "owner" != pObj->get_perm()) {
        if (kolv::BatchOwnerRule::AclChange == rule) {
            KOLV_FAIL_FMT(1023, "rw != pObj->get_perm() && owner != pObj->get_perm() [%s]", pObj->get_perm().c_str());
        } else {
            KOLV_FAIL_FMT(1023, "rw != (*ppObj)->get_perm() && owner != (*ppObj)->get_perm() [%s]",
                          pObj->get_perm().c_str());
        }
        return false;
    }
    return true;
}

// Reads one object for the requester, ahead of the checks.
bool ReadAhead(KOLVVESSA_BACKEND_OP *, KOLV_VESSA_OBJECT *pObj) {
    const Json::Value jItem = pObj->m_param;
    bool blRead = pObj->Get(kolv::WholeObjectParm(jItem));
    pObj->m_param = jItem;
    return blRead;
}

// What a worker is handed; it owns it.
struct WorkerArg {
    kolv::BatchBucket bucket;
    kolv::BatchItemWork work;
};

// The id a result is filed under: the request's, which a failed read-back
// cannot clear.
std::string ItemId(const KOLV_VESSA_OBJECT *pObj) {
    return pObj->m_param["id"].asString();
}

// One bucket, with pBackendFs when the caller lends one, else with a
// backend of its own. Every object of the bucket gets a member.
void RunBucket(const kolv::BatchBucket &bucket, kolv::BatchItemWork work, KOLVVESSA_BACKEND_OP *pBackendFs,
               Json::Value &jResult) {
    std::unique_ptr<KOLVVESSA_BACKEND_OP> guardFs;
    if (NULL == pBackendFs) {
        if (!KOLV_FAIL_IF(1010, NULL == (pBackendFs = RegisterBackend::New("fs")))) guardFs.reset(pBackendFs);
    }
    for (KOLV_VESSA_OBJECT *pObj : bucket) {
        const std::string strId = ItemId(pObj);
        jResult[strId] = pBackendFs && KOLV_NO_THROW(false, [&]() -> bool { return work(pBackendFs, pObj); });
    }
}

// The thread body: the result object on the heap is its exit value (NULL
// when none could be made; the caller then counts the bucket as failed).
void *BatchWorker(void *pv) {
    std::unique_ptr<WorkerArg> pArg(static_cast<WorkerArg *>(pv));
    Json::Value *pjResult = new (std::nothrow) Json::Value(Json::objectValue);
    if (NULL == pjResult) return NULL;
    try {
        RunBucket(pArg->bucket, pArg->work, NULL, *pjResult);
    } catch (...) {
        delete pjResult;
        return NULL;
    }
    return pjResult;
}

// Every object of a bucket as failed, until its outcome is known.
void MarkFailed(const kolv::BatchBucket &bucket, Json::Value &jsResult) {
    for (const KOLV_VESSA_OBJECT *pObj : bucket)
        jsResult[ItemId(pObj)] = false;
}

// The calling thread's own backend, made on first need and kept for the
// rest of the call.
class CallerBackend {
  public:
    KOLVVESSA_BACKEND_OP *Get() {
        if (!m_p) m_p.reset(RegisterBackend::New("fs"));
        return m_p.get();
    }

  private:
    std::unique_ptr<KOLVVESSA_BACKEND_OP> m_p;
};

struct Started {
    pthread_t tid;
    unsigned bucket;
};

// Starts one thread per non-empty bucket, in bucket order; a bucket whose
// thread cannot start is done at once on this thread.
void StartWorkers(const std::vector<kolv::BatchBucket> &vBuckets, kolv::BatchItemWork work, CallerBackend &caller,
                  std::vector<Started> &vStarted, Json::Value &jsResult) {
    for (unsigned i = 0; i < vBuckets.size(); ++i) {
        const kolv::BatchBucket &bucket = vBuckets[i];
        if (bucket.empty()) continue;
        WorkerArg *pArg = new (std::nothrow) WorkerArg{bucket, work};
        pthread_t tid;
        int rc = EAGAIN;
        if (pArg && !ThreadStartFaulted()) rc = pthread_create(&tid, NULL, BatchWorker, pArg);
        if (0 != rc) {
            delete pArg;
            KOLV_OBJECT_SYSLOG("Fail to create thread for bucket %u, err=%d; done by the caller", i, rc);
            KOLVVESSA_BACKEND_OP *pBackendFs = caller.Get();
            if (NULL == pBackendFs) {
                MarkFailed(bucket, jsResult);
                continue;
            }
            RunBucket(bucket, work, pBackendFs, jsResult);
            continue;
        }
        g_cThreadsStarted.fetch_add(1);
        vStarted.push_back(Started{tid, i});
    }
}

// Joins in start order and merges each worker's outcome.
void JoinWorkers(const std::vector<Started> &vStarted, Json::Value &jsResult) {
    for (const Started &started : vStarted) {
        void *pRet = NULL;
        int rc = pthread_join(started.tid, &pRet);
        if (0 != rc) {
            errno = rc;
            KOLV_OBJECT_SYSLOG("Fail to join thread %u %m", (unsigned)started.tid);
            continue;
        }
        std::unique_ptr<Json::Value> pjResult(static_cast<Json::Value *>(pRet));
        if (!pjResult) continue;
        for (const std::string &strId : pjResult->getMemberNames())
            jsResult[strId] = (*pjResult)[strId];
    }
}

} // namespace

namespace kolv {

bool CheckBatchMembers(const Json::Value &jParm) {
    if (KOLV_FAIL_IF(1007, !jParm.isObject())) return false;
    if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || !jParm["ns"].isString() || !jParm.isMember("id") ||
                               !jParm.isMember("requester") || !jParm["requester"].isIntegral())) {
        return false;
    }
    if (KOLV_FAIL_IF(1007, jParm.isMember("recursive") && !jParm["recursive"].isBool())) return false;
    if (KOLV_FAIL_IF(1007, !jParm["id"].isArray())) return false;
    if (!kolv::CheckRequest(jParm)) return false;
    return true;
}

bool PreCheck(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, BatchOwnerRule rule) {
    const uid_t requester = (uid_t)jParm["requester"].asInt64();
    if (BatchOwnerRule::SystemAnyOwner == rule && KOLV_FAIL_IF(1023, UID_ROOT != requester)) return false;
    if (UID_ROOT != requester && KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(jParm["ns"].asCString()))) {
        return false;
    }
    kolv::ObjectChain chain;
    KOLV_VESSA_OBJECT **ppObj = chain.Head();
    std::set<std::string> setSeen;
    for (const Json::Value &jId : jParm["id"]) {
        if (KOLV_FAIL_IF(1007, !jId.isString())) return false;
        if (!setSeen.insert(jId.asString()).second) continue;
        if (KOLV_FAIL_IF(1014, NULL == (*ppObj = KOLVVessaObjectAlloc()))) return false;
        (*ppObj)->m_param = jParm;
        (*ppObj)->m_param["id"] = jId;
        ppObj = &(*ppObj)->m_next;
    }
    // The objects are read on the worker threads; the checks then go id
    // by id, in order, as if each object were read in its turn.
    Json::Value jsRead(Json::objectValue);
    if (!RunBatch(*chain.Head(), ReadAhead, jsRead)) return false;
    for (ppObj = chain.Head(); *ppObj; ppObj = &(*ppObj)->m_next) {
        if (!CheckOneId(jParm, rule, jsRead.get((*ppObj)->m_param["id"].asString(), false).asBool(), ppObj)) {
            return false;
        }
    }
    *ppHead = chain.Release();
    return true;
}

BatchHooks::BatchHooks(const std::string &strNs, const char *szOperation) : m_pfnPre(NULL), m_pfnPost(NULL) {
    void *dlHandle = KOLVVessaNsHookHandler(strNs);
    // A namespace without a library, or a library without batch hooks for
    // this operation, simply has none.
    if (dlHandle && FALSE == KOLVVessaNsBatchHookGet(dlHandle, szOperation, &m_pfnPre, &m_pfnPost)) {
        m_pfnPre = NULL;
        m_pfnPost = NULL;
    }
}

void BatchHooks::Pre(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead) const {
    if (m_pfnPre) m_pfnPre(jParm, pHead);
}

void BatchHooks::Post(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pHead) const {
    if (m_pfnPost) m_pfnPost(jParm, pHead);
}

std::vector<BatchBucket> BatchBuckets(KOLV_VESSA_OBJECT *pHead) {
    std::vector<BatchBucket> vBuckets(kBatchBuckets);
    unsigned i = 0;
    for (KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next, ++i)
        vBuckets[i % kBatchBuckets].push_back(p);
    return vBuckets;
}

bool RunBatch(KOLV_VESSA_OBJECT *pHead, BatchItemWork work, Json::Value &jsResult) {
    if (!jsResult.isObject()) jsResult = Json::Value(Json::objectValue);
    if (NULL == pHead) return true;
    CallerBackend caller;
    // One object: no thread at all.
    if (NULL == pHead->m_next) {
        KOLVVESSA_BACKEND_OP *pBackendFs = NULL;
        if (KOLV_FAIL_IF(1010, NULL == (pBackendFs = caller.Get()))) return false;
        RunBucket(BatchBucket{pHead}, work, pBackendFs, jsResult);
        return true;
    }
    const std::vector<BatchBucket> vBuckets = BatchBuckets(pHead);
    // Marked before any worker touches the objects (their ids are read
    // here, never while a worker may be changing them).
    for (const BatchBucket &bucket : vBuckets)
        MarkFailed(bucket, jsResult);
    std::vector<Started> vStarted;
    StartWorkers(vBuckets, work, caller, vStarted, jsResult);
    JoinWorkers(vStarted, jsResult);
    return true;
}

void BatchThreadFaultArm(long n) {
    g_cThreadFault.store(n > 0 ? n : 0);
}

unsigned long BatchThreadsStarted() {
    return g_cThreadsStarted.load();
}

} // namespace kolv
