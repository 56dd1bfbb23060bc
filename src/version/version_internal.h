/*
 * version_internal.h - the data of one version record and the steps the
 * version operations share.
 */
#ifndef KOLVVESSA_VERSION_INTERNAL_H
#define KOLVVESSA_VERSION_INTERNAL_H

#include <json/json.h>

#include <initializer_list>
#include <string>

#include "common/kolvvessa_fail.h"

#include "kolvvessa/kolvvessa_version.h"

struct KOLV_VESSA_OBJECT_VERSION_IMPL {
    std::string ns;
    std::string id;
    unsigned long author;
    long mtime;
    std::string version;
    Json::Value commit_msg;
    Json::Value last_version;
    Json::Value extra_info;
};

namespace kolv {
namespace version {

/* The checks every version operation makes after its own member test:
 * the common request checks, the namespace switch and the id.
 * REQUIRES: jParm has a string "ns" and "id" and an integral "requester". */
bool CheckAccess(const Json::Value &jParm);

/* The record that reads the current object for jParm's requester: the
 * read is the version operations' permission check. */
Json::Value ReadParm(const Json::Value &jParm);

/* Copies "ns", "id" and the decimal "requester" of a string hash into
 * jParm (1007 names a missing one), then those of the optional keys that
 * are there: texts as they are, numbers as integers when they are plain
 * decimal text, else as text for the operation's checks to refuse. */
bool HashToVersionParm(TRABSZHASH *pParmHash, std::initializer_list<const char *> texts,
                       std::initializer_list<const char *> numbers, Json::Value &jParm);

} // namespace version
} // namespace kolv

/* Appends the call's own text when it fails (returns false): the
 * plain-function entries name the member call they gave up on. */
#define KOLV_APPEND_UNLESS(call)                                                                                       \
    (__builtin_expect(!(call), 0) ? (kolv::FailAppend(__FILE__, __LINE__, #call), true) : false)

#endif /* KOLVVESSA_VERSION_INTERNAL_H */
