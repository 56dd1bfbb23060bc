/*
 * io_internal.h - descriptor helpers the platform's sources share.
 */
#ifndef KOLV_PLATFORM_IO_INTERNAL_H
#define KOLV_PLATFORM_IO_INTERNAL_H

#include <stddef.h>
#include <sys/types.h>

namespace kolvplat {

/* Writes all cb bytes of p to fd, retrying short writes and EINTR; 0, or
 * -1 with errno. */
ssize_t WriteAll(int fd, const char *p, size_t cb);

} // namespace kolvplat

#endif /* KOLV_PLATFORM_IO_INTERNAL_H */
