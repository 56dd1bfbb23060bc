/*
 * Reading the platform config file. The parsed file is kept, under a
 * lock, for as long as its identity, size and modification time (to the
 * nanosecond) stay the same: a listing asks for a user's groups and a
 * home share many times a second.
 */
#include <json/json.h>
#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <time.h>

#include <fstream>
#include <mutex>
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

/* What tells one state of the file from another. */
struct FileStamp {
    std::string strPath;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtim = {0, 0};

    bool operator==(const FileStamp &o) const {
        return strPath == o.strPath && dev == o.dev && ino == o.ino && size == o.size && mtim.tv_sec == o.mtim.tv_sec &&
               mtim.tv_nsec == o.mtim.tv_nsec;
    }
};

// A file changed this recently may change again within the same tick of
// the file system's clock, keeping its stamp: such a state is read anew.
constexpr time_t kSettleSeconds = 2;

std::mutex gCacheLock;
bool gblCached = false;
FileStamp gCachedStamp;
PlatformConfig gCachedConfig;

PlatformConfig ParseConfigFile(const char *szPath) {
    PlatformConfig config;
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
    char szPath[PATH_MAX];
    if (!KOLVSysPath(kConfigPath, szPath, sizeof(szPath))) return PlatformConfig();
    struct stat st;
    // A file that cannot be looked at is read as before, uncached.
    if (0 != stat(szPath, &st)) return ParseConfigFile(szPath);
    FileStamp stamp;
    stamp.strPath = szPath;
    stamp.dev = st.st_dev;
    stamp.ino = st.st_ino;
    stamp.size = st.st_size;
    stamp.mtim = st.st_mtim;
    {
        std::lock_guard<std::mutex> guard(gCacheLock);
        if (gblCached && gCachedStamp == stamp) return gCachedConfig;
    }
    PlatformConfig config = ParseConfigFile(szPath);
    if (stamp.mtim.tv_sec + kSettleSeconds >= time(NULL)) return config;
    std::lock_guard<std::mutex> guard(gCacheLock);
    gblCached = true;
    gCachedStamp = stamp;
    gCachedConfig = config;
    return config;
}

} // namespace kolvplatform
