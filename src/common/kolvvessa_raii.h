/*
 * kolvvessa_raii.h - owning handles for the C resources the store uses.
 */
#ifndef KOLVVESSA_RAII_H
#define KOLVVESSA_RAII_H

#include <git2.h>
#include <glob.h>
#include <kolvplatform/kolv_platform.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

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

using SzHash = Owned<TRABCSzHash, TRABCSzHashFree>;
using SzList = Owned<TRABCSzList, TRABCSzListFree>;
using DBResult = Owned<KOLVDBRESULT, KOLVDBFreeResult>;
/* A connection of one's own (never the process's index connection). */
using DBConn = Owned<KOLVDB, KOLVDBClose>;
/* A user record of KOLVUserGet / KOLVUserGetByUID. */
using User = Owned<KOLVUSER, KOLVUserFree>;

/* A platform string list that the calls which grow it may move: pass
 * addr() where a TRABCSzList ** is asked for; freed on scope exit. */
class SzListRef {
  public:
    explicit SzListRef(TRABCSzList *p = NULL) : m_p(p) {}
    ~SzListRef() {
        if (m_p) TRABCSzListFree(m_p);
    }
    SzListRef(const SzListRef &) = delete;
    SzListRef &operator=(const SzListRef &) = delete;
    TRABCSzList *get() const { return m_p; }
    TRABCSzList **addr() { return &m_p; }
    /* The held pointer itself, to allocate into or to hand on by reference. */
    TRABCSzList *&ref() { return m_p; }

  private:
    TRABCSzList *m_p;
};

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

} // namespace kolv

#endif /* KOLVVESSA_RAII_H */
