/*
 * kolvvessa_git_tree.cpp - building a version's tree from the add, delete
 * and rename lists.
 *
 * Tree paths have at most one directory level ("text/NAME"). Each
 * directory touched gets one tree builder, started from the base's
 * subtree; all changes go through it and it is written once at the end,
 * so no intermediate subtree is ever stored.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa_git_internal.h"

namespace kolv {
namespace git {

namespace {

/* Calls fn(key, value) for every key of pHash (NULL: none); stops at the
 * first negative result. */
int ForEachPair(TRABCSzHash *pHash, const std::function<int(const char *, const char *)> &fn) {
    if (NULL == pHash) return 0;
    SzList pKeys(TRABCSzListAlloc(BUFSIZ));
    TRABCSzList *pRaw = pKeys.release();
    int cKeys = (NULL == pRaw) ? -1 : TRABCSzHashEnumKey(pHash, &pRaw);
    pKeys.reset(pRaw);
    if (0 > cKeys) {
        syslog(LOG_ERR, "%s:%d fail to enumerate the file list", __FILE__, __LINE__);
        return GIT_ERROR;
    }
    for (int i = 0; i < cKeys; i++) {
        const char *szKey = TRABCSzListGet(pKeys.get(), i);
        int ret = fn(szKey, TRABCSzHashGetValue(pHash, szKey));
        if (0 > ret) return ret;
    }
    return 0;
}

/* Splits "dir/name" at the first "/"; strDir is "" for a top-level path. */
void SplitPath(const std::string &strPath, std::string &strDir, std::string &strName) {
    size_t pos = strPath.find('/');
    if (std::string::npos == pos) {
        strDir.clear();
        strName = strPath;
    } else {
        strDir = strPath.substr(0, pos);
        strName = strPath.substr(pos + 1);
    }
}

class TreeEdit {
  public:
    TreeEdit(git_repository *pRepo, git_tree *pBase) : m_pRepo(pRepo), m_pBase(pBase) {}

