/* Files: existence, mkdir -p, remove tree, flock. */
#include <kolvplatform/kolv_platform.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/kolv_test_support.h"

namespace {

using kolvtest::ReadFile;
using kolvtest::WriteFile;

class PlatformFiles : public kolvtest::SysrootTest {
  protected:
    std::string Tmp(const std::string &str) const { return m_sys.Path("/tmp/" + str); }
};

mode_t ModeOf(const std::string &strPath) {
    struct stat st;
    return stat(strPath.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST_F(PlatformFiles, MkdirCreatesParentsWithModeAndOwner) {
    std::string strDeep = Tmp("a/b/c");
    // Without parents a missing parent fails.
    EXPECT_LT(KOLVFSMkdirP(strDeep.c_str(), nullptr, FALSE, (uid_t)-1, GID_ERR, -1), 0);
    EXPECT_FALSE(TRABCFileExist(Tmp("a").c_str()));

    uid_t uid = getuid() == 0 ? 1101 : (uid_t)-1;
    ASSERT_EQ(0, KOLVFSMkdirP((strDeep + "/").c_str(), nullptr, TRUE, uid, 100, 0750));
    for (const char *sz : {"a", "a/b", "a/b/c"}) {
        struct stat st;
        ASSERT_EQ(0, stat(Tmp(sz).c_str(), &st)) << sz;
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_TRUE(TRABCFileCheckDir(Tmp(sz).c_str()));
        EXPECT_EQ(0750u, st.st_mode & 07777) << sz;
        if (getuid() == 0) {
            EXPECT_EQ(1101u, st.st_uid);
            EXPECT_EQ(100u, st.st_gid);
        }
    }
    // An existing directory is success and left alone (mode, owner).
    EXPECT_EQ(0, KOLVFSMkdirP(strDeep.c_str(), nullptr, TRUE, 0, 0, 0700));
    EXPECT_EQ(0750u, ModeOf(strDeep));
    // Default mode, no owner change, whatever the umask.
    mode_t old = umask(077);
    EXPECT_EQ(0, KOLVFSMkdirP(Tmp("d").c_str(), nullptr, FALSE, (uid_t)-1, GID_ERR, -1));
    umask(old);
    EXPECT_EQ(0755u, ModeOf(Tmp("d")));

    // A file in the way, and no path.
    WriteFile(Tmp("file"), "x");
    EXPECT_TRUE(TRABCFileExist(Tmp("file").c_str()));
    EXPECT_FALSE(TRABCFileCheckDir(Tmp("file").c_str()));
    EXPECT_FALSE(TRABCFileExist(Tmp("missing").c_str()));
    EXPECT_LT(KOLVFSMkdirP(Tmp("file").c_str(), nullptr, TRUE, (uid_t)-1, GID_ERR, -1), 0);
    EXPECT_LT(KOLVFSMkdirP(Tmp("file/sub").c_str(), nullptr, TRUE, (uid_t)-1, GID_ERR, -1), 0);
    EXPECT_LT(KOLVFSMkdirP("", nullptr, TRUE, (uid_t)-1, GID_ERR, -1), 0);
}

TEST_F(PlatformFiles, RemoveTreeRemovesEverything) {
    std::string strTop = Tmp("tree");
    ASSERT_EQ(0, KOLVFSMkdirP((strTop + "/a/b/c").c_str(), nullptr, TRUE, (uid_t)-1, GID_ERR, -1));
    WriteFile(strTop + "/f", "1");
    WriteFile(strTop + "/a/b/c/g", "2");
    // A link out of the tree: removed, not followed.
    std::string strOutside = Tmp("outside");
    ASSERT_EQ(0, mkdir(strOutside.c_str(), 0755));
    WriteFile(strOutside + "/keep", "k");
    ASSERT_EQ(0, symlink(strOutside.c_str(), (strTop + "/a/link").c_str()));

    EXPECT_EQ(0, KOLVFSRemoveTree(strTop.c_str()));
    EXPECT_FALSE(TRABCFileExist(strTop.c_str()));
    EXPECT_EQ("k", ReadFile(strOutside + "/keep"));
    // A single file, then a missing path.
    EXPECT_EQ(0, KOLVFSRemoveTree((strOutside + "/keep").c_str()));
    EXPECT_FALSE(TRABCFileExist((strOutside + "/keep").c_str()));
    EXPECT_EQ(0, KOLVFSRemoveTree(strTop.c_str()));
    EXPECT_LT(KOLVFSRemoveTree(""), 0);
    EXPECT_LT(KOLVFSRemoveTree("/"), 0);
}

TEST_F(PlatformFiles, LockByFileExcludesOtherHolders) {
    std::string strLock = Tmp("lock");
    // Whether another open file of the lock could take op now.
    auto mayTake = [&](int op) {
        int fd = open(strLock.c_str(), O_RDONLY);
        bool bl = 0 == flock(fd, op | LOCK_NB);
        close(fd);
        return bl;
    };
    int handle = -1;
    ASSERT_EQ(1, TRABCFileLockByFile(strLock.c_str(), TRUE, &handle));
    EXPECT_EQ(0600u, ModeOf(strLock));
    EXPECT_FALSE(mayTake(LOCK_SH));
    ASSERT_EQ(0, TRABCFileUnlockByFile(handle));
    ASSERT_EQ(1, TRABCFileLockByFile(strLock.c_str(), FALSE, &handle));
    EXPECT_TRUE(mayTake(LOCK_SH));
    EXPECT_FALSE(mayTake(LOCK_EX));
    ASSERT_EQ(0, TRABCFileUnlockByFile(handle));
    EXPECT_TRUE(mayTake(LOCK_EX));
    EXPECT_EQ(0, TRABCFileLockByFile(Tmp("nodir/lock").c_str(), TRUE, &handle));
    EXPECT_LT(TRABCFileUnlockByFile(-1), 0);
}

} // namespace
