/*
 * bench_versions - what the file store's versions cost over bare libgit2.
 *
 * Subject: the backend's Create (three text fields and one 64 KiB binary
 * file) and Set (one text field changed). Baseline: the least libgit2 work
 * with the same result in the repository: init, blobs, trees, commit and
 * checkout; then a commit on the tip and its checkout; with the JSON files
 * the store writes beside the repository (basic.json and git_info.json on
 * create, git_info.json on set). All write under the same temporary folder
 * and run interleaved, round by round, in one process, so disk and cache
 * conditions are shared.
 *
 * The cost of durability: the store flushes every file it writes and turns
 * libgit2's own fsync on; it has no switch to turn that off. So the
 * baseline runs twice, durable (libgit2's fsync on, JSON files written
 * through the store's primitive: a temporary file, flushed, renamed, the
 * folder flushed) and not (fsync off, the same bytes written and renamed),
 * and the store's primitive is timed alone against the plain write and
 * rename of the same bytes.
 *
 *     bench_versions [rounds] [objects per round]
 */
#include <fcntl.h>
#include <git2.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "bench_note.h"
#include "support/kolv_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

using kolvbench::kBody;
using kolvbench::kTags;
using kolvbench::kTitle;

void Check(bool bl, const char *szWhat) {
    if (bl) return;
    fprintf(stderr, "bench: %s failed\n%s\n", szWhat, kolvtest::StackText().c_str());
    exit(1);
}

/* ---- subject: the file store ------------------------------------------ */

void SubjectCreate(const std::string &strBinary, long long mtime, std::string &strId, std::string &strVer) {
    KOLVVESSA_BACKEND_FS fs;
    Check(fs.Create(kolvbench::NoteCreateRequest(strBinary, mtime), strId, strVer), "Create");
}

void SubjectSet(const std::string &strId, std::string &strVer, long long mtime, int n) {
    Json::Value j;
    j["ns"] = "bench";
    j["id"] = strId;
    j["requester"] = kolvtest::kAlice;
    j["mtime"] = (Json::Int64)mtime;
    j["version"] = strVer;
    j["text"]["body"] = "changed " + std::to_string(n);
    KOLVVESSA_BACKEND_FS fs;
    Check(fs.Set(j, strVer), "Set");
}

/* ---- baseline: bare libgit2 -------------------------------------------- */

/* The same bytes as kolv::fs::WriteFile writes, without a flush: a
 * temporary file beside the target, renamed over it. */
