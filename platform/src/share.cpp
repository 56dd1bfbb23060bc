/*
 * Shares: the "shares" of the platform config, relocated under the sysroot.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "kolvplatform/kolv_platform.h"
#include "platform_config.h"

extern "C" {

int KOLVShareGet(const char *szName, KOLVSHARE **ppShare) {
    if (!szName || !*szName || !ppShare) {
        errno = EINVAL;
        return -1;
    }
    *ppShare = NULL;
    try {
        kolvplatform::PlatformConfig config = kolvplatform::LoadPlatformConfig();
        auto it = config.shares.find(szName);
        if (it == config.shares.end()) {
            errno = ENOENT;
            return -1;
        }
        KOLVSHARE *pShare = static_cast<KOLVSHARE *>(calloc(1, sizeof(KOLVSHARE)));
        if (!pShare) return -1;
        if (strlen(szName) >= sizeof(pShare->szName) ||
            !KOLVSysPath(it->second.c_str(), pShare->szPath, sizeof(pShare->szPath))) {
            free(pShare);
            errno = ENAMETOOLONG;
            return -1;
        }
        strcpy(pShare->szName, szName);
        *ppShare = pShare;
        return 0;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
}

int KOLVShareBinPathGet(const char *szSharePath, char *szBuf, int cbBuf) {
    if (!szSharePath || szSharePath[0] != '/' || !szBuf || cbBuf <= 0) {
        errno = EINVAL;
        return -1;
    }
    size_t cb = strlen(szSharePath);
    while (cb > 1 && szSharePath[cb - 1] == '/')
        --cb;
    if (cb == 1) {
        // "/" is no share.
        errno = EINVAL;
        return -1;
    }
    // Drop the last component and the slashes before it.
    while (cb > 0 && szSharePath[cb - 1] != '/')
        --cb;
    while (cb > 1 && szSharePath[cb - 1] == '/')
        --cb;
    if (cb >= static_cast<size_t>(cbBuf)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memmove(szBuf, szSharePath, cb);
    szBuf[cb] = '\0';
    return 0;
}

void KOLVShareFree(KOLVSHARE *pShare) {
    free(pShare);
}

} // extern "C"
