/*
 * check_repo.cpp - an object's history reads back: HEAD and every branch
 * resolve, every commit, tree and blob reachable from them is in the
 * object database whole, and git_info.json agrees with the history.
 *
 * The history is never rewritten here: what is broken is reported with
 * what was seen, for the administrator to restore.
 */
#include <errno.h>
#include <git2.h>
#include <string.h>
#include <unistd.h>
#include <sys/stat.h>

#include <set>
#include <string>

#include "check/check_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa_git_internal.h"

namespace kolv {
namespace check {

namespace {

const char szCannotHistory[] = "none: the history is never rewritten; restore the object's repository from a backup";
const char szCannotGitInfo[] = "none: git_info.json is the object's own count and is never rewritten";

std::string Hex(const git_oid *pOid) {
    char sz[GIT_OID_HEXSZ + 1];
    git_oid_tostr(sz, sizeof(sz), pOid);
    return sz;
}

/* One repository's walk: the problems seen, each object read once. */
struct Walk {
    git_repository *pRepo = NULL;
    git_odb *pOdb = NULL;
    bool blBlobs = true;
    std::set<std::string> seen;
    std::string strProblems;
    unsigned cProblems = 0, cCommits = 0;

    void Problem(const std::string &str) {
        // The first few tell the story; the count tells the rest.
        if (++cProblems <= 3) strProblems += (strProblems.empty() ? "" : "; ") + str + " (" + git::ErrText() + ")";
        git_error_clear();
    }

    void Blob(const git_oid *pOid) {
        if (!seen.insert(Hex(pOid)).second) return;
        if (!blBlobs) {
            if (!git_odb_exists(pOdb, pOid)) Problem("blob " + Hex(pOid) + " is missing");
            return;
        }
        // Reading inflates the object and verifies its hash.
        git_odb_object *pRaw = NULL;
        int ret = git_odb_read(&pRaw, pOdb, pOid);
        GitOdbObject pObj(pRaw);
        if (0 > ret) Problem("blob " + Hex(pOid) + " does not read back");
    }

    void Tree(const git_oid *pOid) {
        if (!seen.insert(Hex(pOid)).second) return;
        git_tree *pRaw = NULL;
        int ret = git_tree_lookup(&pRaw, pRepo, pOid);
        GitTree pTree(pRaw);
        if (0 > ret) return Problem("tree " + Hex(pOid) + " does not read back");
        for (size_t i = 0, n = git_tree_entrycount(pTree.get()); i < n; ++i) {
            const git_tree_entry *pEntry = git_tree_entry_byindex(pTree.get(), i);
            git_object_t type = git_tree_entry_type(pEntry);
            if (GIT_OBJECT_TREE == type) Tree(git_tree_entry_id(pEntry));
            if (GIT_OBJECT_BLOB == type) Blob(git_tree_entry_id(pEntry));
        }
    }

    void Commit(const git_oid *pOid) {
        ++cCommits;
        git_commit *pRaw = NULL;
        int ret = git_commit_lookup(&pRaw, pRepo, pOid);
        GitCommit pCommit(pRaw);
        if (0 > ret) return Problem("commit " + Hex(pOid) + " does not read back");
        Tree(git_commit_tree_id(pCommit.get()));
    }

    /* The tips to walk from: HEAD and every local branch. */
    void Tips(git_revwalk *pWalk) {
        git_reference *pRawHead = NULL;
        int ret = git_repository_head(&pRawHead, pRepo);
        GitReference pHead(pRawHead);
        if (0 > ret) {
            Problem("HEAD does not resolve");
        } else if (0 > git_revwalk_push(pWalk, git_reference_target(pHead.get()))) {
            Problem("HEAD's commit does not read back");
        }
        git_branch_iterator *pRawIt = NULL;
        if (0 > git_branch_iterator_new(&pRawIt, pRepo, GIT_BRANCH_LOCAL))
            return Problem("the branches cannot be listed");
        GitBranchIterator pIt(pRawIt);
        git_reference *pRawRef = NULL;
        git_branch_t type;
        while (0 == (ret = git_branch_next(&pRawRef, &type, pIt.get()))) {
            GitReference pRef(pRawRef);
            const git_oid *pTip = git_reference_target(pRef.get());
            if (NULL == pTip || 0 > git_revwalk_push(pWalk, pTip))
                Problem(std::string("branch ") + git_reference_name(pRef.get()) + " does not resolve");
        }
        if (GIT_ITEROVER != ret) Problem("the branches cannot be listed");
    }

