/*
 * kolvvessa_raii.h - owning handles for the C resources the store uses.
 */
#ifndef KOLVVESSA_RAII_H
#define KOLVVESSA_RAII_H

#include <git2.h>
#include <glob.h>
#include <kolvplatform/kolv_platform.h>
#include <openssl/evp.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_object.h"

namespace kolv {

template <typename T, void (*Free)(T *)> struct Deleter {
    void operator()(T *p) const {
        if (p) Free(p);
    }
};

template <typename T, void (*Free)(T *)> using Owned = std::unique_ptr<T, Deleter<T, Free>>;

using GitRepository = Owned<git_repository, git_repository_free>;
using GitTree = Owned<git_tree, git_tree_free>;
using GitTreeEntry = Owned<git_tree_entry, git_tree_entry_free>;
using GitTreeBuilder = Owned<git_treebuilder, git_treebuilder_free>;
using GitCommit = Owned<git_commit, git_commit_free>;
using GitReference = Owned<git_reference, git_reference_free>;
using GitRevwalk = Owned<git_revwalk, git_revwalk_free>;
using GitDiff = Owned<git_diff, git_diff_free>;
using GitSignature = Owned<git_signature, git_signature_free>;
using GitBranchIterator = Owned<git_branch_iterator, git_branch_iterator_free>;
using GitObject = Owned<git_object, git_object_free>;
using GitIndex = Owned<git_index, git_index_free>;
using GitBlob = Owned<git_blob, git_blob_free>;
using GitOdb = Owned<git_odb, git_odb_free>;
using GitOdbObject = Owned<git_odb_object, git_odb_object_free>;

using SzHash = Owned<TRABCSzHash, TRABCSzHashFree>;
using SzList = Owned<TRABCSzList, TRABCSzListFree>;
using DBResult = Owned<KOLVDBRESULT, KOLVDBFreeResult>;
/* A connection of one's own (never the process's index connection). */
using DBConn = Owned<KOLVDB, KOLVDBClose>;
/* A user record of KOLVUserGet / KOLVUserGetByUID. */
using User = Owned<KOLVUSER, KOLVUserFree>;

/* A platform string list or hash that the calls which grow it may move:
 * pass addr() (or ref()) where a T ** (or T *&) is asked for; freed on
 * scope exit. */
template <typename T, void (*Free)(T *)> class GrowingRef {
  public:
    explicit GrowingRef(T *p = NULL) : m_p(p) {}
    ~GrowingRef() {
        if (m_p) Free(m_p);
    }
    GrowingRef(const GrowingRef &) = delete;
    GrowingRef &operator=(const GrowingRef &) = delete;
    T *get() const { return m_p; }
    T **addr() { return &m_p; }
    /* The held pointer itself, to allocate into or to hand on by reference. */
    T *&ref() { return m_p; }

  private:
    T *m_p;
};
/* Frees through the caller's own pointer variable, which the calls that
 * grow a platform hash or list may move. */
template <typename T, void (*Free)(T *)> class FreeThrough {
  public:
    explicit FreeThrough(T *&p) : m_p(p) {}
    ~FreeThrough() {
        if (m_p) Free(m_p);
    }
    FreeThrough(const FreeThrough &) = delete;
    FreeThrough &operator=(const FreeThrough &) = delete;

  private:
    T *&m_p;
};
using SzListRef = GrowingRef<TRABCSzList, TRABCSzListFree>;
using SzHashRef = GrowingRef<TRABCSzHash, TRABCSzHashFree>;
using SzHashFreeThrough = FreeThrough<TRABCSzHash, TRABCSzHashFree>;

/* A digest context of libcrypto. */
using MdCtx = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;

inline void FreeChars(char *p) {
    free(p);
}
/* A malloc'ed text, as KOLVDBEscapeStringEX3 returns. */
using CString = Owned<char, FreeChars>;

struct FileCloser {
    void operator()(FILE *p) const {
        if (p) fclose(p);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR *p) const {
        if (p) closedir(p);
    }
};
/* A directory stream (its descriptor is closed with it). */
using Dir = std::unique_ptr<DIR, DirCloser>;

/* A glob result, filled or not: globfree on scope exit. Start it as
 * glob_t tGlob = {}; kolv::Glob guard(&tGlob). */
struct GlobFree {
    void operator()(glob_t *p) const {
        if (p) globfree(p);
    }
};
using Glob = std::unique_ptr<glob_t, GlobFree>;

/* A file descriptor closed on scope exit. */
class Fd {
  public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return m_fd; }
    /* Gives the descriptor up to the caller. */
    int release() {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (m_fd >= 0) close(m_fd);
        m_fd = fd;
    }

