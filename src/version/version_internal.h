/*
 * version_internal.h - the data of one version record.
 */
#ifndef KOLVVESSA_VERSION_INTERNAL_H
#define KOLVVESSA_VERSION_INTERNAL_H

#include <json/json.h>

#include <string>

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

#endif /* KOLVVESSA_VERSION_INTERNAL_H */