void PlainWrite(const std::string &strPath, const std::string &strContent) {
    std::string strTmp = strPath + ".plain";
    int fd = open(strTmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool blOk = 0 <= fd && kolv::fs::WriteAll(fd, strContent.data(), strContent.size());
    blOk = 0 <= fd && 0 == close(fd) && blOk && 0 == rename(strTmp.c_str(), strPath.c_str());
    Check(blOk, "plain write");
}

/* A JSON file beside the repository, durable or not. */
void WriteJson(bool blFsync, const std::string &strPath, const std::string &strContent) {
    if (blFsync) {
        Check(kolv::fs::WriteFile(strPath, strContent.data(), strContent.size()), "durable write");
    } else {
        PlainWrite(strPath, strContent);
    }
}

void GitCheck(int ret, const char *szWhat) {
    if (0 <= ret) return;
    const git_error *pErr = git_error_last();
    fprintf(stderr, "bench: %s failed: %s\n", szWhat, pErr ? pErr->message : "");
    exit(1);
}

/* libgit2's own flush of the files it writes in the repository: the
 * process-wide option the store turns on. */
void SetGitFsync(bool blFsync) {
    GitCheck(git_libgit2_opts(GIT_OPT_ENABLE_FSYNC_GITDIR, blFsync ? 1 : 0), "fsync option");
}

git_oid Blob(git_repository *pRepo, const std::string &str) {
    git_oid oid;
    GitCheck(git_blob_create_from_buffer(&oid, pRepo, str.data(), str.size()), "blob");
    return oid;
}

git_oid WriteTree(git_repository *pRepo, git_tree *pBase, const std::vector<std::pair<std::string, git_oid>> &vEntries,
                  git_filemode_t mode) {
    git_treebuilder *pRaw = NULL;
    GitCheck(git_treebuilder_new(&pRaw, pRepo, pBase), "treebuilder");
    kolv::GitTreeBuilder pBld(pRaw);
    for (const auto &entry : vEntries)
        GitCheck(git_treebuilder_insert(NULL, pBld.get(), entry.first.c_str(), &entry.second, mode), "insert");
    git_oid oid;
    GitCheck(git_treebuilder_write(&oid, pBld.get()), "tree");
    return oid;
}

void Checkout(git_repository *pRepo, const git_oid *pTree, git_tree *pBaseline) {
    git_tree *pRaw = NULL;
    GitCheck(git_tree_lookup(&pRaw, pRepo, pTree), "tree lookup");
    kolv::GitTree pTreeObj(pRaw);
    git_checkout_options opts = GIT_CHECKOUT_OPTIONS_INIT;
    opts.checkout_strategy = GIT_CHECKOUT_FORCE | GIT_CHECKOUT_REMOVE_UNTRACKED;
    opts.baseline = pBaseline;
    GitCheck(git_checkout_tree(pRepo, reinterpret_cast<git_object *>(pTreeObj.get()), &opts), "checkout");
}

void BaselineCreate(const std::string &strDir, const std::string &strBinary, long long mtime, bool blFsync) {
    SetGitFsync(blFsync);
    git_repository *pRawRepo = NULL;
    GitCheck(git_repository_init(&pRawRepo, strDir.c_str(), 0), "init");
    kolv::GitRepository pRepo(pRawRepo);
    git_repository *r = pRepo.get();
    std::string strMtime = std::to_string(mtime);
    WriteJson(blFsync, strDir + "/../basic.json",
              "{\"auto_mtime\":{\"category\":" + strMtime + ",\"ctime\":" + strMtime +
                  "},\"basic\":{\"category\":\"note\",\"ctime\":" + strMtime + "}}");
    git_oid bin;
    GitCheck(git_blob_create_from_disk(&bin, r, strBinary.c_str()), "blob from disk");
    git_oid text = WriteTree(r, NULL, {{"title", Blob(r, kTitle)}, {"body", Blob(r, kBody)}, {"tags", Blob(r, kTags)}},
                             GIT_FILEMODE_BLOB);
    git_oid binary = WriteTree(r, NULL, {{"attachment", bin}}, GIT_FILEMODE_BLOB);
    git_oid info =
        WriteTree(r, NULL, {{"attachment", Blob(r, "{\"format\":\"raw\",\"md5\":\"0\"}")}}, GIT_FILEMODE_BLOB);
    git_oid top = WriteTree(r, NULL, {{"binary", binary}, {"binary_info", info}, {"text", text}}, GIT_FILEMODE_TREE);
    git_signature *pRawSig = NULL;
    GitCheck(git_signature_new(&pRawSig, "alice", "alice@example.com", mtime, 0), "signature");
    kolv::GitSignature pSig(pRawSig);
    git_tree *pRawTree = NULL;
    GitCheck(git_tree_lookup(&pRawTree, r, &top), "tree lookup");
    kolv::GitTree pTree(pRawTree);
    git_oid commit;
    GitCheck(git_commit_create(&commit, r, "HEAD", pSig.get(), pSig.get(), "UTF-8", "{}", pTree.get(), 0, NULL),
             "commit");
    Checkout(r, &top, NULL);
    WriteJson(blFsync, strDir + "/../git_info.json", "{\"commit_cnt\":1,\"listable_commit_cnt\":0}");
}

void BaselineSet(const std::string &strDir, long long mtime, int n, bool blFsync) {
    SetGitFsync(blFsync);
    git_repository *pRawRepo = NULL;
    GitCheck(git_repository_open(&pRawRepo, strDir.c_str()), "open");
    kolv::GitRepository pRepo(pRawRepo);
    git_repository *r = pRepo.get();
    git_object *pRawHead = NULL;
    GitCheck(git_revparse_single(&pRawHead, r, "HEAD"), "head");
    kolv::GitObject pHead(pRawHead);
    git_commit *pParent = reinterpret_cast<git_commit *>(pHead.get());
    git_tree *pRawOld = NULL;
    GitCheck(git_commit_tree(&pRawOld, pParent), "commit tree");
    kolv::GitTree pOld(pRawOld);
    git_tree_entry *pRawEntry = NULL;
    GitCheck(git_tree_entry_bypath(&pRawEntry, pOld.get(), "text"), "bypath");
    kolv::GitTreeEntry pEntry(pRawEntry);
    git_tree *pRawText = NULL;
    GitCheck(git_tree_lookup(&pRawText, r, git_tree_entry_id(pEntry.get())), "text lookup");
    kolv::GitTree pText(pRawText);
    git_oid text =
        WriteTree(r, pText.get(), {{"body", Blob(r, "\"changed " + std::to_string(n) + "\"")}}, GIT_FILEMODE_BLOB);
    git_oid top = WriteTree(r, pOld.get(), {{"text", text}}, GIT_FILEMODE_TREE);
    git_tree *pRawTree = NULL;
    GitCheck(git_tree_lookup(&pRawTree, r, &top), "tree lookup");
    kolv::GitTree pTree(pRawTree);
    git_signature *pRawSig = NULL;
    GitCheck(git_signature_new(&pRawSig, "alice", "alice@example.com", mtime, 0), "signature");
    kolv::GitSignature pSig(pRawSig);
    const git_commit *rgParents[] = {pParent};
    git_oid commit;
    // Checked out before HEAD moves, against the tree the work tree holds.
    Checkout(r, &top, pOld.get());
    GitCheck(git_commit_create(&commit, r, "HEAD", pSig.get(), pSig.get(), "UTF-8", "{}", pTree.get(), 1, rgParents),
             "commit");
    WriteJson(blFsync, strDir + "/../git_info.json", "{\"commit_cnt\":2,\"listable_commit_cnt\":0}");
}

double Millis(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

/* Milliseconds per round of each kind; [0] without fsync, [1] with. */
struct Totals {
    double baseCreate[2] = {0, 0}, subjCreate = 0, baseSet[2] = {0, 0}, subjSet = 0, write[2] = {0, 0};
};

template <typename F> double Timed(F f) {
    auto t0 = Clock::now();
    f();
    return Millis(Clock::now() - t0);
}

void Round(int round, int cObjects, const std::string &strBase, const std::string &strBinary, Totals &t) {
    std::vector<std::string> vIds(cObjects), vVers(cObjects), vDirs[2];
    long long mtime = 1700000000LL + round * 10;
    // Which baseline goes first alternates from round to round.
    const int rgOrder[2] = {round % 2, 1 - round % 2};
    for (int f : rgOrder) {
        vDirs[f].resize(cObjects);
        t.baseCreate[f] += Timed([&] {
            for (int i = 0; i < cObjects; i++) {
                vDirs[f][i] = strBase + "/r" + std::to_string(round) + "_" + std::to_string(f) + "_" +
                              std::to_string(i) + "/version";
                BaselineCreate(vDirs[f][i], strBinary, mtime, 1 == f);
            }
        });
    }
    SetGitFsync(true); // as the store runs
    t.subjCreate += Timed([&] {
        for (int i = 0; i < cObjects; i++)
            SubjectCreate(strBinary, mtime, vIds[i], vVers[i]);
    });
    for (int f : rgOrder) {
        t.baseSet[f] += Timed([&] {
            for (int i = 0; i < cObjects; i++)
                BaselineSet(vDirs[f][i], mtime + 1, i, 1 == f);
        });
    }
    SetGitFsync(true);
    t.subjSet += Timed([&] {
        for (int i = 0; i < cObjects; i++)
            SubjectSet(vIds[i], vVers[i], mtime + 1, i);
    });
    // One JSON file rewritten in place, as a set rewrites metatext.json.
    std::string strJson =
        "{\"auto_mtime\":{\"m\":" + std::to_string(mtime) + "},\"metatext\":{\"m\":\"" + std::string(100, 'x') + "\"}}";
    for (int f : rgOrder) {
        std::string strPath = strBase + "/write" + std::to_string(f) + ".json";
        t.write[f] += Timed([&] {
            for (int i = 0; i < 10 * cObjects; i++)
                WriteJson(1 == f, strPath, strJson);
        });
    }
}

} // namespace

int main(int argc, char **argv) {
    int cRounds = argc > 1 ? atoi(argv[1]) : 20;
    int cObjects = argc > 2 ? atoi(argv[2]) : 10;
    kolvtest::Sysroot sys;
    std::string strBase = sys.Root() + "/volume1/baseline";
    std::string strBinary = sys.Root() + "/attachment.bin";
    std::string strData(64 * 1024, '\0');
    for (size_t i = 0; i < strData.size(); i++)
        strData[i] = (char)((i * 2654435761u) >> 13);
    kolvtest::WriteFile(strBinary, strData);
    // One initialisation for the whole run, as a long-lived caller has.
    git_libgit2_init();
    Totals t;
    // The store's first backend sets libgit2's options once; after that
    // each side sets the fsync option it runs with.
    std::string strWarmId, strWarmVer;
    SubjectCreate(strBinary, 1600000000LL, strWarmId, strWarmVer);
    for (int round = 0; round < cRounds; round++)
        Round(round, cObjects, strBase, strBinary, t);
    double n = (double)cRounds * cObjects;
    printf("%d rounds x %d objects, per operation (ms):\n", cRounds, cObjects);
    printf("            baseline no fsync   baseline fsync   file store   fsync cost   store / no fsync\n");
    printf("  create:   %17.3f   %14.3f   %10.3f   %10.3f   %16.2f\n", t.baseCreate[0] / n, t.baseCreate[1] / n,
           t.subjCreate / n, (t.baseCreate[1] - t.baseCreate[0]) / n, t.subjCreate / t.baseCreate[0]);
    printf("  set:      %17.3f   %14.3f   %10.3f   %10.3f   %16.2f\n", t.baseSet[0] / n, t.baseSet[1] / n,
           t.subjSet / n, (t.baseSet[1] - t.baseSet[0]) / n, t.subjSet / t.baseSet[0]);
    printf("  one JSON file rewritten: write+rename %.3f ms, flushed (kolv::fs::WriteFile) %.3f ms, ratio %.1f\n",
           t.write[0] / (10 * n), t.write[1] / (10 * n), t.write[1] / t.write[0]);
    git_libgit2_shutdown();
    return 0;
}