  private:
    int m_fd;
};

/* Removes a folder and everything below it (never through a link) on
 * scope exit, unless kept: scratch folders, a create's hidden folder. */
class TreeRemover {
  public:
    explicit TreeRemover(const std::string &strDir = std::string()) : m_strDir(strDir) {}
    // A second pass takes what a passing failure of the first left (the
    // removal goes on past a failure, like rm -rf).
    ~TreeRemover() {
        if (!m_strDir.empty() && 0 != fs::RemoveTree(m_strDir)) fs::RemoveTree(m_strDir);
    }
    TreeRemover(const TreeRemover &) = delete;
    TreeRemover &operator=(const TreeRemover &) = delete;
    void Reset(const std::string &strDir) { m_strDir = strDir; }
    void Keep() { m_strDir.clear(); }

  private:
    std::string m_strDir;
};

/* Takes on a user's file-system identity (fsuid, fsgid and supplementary
 * groups) on the calling thread alone, and gives it back on scope exit,
 * so that what the kernel lets this thread open is what it would let the
 * user open. Only a privileged process can change it; an unprivileged one
 * keeps its own, which is no more than its own anyway. */
class ThreadFsIdentity {
  public:
    ThreadFsIdentity(uid_t uid, gid_t gid, const std::vector<gid_t> &groups) : m_blChanged(false), m_blOk(true) {
        if (0 != geteuid()) return;
        int cGroups = getgroups(0, NULL);
        m_oldGroups.resize(cGroups > 0 ? (size_t)cGroups : 0);
        if (cGroups < 0 || getgroups(cGroups, m_oldGroups.data()) != cGroups) {
            m_blOk = false;
            return;
        }
        // The raw calls: the C library's setgroups changes every thread.
        m_blChanged = true;
        m_oldGid = (gid_t)setfsgid(gid);
        m_oldUid = (uid_t)setfsuid(uid);
        m_blOk = 0 == syscall(SYS_setgroups, groups.size(), groups.data()) && (uid_t)setfsuid((uid_t)-1) == uid &&
                 (gid_t)setfsgid((gid_t)-1) == gid;
    }
    ~ThreadFsIdentity() {
        if (!m_blChanged) return;
        setfsuid(m_oldUid);
        setfsgid(m_oldGid);
        syscall(SYS_setgroups, m_oldGroups.size(), m_oldGroups.data());
    }
    ThreadFsIdentity(const ThreadFsIdentity &) = delete;
    ThreadFsIdentity &operator=(const ThreadFsIdentity &) = delete;
    bool Ok() const { return m_blOk; }

  private:
    bool m_blChanged;
    bool m_blOk;
    uid_t m_oldUid = 0;
    gid_t m_oldGid = 0;
    std::vector<gid_t> m_oldGroups;
};

/* A chain of objects being built: freed whole unless handed over. */
class ObjectChain {
  public:
    ObjectChain() : m_head(NULL) {}
    ~ObjectChain() { KOLVVessaObjectFreeList(m_head); }
    ObjectChain(const ObjectChain &) = delete;
    ObjectChain &operator=(const ObjectChain &) = delete;
    KOLV_VESSA_OBJECT **Head() { return &m_head; }
    KOLV_VESSA_OBJECT *Release() {
        KOLV_VESSA_OBJECT *p = m_head;
        m_head = NULL;
        return p;
    }

  private:
    KOLV_VESSA_OBJECT *m_head;
};

} // namespace kolv

#endif /* KOLVVESSA_RAII_H */
