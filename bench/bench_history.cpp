/*
 * bench_history - what the file store's delete, version list and field
 * rename cost beside the least work with the same result.
 *
 * Delete: the backend's Delete of an object with 20 versions and a 64 KiB
 * binary file, beside the old way of removing one: fork and exec
 * "/bin/rm -rf" on a copy of the same folder (cp -a, made outside the timed
 * part). The store renames the folder out of the namespace under the
 * object's lock, then removes it in-process without following a link; the
 * removal alone (kolv::fs::RemoveTree on a second copy) is timed once per
 * round to show which of the two dominates.
 *
 * Version list: a page of 50 of an object's 500 versions, from the top and
 * from offset 450, beside a bare libgit2 revision walk in the same order
 * that looks up the same 50 commits and parses their messages as JSON. At
 * offset 450 the walk is timed once more reading every commit it passes,
 * as the store does to apply its filter before counting the offset.
 *
 * Field rename: a rename of a text field (one commit) beside a set that
 * changes one text field of a same-sized object (one commit too).
 *
 * Subject and baseline alternate round by round, which goes first changing
 * each round, in one process under one temporary sysroot, so disk and cache
 * conditions are shared. Medians are printed; nothing is asserted on time.
 *
 *     bench_history [rounds]
 */
#include <git2.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "backend_fs/kolvvessaBackend_fs.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_version.h"
#include "bench_note.h"
#include "support/kolv_test_support.h"

