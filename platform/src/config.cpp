/*
 * Reading the platform config file. Every call reads and parses the file
 * anew (it is small), so there is no shared state to guard.
 */
#include <json/json.h>
#include <errno.h>
#include <limits.h>

#include <fstream>
#include <sstream>

#include "kolvplatform/kolv_platform.h"
#include "platform_config.h"

namespace kolvplatform {

namespace {

constexpr const char kConfigPath[] = "/usr/kolv/etc/platform.conf";

bool IsId(const Json::Value &j) {
    return j.isIntegral() && j.isUInt() && j.asUInt() != UINT_MAX;
}

void ReadBool(const Json::Value &jObj, const char *szKey, bool *pbl) {
    const Json::Value &j = jObj[szKey];
    if (j.isBool()) *pbl = j.asBool();
}

/* One entry of "users"; false when it has no valid uid and name. */
bool ReadUser(const Json::Value &j, TableUser *pUser) {
    if (!j.isObject() || !IsId(j["uid"]) || !j["name"].isString() || j["name"].asString().empty()) return false;
    pUser->uid = static_cast<uid_t>(j["uid"].asUInt());
    pUser->strName = j["name"].asString();
    if (IsId(j["gid"])) pUser->gid = static_cast<gid_t>(j["gid"].asUInt());
    if (j["mail"].isString()) pUser->strMail = j["mail"].asString();
    if (j["expired"].isBool()) pUser->blExpired = j["expired"].asBool();
    const Json::Value &jGroups = j["groups"];
    if (jGroups.isArray()) {
        for (const Json::Value &jGid : jGroups) {
            if (IsId(jGid)) pUser->groups.push_back(static_cast<gid_t>(jGid.asUInt()));
        }
    }
    return true;
}

} // namespace

const TableUser *PlatformConfig::FindUid(uid_t uid) const {
    for (const TableUser &user : users) {
        if (user.uid == uid) return &user;
    }
    return nullptr;
}

const TableUser *PlatformConfig::FindName(const std::string &strName) const {
    for (const TableUser &user : users) {
        if (user.strName == strName) return &user;
    }
    return nullptr;
}

PlatformConfig LoadPlatformConfig() {
    PlatformConfig config;
    char szPath[PATH_MAX];
    if (!KOLVSysPath(kConfigPath, szPath, sizeof(szPath))) return config;
    std::ifstream ifs(szPath, std::ios::binary);
    if (!ifs) {
        config.blBroken = ENOENT != errno;
        return config;
    }
    Json::Value jRoot;
    Json::CharReaderBuilder builder;
    std::string strErr;
    try {
        config.blBroken = !Json::parseFromStream(builder, ifs, &jRoot, &strErr) || !jRoot.isObject();
    } catch (const Json::Exception &) {
        config.blBroken = true;
    }
    if (config.blBroken) return config;
    const Json::Value &jShares = jRoot["shares"];
    if (jShares.isObject()) {
        for (const std::string &strName : jShares.getMemberNames()) {
            const Json::Value &jPath = jShares[strName];
            if (jPath.isString() && !jPath.asString().empty()) config.shares[strName] = jPath.asString();
        }
    }
    const Json::Value &jHome = jRoot["user_home"];
    if (jHome.isObject()) {
        ReadBool(jHome, "local", &config.blHomeLocal);
        ReadBool(jHome, "domain", &config.blHomeDomain);
        ReadBool(jHome, "directory", &config.blHomeDirectory);
    }
    const Json::Value &jUsers = jRoot["users"];
    if (jUsers.isArray()) {
        for (const Json::Value &jUser : jUsers) {
            TableUser user;
            // The first entry of a uid counts.
            if (ReadUser(jUser, &user) && !config.FindUid(user.uid)) config.users.push_back(std::move(user));
        }
    }
    return config;
}

} // namespace kolvplatform
