/*
 * kill -9 at random moments of a set: the object reads back at one
 * version, its text and binary file of that same version, and the next
 * set works.
 */
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <random>

#include "object/object_test_util.h"

namespace {

using kolvtest::StackText;
using objtest::J;

class CrashTest : public objtest::ObjectStoreTest {
  protected:
    std::string Src(int v) const { return m_sys.Path("/tmp/src" + std::to_string(v)); }

    /* A set of text and binary file to variant v, based on the version
     * read just before. */
    bool SetVariant(const std::string &strID, int v) const {
        KOLV_VESSA_OBJECT obj;
        if (!obj.Get(GetParm(strID, kolvtest::kAlice))) return false;
        Json::Value jParm = GetParm(strID, kolvtest::kAlice);
        jParm["version"] = obj.get_version();
        jParm["text"]["t"] = "text " + std::to_string(v);
        jParm["binary_files"][0] = J(R"({"name":"b.bin","format":"raw"})");
        jParm["binary_files"][0]["path"] = Src(v);
        return obj.Set(jParm);
    }

    std::string m_rgContent[2] = {std::string(3000, 'a'), std::string(70000, 'b')};
};

TEST_F(CrashTest, KillDuringSetLeavesOneWholeVersion) {
    std::string rgMd5[2];
    for (int v = 0; v < 2; ++v) {
        kolvtest::WriteFile(Src(v), m_rgContent[v]);
        rgMd5[v] = kolvtest::Md5(m_rgContent[v]);
    }
    const std::string strID = Create(kolvtest::kAlice, J(R"({"text":{"t":"text 1"}})"));
    ASSERT_TRUE(SetVariant(strID, 0)) << StackText();
    const std::string strWorkFile = ObjectDir(strID) + "/version/binary/" + Enc("b.bin");

    // Kill moments spread over about two sets, so some land in each step.
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(SetVariant(strID, 1)) << StackText();
    ASSERT_TRUE(SetVariant(strID, 0)) << StackText();
    const long cMaxDelayUs =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count() + 1000;
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<long> delay(0, cMaxDelayUs);

    int cFailedSets = 0;
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        pid_t pid = fork();
        ASSERT_LE(0, pid);
        if (0 == pid) {
            for (int i = round;; ++i)
                SetVariant(strID, i % 2);
        }
        usleep(static_cast<useconds_t>(delay(rng)));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));

        KOLV_VESSA_OBJECT obj;
        Json::Value jGet = GetParm(strID, kolvtest::kAlice);
        jGet["field"] = KOLVVessaObjectFieldAll();
        ASSERT_TRUE(obj.Get(jGet)) << StackText();
        const std::string strText = obj.get_text()["t"].asString();
        const int v = "text 1" == strText ? 1 : 0;
        EXPECT_EQ("text " + std::to_string(v), strText);
        EXPECT_EQ(rgMd5[v], obj.get_binary_info()["b.bin"]["md5"].asString()) << "text and binary of two versions";
        // The work tree's file may lag the version after a kill, but it is
        // one version's file, whole.
        std::string strWork = kolvtest::ReadFile(strWorkFile);
        EXPECT_TRUE(strWork == m_rgContent[0] || strWork == m_rgContent[1]) << strWork.size() << " bytes";
        // A set from the state a kill left: the next round starts from it.
        if (!SetVariant(strID, round % 2)) {
            ++cFailedSets;
            ADD_FAILURE() << "a set after a kill failed: " << StackText();
        }
    }
    EXPECT_EQ(0, cFailedSets);
    EXPECT_TRUE(SetVariant(strID, 1)) << StackText();
    kolvtest::ExpectCleanRepo(ObjectDir(strID) + "/version");
}

} // namespace