    void History() {
        git_revwalk *pRawWalk = NULL;
        if (0 > git_revwalk_new(&pRawWalk, pRepo)) return Problem("the history cannot be walked");
        GitRevwalk pWalk(pRawWalk);
        Tips(pWalk.get());
        git_oid oid;
        int ret;
        while (0 == (ret = git_revwalk_next(&oid, pWalk.get())))
            Commit(&oid);
        if (GIT_ITEROVER != ret) Problem("the history breaks off after " + std::to_string(cCommits) + " commits");
    }
};

/* git_info.json counts the writes: at least one (the first version), and
 * never fewer of them than of the listable ones. A write that changed
 * nothing counts without a commit and a rename commits without counting,
 * so the counts bound the history only loosely. */
void CheckGitInfo(Run &run, const std::string &strNs, const std::string &strId, const Json::Value &jGitInfo,
                  unsigned cCommits) {
    const std::string strRel = strNs + "/" + strId + "/git_info.json";
    std::string strSeen;
    if (jGitInfo.isNull()) {
        // A file that is there but unreadable was reported as such; an
        // empty one is a first write cut short, read as none.
        struct stat st;
        bool blNone = !fs::Lstat(run.strRepo + "/" + strRel, st) || (S_ISREG(st.st_mode) && 0 == st.st_size);
        if (cCommits > 0 && blNone)
            strSeen = "missing while the history holds " + std::to_string(cCommits) + " commits";
    } else {
        long long cnt = jGitInfo["commit_cnt"].asInt64(), listable = jGitInfo["listable_commit_cnt"].asInt64();
        if (cCommits > 0 && cnt < 1) strSeen = "\"commit_cnt\" is " + std::to_string(cnt) + " with a history";
        if (listable < 0 || listable > cnt)
            strSeen = "\"listable_commit_cnt\" " + std::to_string(listable) + " is outside 0.." + std::to_string(cnt);
    }
    if (!strSeen.empty()) run.Add("git_info_mismatch", strNs, strId, strRel, strSeen, szCannotGitInfo);
}

/* Opens the repository of the object folder fdObj by its ".git" alone,
 * as the store does: neither "version" nor ".git" may be a link, and
 * ".git" must be the store's own (the work tree is the owner's). */
bool OpenRepository(int fdObj, const std::string &strDir, GitRepository &pRepo, std::string &strWhy) {
    Fd fdVer(OpenDirAt(fdObj, "version"));
    Fd fdGit(0 <= fdVer.get() ? OpenDirAt(fdVer.get(), ".git") : -1);
    struct stat st;
    if (0 > fdGit.get() || 0 != fstat(fdGit.get(), &st)) {
        strWhy = std::string("no repository folder (") + strerror(errno) + ")";
        return false;
    }
    if (st.st_uid != geteuid()) {
        strWhy = ".git belongs to uid " + std::to_string(st.st_uid);
        return false;
    }
    git_repository *pRaw = NULL;
    int ret = git_repository_open_ext(&pRaw, (strDir + "/.git").c_str(),
                                      GIT_REPOSITORY_OPEN_NO_SEARCH | GIT_REPOSITORY_OPEN_BARE, NULL);
    pRepo.reset(pRaw);
    if (0 > ret) strWhy = std::string("the repository does not open (") + git::ErrText() + ")";
    return 0 <= ret;
}

} // namespace

void CheckRepository(Run &run, const std::string &strNs, const std::string &strId, int fdObj,
                     const Json::Value &jGitInfo) {
    const std::string strRel = strNs + "/" + strId + "/version";
    GitRepository pRepo;
    std::string strWhy;
    if (!OpenRepository(fdObj, run.strRepo + "/" + strRel, pRepo, strWhy)) {
        run.Add("repo_broken", strNs, strId, strRel, strWhy, szCannotHistory);
        return;
    }
    git_odb *pRawOdb = NULL;
    if (0 > git_repository_odb(&pRawOdb, pRepo.get())) {
        run.Add("repo_broken", strNs, strId, strRel, "the object database does not open", szCannotHistory);
        return;
    }
    GitOdb pOdb(pRawOdb);
    Walk walk;
    walk.pRepo = pRepo.get();
    walk.pOdb = pOdb.get();
    walk.blBlobs = run.blBlobs;
    walk.History();
    if (walk.cProblems) {
        std::string strMore = walk.cProblems > 3 ? " and " + std::to_string(walk.cProblems - 3) + " more" : "";
        run.Add("repo_broken", strNs, strId, strRel, walk.strProblems + strMore, szCannotHistory);
    }
    CheckGitInfo(run, strNs, strId, jGitInfo, walk.cCommits);
}

} // namespace check
} // namespace kolv
