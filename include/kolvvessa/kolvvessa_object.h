/*
 * kolvvessa_object.h - the object record, its list, and the operations on
 * one object.
 *
 * Operations take a parameter record (a JSON object; "requester" is the
 * acting uid, 0 for the system) and return bool or a count, negative on
 * failure, leaving the reason on the error stack (kolvvessa_error.h).
 *
 * Every operation refuses with 1007, before it reads or writes anything:
 * a "requester" that is not a JSON integer from 0 to 4294967294 ("1101",
 * 1101.0, -1 and 4294967296 are none; in the string-hash entries a text
 * that is not a plain decimal number, "" included); a record nested more
 * than KOLVVESSA_REQUEST_DEPTH_MAX levels deep; a NUL character in any
 * member name or string value at any depth; an "ns" that is empty, ".",
 * "..", starts with "@" or ".", is "*" (listing only, requester 0) or
 * holds a "/". No exception leaves an operation.
 */
#ifndef KOLVVESSA_OBJECT_H
#define KOLVVESSA_OBJECT_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <stddef.h>

#include <string>

#include "kolvvessa_export.h"

/* The deepest nesting of objects and arrays a request may have; the
 * request itself is level 1, so {"text":{"a":{}}} is 3 levels deep. */
#define KOLVVESSA_REQUEST_DEPTH_MAX 100

struct KOLV_VESSA_OBJECT_IMPL;

/* One object. Not shared between threads while being filled. */
class KOLV_EXPORT KOLV_VESSA_OBJECT {
  public:
    KOLV_VESSA_OBJECT();
    /* Frees the record's data; does not follow m_next. */
    ~KOLV_VESSA_OBJECT();
    KOLV_VESSA_OBJECT(const KOLV_VESSA_OBJECT &) = delete;
    KOLV_VESSA_OBJECT &operator=(const KOLV_VESSA_OBJECT &) = delete;

    /* "new KOLV_VESSA_OBJECT" gives NULL when memory runs out instead of
     * throwing, so callers test its result. */
    static void *operator new(size_t cb) noexcept;
    static void operator delete(void *p) noexcept;

    /* Resets every field (owner becomes UID_ERR); path_info and perm stay. */
    void clear();

    std::string get_ns() const;
    std::string get_id() const;
    std::string get_category() const;
    std::string get_version() const;
    std::string get_perm() const;
    Json::Value get_commit_msg() const;
    std::string get_parent_id() const;
    unsigned long get_owner() const;
    Json::Value get_metatext() const;
    Json::Value get_text() const;
    Json::Value get_metabinary_info() const;
    Json::Value get_binary_info() const;
    Json::Value get_path_info() const;
    Json::Value get_acl() const;
    long get_ctime() const;
    long get_mtime() const;
    Json::Value get_extra_info() const;

    void set_ns(const std::string &str);
    void set_id(const std::string &str);
    void set_category(const std::string &str);
    void set_version(const std::string &str);
    void set_perm(const std::string &str);
    void set_commit_msg(const Json::Value &j);
    void set_parent_id(const std::string &str);
    void set_owner(unsigned long owner);
    void set_metatext(const Json::Value &j);
    void set_text(const Json::Value &j);
    void set_metabinary_info(const Json::Value &j);
    void set_binary_info(const Json::Value &j);
    void set_path_info(const Json::Value &j);
    void set_acl(const Json::Value &j);
    void set_ctime(long t);
    void set_mtime(long t);
    void set_extra_info(const Json::Value &j);

    /* Writes the selected fields into jRet (must be an object: else 1015).
     * The ACL only for perm "owner"/"rw" or when blForceAcl. */
    bool toJson(const Json::Value &jSelection, Json::Value &jRet, bool blForceAcl = false) const;
    /* Sets every member whose key jVal has; 3328 on the platform stack when
     * jVal is not an object. */
    bool fromJson(const Json::Value &jVal);