    int Start() {
        git_treebuilder *pBld = NULL;
        int ret = git_treebuilder_new(&pBld, m_pRepo, m_pBase);
        m_pTop.reset(pBld);
        if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_treebuilder_create (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    int Rename(const char *szOld, const char *szNew);
    int Add(const char *szPath, const char *szFile);
    int AddBuffer(const std::string &strPath, const std::string &strBytes);
    int Remove(const std::string &strPath);
    int Write(GitTree &pOut);

  private:
    int Builder(const std::string &strDir, bool blCreate, git_treebuilder **ppBld);
    int Insert(const std::string &strPath, const git_oid *pOid, git_filemode_t mode);

    git_repository *m_pRepo;
    git_tree *m_pBase;
    GitTreeBuilder m_pTop;
    std::map<std::string, GitTreeBuilder> m_mapSub;
};

/* The builder of strDir ("" is the top), started from the base's subtree
 * on first use. Without blCreate a directory absent from the base gives
 * *ppBld = NULL. */
int TreeEdit::Builder(const std::string &strDir, bool blCreate, git_treebuilder **ppBld) {
    *ppBld = NULL;
    if (strDir.empty()) {
        *ppBld = m_pTop.get();
        return 0;
    }
    auto it = m_mapSub.find(strDir);
    if (it != m_mapSub.end()) {
        *ppBld = it->second.get();
        return 0;
    }
    GitObject pSubtree;
    const git_tree_entry *pEntry = git_treebuilder_get(m_pTop.get(), strDir.c_str());
    if (pEntry && GIT_OBJECT_TREE == git_tree_entry_type(pEntry)) {
        git_object *pObj = NULL;
        int ret = git_tree_entry_to_object(&pObj, m_pRepo, pEntry);
        pSubtree.reset(pObj);
        if (0 > ret) {
            syslog(LOG_ERR, "%s:%d fail to git_tree_entry_to_object (%s)", __FILE__, __LINE__, ErrText());
            return ret;
        }
    } else if (!blCreate) {
        return 0;
    }
    git_treebuilder *pBld = NULL;
    int ret = git_treebuilder_new(&pBld, m_pRepo, reinterpret_cast<git_tree *>(pSubtree.get()));
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_treebuilder_create (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    m_mapSub[strDir].reset(pBld);
    *ppBld = pBld;
    return 0;
}

int TreeEdit::Insert(const std::string &strPath, const git_oid *pOid, git_filemode_t mode) {
    std::string strDir, strName;
    SplitPath(strPath, strDir, strName);
    git_treebuilder *pBld = NULL;
    int ret = Builder(strDir, true, &pBld);
    if (0 > ret) return ret;
    if (0 > (ret = git_treebuilder_insert(NULL, pBld, strName.c_str(), pOid, mode))) {
        syslog(LOG_ERR, "%s:%d fail to git_treebuilder_insert [%s] (%s)", __FILE__, __LINE__, strPath.c_str(),
               ErrText());
    }
    return ret;
}

int TreeEdit::Rename(const char *szOld, const char *szNew) {
    git_tree_entry *pEntry = NULL;
    int ret = (NULL == m_pBase) ? GIT_ENOTFOUND : git_tree_entry_bypath(&pEntry, m_pBase, szOld);
    GitTreeEntry pOwned(pEntry);
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_tree_entry_bypath [%s] (%s)", __FILE__, __LINE__, szOld, ErrText());
        return ret;
    }
    // A rename never replaces: the file already under the new name would
    // be lost, and a name renamed onto itself would be removed.
    git_tree_entry *pTaken = NULL;
    if (NULL != szNew && 0 == git_tree_entry_bypath(&pTaken, m_pBase, szNew)) {
        git_tree_entry_free(pTaken);
        git_error_set_str(GIT_ERROR_INVALID, "the new name is taken");
        syslog(LOG_ERR, "%s:%d rename target exists [%s]", __FILE__, __LINE__, szNew);
        return GIT_EEXISTS;
    }
    if (NULL == szNew || 0 > (ret = Insert(szNew, git_tree_entry_id(pEntry), git_tree_entry_filemode(pEntry)))) {
        return (NULL == szNew) ? GIT_ERROR : ret;
    }
    return Remove(szOld);
}

/* The blob is streamed from a descriptor opened without following a
 * link and without blocking, and only a regular file is taken: a link,
 * FIFO or device left where a source file belongs never reaches the
 * repository. */
int TreeEdit::Add(const char *szPath, const char *szFile) {
    Fd fd(szFile ? fs::OpenFile(szFile, O_RDONLY | O_NONBLOCK | O_NOCTTY) : -1);
    struct stat st;
    if (0 > fd.get() || 0 != fstat(fd.get(), &st) || !S_ISREG(st.st_mode)) {
        int ret = (0 > fd.get() && ENOENT == errno) ? GIT_ENOTFOUND : GIT_ERROR;
        syslog(LOG_ERR, "%s:%d fail to git_blob_create_fromdisk [%s] (%m)", __FILE__, __LINE__, szFile ? szFile : "");
        return ret;
    }
    git_writestream *pStream = NULL;
    int ret = git_blob_create_from_stream(&pStream, m_pRepo, NULL);
    char rgBuf[65536];
    while (0 <= ret) {
        ssize_t n = read(fd.get(), rgBuf, sizeof(rgBuf));
        if (n < 0 && EINTR == errno) continue;
        if (0 == n) break;
        ret = (n < 0) ? GIT_ERROR : pStream->write(pStream, rgBuf, static_cast<size_t>(n));
    }
    git_oid oid;
    if (0 <= ret) {
        ret = git_blob_create_from_stream_commit(&oid, pStream);
    } else if (pStream) {
        pStream->free(pStream);
    }
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_blob_create_fromdisk [%s] (%s)", __FILE__, __LINE__, szFile, ErrText());
        return ret;
    }
    return Insert(szPath, &oid, GIT_FILEMODE_BLOB);
}

int TreeEdit::AddBuffer(const std::string &strPath, const std::string &strBytes) {
    git_oid oid;
    int ret = git_blob_create_from_buffer(&oid, m_pRepo, strBytes.data(), strBytes.size());
    if (0 > ret) {
        syslog(LOG_ERR, "%s:%d fail to git_blob_create_from_buffer [%s] (%s)", __FILE__, __LINE__, strPath.c_str(),
               ErrText());
        return ret;
    }
    return Insert(strPath, &oid, GIT_FILEMODE_BLOB);
}

/* Removes a path; one that is not there is skipped. */
int TreeEdit::Remove(const std::string &strPath) {
    std::string strDir, strName;
    SplitPath(strPath, strDir, strName);
    git_treebuilder *pBld = NULL;
    int ret = Builder(strDir, false, &pBld);
    if (0 > ret) return ret;
    if (NULL == pBld || NULL == git_treebuilder_get(pBld, strName.c_str())) {
        syslog(LOG_ERR, "%s:%d entry not exist, skip", __FILE__, __LINE__);
        return 0;
    }
    if (0 > (ret = git_treebuilder_remove(pBld, strName.c_str()))) {
        syslog(LOG_ERR, "%s:%d fail to git_treebuilder_remove [%s] (%s)", __FILE__, __LINE__, strPath.c_str(),
               ErrText());
    }
    return ret;
}

/* Writes every touched subtree into the top (an emptied one is dropped,
 * as git keeps no empty directories), then the top itself. */
int TreeEdit::Write(GitTree &pOut) {
    int ret = 0;
    git_oid oid;
    for (auto &sub : m_mapSub) {
        if (0 == git_treebuilder_entrycount(sub.second.get())) {
            if (git_treebuilder_get(m_pTop.get(), sub.first.c_str()) &&
                0 > (ret = git_treebuilder_remove(m_pTop.get(), sub.first.c_str()))) {
                syslog(LOG_ERR, "%s:%d fail to git_treebuilder_remove [%s] (%s)", __FILE__, __LINE__, sub.first.c_str(),
                       ErrText());
                return ret;
            }
            continue;
        }
        if (0 > (ret = git_treebuilder_write(&oid, sub.second.get()))) {
            syslog(LOG_ERR, "%s:%d fail to git_treebuilder_write (%s)", __FILE__, __LINE__, ErrText());
            return ret;
        }
        if (0 > (ret = git_treebuilder_insert(NULL, m_pTop.get(), sub.first.c_str(), &oid, GIT_FILEMODE_TREE))) {
            syslog(LOG_ERR, "%s:%d fail to git_treebuilder_insert [%s] (%s)", __FILE__, __LINE__, sub.first.c_str(),
                   ErrText());
            return ret;
        }
    }
    if (0 > (ret = git_treebuilder_write(&oid, m_pTop.get()))) {
        syslog(LOG_ERR, "%s:%d fail to git_treebuilder_write (%s)", __FILE__, __LINE__, ErrText());
        return ret;
    }
    git_tree *pTree = NULL;
    ret = git_tree_lookup(&pTree, m_pRepo, &oid);
    pOut.reset(pTree);
    if (0 > ret) syslog(LOG_ERR, "%s:%d fail to git_tree_lookup (%s)", __FILE__, __LINE__, ErrText());
    return ret;
}

} // namespace

int BuildTree(git_repository *pRepo, git_tree *pBase, TRABCSzHash *pAdd, TRABCSzHash *pDel, TRABCSzHash *pRename,
              GitTree &pOut, const MemFiles *pMem) {
    TreeEdit edit(pRepo, pBase);
    int ret = edit.Start();
    // Renames first: they look the old path up in the base, before adds
    // and deletes may have replaced it.
    if (0 <= ret) ret = ForEachPair(pRename, [&](const char *k, const char *v) { return edit.Rename(k, v); });
    if (0 <= ret) ret = ForEachPair(pAdd, [&](const char *k, const char *v) { return edit.Add(k, v); });
    for (auto it = pMem ? pMem->begin() : MemFiles::const_iterator(); 0 <= ret && pMem && it != pMem->end(); ++it)
        ret = edit.AddBuffer(it->first, it->second);
    if (0 <= ret) ret = ForEachPair(pDel, [&](const char *k, const char *) { return edit.Remove(k); });
    if (0 <= ret) ret = edit.Write(pOut);
    return ret;
}

} // namespace git
} // namespace kolv
