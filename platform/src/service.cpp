/*
 * Services: the user-home switches of the platform config, and whether the
 * database server answers.
 */
#include <libpq-fe.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "kolvplatform/kolv_platform.h"
#include "platform_config.h"

extern "C" {

BOOL KOLVServiceUserHomeIsEnabled(int authType, void *pReserved) {
    (void)pReserved;
    try {
        kolvplatform::PlatformConfig config = kolvplatform::LoadPlatformConfig();
        switch (authType) {
        case AUTH_LOCAL:
            return config.blHomeLocal ? TRUE : FALSE;
        case AUTH_DOMAIN:
            return config.blHomeDomain ? TRUE : FALSE;
        case AUTH_LDAP:
            return config.blHomeDirectory ? TRUE : FALSE;
        default:
            return FALSE;
        }
    } catch (const std::bad_alloc &) {
        return FALSE;
    }
}

BOOL TRABServiceIsRunning(const char *szService) {
    if (!szService || strcmp(szService, "pgsql") != 0) return FALSE;
    // libpq's defaults (PGHOST, PGPORT, ...) choose the server; a server
    // that answers but refuses connections (starting, shutting down) does
    // not count. Without PGCONNECT_TIMEOUT the wait is bounded here.
    const char *rgKeys[] = {"dbname", "user", NULL, NULL};
    const char *rgValues[] = {"postgres", "postgres", NULL, NULL};
    const char *szTimeout = getenv("PGCONNECT_TIMEOUT");
    if (!szTimeout || !*szTimeout) {
        rgKeys[2] = "connect_timeout";
        rgValues[2] = "10";
    }
    return PQpingParams(rgKeys, rgValues, 0) == PQPING_OK ? TRUE : FALSE;
}

} // extern "C"
