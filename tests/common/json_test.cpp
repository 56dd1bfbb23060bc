// The JSON utilities: top-level diff, and the safe file write under
// contention from other processes.
#include <sys/file.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "support/kolv_test_support.h"

namespace {

constexpr int kWriters = 8;
constexpr int kWritesEach = 200;

Json::Value Obj(const char *szText) {
    return kolvtest::ParseJson(szText);
}

// What writer w writes: large enough that a torn file would show.
Json::Value WriterValue(int w) {
    Json::Value j;
    j["writer"] = w;
    j["pad"] = std::string(4000, (char)('a' + w));
    return j;
}

bool IsWholeValue(const Json::Value &j) {
    int w = j.isObject() && j["writer"].isInt() ? j["writer"].asInt() : -1;
    return w >= 0 && w < kWriters && WriterValue(w) == j;
}

} // namespace

TEST(JsonDiff, RecordsAndUntouchedResult) {
    Json::Value jResult = Obj("[\"caller's\"]");
    ASSERT_TRUE(KOLVVessaJsonDiff(Obj("{\"a\":1,\"n\":{\"x\":1}}"), Obj("{\"n\":{\"x\":1},\"a\":1}"), jResult));
    EXPECT_EQ(Obj("[\"caller's\"]"), jResult);

    ASSERT_TRUE(
        KOLVVessaJsonDiff(Obj("{\"a\":1,\"b\":2,\"n\":{\"x\":1}}"), Obj("{\"b\":3,\"d\":4,\"n\":{\"x\":2}}"), jResult));
    EXPECT_EQ(Obj("[{\"key\":\"a\",\"type\":\"del\",\"value\":1},"
                  "{\"key\":\"b\",\"type\":\"sub\",\"old_value\":2,\"new_value\":3},"
                  "{\"key\":\"n\",\"type\":\"sub\",\"old_value\":{\"x\":1},\"new_value\":{\"x\":2}},"
                  "{\"key\":\"d\",\"type\":\"ins\",\"value\":4}]"),
              jResult);

    EXPECT_FAILS(KOLVVessaJsonDiff(Obj("[1]"), Obj("{}"), jResult), 1015, "!jData1.isObject()");
    EXPECT_FAILS(KOLVVessaJsonDiff(Obj("{}"), Json::Value(), jResult), 1015, "!jData2.isObject()");
}

class JsonFile : public kolvtest::SysrootTest {
  protected:
    std::string Path(const char *szName) const { return m_sys.Path(std::string("/tmp/") + szName); }
};

TEST_F(JsonFile, WriteReplacesWholeFileOrFailsAndNeverFollowsLinks) {
    std::string strPath = Path("a.json");
    ASSERT_TRUE(kolv::KolvJson(WriterValue(1)).toFile(strPath));
    ASSERT_TRUE(KOLVVessaJsonToFile(Obj("{\"short\":true}"), strPath));
    kolv::KolvJson jRead;
    ASSERT_TRUE(jRead.fromFile(strPath));
    EXPECT_EQ(Obj("{\"short\":true}"), jRead);
    EXPECT_EQ("{\"short\":true}", jRead.toString());
    EXPECT_FALSE(kolvtest::RunCommand("test -e '" + strPath + ".tmp'") == 0);

    // Neither an unreadable file nor bad text touches the value.
    EXPECT_FALSE(jRead.fromFile(Path("missing.json")));
    EXPECT_FALSE(jRead.fromString("{\"a\":"));
    EXPECT_EQ(Obj("{\"short\":true}"), jRead);

    EXPECT_FAILS(KOLVVessaJsonToFile(Obj("{}"), ""), 1015, "strPath.empty()");
    EXPECT_FAILS(KOLVVessaJsonToFile(Obj("{}"), Path("no/such/dir.json")), 1002, "0 > fdDir.get()");
    // A link where the file belongs is never written through, dangling or
    // not, and a link planted under the old temporary name is ignored.
    std::string strVictim = Path("victim"), strLink = Path("link.json");
    ASSERT_EQ(0, kolvtest::RunCommand("echo secret > '" + strVictim + "' && ln -s '" + strVictim + "' '" + strLink +
                                      "' && ln -s '" + strVictim + "' '" + strPath + ".tmp'"));
    EXPECT_FAILS(KOLVVessaJsonToFile(Obj("{}"), strLink), 1002, "0 > fdLock");
    EXPECT_FALSE(jRead.fromFile(strLink));
    EXPECT_TRUE(KOLVVessaJsonToFile(Obj("{}"), strPath));
    EXPECT_EQ("secret\n", kolvtest::ReadFile(strVictim));
    ASSERT_EQ(0, kolvtest::RunCommand("ln -s '" + Path("nowhere") + "' '" + Path("dangling.json") + "'"));
    EXPECT_FAILS(KOLVVessaJsonToFile(Obj("{}"), Path("dangling.json")), 1002, "0 > fdLock");
    EXPECT_NE(0, kolvtest::RunCommand("test -e '" + Path("nowhere") + "'"));
    // A FIFO is never read (nor waited on).
    ASSERT_EQ(0, kolvtest::RunCommand("mkfifo '" + Path("fifo.json") + "'"));
    EXPECT_FALSE(jRead.fromFile(Path("fifo.json")));

    // A lock held through another open file is waited on a bounded time.
    int fd = open(strPath.c_str(), O_RDONLY);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_FAILS(KOLVVessaJsonToFile(Obj("{}"), strPath), 1001, "flock [" + strPath + "] failed for 5 times.");
    close(fd);
    EXPECT_TRUE(KOLVVessaJsonToFile(Obj("{}"), strPath));
}

TEST_F(JsonFile, ConcurrentWritersNeverTear) {
    std::string strPath = Path("shared.json");
    ASSERT_TRUE(KOLVVessaJsonToFile(WriterValue(0), strPath));
    for (int w = 0; w < kWriters; ++w) {
        if (0 != fork()) continue;
        int nBroken = 0; // writes failed for any reason but a busy lock
        for (int i = 0; i < kWritesEach; ++i)
            nBroken += !KOLVVessaJsonToFile(WriterValue(w), strPath) && 1001 != KOLVVessaErrCodeGet();
        _exit(nBroken ? 1 : 0);
    }

    // Read while they write: every read must see one writer's whole value.
    int nRunning = kWriters, nReads = 0, nTorn = 0, nFailed = 0;
    while (nRunning > 0) {
        if (!IsWholeValue(kolvtest::ParseJson(kolvtest::ReadFile(strPath)))) ++nTorn;
        ++nReads;
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid > 0) {
            --nRunning;
            if (!WIFEXITED(status) || 0 != WEXITSTATUS(status)) ++nFailed;
        }
    }
    EXPECT_EQ(0, nTorn) << "of " << nReads << " reads";
    EXPECT_EQ(0, nFailed);
    EXPECT_TRUE(IsWholeValue(kolvtest::ParseJson(kolvtest::ReadFile(strPath))));
    EXPECT_NE(0, kolvtest::RunCommand("test -e '" + strPath + ".tmp'"));
}