namespace {

using kolvbench::Median;

using Clock = std::chrono::steady_clock;

const char *const kNs = "bench";
const long long kMtime = 1700000000LL;

void Check(bool bl, const char *szWhat) {
    if (bl) return;
    fprintf(stderr, "bench: %s failed\n%s\n", szWhat, kolvtest::StackText().c_str());
    exit(1);
}

void GitCheck(int ret, const char *szWhat) {
    if (0 <= ret) return;
    const git_error *pErr = git_error_last();
    fprintf(stderr, "bench: %s failed: %s\n", szWhat, pErr ? pErr->message : "");
    exit(1);
}

double Timed(const std::function<void()> &f) {
    auto t0 = Clock::now();
    f();
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

/* Milliseconds of each round, subject and baseline. */
struct Samples {
    std::vector<double> vSubject, vBase;
};

/* One round of each; which goes first alternates with the round. */
void Alternate(int round, Samples &s, const std::function<void()> &subject, const std::function<void()> &baseline) {
    if (0 == round % 2) {
        s.vSubject.push_back(Timed(subject));
        s.vBase.push_back(Timed(baseline));
    } else {
        s.vBase.push_back(Timed(baseline));
        s.vSubject.push_back(Timed(subject));
    }
}

void Report(const char *szName, const Samples &s) {
    double subject = Median(s.vSubject), base = Median(s.vBase);
    printf("  %-30s %9.3f ms   baseline %9.3f ms   ratio %5.2f\n", szName, subject, base,
           base > 0 ? subject / base : 0);
}

/* ---- objects made through the file store --------------------------------- */

Json::Value Request(const std::string &strId, long long mtime) {
    Json::Value j;
    j["ns"] = kNs;
    j["id"] = strId;
    j["requester"] = kolvtest::kAlice;
    j["mtime"] = (Json::Int64)mtime;
    return j;
}

/* Three text fields and one 64 KiB binary file, as bench_versions makes. */
void Create(const std::string &strBinary, std::string &strId, std::string &strVer) {
    Json::Value j = kolvbench::NoteCreateRequest(strBinary, kMtime);
    KOLVVESSA_BACKEND_FS fs;
    Check(fs.Create(j, strId, strVer), "Create");
}

/* A new version with the body changed: one commit. */
void SetBody(const std::string &strId, std::string &strVer, int n) {
    Json::Value j = Request(strId, kMtime + n);
    j["version"] = strVer;
    j["text"]["body"] = "changed " + std::to_string(n);
    KOLVVESSA_BACKEND_FS fs;
    Check(fs.Set(j, strVer), "Set");
}

/* An object with cVersions versions; its id. */
std::string MakeObject(const std::string &strBinary, int cVersions) {
    std::string strId, strVer;
    Create(strBinary, strId, strVer);
    for (int n = 1; n < cVersions; n++)
        SetBody(strId, strVer, n);
    return strId;
}

std::string ObjectDir(const kolvtest::Sysroot &sys, const std::string &strId) {
    return sys.Repo() + "/" + kNs + "/" + strId;
}

/* ---- delete --------------------------------------------------------------- */

/* The old way: a child process removes the folder. */
void ForkRm(const std::string &strDir) {
    pid_t pid = fork();
    Check(0 <= pid, "fork");
    if (0 == pid) {
        execl("/bin/rm", "rm", "-rf", strDir.c_str(), (char *)NULL);
        _exit(127);
    }
    int status = 0;
    Check(pid == waitpid(pid, &status, 0) && WIFEXITED(status) && 0 == WEXITSTATUS(status), "rm -rf");
}

void CopyTree(const std::string &strFrom, const std::string &strTo) {
    Check(0 == kolvtest::RunCommand("cp -a '" + strFrom + "' '" + strTo + "'"), "cp -a");
}

void BenchDelete(const kolvtest::Sysroot &sys, const std::string &strBinary, int cRounds) {
    Samples s;
    std::vector<double> vRemoval;
    const std::string strBase = sys.Root() + "/volume1/baseline";
    for (int round = 0; round < cRounds; round++) {
        const std::string strId = MakeObject(strBinary, 20), strDir = ObjectDir(sys, strId);
        const std::string strRm = strBase + "/rm" + std::to_string(round);
        const std::string strTree = strBase + "/tree" + std::to_string(round);
        CopyTree(strDir, strRm);
        CopyTree(strDir, strTree);
        // Neither side pays for flushing what the set-up wrote.
        sync();
        Alternate(
            round, s,
            [&] {
                KOLVVESSA_BACKEND_FS fs;
                Check(fs.Delete(Request(strId, kMtime)), "Delete");
            },
            [&] { ForkRm(strRm); });
        vRemoval.push_back(Timed([&] { Check(0 == kolv::fs::RemoveTree(strTree), "RemoveTree"); }));
        Check(!kolv::fs::Exists(strDir) && !kolv::fs::Exists(strRm) && !kolv::fs::Exists(strTree), "removal");
    }
    Report("delete, 20 versions", s);
    printf("  %-30s %9.3f ms   (kolv::fs::RemoveTree alone on a copy)\n", "  of which removal", Median(vRemoval));
}

/* ---- version list --------------------------------------------------------- */

/* The least libgit2 work for a page: open, walk in the store's order, skip
 * offset commits by id alone (or read them, blReadSkipped), then look up
 * limit commits and parse each message. The number read into the page. */
unsigned BareWalk(const std::string &strRepo, unsigned offset, unsigned limit, bool blReadSkipped) {
    git_repository *pRawRepo = NULL;
    GitCheck(git_repository_open_bare(&pRawRepo, (strRepo + "/.git").c_str()), "open");
    kolv::GitRepository pRepo(pRawRepo);
    git_revwalk *pRawWalk = NULL;
    GitCheck(git_revwalk_new(&pRawWalk, pRepo.get()), "revwalk");
    kolv::GitRevwalk pWalk(pRawWalk);
    git_revwalk_sorting(pWalk.get(), GIT_SORT_TOPOLOGICAL | GIT_SORT_TIME);
    GitCheck(git_revwalk_push_head(pWalk.get()), "push head");
    git_oid oid;
    unsigned cPassed = 0, cRead = 0;
    while (cRead < limit && 0 == git_revwalk_next(&oid, pWalk.get())) {
        bool blSkip = cPassed++ < offset;
        if (blSkip && !blReadSkipped) continue;
        git_commit *pRawCommit = NULL;
        GitCheck(git_commit_lookup(&pRawCommit, pRepo.get(), &oid), "commit lookup");
        kolv::GitCommit pCommit(pRawCommit);
        Json::Value jMsg;
        Check(kolv::JsonFromString(jMsg, git_commit_message(pCommit.get())), "message parse");
        if (!blSkip) cRead++;
    }
    return cRead;
}

void ListPage(const std::string &strId, unsigned offset) {
    Json::Value j = Request(strId, kMtime);
    j["offset"] = offset;
    j["limit"] = 50;
    KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
    unsigned total = 0, listable = 0;
    KOLVVESSA_BACKEND_FS fs;
    int count = fs.VersionList(j, &pHead, total, listable);
    KOLVVessaObjectVersionFreeList(pHead);
    Check(50 == count && 500 == total, "VersionList");
}

void BenchVersionList(const kolvtest::Sysroot &sys, const std::string &strBinary, int cRounds) {
    const std::string strId = MakeObject(strBinary, 500);
    const std::string strRepo = ObjectDir(sys, strId) + "/version";
    for (unsigned offset : {0u, 450u}) {
        Samples s;
        std::vector<double> vReadAll;
        for (int round = 0; round < cRounds; round++) {
            Alternate(
                round, s, [&] { ListPage(strId, offset); },
                [&] { Check(50 == BareWalk(strRepo, offset, 50, false), "walk"); });
            if (offset > 0) vReadAll.push_back(Timed([&] { BareWalk(strRepo, offset, 50, true); }));
        }
        Report(offset ? "version list 50 at 450 of 500" : "version list 50 at 0 of 500", s);
        if (offset > 0)
            printf("  %-30s %9.3f ms   (the walk reading the %u commits it skips)\n", "  baseline reading all",
                   Median(vReadAll), offset);
    }
}

/* ---- field rename --------------------------------------------------------- */

void BenchRename(const std::string &strBinary, int cRounds) {
    std::string strRenamed, strRenamedVer, strSet, strSetVer;
    Create(strBinary, strRenamed, strRenamedVer);
    Create(strBinary, strSet, strSetVer);
    Samples s;
    for (int round = 0; round < cRounds; round++) {
        // body -> body1 -> body2 ...: each rename one commit on the tip.
        const std::string strOld = round ? "body" + std::to_string(round) : "body";
        Alternate(
            round, s,
            [&] {
                Json::Value j = Request(strRenamed, kMtime + round + 1);
                j["version"] = strRenamedVer;
                j["segment"] = "text";
                j["old_field"] = strOld;
                j["new_field"] = "body" + std::to_string(round + 1);
                KOLVVESSA_BACKEND_FS fs;
                Check(fs.FieldRename(j, strRenamedVer), "FieldRename");
            },
            [&] { SetBody(strSet, strSetVer, round + 1); });
    }
    Report("rename of a text field", s);
}

} // namespace

int main(int argc, char **argv) {
    int cRounds = argc > 1 ? atoi(argv[1]) : 20;
    kolvtest::Sysroot sys;
    std::string strBinary = sys.Root() + "/attachment.bin";
    std::string strData(64 * 1024, '\0');
    for (size_t i = 0; i < strData.size(); i++)
        strData[i] = (char)((i * 2654435761u) >> 13);
    kolvtest::WriteFile(strBinary, strData);
    Check(0 == kolvtest::RunCommand("mkdir -p '" + sys.Root() + "/volume1/baseline'"), "mkdir");
    // One initialisation for the whole run, as a long-lived caller has; the
    // store's first backend sets libgit2's options once.
    git_libgit2_init();
    MakeObject(strBinary, 1);
    printf("%d rounds, medians per operation (ratio: file store / baseline):\n", cRounds);
    BenchDelete(sys, strBinary, cRounds);
    BenchVersionList(sys, strBinary, 5 * cRounds);
    BenchRename(strBinary, cRounds);
    git_libgit2_shutdown();
    return 0;
}
