/*
 * source_file.h - the files a request names by path, opened as the
 * requester would open them.
 *
 * The store runs as root, so a request's "path" must never let a user
 * store (and then read) a file he could not read himself: the file is
 * opened on the calling thread under the requester's uid, primary group
 * and supplementary groups, judged by the kernel along the whole path.
 * Only a regular file is taken; a FIFO or a device is refused without
 * blocking. The system requester 0 may read any file.
 */
#ifndef KOLVVESSA_BACKEND_FS_SOURCE_FILE_H
#define KOLVVESSA_BACKEND_FS_SOURCE_FILE_H

#include <json/json.h>
#include <sys/types.h>

#include <string>

namespace kolv {

/* The acting uid of a request (0 when absent). */
uid_t RequesterOf(const Json::Value &jParm);

/* A read-only descriptor of the regular file strPath as requester may
 * open it, -1 with errno (EACCES for an unknown user, EINVAL for
 * anything but a regular file) otherwise. The caller closes it. */
int OpenSourceFile(const std::string &strPath, uid_t requester);

} // namespace kolv

#endif /* KOLVVESSA_BACKEND_FS_SOURCE_FILE_H */