    /* Reads one object for jParm["requester"] into this object ({"ns",
     * "id", "requester", "version"?, "field"?}). On failure the object is
     * cleared. Codes 1007, 1010 and those of the checks it appends to. */
    bool Get(const Json::Value &jParm);
    /* Creates an object and leaves it, as read back, in this object
     * ({"ns", "category", "requester", "owner" (requester 0 only; any other
     * requester owns what he creates), "id"?, "parent_id"?, "acl"? (an
     * object), "ctime"? (an integer), "commit_msg"?, "text"?, "metatext"?,
     * "binary_files"?, "metabinary_files"?}). Returns true, or false with:
     *   1007 a malformed record (the failed condition as text);
     *   1010 no file backend;
     *   1023 no "rw" on the parent, or a "binary_files" item with
     *        "format":"object" whose source object the requester may not
     *        read;
     *   1031 the caller's "id" exists already;
     *   the codes of the access, owner and parent checks and of the file
     *   store, appended to.
     * A failed index write is logged and does not fail the create. */
    bool Create(const Json::Value &jParm);
    /* Creates through a temporary object; gives the new id and version.
     * Codes as above, with "!tmpNewObj.Create(jsParm)" appended. */
    bool Create(const Json::Value &jsParm, std::string &strNewID, std::string &strNewVer);
    /* Copies object jParm["id"] ({"ns", "id", "requester", "parent_id"?,
     * "commit_msg"?}) into a new object of the requester, who must be able
     * to read it. Returns true, or false with 1007 for a malformed record,
     * the id check's codes, the codes of reading the source (1012, 1020,
     * 1023, 1008 ...) or those of Create, appended to. */
    bool Copy(const Json::Value &jParm);
    /* The same through a temporary object; gives the new id and version
     * ("!tmpNewObj.Copy(jsParm)" appended on failure). */
    bool Copy(const Json::Value &jsParm, std::string &strNewID, std::string &strNewVer);
    /* Changes an object and leaves it, as read back, in this object
     * ({"ns", "id", "requester", "version" (with "text" or
     * "binary_files"), and at least one of "ctime", "parent_id",
     * "metatext", "text", "metabinary_files", "binary_files"}). Returns
     * true, or false with:
     *   1007 a malformed record, nothing to change, a parent of another
     *        owner;
     *   1010 no file backend;
     *   1023 the requester has neither "rw" nor "owner" on the object or
     *        the new parent, or may not read the source object of a
     *        "binary_files" item with "format":"object";
     *   the codes of the access and id checks, of reading the object and
     *   of the file store, appended to. */
    bool Set(const Json::Value &jParm);
    /* Changes through a temporary object; gives the new version. Codes as
     * above, with "!tmpNewObj.Set(jsParm)" appended. */
    bool Set(const Json::Value &jsParm, std::string &strNewVer);
    /* Deletes an object from the file store and from the index ({"ns",
     * "id", "requester", "recursive"? (a bool: the descendants too, found
     * through the index by "parent_id")}). Only the owner and the system
     * requester 0 may delete; sharing never grants it. The namespace's
     * "delete" hooks see the object as it was, before and after. A
     * descendant that cannot be deleted is written to the system log and
     * the others are still deleted; the call still succeeds. Deleting an
     * object that is gone already succeeds (without hooks) and removes a
     * row the index may have kept of it. Returns true, or false with:
     *   1007 a malformed record;
     *   1008 an id without an owner;
     *   1010 no file or index backend;
     *   1023 the requester is not the owner ("owner != requester");
     *   the codes of the access and id checks, of reading the object and
     *   of the two stores, appended to. */
    bool Delete(const Json::Value &jParm);
    /* Writes one binary file of an object as a CGI response on standard
     * output ({"ns", "id", "segment" ("binary" or "metabinary"), "field",
     * "format" ("base64" or "raw"), "requester", "version"? (an older
     * version's file), "filename"? (the name offered), "mode"?
     * ("download": an attachment), "HTTP_IF_NONE_MATCH"? (the client's
     * tag: 304 and no body when it matches)}). Any permission the
     * requester has on the object, "ro" included, allows it. Nothing is
     * printed when the call fails before the file is open. Returns true,
     * or false with:
     *   1007 a malformed record;
     *   1010 no file backend;
     *   the codes of reading the object for the requester (access,
     *   sharing, permission), and of the file store (1008 for a missing
     *   version or field), appended to. */
    bool Download(const Json::Value &jParm);
    /* Renames one field of an object and leaves it, as read back, in this
     * object ({"ns", "id", "requester", "segment" ("text", "binary",
     * "metatext" or "metabinary"), "old_field", "new_field", "version"
     * (required for "text" and "binary": the version the rename is based
     * on), "commit_msg"? (an object), "mtime"? (an integer)}). A text or
     * binary rename makes a new version; a meta rename does not. Only the
     * owner and the system requester 0 may rename, whatever the sharing.
     * Returns true, or false with:
     *   1007 a malformed record;
     *   1010 no file backend;
     *   1023 the requester is not the owner;
     *   the codes of the access and id checks, of reading the object and
     *   of the file store (1008 for a field the version does not have),
     *   appended to.
     * A failed index write is logged and does not fail the rename. */
    bool FieldRename(const Json::Value &jParm);
    /* Renames through a temporary object; gives the object's version after
     * the rename. Codes as above, with "!tmpNewObj.FieldRename(jsParm)"
     * appended. */
    bool FieldRename(const Json::Value &jsParm, std::string &strNewVer);
    /* Changes the object's ACL and leaves the object, as read back, in
     * this object ({"ns", "id", "type" ("global", "public", "user" or
     * "group"), "op" ("set" or "delete"), "requester", "enabled" (a bool,
     * "global"/"set"), "perm" ("ro" or "rw", "set" on the other types),
     * "uid"/"gid" (integers, for "user"/"group"), "recursive"? (a bool: the
     * grant comes from an ancestor and never weakens a direct one)}). A
     * change is stored, re-indexed and pushed down to every child listed
     * under the object as an inherited grant; a change that changes nothing
     * stores nothing and visits no child. The owner, the system requester 0
     * and a user with "rw" may change it. A child that cannot be changed is
     * written to the system log only. Returns true, or false with:
     *   1007 a malformed record, an unknown type or op, a "perm" other
     *        than "ro" or "rw";
     *   1010 no file backend;
     *   1023 the requester has neither "rw" nor "owner" on the object;
     *   the codes of the access and id checks, of reading the object, of
     *   the file store and of the index, appended to. */
    bool Sharing(const Json::Value &jsParm);

