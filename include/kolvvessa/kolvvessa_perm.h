/*
 * kolvvessa_perm.h - a requester's permission on an object.
 */
#ifndef KOLVVESSA_PERM_H
#define KOLVVESSA_PERM_H

#include <json/json.h>
#include <kolvplatform/kolv_platform.h>

#include <map>
#include <string>

#include "kolvvessa_export.h"

/* Ranks permission words so that grants combine to their maximum. */
class KOLV_EXPORT PermissionOrder {
  public:
    /* Enters (or overwrites) perm with its rank. */
    PermissionOrder(const std::string &strPerm, int order);
    /* The rank of perm, -1 when unranked (exact match). */
    static int GetOrder(const std::string &strPerm);
    static std::map<std::string, int> order_list;
};

/* "ro" = 1 and "rw" = 2, entered at load. */
extern KOLV_EXPORT PermissionOrder rgPermRO;
extern KOLV_EXPORT PermissionOrder rgPermRW;

/* The permission of requester on an object of owner with acl: "owner",
 * "rw" for requester 0, else the named user grant, else the maximum of the
 * user and group grants, else the public grant. FALSE with 1015, 1020,
 * 1021, 1022 or 1023 (nothing granted); perm is then unchanged. */
KOLV_EXPORT BOOL KOLVVessaObjectPermCalculate(unsigned int requester, unsigned int owner, const Json::Value &acl,
                                              std::string &strPerm);

#endif /* KOLVVESSA_PERM_H */
