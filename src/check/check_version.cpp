/*
 * check_version.cpp - the library's version, as the build names it.
 */
#include "kolvvessa/kolvvessa_check.h"

#ifndef KOLV_VERSION_TEXT
#error "KOLV_VERSION_TEXT comes from the build (tools/CMakeLists.txt)"
#endif

const char *KOLVVessaVersion(void) {
    return KOLV_VERSION_TEXT;
}
