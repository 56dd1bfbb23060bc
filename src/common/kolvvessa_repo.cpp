/*
 * The repository location: the root on the volume of the "homes" share,
 * object directories and meta binary files under it, and the application
 * privilege of a namespace.
 */
#include <kolvplatform/kolv_platform.h>
#include <pthread.h>

#include <atomic>
#include <string>

#include "common/kolvvessa_fail.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_path_internal.h"
#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"

pthread_mutex_t tShare = PTHREAD_MUTEX_INITIALIZER;

namespace {

// The root, computed once per process. The string is written once, under
// tShare, before the flag is raised; readers test the flag first, so the
// unlocked fast path never reads a string being written.
std::atomic<bool> g_blRepoCached{false};
std::string g_strRepo;

constexpr const char *kRepoDir = "/@KolvVessa";
constexpr const char *kNsDescriptorDir = "/usr/local/libexec/kolvvessa/";

// The volume of the "homes" share + "/@KolvVessa". Called with tShare held;
// on failure it stays held (see KOLVVessaGetRepoPath).
bool LookUpRepo(std::string &strPath) {
    KOLVSHARE *pShare = NULL;
    if (KOLV_FAIL_IF(1000, 0 > KOLVShareGet(SZK_SECTION_HOMES, &pShare))) return false;
    kolv::Owned<KOLVSHARE, KOLVShareFree> share(pShare);
    char szVol[256];
    if (KOLV_FAIL_IF(1000, 0 > KOLVShareBinPathGet(pShare->szPath, szVol, sizeof(szVol)))) return false;
    strPath = std::string(szVol) + kRepoDir;
    return true;
}

} // namespace

bool KOLVVessaGetRepoPath(std::string &strPath) {
    if (g_blRepoCached.load(std::memory_order_acquire)) {
        strPath = g_strRepo;
        return true;
    }
    pthread_mutex_lock(&tShare);
    if (!g_blRepoCached.load(std::memory_order_acquire)) {
        std::string strRepo;
        // A broken homes share leaves tShare locked, deliberately: every
        // later caller stops here instead of running on without a
        // repository.
        if (!LookUpRepo(strRepo)) return false;
        g_strRepo = strRepo;
        g_blRepoCached.store(true, std::memory_order_release);
    }
    pthread_mutex_unlock(&tShare);
    strPath = g_strRepo;
    return true;
}

namespace kolv {
namespace fs {

std::string TrustedRoot() {
    return g_blRepoCached.load(std::memory_order_acquire) ? g_strRepo : std::string();
}

} // namespace fs
} // namespace kolv

bool KOLVVessaIDIsExist(const std::string &strNs, const std::string &strID) {
    if (KOLV_FAIL_IF(1007, !kolv::IsSafePathName(strNs))) return false;
    if (KOLV_FAIL_IF(1007, !kolv::IsSafePathName(strID))) return false;
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    std::string strDir = strRepo + "/" + strNs + "/" + strID;
    return TRUE == TRABCFileCheckDir(strDir.c_str());
}

bool KOLVVessaGetMetaBinaryPath(const std::string &strNs, const std::string &strID, const std::string &strName,
                                std::string &strPath) {
    if (KOLV_FAIL_IF(1007, !kolv::IsSafePathName(strNs))) return false;
    if (KOLV_FAIL_IF(1007, !kolv::IsSafePathName(strID))) return false;
    std::string strRepo;
    if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
    std::string strEncodedFilename;
    if (KOLV_APPEND_IF(
            !KOLVVessaEncode((const unsigned char *)strName.c_str(), (size_t)strName.length(), strEncodedFilename))) {
        return false;
    }
    // The path is given even when the file is not there.
    strPath = strRepo + "/" + strNs + "/" + strID + "/metabinary/" + strEncodedFilename;
    if (KOLV_APPEND_IF(FALSE == TRABCFileExist(strPath.c_str()))) return false;
    return true;
}

std::string KOLVVessaAppPrivName(const std::string &strNs) {
    if (!kolv::IsSafePathName(strNs)) return "";
    char szDir[4096];
    if (NULL == KOLVSysPath(kNsDescriptorDir, szDir, sizeof(szDir))) return "";
    // The doubled slash after the directory is kept as it always was.
    std::string strFile = std::string(szDir) + "/" + strNs + ".lib";
    Json::Value jDesc;
    if (!kolv::JsonFromFile(jDesc, strFile)) return "";
    if (!jDesc.isObject() || !jDesc.isMember("app priv") || !jDesc["app priv"].isString()) return "";
    return jDesc["app priv"].asString();
}
