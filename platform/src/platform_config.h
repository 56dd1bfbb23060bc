/*
 * platform_config.h - the platform config file (/usr/kolv/etc/platform.conf
 * below KOLV_SYSROOT), read afresh on each call. Internal to the platform
 * library.
 */
#ifndef KOLV_PLATFORM_CONFIG_H
#define KOLV_PLATFORM_CONFIG_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace kolvplatform {

struct TableUser {
    uid_t uid = 0;
    gid_t gid = 100;
    bool blExpired = false;
    std::string strName;
    std::string strMail;
    std::vector<gid_t> groups;
};

struct PlatformConfig {
    /* share name -> appliance path (not relocated) */
    std::map<std::string, std::string> shares;
    bool blHomeLocal = true;
    bool blHomeDomain = false;
    bool blHomeDirectory = false;
    std::vector<TableUser> users;
    /* The file is there but cannot be read or is not a JSON object: its
     * users are unknown, which is not the same as none. */
    bool blBroken = false;

    const TableUser *FindUid(uid_t uid) const;
    const TableUser *FindName(const std::string &strName) const;
};

/* Reads the config; a missing or unreadable file, or one that is not a
 * JSON object, gives the defaults (no shares, no users); the last two also
 * set blBroken. Never throws
 * except std::bad_alloc. */
PlatformConfig LoadPlatformConfig();

} // namespace kolvplatform

#endif /* KOLV_PLATFORM_CONFIG_H */
