/*
 * Namespace hooks: descriptors under the sysroot's libexec folder, real
 * hook libraries loaded with dlopen (built in tests/hooks).
 */
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_ns_hook.h"
#include "kolvvessa/kolvvessa_object.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::OriginMsg;

int Sentinel(const Json::Value &, const KOLV_VESSA_OBJECT *) {
    return 7;
}

class NsHookTest : public kolvtest::SysrootTest {
  protected:
    void TearDown() override {
        for (void *p : m_handles)
            dlclose(p);
    }
    void WriteDescriptor(const std::string &strNs, const std::string &strContent) const {
        kolvtest::WriteFile(m_sys.Path("/usr/local/libexec/kolvvessa/" + strNs + ".lib"), strContent);
    }
    /* The handle of namespace strNs once its descriptor names strLib. */
    void *Open(const std::string &strNs, const std::string &strLib) {
        WriteDescriptor(strNs, "{\"lib\":\"" + strLib + "\"}");
        void *p = KOLVVessaNsHookHandler(strNs);
        if (p) m_handles.push_back(p);
        return p;
    }

    std::vector<void *> m_handles;
};

TEST_F(NsHookTest, MissingLibraryTableOrOperationFailsCleanly) {
    EXPECT_EQ(nullptr, KOLVVessaNsHookHandler("note")); // no descriptor
    for (const char *sz : {R"({"lib":""})", R"({"other":"x"})", R"({"lib":)", R"({"lib":"/no/such/library.so"})"}) {
        WriteDescriptor("note", sz);
        EXPECT_EQ(nullptr, KOLVVessaNsHookHandler("note")) << sz;
    }
    // A name that climbs out of the descriptor folder is refused before any
    // file is looked at, though a descriptor waits one level up.
    kolvtest::WriteFile(m_sys.Path("/usr/local/libexec/escape.lib"), R"({"lib":")" KOLV_NOTE_HOOK_LIB R"("})");
    EXPECT_EQ(nullptr, KOLVVessaNsHookHandler("../escape"));
    EXPECT_EQ(nullptr, KOLVVessaNsHookHandler(""));
    KOLVVESSA_NS_HOOK pPre = nullptr, pPost = nullptr;
    EXPECT_FAILS(KOLVVessaNsHookGet(nullptr, "create", &pPre, &pPost), 1015, "NULL == dlHandle");
    EXPECT_FAILS(KOLVVessaNsBatchHookGet(nullptr, "set", &pPre, &pPost), 1015, "NULL == dlHandle");

    // A library without tables: the loader's text.
    void *pNoTable = Open("todo", KOLV_NO_TABLE_HOOK_LIB);
    ASSERT_NE(nullptr, pNoTable);
    EXPECT_FALSE(KOLVVessaNsHookGet(pNoTable, "create", &pPre, &pPost));
    EXPECT_EQ(1013, KOLVVessaErrCodeGet());
    EXPECT_EQ(0u, OriginMsg().find("cannot load symbol: ")) << OriginMsg();
    EXPECT_FALSE(KOLVVessaNsBatchHookGet(pNoTable, "set", &pPre, &pPost));
    EXPECT_EQ(1013, KOLVVessaErrCodeGet());
    EXPECT_EQ(0u, OriginMsg().find("cannot load batch table: ")) << OriginMsg();

    // An operation the table lacks leaves the outputs and the stack alone.
    void *pCreateOnly = Open("note", KOLV_CREATE_ONLY_HOOK_LIB);
    ASSERT_NE(nullptr, pCreateOnly);
    pPre = pPost = Sentinel;
    KOLVVessaErrSetEx(1031, "earlier", 1, "earlier failure");
    EXPECT_FAILS(KOLVVessaNsHookGet(pCreateOnly, "set", &pPre, &pPost), 1031, "earlier failure");
    EXPECT_EQ(&Sentinel, pPre);
    EXPECT_EQ(&Sentinel, pPost);
    ASSERT_TRUE(KOLVVessaNsHookGet(pCreateOnly, "create", &pPre, &pPost));
    EXPECT_NE(&Sentinel, pPre);
    EXPECT_NE(nullptr, pPre);
    EXPECT_NE(nullptr, pPost);
    EXPECT_FALSE(KOLVVessaNsBatchHookGet(pCreateOnly, "set", &pPre, &pPost)); // no batch table
    EXPECT_EQ(1013, KOLVVessaErrCodeGet());
}

TEST_F(NsHookTest, HooksOfTheLibraryRunWithTheObject) {
    std::string strLog = m_sys.Path("/tmp/hook.log");
    setenv("KOLV_HOOK_LOG", strLog.c_str(), 1);
    void *pHandle = Open("note", KOLV_NOTE_HOOK_LIB);
    ASSERT_NE(nullptr, pHandle);

    KOLVVESSA_NS_HOOK pPre = nullptr, pPost = nullptr;
    ASSERT_TRUE(KOLVVessaNsHookGet(pHandle, "field_rename", &pPre, &pPost));
    ASSERT_NE(nullptr, pPre);
    ASSERT_NE(nullptr, pPost);
    KOLV_VESSA_OBJECT object;
    object.set_id("1101_0123456789ABCDEF");
    Json::Value jParm;
    pPre(jParm, &object);
    pPost(jParm, nullptr);

    KOLVVESSA_NS_HOOK pBatchPre = nullptr, pBatchPost = nullptr;
    EXPECT_FALSE(KOLVVessaNsBatchHookGet(pHandle, "create", &pBatchPre, &pBatchPost));
    ASSERT_TRUE(KOLVVessaNsBatchHookGet(pHandle, "delete", &pBatchPre, &pBatchPost));
    pBatchPost(jParm, &object);
    unsetenv("KOLV_HOOK_LOG");

    EXPECT_EQ("pre field_rename 1101_0123456789ABCDEF\n"
              "post field_rename -\n"
              "post delete 1101_0123456789ABCDEF\n",
              kolvtest::ReadFile(strLog));
}

} // namespace
