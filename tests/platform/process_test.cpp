/* Processes: exec with exit status. */
#include <kolvplatform/kolv_platform.h>

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

} // namespace
