/*
 * Relocation of the fixed appliance paths under $KOLV_SYSROOT.
 */
#include <stdlib.h>
#include <string.h>

#include <string>

#include "kolvplatform/kolv_platform.h"

extern "C" {

const char *KOLVSysPath(const char *szPath, char *szBuf, size_t cbBuf) {
    if (!szPath || !szBuf || cbBuf == 0) return NULL;
    const char *szRoot = getenv("KOLV_SYSROOT");
    size_t cbRoot = szRoot ? strlen(szRoot) : 0;
    // "/tmp/root/" + "/usr/x" is "/tmp/root/usr/x"; a root of "/" adds nothing.
    while (cbRoot > 0 && szRoot[cbRoot - 1] == '/')
        --cbRoot;
    size_t cbPath = strlen(szPath);
    bool blSlash = cbRoot > 0 && szPath[0] != '/';
    size_t cbNeed = cbRoot + (blSlash ? 1 : 0) + cbPath;
    if (cbNeed >= cbBuf) return NULL;
    // szPath may live in szBuf: move it into place first.
    size_t offPath = cbRoot + (blSlash ? 1 : 0);
    memmove(szBuf + offPath, szPath, cbPath + 1);
    if (cbRoot) memcpy(szBuf, szRoot, cbRoot);
    if (blSlash) szBuf[cbRoot] = '/';
    return szBuf;
}

} // extern "C"
