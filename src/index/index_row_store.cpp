/*
 * The row of a stored object built from its files: basic.json,
 * metatext.json, the meta binary info records and the tree of the commit
 * HEAD names, read as the owner's own read with every field would read
 * them, without a backend, a field table or a branch scan per object.
 */
#include "index/index_row_store.h"

#include <errno.h>
#include <git2.h>

#include <map>
#include <string>

#include "backend_fs/metabinary.h"
#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_nothrow.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "index/kolvvessa_index_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "kolvvessa_git_internal.h"

namespace {

/* A folder of the version's tree: decoded file name -> content. */
using Folder = std::map<std::string, std::string>;

/* What one commit gives a row. */
struct Version {
    Json::Value jInfo;
    Folder text, binaryInfo;
};

/* A JSON file of the object folder into the record, as the file store
 * reads it: a missing file is an empty one; basic.json gives its member
 * "basic", metatext.json is its own record form. */
bool ReadJsonFile(int fdDir, const char *szName, const char *szKey, KOLV_VESSA_OBJECT &Object) {
    std::string strText;
    Json::Value jFile;
    if (!kolv::fs::ReadFileAt(fdDir, szName, strText)) {
        if (KOLV_FAIL_IF(1003, ENOENT != errno)) return false;
    } else {
        kolv::JsonFromString(jFile, strText);
    }
    if (!jFile.isObject() || !jFile.isMember(szKey)) {
        Object.fromJson(Json::Value(Json::objectValue));
    } else {
        Object.fromJson(0 == strcmp(szKey, "basic") ? jFile["basic"] : jFile);
    }
    return true;
}

/* Every blob of the folder szDir of pTree, by decoded name. */
int ReadTreeFolder(git_repository *pRepo, git_tree *pTree, const char *szDir, Folder &out) {
    kolv::GitTree pSub;
    int ret = kolv::git::SubTree(pRepo, pTree, szDir, pSub);
    if (0 > ret || NULL == pSub) return ret;
    for (size_t i = 0; i < git_tree_entrycount(pSub.get()); ++i) {
        const git_tree_entry *pFile = git_tree_entry_byindex(pSub.get(), i);
        if (GIT_OBJECT_BLOB != git_tree_entry_type(pFile)) continue;
        kolv::GitBlob pBlob;
        if (0 > (ret = kolv::git::LookupBlob(pRepo, pFile, pBlob))) return ret;
        std::string strName;
        if (!KOLVVessaDecode(git_tree_entry_name(pFile), strName)) return GIT_EINVALID;
        const char *p = static_cast<const char *>(git_blob_rawcontent(pBlob.get()));
        out[strName].assign(p, static_cast<size_t>(git_blob_rawsize(pBlob.get())));
    }
    return 0;
}

/* The commit HEAD names and its "text" and "binary_info" folders, read
 * from the repository's objects (never from the work tree). */
int ReadHead(const std::string &strRepo, Version &ver) {
    kolv::GitRepository pRepo;
    int ret = kolv::git::OpenRepository(strRepo.c_str(), pRepo);
    if (0 > ret) return ret;
    git_oid oid;
    if (0 > (ret = git_reference_name_to_id(&oid, pRepo.get(), "HEAD"))) return ret;
    git_commit *pRawCommit = NULL;
    ret = git_commit_lookup(&pRawCommit, pRepo.get(), &oid);
    kolv::GitCommit pCommit(pRawCommit);
    if (0 > ret) return ret;
    git_tree *pRawTree = NULL;
    ret = git_commit_tree(&pRawTree, pCommit.get());
    kolv::GitTree pTree(pRawTree);
    if (0 > ret) return ret;
    if (0 > (ret = ReadTreeFolder(pRepo.get(), pTree.get(), "text", ver.text))) return ret;
    if (0 > (ret = ReadTreeFolder(pRepo.get(), pTree.get(), "binary_info", ver.binaryInfo))) return ret;
    kolv::git::CommitInfo(pCommit.get(), ver.jInfo);
    return 0;
}

/* The version's members into the record, as a read with every field
 * fills them. */
bool FillVersion(const Version &ver, KOLV_VESSA_OBJECT &Object) {
    Json::Value jText(Json::objectValue);
    for (const auto &text : ver.text) {
        if (KOLV_FAIL_IF(1003, !kolv::JsonFromString(jText[text.first], text.second))) return false;
    }
    Json::Value jBinaryInfo(Json::objectValue);
    for (const auto &info : ver.binaryInfo) {
        Json::Value jRecord;
        // A record that does not parse is skipped, as a read skips it.
        if (kolv::JsonFromString(jRecord, info.second)) jBinaryInfo[info.first] = jRecord;
    }
    Object.set_text(jText);
    Object.set_binary_info(jBinaryInfo);
    Object.set_version(ver.jInfo["version"].asString());
    const Json::Value &jMsg = ver.jInfo["msg"];
    bool blHas = jMsg.isObject() && jMsg.isMember("commit_msg");
    Object.set_commit_msg(blHas ? jMsg["commit_msg"] : Json::Value(Json::objectValue));
    Object.set_mtime((long)ver.jInfo["mtime"].asUInt());
    return true;
}

} // namespace

