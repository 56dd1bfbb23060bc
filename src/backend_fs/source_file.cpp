/*
 * source_file.cpp - opening a request's files as its requester (see
 * source_file.h).
 */
#include "backend_fs/source_file.h"

#include <errno.h>
#include <fcntl.h>
#include <kolvplatform/kolv_platform.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "kolvvessa/kolvvessa_common.h"

namespace kolv {

namespace {

/* The uid's primary group and all its groups, from the platform. */
bool GroupsOf(uid_t uid, gid_t &gid, std::vector<gid_t> &groups) {
    KOLVUSER *pRaw = NULL;
    if (0 != KOLVUserGetByUID(uid, &pRaw)) return false;
    User pUser(pRaw);
    gid = pUser->gid;
    SzListRef pList(TRABGroupInfoListGet(pUser->szName, FALSE));
    groups.clear();
    for (int i = 0; pList.get() && i < TRABCSzListCount(pList.get()); ++i)
        groups.push_back((gid_t)strtoul(TRABCSzListGet(pList.get(), i), NULL, 10));
    return true;
}

int OpenRegular(const std::string &strPath) {
    if (TRUE == KOLVFaultCheck("source")) return -1;
    Fd fd(open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st;
    if (0 > fd.get() || 0 != fstat(fd.get(), &st)) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return fd.release();
}

} // namespace

uid_t RequesterOf(const Json::Value &jParm) {
    const Json::Value &jRequester = jParm.isObject() ? jParm["requester"] : Json::Value::nullSingleton();
    return jRequester.isUInt() ? jRequester.asUInt() : UID_ROOT;
}

int OpenSourceFile(const std::string &strPath, uid_t requester) {
    if (UID_ROOT == requester) return OpenRegular(strPath);
    gid_t gid = GID_ERR;
    std::vector<gid_t> groups;
    if (!GroupsOf(requester, gid, groups)) {
        errno = EACCES;
        return -1;
    }
    ThreadFsIdentity identity(requester, gid, groups);
    if (!identity.Ok()) {
        errno = EPERM;
        return -1;
    }
    return OpenRegular(strPath);
}

} // namespace kolv
