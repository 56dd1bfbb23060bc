/*
 * kolvvessa_version.h - the version record: one version of one object.
 */
#ifndef KOLVVESSA_VERSION_H
#define KOLVVESSA_VERSION_H

#include <json/json.h>

#include <stddef.h>

#include <string>

#include "kolvvessa_export.h"

struct KOLV_VESSA_OBJECT_VERSION_IMPL;

class KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION {
  public:
    KOLV_VESSA_OBJECT_VERSION();
    /* Frees the record's data; does not follow m_next. */
    ~KOLV_VESSA_OBJECT_VERSION();
    KOLV_VESSA_OBJECT_VERSION(const KOLV_VESSA_OBJECT_VERSION &) = delete;
    KOLV_VESSA_OBJECT_VERSION &operator=(const KOLV_VESSA_OBJECT_VERSION &) = delete;

    /* "new KOLV_VESSA_OBJECT_VERSION" gives NULL when memory runs out
     * instead of throwing, so callers test its result. */
    static void *operator new(size_t cb) noexcept;
    static void operator delete(void *p) noexcept;

    /* Resets every field to its default. */
    void clear();

    std::string get_ns() const;
    std::string get_id() const;
    unsigned long get_author() const;
    long get_mtime() const;
    std::string get_version() const;
    Json::Value get_commit_msg() const;
    Json::Value get_last_version() const;
    Json::Value get_extra_info() const;

    void set_ns(const std::string &str);
    void set_id(const std::string &str);
    void set_author(unsigned long author);
    void set_mtime(long t);
    void set_version(const std::string &str);
    void set_commit_msg(const Json::Value &j);
    void set_last_version(const Json::Value &j);
    void set_extra_info(const Json::Value &j);

    /* Writes the selected fields into jRet (must be an object: else 1015):
     * "ns" and "id" only when asked, the others unless switched off. */
    bool toJson(const Json::Value &jFields, Json::Value &jRet) const;

    KOLV_VESSA_OBJECT_VERSION *m_next;
    KOLV_VESSA_OBJECT_VERSION_IMPL *m_impl;
};

extern "C" {

/* A new empty record (free with KOLVVessaObjectVersionFreeList); NULL with
 * 1014. */
KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION *KOLVVessaObjectVersionAlloc(void);
/* Destroys every record of a chain; NULL is allowed. */
KOLV_EXPORT void KOLVVessaObjectVersionFreeList(KOLV_VESSA_OBJECT_VERSION *pVer);
/* The next record (NULL for NULL). */
KOLV_EXPORT KOLV_VESSA_OBJECT_VERSION *KOLVVessaObjectVersionNext(KOLV_VESSA_OBJECT_VERSION *pVer);
/* clear() on a non-NULL record. */
KOLV_EXPORT void KOLVVessaObjectVersionClear(KOLV_VESSA_OBJECT_VERSION *pVer);

} /* extern "C" */

#endif /* KOLVVESSA_VERSION_H */
