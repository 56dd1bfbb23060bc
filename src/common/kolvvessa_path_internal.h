/*
 * kolvvessa_path_internal.h - names that become path components.
 *
 * A namespace or an id is one directory level of the repository. A name
 * that is empty, "." or "..", or holds a "/" (or a NUL byte) would lead
 * outside the object's place, so every entry point that builds a path from
 * one refuses it with 1007 before touching a file:
 *
 *     if (KOLV_FAIL_IF(1007, !kolv::IsSafePathName(strID))) return false;
 *
 * A namespace is stricter still: the repository keeps its own folders
 * beside the namespaces ("@tmp", ".git"), and "*" means every namespace
 * in a listing, so a namespace never starts with "@" or "." and is never
 * "*".
 */
#ifndef KOLVVESSA_PATH_INTERNAL_H
#define KOLVVESSA_PATH_INTERNAL_H

#include <string>

namespace kolv {

inline bool IsSafePathName(const std::string &strName) {
    return !strName.empty() && strName != "." && strName != ".." && strName.find('/') == std::string::npos &&
           strName.find('\0') == std::string::npos;
}

inline bool IsNamespaceName(const std::string &strNs) {
    return IsSafePathName(strNs) && '@' != strNs[0] && '.' != strNs[0] && "*" != strNs;
}

} // namespace kolv

#endif /* KOLVVESSA_PATH_INTERNAL_H */
