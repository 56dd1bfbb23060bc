/*
 * An example namespace hook library. Each hook appends one line
 * "<pre|post> <operation> <object id or ->" to the file named by the
 * environment variable KOLV_HOOK_LOG (nothing when it is unset), so a test
 * can see which hooks ran, in which order, with which object.
 *
 * Built three ways: every operation (default), "create" only
 * (KOLV_HOOK_CREATE_ONLY), and no table at all (KOLV_HOOK_NO_TABLE).
 */
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "kolvvessa/kolvvessa_ns_hook.h"
#include "kolvvessa/kolvvessa_object.h"

#ifndef KOLV_HOOK_NO_TABLE

namespace {

void Note(const char *szWhen, const char *szOperation, const KOLV_VESSA_OBJECT *pObject) {
    const char *szLog = getenv("KOLV_HOOK_LOG");
    if (!szLog || !*szLog) return;
    std::string strId = pObject ? pObject->get_id() : std::string();
    std::string strLine = std::string(szWhen) + " " + szOperation + " " + (strId.empty() ? "-" : strId) + "\n";
    // One write per line with O_APPEND: hooks of worker threads do not
    // interleave their lines.
    int fd = open(szLog, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    ssize_t n = write(fd, strLine.data(), strLine.size());
    (void)n;
    close(fd);
}

#define KOLV_NOTE_HOOKS(name)                                                                                          \
    int Pre_##name(const Json::Value &, const KOLV_VESSA_OBJECT *pObject) {                                            \
        Note("pre", #name, pObject);                                                                                   \
        return 0;                                                                                                      \
    }                                                                                                                  \
    int Post_##name(const Json::Value &, const KOLV_VESSA_OBJECT *pObject) {                                           \
        Note("post", #name, pObject);                                                                                  \
        return 0;                                                                                                      \
    }

KOLV_NOTE_HOOKS(create)

#ifdef KOLV_HOOK_CREATE_ONLY
const KOLVVESSA_NS_HOOK_ROW rgTable[] = {
    {"create", Pre_create, Post_create},
    {NULL, NULL, NULL},
};
#else
KOLV_NOTE_HOOKS(set)
KOLV_NOTE_HOOKS(delete)
KOLV_NOTE_HOOKS(field_rename)

const KOLVVESSA_NS_HOOK_ROW rgTable[] = {
    {"create", Pre_create, Post_create},
    {"set", Pre_set, Post_set},
    {"delete", Pre_delete, Post_delete},
    {"field_rename", Pre_field_rename, Post_field_rename},
    {NULL, NULL, NULL},
};
const KOLVVESSA_NS_HOOK_ROW rgBatchTable[] = {
    {"set", Pre_set, Post_set},
    {"delete", Pre_delete, Post_delete},
    {NULL, NULL, NULL},
};
#endif

} // namespace

extern "C" __attribute__((visibility("default"))) const KOLVVESSA_NS_HOOK_ROW *GetTable(void) {
    return rgTable;
}

#ifndef KOLV_HOOK_CREATE_ONLY
extern "C" __attribute__((visibility("default"))) const KOLVVESSA_NS_HOOK_ROW *GetBatchTable(void) {
    return rgBatchTable;
}
#endif

#else

/* Nothing at all: a library that loads but has no tables. */

#endif