    KOLV_VESSA_OBJECT *m_next;
    Json::Value m_param;
    KOLV_VESSA_OBJECT_IMPL *m_impl;
};

/* A chain of objects; owns every object in it. */
class KOLV_EXPORT KOLV_VESSA_OBJECT_LIST {
  public:
    KOLV_VESSA_OBJECT_LIST();
    ~KOLV_VESSA_OBJECT_LIST();
    KOLV_VESSA_OBJECT_LIST(const KOLV_VESSA_OBJECT_LIST &) = delete;
    KOLV_VESSA_OBJECT_LIST &operator=(const KOLV_VESSA_OBJECT_LIST &) = delete;

    /* Frees the whole chain. */
    void clear();
    /* Reads one object; on success the list holds exactly it, on failure
     * the old chain stays. */
    bool GetObject(const Json::Value &jParm);
    /* Lists objects from the index into the list (replacing its chain).
     * Returns the count, negative on failure. */
    int ListObject(const Json::Value &jParm, unsigned int &total);

    /* The operations on many objects of one namespace ({"ns", "id" (an
     * array of ids), "requester", and the keys of the single-object
     * operation}). Every object is read and checked first: the owner, the
     * system requester 0 and a user with "rw" pass; any failure there
     * fails the whole call before anything changes (1007, 1023, and the
     * codes of the access and id checks and of reading the object,
     * appended to "!PreCheck(jParm, &m_head)"). The namespace's batch
     * hooks run once around the work, which is spread over up to 30
     * worker threads. jsResult gets "<id>": true or false per object; one
     * object's failure does not stop the others nor fail the call. On
     * success the list holds the objects (as read before the change for
     * Delete, as read back afterwards for Set and Sharing).
     *
     * Delete ("recursive"? a bool) removes the objects from the file store
     * and the index; the children of a deleted object are deleted too with
     * "recursive", else they are moved to their owner's root. Only the
     * owner and the system requester 0 may delete: "rw" is refused with
     * 1023 ("owner != requester"). An object the file store could not
     * delete (false) keeps its index row. One object is deleted on the
     * calling thread, as one object is changed by Set and Sharing. */
    bool Delete(const Json::Value &jParm, Json::Value &jsResult);
    /* Set ("ctime", "parent_id", "reset_parent_id" (a bool: back to the
     * owner's root), "metatext", "text", "metabinary_files",
     * "binary_files", "version", "commit_msg", "mtime", as the
     * single-object set takes them). Every object that changed is
     * re-indexed. */
    bool Set(const Json::Value &jParm, Json::Value &jsResult);
    /* Sharing ("type", "op", "perm", "uid", "gid", "recursive"? as the
     * single-object Sharing takes them). */
    bool Sharing(const Json::Value &jParm);
    /* The same, giving the outcome per id in jsResult. */
    bool Sharing(const Json::Value &jParm, Json::Value &jsResult);

    KOLV_VESSA_OBJECT *m_head;
};

extern "C" {

/* A new empty object (free with KOLVVessaObjectFreeList); NULL with 1014. */
KOLV_EXPORT KOLV_VESSA_OBJECT *KOLVVessaObjectAlloc(void);
/* Destroys every object of a chain; NULL is allowed. */
KOLV_EXPORT void KOLVVessaObjectFreeList(KOLV_VESSA_OBJECT *pObject);
/* clear() on a non-NULL object. */
KOLV_EXPORT void KOLVVessaObjectClear(KOLV_VESSA_OBJECT *pObject);
/* The next object of a chain (NULL at the end or for NULL). */
KOLV_EXPORT KOLV_VESSA_OBJECT *KOLVVessaObjectNext(KOLV_VESSA_OBJECT *pObject);

/* Does nothing and returns 1 (reserved for the callers' activity log). */
KOLV_EXPORT int KOLVVessaObjectLog(int result, int action, const KOLV_VESSA_OBJECT *pOld,
                                   const KOLV_VESSA_OBJECT *pNew);

} /* extern "C" */

