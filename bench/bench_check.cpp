/*
 * bench_check - the check of a store of OBJECTS notes (default 10,000),
 * with and without the blob walk, per object. The notes are one note
 * made through the store and copied under new ids, each with its row, so
 * the store is clean and every object is checked in full.
 *
 *     bench_check [OBJECTS] [ROUNDS]
 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <string>

#include "bench_note.h"
#include "kolvvessa/kolvvessa.h"
#include "support/kolv_test_support.h"

namespace {

const char kNs[] = "bench";

double NowMs() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

void Require(bool blOk, const char *szWhat) {
    if (blOk) return;
    fprintf(stderr, "bench_check: %s failed\n%s\n", szWhat, kolvtest::StackText().c_str());
    exit(1);
}

/* An id of alice's that no generator made: the counter's MD5, three times. */
std::string CopyId(int i) {
    std::string strMd5 = kolvtest::Md5(std::to_string(i));
    std::string strHex;
    for (char c : strMd5 + strMd5 + strMd5)
        strHex += (char)toupper((unsigned char)c);
    return std::to_string(kolvtest::kAlice) + "_" + strHex;
}

/* The note, then n - 1 copies of its folder and its row. */
void MakeStore(const kolvtest::Sysroot &sys, int n) {
    const std::string strBinary = sys.Root() + "/attachment.bin";
    kolvtest::WriteFile(strBinary, std::string(4096, 'b'));
    KOLV_VESSA_OBJECT obj;
    Require(obj.Create(kolvbench::NoteCreateRequest(strBinary, time(NULL))), "create");
    const std::string strDir = sys.Repo() + "/" + kNs + "/", strFirst = obj.get_id();
    std::string strCopies = "cd '" + strDir + "' && for id in";
    std::string strValues;
    for (int i = 1; i < n; ++i) {
        strCopies += " " + CopyId(i);
        strValues += std::string(strValues.empty() ? "" : ",") + "('" + CopyId(i) + "')";
        if (0 == i % 500 || i == n - 1) {
            Require(0 == kolvtest::RunCommand(strCopies + "; do cp -a " + strFirst + " $id; done"), "copy");
            kolvtest::Psql("INSERT INTO object SELECT v.id, ns, owner, category, parent_id, version, commit_msg, acl, "
                           "text, metatext, binary_info, metabinary_info, ctime, mtime, extra_info FROM object, "
                           "(VALUES " +
                           strValues + ") AS v(id) WHERE object.id = '" + strFirst + "';");
            strCopies = "cd '" + strDir + "' && for id in";
            strValues.clear();
        }
    }
}

double CheckMs(bool blBlobs, unsigned &cFindings) {
    Json::Value jParm, jReport;
    jParm["blobs"] = blBlobs;
    double t = NowMs();
    Require(KOLVVessaCheck(jParm, jReport), "check");
    t = NowMs() - t;
    cFindings = jReport["findings"].size();
    return t;
}

} // namespace

int main(int argc, char **argv) {
    if (!kolvtest::HavePostgres()) {
        printf("PGHOST is not set: start a server with scripts/pg_cluster.sh start\n");
        return 0;
    }
    int n = argc > 1 ? atoi(argv[1]) : 10000;
    int cRounds = argc > 2 ? atoi(argv[2]) : 3;
    if (n < 1 || cRounds < 1) return 2;
    kolvtest::Sysroot sys;
    sys.EnableNamespace(kNs);
    kolvtest::DropIndexDatabase();
    double t = NowMs();
    MakeStore(sys, n);
    printf("%d objects made in %.1f s (outside the timed parts)\n", n, (NowMs() - t) / 1e3);
    for (int round = 0; round < cRounds; ++round) {
        for (bool blBlobs : {false, true}) {
            unsigned cFindings = 0;
            double ms = CheckMs(blBlobs, cFindings);
            printf("round %d, %-16s %8.1f ms   %.3f ms an object   findings %u\n", round,
                   blBlobs ? "with blobs:" : "without blobs:", ms, ms / n, cFindings);
        }
    }
    return 0;
}
