/*
 * kolvvessa_backend.h - the storage-backend interface and its registry.
 *
 * Object operations ask the registry for a backend by name ("fs", the file
 * store; "pgsql", the index), call one operation and destroy it again.
 */
#ifndef KOLVVESSA_BACKEND_H
#define KOLVVESSA_BACKEND_H

#include <json/json.h>

#include <map>
#include <string>

#include "kolvvessa_export.h"

class KOLV_VESSA_OBJECT;
class KOLV_VESSA_OBJECT_VERSION;

/* The operations every backend lays out, in this order. */
class KOLV_EXPORT KOLVVESSA_BACKEND_OP {
  public:
    virtual ~KOLVVESSA_BACKEND_OP() {}
    virtual bool Get(const Json::Value &jParm, KOLV_VESSA_OBJECT *pObject) = 0;
    /* The count of objects chained at *ppHead (owned by the caller). */
    virtual int List(const Json::Value &jParm, KOLV_VESSA_OBJECT **ppHead, unsigned int &total) = 0;
    virtual bool Download(const Json::Value &jParm) = 0;
    virtual bool Set(const Json::Value &jParm, std::string &strNewVer) = 0;
    virtual bool FieldRename(const Json::Value &jParm, std::string &strNewVer) = 0;
    virtual bool Create(const Json::Value &jParm, std::string &strId, std::string &strNewVer) = 0;
    virtual bool Delete(const Json::Value &jParm) = 0;
    virtual bool VersionGet(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION *pVer) = 0;
    virtual bool VersionDiff(const Json::Value &jParm, Json::Value &jDiff) = 0;
    /* The count of versions chained at *ppHead (owned by the caller). */
    virtual int VersionList(const Json::Value &jParm, KOLV_VESSA_OBJECT_VERSION **ppHead, unsigned int &total,
                            unsigned int &listableTotal) = 0;
};

/* A factory: a new backend, owned by the caller. */
typedef KOLVVESSA_BACKEND_OP *(*KOLVVESSA_BACKEND_FACTORY)(void);

/* A registration: constructing one enters name -> factory into the
 * registry, replacing an earlier factory of that name. */
class KOLV_EXPORT RegisterBackend {
  public:
    RegisterBackend(const std::string &strName, KOLVVESSA_BACKEND_FACTORY factory);
    /* The registry, made on first use. */
    static std::map<std::string, KOLVVESSA_BACKEND_FACTORY> &get_list();
    /* A new backend of that name (owned by the caller), NULL when none is
     * registered. */
    static KOLVVESSA_BACKEND_OP *New(const std::string &strName);
};

extern KOLV_EXPORT RegisterBackend registerFs;
extern KOLV_EXPORT RegisterBackend registerPgsql;

extern "C" {
/* A new file-store backend, owned by the caller. */
KOLV_EXPORT KOLVVESSA_BACKEND_OP *CreateFsBackend(void);
/* A new index backend, owned by the caller; it connects lazily. */
KOLV_EXPORT KOLVVESSA_BACKEND_OP *CreatePgsqlBackend(void);
}

#endif /* KOLVVESSA_BACKEND_H */
