/* Processes: exec with exit status, fork with the detaching flags. */
#include <fcntl.h>
#include <kolvplatform/kolv_platform.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

TEST(PlatformExec, ReturnsTheExitStatusOrFails) {
    const char *rgExit[] = {"sh", "-c", "exit 7", nullptr};
    EXPECT_EQ(7, TRABCExec("/bin/sh", rgExit));
    // argv reaches the program, argv[0] included.
    const char *rgArgs[] = {
        "name", "-c",
        "[ \"$0\" = 'a b' ] && [ \"$1\" = c ] && tr '\\0' '\\n' </proc/$$/cmdline | head -n1 | grep -qx name",
        "a b",  "c",  nullptr};
    EXPECT_EQ(0, TRABCExec("/bin/sh", rgArgs));
    EXPECT_LT(TRABCExec("/nonexistent/program", rgExit), 0);
    EXPECT_LT(TRABCExec("/dev/null", rgExit), 0); // not executable
    EXPECT_LT(TRABCExec(nullptr, rgExit), 0);
    const char *rgKill[] = {"sh", "-c", "kill -9 $$", nullptr};
    EXPECT_LT(TRABCExec("/bin/sh", rgKill), 0);
}

bool SameFile(int fd, const char *szPath) {
    struct stat a, b;
    return fstat(fd, &a) == 0 && stat(szPath, &b) == 0 && a.st_rdev == b.st_rdev && a.st_ino == b.st_ino;
}

TEST(PlatformFork, DetachClosesDescriptorsAndNullsStdio) {
    int fdExtra = open("/dev/zero", O_RDONLY);
    ASSERT_GT(fdExtra, 2);
    int pid = TRABCProcForkEx(TRAB_FORK_DETACH | TRAB_FORK_CLOSE_FDS | TRAB_FORK_NULL_STDIO);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int code = 0;
        if (getsid(0) != getpid()) code |= 1;
        if (fcntl(fdExtra, F_GETFD) != -1) code |= 2;
        for (int fd = 0; fd <= 2; ++fd) {
            if (!SameFile(fd, "/dev/null")) code |= 4;
        }
        _exit(code);
    }
    close(fdExtra);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status)) << "1: no new session, 2: fd left open, 4: stdio not /dev/null";
}

} // namespace