namespace kolv {

struct IndexRowReader::Impl {
    // libgit2 stays initialised for the reader's life, not per object.
    kolv::git::LibScope lib;
    std::string strRepo;
    // The settings file is read once per namespace of the run, the owner
    // tests once per uid.
    std::map<std::string, bool> nsOpen;
    std::map<uid_t, bool> ownerOk;
    Json::Value jAll = Json::Value(true);

    bool NamespaceOpen(const std::string &strNs);
    bool OwnerUsable(uid_t owner);
    bool ReadObject(const std::string &strNs, const std::string &strId, uid_t owner, KOLV_VESSA_OBJECT &Object,
                    std::string &strWhy);
};

bool IndexRowReader::Impl::NamespaceOpen(const std::string &strNs) {
    auto it = nsOpen.find(strNs);
    if (it != nsOpen.end()) {
        if (!it->second) KOLV_FAIL_FMT(1000, "namespace [%s] is disabled", strNs.c_str());
        return it->second;
    }
    bool blOpen = !KOLV_APPEND_IF(FALSE == KOLVVessaAccessCheck(strNs.c_str()));
    // Settings that cannot be read now say nothing about the namespace:
    // the next object asks again.
    if (blOpen || kolv::kErrSettingsUnreadable != KOLVVessaErrCodeGet()) nsOpen.emplace(strNs, blOpen);
    return blOpen;
}

bool IndexRowReader::Impl::OwnerUsable(uid_t owner) {
    auto it = ownerOk.find(owner);
    if (it == ownerOk.end()) {
        bool blOk = KOLVVessaObjectOwnerIsValid(owner) && KOLVVessaCheckUID(owner);
        it = ownerOk.emplace(owner, blOk).first;
    }
    if (!it->second) KOLV_FAIL_FMT(1022, "owner %u is expired or missing", (unsigned)owner);
    return it->second;
}

bool IndexRowReader::Impl::ReadObject(const std::string &strNs, const std::string &strId, uid_t owner,
                                      KOLV_VESSA_OBJECT &Object, std::string &strWhy) {
    std::string strBase = strRepo + "/" + strNs + "/" + strId;
    kolv::Fd fdDir(kolv::fs::OpenDir(strBase));
    if (KOLV_FAIL_IF(1008, 0 > fdDir.get())) {
        strWhy = "no object folder";
        return false;
    }
    Object.clear();
    Object.set_ns(strNs);
    Object.set_id(strId);
    Object.set_owner(owner);
    if (!ReadJsonFile(fdDir.get(), "basic.json", "basic", Object) ||
        !ReadJsonFile(fdDir.get(), "metatext.json", "metatext", Object)) {
        strWhy = "unreadable JSON file";
        return false;
    }
    Json::Value jMetaInfo(Json::objectValue);
    if (KOLV_APPEND_IF(!kolv::ReadInfoDir(strBase + "/metabinary_info", jMetaInfo, &jAll))) {
        strWhy = "unreadable meta binary info";
        return false;
    }
    Object.set_metabinary_info(jMetaInfo);
    Version ver;
    int ret = 0;
    if (KOLV_GIT_FAIL_IF(ret, ReadHead(strBase + "/version", ver))) {
        strWhy = "unreadable version";
        return false;
    }
    if (KOLV_APPEND_IF(!FillVersion(ver, Object))) {
        strWhy = "a version file that does not parse";
        return false;
    }
    // The owner reads his own object: he sees its ACL, an empty one when
    // none is stored.
    if (!Object.get_acl().isObject()) Object.set_acl(Json::Value(Json::objectValue));
    return true;
}

IndexRowReader::IndexRowReader(const std::string &strRepo) : m_impl(new Impl) {
    m_impl->strRepo = strRepo;
}

IndexRowReader::~IndexRowReader() = default;

bool IndexRowReader::Read(const char *szNs, const char *szId, IndexRow &Row, std::string &strWhy) {
    strWhy.clear();
    bool blOk = KOLV_NO_THROW_AS(false, 1000, "index row read aborted", [&]() -> bool {
        if (KOLV_FAIL_IF(1007, NULL == szNs || NULL == szId || !IsNamespaceName(szNs) || !IsSafePathName(szId))) {
            strWhy = "a name that leaves the repository";
            return false;
        }
        uid_t owner = UID_ERR;
        if (KOLV_APPEND_IF(UID_ERR == (owner = KOLVVessaObjectGetOwnerByID(szId)))) {
            strWhy = "an id that names no owner";
            return false;
        }
        // The owner's own read: the system owner skips the checks.
        if (UID_ROOT != owner && !m_impl->NamespaceOpen(szNs)) {
            strWhy = "a disabled namespace";
            return false;
        }
        if (UID_ROOT != owner && !m_impl->OwnerUsable(owner)) {
            strWhy = "an expired or missing owner";
            return false;
        }
        KOLV_VESSA_OBJECT Object;
        if (!m_impl->ReadObject(szNs, szId, owner, Object, strWhy)) return false;
        if (KOLV_FAIL_IF(1007, KOLVVessaObjectHoldsNul(Object))) {
            strWhy = "a NUL in a value";
            return false;
        }
        Row = IndexRowFromObject(Object);
        return true;
    });
    if (!blOk && strWhy.empty()) strWhy = "read aborted";
    return blOk;
}

} // namespace kolv
