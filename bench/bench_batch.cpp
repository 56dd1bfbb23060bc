/*
 * bench_batch - what the multi-object set and delete gain over the same
 * work done object by object through the single-object calls.
 *
 * Each round makes two sets of OBJECTS notes of alice (outside the timed
 * part). Set: one multi-object set of a meta text field on the first set
 * beside one single-object set per object of the second; then delete: one
 * multi-object delete of the one set beside one single-object delete per
 * object of the other. Which goes first changes round by round, in one
 * process under one temporary sysroot and one index server, so disk, cache
 * and server conditions are shared. Medians of the rounds are printed.
 *
 * Where the multi-object call's time goes, roughly: the pre-check (every
 * object read on the worker threads and checked in order, timed alone on the same
 * ids just before) and the rest (hooks, the threaded storage work, the
 * index), and the processor time of the process against the wall-clock
 * time (the rest is waiting, mostly for the disk's flushes, which the
 * worker threads overlap). Nothing is asserted on time.
 *
 *     eval "$(scripts/pg_cluster.sh start)"; bench_batch [rounds] [objects]
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "kolvvessa/kolvvessa.h"
#include "object/object_batch.h"
#include "support/kolv_test_support.h"

namespace {

using kolvbench::Median;

using Clock = std::chrono::steady_clock;

const char *const kNs = "bench";

void Check(bool bl, const char *szWhat) {
    if (bl) return;
    // The server's own word on the last statement, when it refused one.
    KOLVDB *pConn = KOLVVessaOpenConn();
    const char *szDB = pConn ? KOLVDBErrorGet(pConn) : NULL;
    fprintf(stderr, "bench: %s failed\n%s\n%s\n", szWhat, kolvtest::StackText().c_str(), szDB ? szDB : "");
    exit(1);
}

// The processor time of every thread of this process, in milliseconds.
double CpuMs() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
}

// Wall-clock milliseconds of f; its processor time into *pCpu when given.
double Timed(const std::function<void()> &f, std::vector<double> *pCpu = nullptr) {
    double cpu0 = CpuMs();
    auto t0 = Clock::now();
    f();
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    if (pCpu) pCpu->push_back(CpuMs() - cpu0);
    return ms;
}

Json::Value Request(const Json::Value &jIds) {
    Json::Value j;
    j["ns"] = kNs;
    j["requester"] = kolvtest::kAlice;
    j["id"] = jIds;
    return j;
}

// n notes of alice, each with a title and a meta text field.
Json::Value MakeNotes(int n) {
    Json::Value jIds(Json::arrayValue);
    for (int i = 0; i < n; ++i) {
        Json::Value j;
        j["ns"] = kNs;
        j["requester"] = kolvtest::kAlice;
        j["category"] = "note";
        j["text"]["title"] = "note " + std::to_string(i);
        j["metatext"]["tag"] = "new";
        KOLV_VESSA_OBJECT obj;
        Check(obj.Create(j), "create");
        jIds.append(obj.get_id());
    }
    return jIds;
}

// Every id of jsResult true, and as many as asked.
void CheckResult(const Json::Value &jsResult, const Json::Value &jIds, const char *szWhat) {
    unsigned cDone = 0;
    for (const Json::Value &jID : jIds)
        cDone += jsResult[jID.asString()].asBool() ? 1 : 0;
    Check(cDone == jIds.size(), szWhat);
}

void BatchSet(const Json::Value &jIds, int round) {
    Json::Value jParm = Request(jIds), jsResult(Json::objectValue);
    jParm["metatext"]["tag"] = "round " + std::to_string(round);
    KOLV_VESSA_OBJECT_LIST list;
    Check(list.Set(jParm, jsResult), "multi-object set");
    CheckResult(jsResult, jIds, "multi-object set of every object");
}

void SingleSets(const Json::Value &jIds, int round) {
    for (const Json::Value &jID : jIds) {
        Json::Value jParm = Request(jID);
        jParm["metatext"]["tag"] = "round " + std::to_string(round);
        KOLV_VESSA_OBJECT obj;
        Check(obj.Set(jParm), "single-object set");
    }
}

void BatchDelete(const Json::Value &jIds) {
    Json::Value jParm = Request(jIds), jsResult(Json::objectValue);
    KOLV_VESSA_OBJECT_LIST list;
    Check(list.Delete(jParm, jsResult), "multi-object delete");
    CheckResult(jsResult, jIds, "multi-object delete of every object");
}

void SingleDeletes(const Json::Value &jIds) {
    for (const Json::Value &jID : jIds) {
        KOLV_VESSA_OBJECT obj;
        Check(obj.Delete(Request(jID)), "single-object delete");
    }
}

// The pre-check alone: every object read and checked, nothing changed.
double PreCheckOnly(const Json::Value &jIds) {
    KOLV_VESSA_OBJECT *pHead = NULL;
    double ms = Timed([&]() { Check(kolv::PreCheck(Request(jIds), &pHead), "pre-check"); });
    KOLVVessaObjectFreeList(pHead);
    return ms;
}

struct Samples {
    std::vector<double> vBatch, vSingle, vPreCheck, vBatchCpu, vSingleCpu;
    void Report(const char *szName, int n) const {
        double batch = Median(vBatch), single = Median(vSingle), pre = Median(vPreCheck);
        printf("%-8s multi-object %9.1f ms   one by one %9.1f ms   speed-up %5.2fx\n", szName, batch, single,
               batch > 0 ? single / batch : 0);
        printf("         per object: %.3f ms against %.3f ms; of the multi-object call: pre-check %.1f ms (%.0f%%), "
               "the rest %.1f ms\n",
               batch / n, single / n, pre, batch > 0 ? 100 * pre / batch : 0, batch - pre);
        printf("         processor time of this process (all threads; the server's not counted): multi-object "
               "%.1f ms, one by one %.1f ms\n",
               Median(vBatchCpu), Median(vSingleCpu));
    }
};

} // namespace

int main(int argc, char **argv) {
    if (!kolvtest::HavePostgres()) {
        printf("PGHOST is not set: start a server with scripts/pg_cluster.sh start\n");
        return 0;
    }
    int cRounds = argc > 1 ? atoi(argv[1]) : 3;
    int n = argc > 2 ? atoi(argv[2]) : 1000;
    if (cRounds < 1 || n < 1) return 2;
    kolvtest::Sysroot sys;
    sys.EnableNamespace(kNs);
    kolvtest::DropIndexDatabase();
    printf("%d rounds of %d objects, %ld processors; medians:\n", cRounds, n, sysconf(_SC_NPROCESSORS_ONLN));
    Samples set, del;
    double msCreate = 0;
    for (int round = 0; round < cRounds; ++round) {
        Json::Value jA, jB;
        msCreate += Timed([&]() {
            jA = MakeNotes(n);
            jB = MakeNotes(n);
        });
        bool blBatchFirst = 0 == round % 2;
        set.vPreCheck.push_back(PreCheckOnly(jA));
        for (int k = 0; k < 2; ++k) {
            if (blBatchFirst == (0 == k)) {
                set.vBatch.push_back(Timed([&]() { BatchSet(jA, round); }, &set.vBatchCpu));
            } else {
                set.vSingle.push_back(Timed([&]() { SingleSets(jB, round); }, &set.vSingleCpu));
            }
        }
        del.vPreCheck.push_back(PreCheckOnly(jA));
        for (int k = 0; k < 2; ++k) {
            if (blBatchFirst == (0 == k)) {
                del.vBatch.push_back(Timed([&]() { BatchDelete(jA); }, &del.vBatchCpu));
            } else {
                del.vSingle.push_back(Timed([&]() { SingleDeletes(jB); }, &del.vSingleCpu));
            }
        }
        Check("0" == kolvtest::Psql("SELECT count(*) FROM object"), "every row gone");
    }
    printf("(making the objects: %.3f ms each, outside the timed parts)\n", msCreate / (2.0 * n * cRounds));
    set.Report("set", n);
    del.Report("delete", n);
    printf("worker threads started: %lu\n", kolv::BatchThreadsStarted());
    return 0;
}
