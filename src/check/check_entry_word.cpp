/*
 * check_entry_word.cpp - what the check says of an entry it did not expect.
 */
#include <sys/stat.h>

#include "check/check_internal.h"

namespace kolv {
namespace check {

const char *EntryWord(const struct stat &st) {
    if (S_ISLNK(st.st_mode)) return "a link";
    if (S_ISDIR(st.st_mode)) return "a folder";
    if (S_ISREG(st.st_mode)) return "a file";
    if (S_ISFIFO(st.st_mode)) return "a FIFO";
    if (S_ISSOCK(st.st_mode)) return "a socket";
    return "a device";
}

} // namespace check
} // namespace kolv
