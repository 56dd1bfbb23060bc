/*
 * Processes: run a program and wait, fork with detaching options.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kolvplatform/kolv_platform.h"

namespace {

/* Closes every descriptor above 2 (in a freshly forked child). */
void CloseFdsAbove2() {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
#endif
    long max = sysconf(_SC_OPEN_MAX);
    if (max < 0 || max > 65536) max = 65536;
    for (int fd = 3; fd < max; ++fd)
        close(fd);
}

} // namespace

extern "C" {

int TRABCExec(const char *szProg, const char *const argv[]) {
    if (TRUE == KOLVFaultCheck("TRABCExec")) return -1;
    if (!szProg || !*szProg) {
        errno = EINVAL;
        return -1;
    }
    const char *rgDefault[] = {szProg, NULL};
    char *const *ppArgv = const_cast<char *const *>(argv ? argv : rgDefault);
    // The child reports a failed execv through a close-on-exec pipe: end of
    // file means the program runs.
    int rgPipe[2];
    if (pipe2(rgPipe, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid < 0) {
        int err = errno;
        close(rgPipe[0]);
        close(rgPipe[1]);
        errno = err;
        return -1;
    }
    if (pid == 0) {
        close(rgPipe[0]);
        execv(szProg, ppArgv);
        int err = errno;
        ssize_t n = write(rgPipe[1], &err, sizeof(err));
        (void)n;
        _exit(127);
    }
    close(rgPipe[1]);
    int errExec = 0;
    ssize_t n;
    while ((n = read(rgPipe[0], &errExec, sizeof(errExec))) < 0 && errno == EINTR) {
    }
    close(rgPipe[0]);
    int status = 0;
    pid_t r;
    while ((r = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    if (r < 0) return -1;
    if (n == static_cast<ssize_t>(sizeof(errExec))) {
        errno = errExec;
        return -1;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    // Killed by a signal: there is no exit status.
    errno = EINTR;
    return -1;
}

int TRABCProcForkEx(int flags) {
    if (TRUE == KOLVFaultCheck("TRABCProcForkEx")) return -1;
    pid_t pid = fork();
    if (pid != 0) return pid < 0 ? -1 : static_cast<int>(pid);
    // The child: best effort, it cannot report to the parent.
    if (flags & TRAB_FORK_DETACH) setsid();
    if (flags & TRAB_FORK_NULL_STDIO) {
        int fd = open("/dev/null", O_RDWR);
        if (fd >= 0) {
            for (int i = 0; i <= 2; ++i) {
                if (fd != i) dup2(fd, i);
            }
            if (fd > 2) close(fd);
        }
    }
    if (flags & TRAB_FORK_CLOSE_FDS) CloseFdsAbove2();
    return 0;
}

} // extern "C"
