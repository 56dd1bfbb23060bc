/*
 * The platform's own error stack: one record, the last one set.
 */
#include <stdio.h>

#include <mutex>

#include "kolvplatform/kolv_platform.h"

namespace {

struct PlatformError {
    int code = 0;
    char szFile[512] = "";
    int line = 0;
};

std::mutex gMutex;
PlatformError gError;
thread_local char tszFile[512];

} // namespace

extern "C" {

void TRABCErrSetEx(int code, const char *szFile, int line) {
    std::lock_guard<std::mutex> guard(gMutex);
    gError.code = code;
    snprintf(gError.szFile, sizeof(gError.szFile), "%s", szFile ? szFile : "");
    gError.line = line;
}

int TRABCErrGet(void) {
    std::lock_guard<std::mutex> guard(gMutex);
    return gError.code;
}

const char *TRABCErrorGetFile(void) {
    // Copied per thread so a concurrent TRABCErrSetEx cannot change the
    // text under the caller.
    std::lock_guard<std::mutex> guard(gMutex);
    snprintf(tszFile, sizeof(tszFile), "%s", gError.szFile);
    return tszFile;
}

int TRABCErrorGetLine(void) {
    std::lock_guard<std::mutex> guard(gMutex);
    return gError.line;
}

} // extern "C"
