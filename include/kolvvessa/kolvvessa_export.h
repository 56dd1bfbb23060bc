/*
 * kolvvessa_export.h - export macro and the basic identity constants.
 */
#ifndef KOLVVESSA_EXPORT_H
#define KOLVVESSA_EXPORT_H

#include <sys/types.h>

/* Marks a name as part of the library's interface; everything else is
 * hidden. */
#define KOLV_EXPORT __attribute__((visibility("default")))

/* No user; also the anonymous requester. */
#define UID_ERR ((uid_t)-1)
/* The system itself: skips access, owner and sharing checks. */
#define UID_ROOT ((uid_t)0)
/* Group of every directory the store creates. */
#define GID_USERS ((gid_t)100)

#endif /* KOLVVESSA_EXPORT_H */