/* One row of the activity-log table. */
typedef struct _tag_kolvvessa_log_string_ {
    int result;
    int action;
    const char *szSection;
    const char *szKey;
} KOLVVESSAOBJECT_LOG_STRING;

extern KOLV_EXPORT const KOLVVESSAOBJECT_LOG_STRING KOLVVESSAOBJECT_LOG_STRING_MAP[6];

/* Plain-function entries over a platform string hash ("ns", "id",
 * "requester" in decimal, "version" ...). */

/* Reads an object into pObject. 1015 for NULL arguments, 1007 for a
 * missing key or a bad requester. */
KOLV_EXPORT bool KOLVVessaObjectGet(TRABSZHASH *pParmHash, KOLV_VESSA_OBJECT *pObject);
/* Changes an object: "ns", "id", "requester" and the fields to change as
 * JSON text ("text", "metatext", "binary_files", "metabinary_files",
 * "commit_msg", "version", "parent_id", "ctime", "mtime"). Gives the new
 * version. */
KOLV_EXPORT bool KOLVVessaObjectSet(TRABSZHASH *pParmHash, std::string &strNewVer);
/* Copies an object ("ns", "id", "requester"; "parent_id" optional). */
KOLV_EXPORT bool KOLVVessaObjectCopy(TRABSZHASH *pParmHash, std::string &strNewID, std::string &strNewVer);
/* Deletes an object ("ns", "id", "requester"; "recursive" optional, as
 * "true"/"1" or "false"/"0"). 1015 for a NULL hash, 1007 for a missing key,
 * a bad requester or another "recursive" text; otherwise the codes of
 * KOLV_VESSA_OBJECT::Delete with "!KOLV_VESSA_OBJECT::Delete(jParm)"
 * appended. */
KOLV_EXPORT bool KOLVVessaObjectDelete(TRABSZHASH *pParmHash);
/* Renames a field ("ns", "id", "requester", "segment", "old_field",
 * "new_field"; "version" and "commit_msg" (JSON text of an object) and
 * "mtime" (decimal) optional) and gives the version after the rename. 1015
 * for a NULL hash, 1007 for a missing key, a bad requester, a "commit_msg"
 * that does not parse or an "mtime" with trailing characters; otherwise
 * the codes of KOLV_VESSA_OBJECT::FieldRename with
 * "!KOLV_VESSA_OBJECT::FieldRename(jParm, strNewVer)" appended. */
KOLV_EXPORT bool KOLVVessaObjectFieldRename(TRABSZHASH *pParmHash, std::string &strNewVer);
/* Downloads a binary file of an object ("ns", "id", "segment", "field",
 * "format", "requester" required; "version", "mode", "filename",
 * "HTTP_IF_NONE_MATCH" optional, as KOLV_VESSA_OBJECT::Download reads
 * them). 1015 for a NULL hash, 1007 for a missing key or a requester
 * with trailing characters; otherwise the codes of
 * KOLV_VESSA_OBJECT::Download with "!KOLV_VESSA_OBJECT::Download(jParm)"
 * appended. */
KOLV_EXPORT bool KOLVVessaObjectDownload(TRABSZHASH *pParmHash);

/* Deletes every object uid owns, in every namespace, through the index
 * listing and one multi-object delete (as requester 0) per namespace.
 * Refuses root (0) and UID_ERR (1015 "UID_ERR == uid || UID_ROOT == uid")
 * without listing. A user with no objects succeeds. Objects that cannot be
 * deleted are left, and the call still succeeds; false only when the
 * listing fails. The objects go whatever became of their owner (removed,
 * expired, without a home). */
KOLV_EXPORT bool KOLVVessaObjectDeleteByUid(uid_t uid);
/* Deletes, as the system and whatever became of their owners, every
 * object whose owner is not a local user (the platform's user table and
 * the system's users from uid 1000), in every namespace. False when the
 * users or the index cannot be listed; a namespace whose delete fails does
 * not stop the others. A platform user table that is there but cannot be
 * read fails the call before anything is listed: its users are unknown,
 * not gone. */
KOLV_EXPORT bool KOLVVessaObjectDeleteNonExistDirSvsUid(void);

#include "kolvvessaobjectgetter.h"
#include "kolvvessaobjectsetter.h"

#endif /* KOLVVESSA_OBJECT_H */
