/*
 * The version operations end to end: an object made and changed through
 * the object operations, its versions listed, read and compared for a
 * requester, through the JSON and the string-hash entries; the accessor
 * family's bad-argument reports.
 */
#include <string>
#include <vector>

#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::StackText;
using objtest::J;

class VersionOpsTest : public objtest::ObjectStoreTest {
  protected:
    // Four versions a second apart: made with {"listable":true} (with the
    // file "a.bin"), "title" changed (listable), "body" changed (listable
    // off), "a.bin" rewritten (listable).
    void SetUp() override {
        ObjectStoreTest::SetUp();
        std::string strFile = m_sys.Path("/tmp/a.bin");
        kolvtest::WriteFile(strFile, "one");
        Json::Value jBin = J(R"([{"name":"a.bin","format":"raw"}])");
        jBin[0]["path"] = strFile;
        Json::Value jCreate = J(R"({"text":{"title":"v1","body":"b"},"commit_msg":{"listable":true},"mtime":1000})");
        jCreate["binary_files"] = jBin;
        m_id = Create(kAlice, jCreate);
        Change(J(R"({"text":{"title":"v2"},"commit_msg":{"listable":true},"mtime":2000})"));
        Change(J(R"({"text":{"body":"c"},"commit_msg":{"listable":false},"mtime":3000})"));
        kolvtest::WriteFile(strFile, "two");
        Json::Value jLast = J(R"({"commit_msg":{"listable":true},"mtime":4000})");
        jLast["binary_files"] = jBin;
        Change(jLast);
    }

    void Change(Json::Value jParm) {
        jParm["ns"] = "note";
        jParm["id"] = m_id;
        jParm["requester"] = kAlice;
        KOLV_VESSA_OBJECT obj;
        ASSERT_TRUE(obj.Get(GetParm(m_id, kAlice)));
        jParm["version"] = obj.get_version();
        ASSERT_TRUE(obj.Set(jParm)) << StackText();
    }

    // The versions newest first, with their mtimes; the chain is freed.
    int List(const Json::Value &jParm, std::vector<std::string> &vVers, std::vector<long> &vTimes) {
        KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
        int count = KOLVVessaObjectVersionList(jParm, &pHead, m_total, m_listable);
        vVers.clear();
        vTimes.clear();
        for (KOLV_VESSA_OBJECT_VERSION *p = pHead; p; p = p->m_next) {
            EXPECT_EQ(m_id, p->get_id());
            EXPECT_EQ((unsigned long)kAlice, p->get_author());
            vVers.push_back(p->get_version());
            vTimes.push_back(p->get_mtime());
        }
        if (0 > count) {
            EXPECT_EQ(nullptr, pHead);
        }
        KOLVVessaObjectVersionFreeList(pHead);
        return count;
    }

    std::string m_id;
    unsigned m_total = 99, m_listable = 99;
};

TEST_F(VersionOpsTest, ListPagesNewestFirstAndCountsListableVersionsApart) {
    std::vector<std::string> vVers, vPage;
    std::vector<long> vTimes;
    Json::Value jParm = GetParm(m_id, kAlice);
    ASSERT_EQ(4, List(jParm, vVers, vTimes)) << StackText();
    EXPECT_EQ((std::vector<long>{4000, 3000, 2000, 1000}), vTimes);
    EXPECT_EQ(4u, m_total);
    EXPECT_EQ(3u, m_listable);
    EXPECT_EQ(vVers[0] + "\n", Git(m_id, "rev-parse HEAD"));

    jParm["offset"] = 1;
    jParm["limit"] = 2;
    EXPECT_EQ(2, List(jParm, vPage, vTimes));
    EXPECT_EQ((std::vector<std::string>{vVers[1], vVers[2]}), vPage);
    EXPECT_EQ(4u, m_total);
    jParm["limit"] = -1; // no limit, as 0 or none
    EXPECT_EQ(3, List(jParm, vPage, vTimes));
    jParm["offset"] = 4;
    EXPECT_EQ(0, List(jParm, vPage, vTimes));

    jParm["offset"] = -1;
    EXPECT_FAILS(0 <= List(jParm, vPage, vTimes), 1007, "jParm.isMember(\"offset\") && !jParm[\"offset\"].isUInt()");
    EXPECT_EQ(0u, m_total);

    // The list form owns what it lists; the string hash takes decimal
    // numbers only.
    KOLV_VESSA_OBJECT_VERSION_LIST list;
    unsigned total = 0, listable = 0;
    EXPECT_EQ(4, list.ListVersion(GetParm(m_id, kAlice), total, listable));
    ASSERT_NE(nullptr, list.m_head);
    EXPECT_EQ(vVers[1], list.m_head->m_next->get_version());
    EXPECT_EQ(J("[\"" + vVers[2] + "\"]"), list.m_head->m_next->get_last_version());
    kolvtest::Hash hash({{"ns", "note"}, {"id", m_id}, {"requester", "1101"}, {"limit", "1"}, {"offset", "3"}});
    KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
    ASSERT_EQ(1, KOLVVessaObjectVersionList(hash.get(), &pHead, total, listable)) << StackText();
    EXPECT_EQ(vVers[3], pHead->get_version());
    KOLVVessaObjectVersionFreeList(pHead);
    hash.Set("limit", "-1");
    EXPECT_FAILS(0 <= KOLVVessaObjectVersionList(hash.get(), &pHead, total, listable), 1007,
                 "jParm.isMember(\"limit\") && !jParm[\"limit\"].isIntegral()");
    kolvtest::Hash noId({{"ns", "note"}, {"requester", "1101"}});
    EXPECT_FAILS(0 <= KOLVVessaObjectVersionList(noId.get(), &pHead, total, listable), 1007,
                 "NULL == (pParm = TRABCSzHashGetValue(pParmHash, \"id\"))");
    EXPECT_FAILS(0 <= KOLVVessaObjectVersionList(hash.get(), NULL, total, listable), 1015, "NULL == addrPHead");
}

TEST_F(VersionOpsTest, GetAndDiffNameVersionsAndChangedFields) {
    std::vector<std::string> vVers;
    std::vector<long> vTimes;
    ASSERT_EQ(4, List(GetParm(m_id, kAlice), vVers, vTimes));

    Json::Value jParm = GetParm(m_id, kAlice);
    jParm["ver"] = vVers[2];
    KOLV_VESSA_OBJECT_VERSION ver;
    ASSERT_TRUE(ver.Get(jParm)) << StackText();
    EXPECT_EQ(vVers[2], ver.get_version());
    EXPECT_EQ(2000, ver.get_mtime());
    EXPECT_EQ(J(R"({"listable":true})"), ver.get_commit_msg());
    jParm.removeMember("ver");
    KOLV_VESSA_OBJECT_VERSION_LIST list;
    ASSERT_TRUE(list.GetVersion(jParm));
    EXPECT_EQ(vVers[0], list.m_head->get_version());

    kolvtest::Hash hash({{"ns", "note"}, {"id", m_id}, {"requester", "1101"}, {"ver", vVers[3]}});
    ASSERT_TRUE(KOLVVessaObjectVersionGet(hash.get(), &ver)) << StackText();
    long mtime = 0;
    EXPECT_EQ(0, KOLVVessaObjectVersionItemGetModifyTime(&mtime, &ver));
    EXPECT_EQ(1000, mtime);

    // Each kind of change by name, never the info records, up to the
    // latest version: tests/backend_fs/version_test.cpp.
    Json::Value jDiff(Json::objectValue);
    jParm["old_version"] = vVers[3];
    jParm["new_version"] = vVers[2];
    ASSERT_TRUE(KOLV_VESSA_OBJECT_VERSION::Diff(jParm, jDiff));
    EXPECT_EQ(J(R"({"text":{"title":"modified"}})"), jDiff);
    jParm["new_version"] = 3;
    EXPECT_FAILS(KOLV_VESSA_OBJECT_VERSION::Diff(jParm, jDiff), 1007,
                 "jParm.isMember(\"new_version\") && !jParm[\"new_version\"].isString()");
    jParm.removeMember("new_version");
    Json::Value jNotObject(Json::arrayValue);
    EXPECT_FAILS(KOLV_VESSA_OBJECT_VERSION::Diff(jParm, jNotObject), 1015, "!jDiff.isObject()");

    kolvtest::Hash diff({{"ns", "note"}, {"id", m_id}, {"requester", "1101"}});
    EXPECT_FAILS(KOLVVessaObjectVersionDiff(diff.get(), jDiff), 1007,
                 "NULL == (pParm = TRABCSzHashGetValue(pParmHash, \"old_version\"))");
    diff.Set("old_version", vVers[1]);
    jDiff = Json::Value(Json::objectValue);
    ASSERT_TRUE(KOLVVessaObjectVersionDiff(diff.get(), jDiff)) << StackText();
    EXPECT_EQ(J(R"({"binary":{"a.bin":"modified"}})"), jDiff);
    EXPECT_FAILS(KOLVVessaObjectVersionGet(NULL, &ver), 1015, "NULL == pParmHash");
}

TEST_F(VersionOpsTest, ARequesterWhoCannotReadTheObjectSeesNoVersion) {
    std::vector<std::string> vVers;
    std::vector<long> vTimes;
    EXPECT_GT(0, List(GetParm(m_id, kBob), vVers, vTimes));
    EXPECT_NE(std::string::npos, StackText().find("!tmpObj.Get(jGetParm)")) << StackText();
    EXPECT_EQ(0u, m_total);
    EXPECT_EQ(0u, m_listable);
    int readCode = KOLVVessaErrCodeGet();
    EXPECT_NE(0, readCode);

    KOLV_VESSA_OBJECT_VERSION ver;
    ver.set_version("stale");
    EXPECT_FALSE(ver.Get(GetParm(m_id, kBob)));
    EXPECT_EQ(readCode, KOLVVessaErrCodeGet());
    EXPECT_EQ("", ver.get_version());
    Json::Value jParm = GetParm(m_id, kBob);
    jParm["old_version"] = Git(m_id, "rev-list --max-parents=0 HEAD").substr(0, 40);
    Json::Value jDiff(Json::objectValue);
    EXPECT_FALSE(KOLV_VESSA_OBJECT_VERSION::Diff(jParm, jDiff));
    EXPECT_NE(std::string::npos, StackText().find("!tmpOldObj.Get(jGetParm)"));
    EXPECT_EQ(Json::Value(Json::objectValue), jDiff);
    kolvtest::Hash hash({{"ns", "note"}, {"id", m_id}, {"requester", "1102"}, {"old_version", "HEAD"}});
    EXPECT_FALSE(KOLVVessaObjectVersionDiff(hash.get(), jDiff));
    EXPECT_FALSE(KOLVVessaObjectVersionGet(hash.get(), &ver));

    // A name that leads out of the namespace's folder is refused before a
    // file is read.
    jParm = GetParm("1101_/../../note/" + m_id, kAlice);
    EXPECT_GT(0, List(jParm, vVers, vTimes));
    EXPECT_TRUE(kolvtest::ErrIs(1007, "!kolv::IsSafePathName(jParm[\"id\"].asString())"));
}

// A fault at any step of a listing: tests/backend_fs/fault_test.cpp.

TEST(VersionAccessors, ReportBadArgumentsOnThePlatformStackAndTruncate) {
    KOLV_VESSA_OBJECT_VERSION ver;
    char szBuf[64];
    unsigned long author = 7;
    TRABCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, KOLVVessaObjectVersionItemGetAuthor(&author, NULL));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_STREQ("include/kolvvessaobjectversiongetter", TRABCErrorGetFile());
    EXPECT_EQ(7ul, author);
    EXPECT_EQ(-1, KOLVVessaObjectVersionItemGetID(szBuf, 0, &ver));
    TRABCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, KOLVVessaObjectVersionItemSetNameSpace(&ver, NULL));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_STREQ("include/kolvvessaobjectversionsetter", TRABCErrorGetFile());

    // JSON members take parsed text only; a bad text leaves the member.
    ASSERT_EQ(0, KOLVVessaObjectVersionItemSetLastVersion(&ver, "[\"abc\"]"));
    TRABCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, KOLVVessaObjectVersionItemSetLastVersion(&ver, "[\"abc\""));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_EQ(J("[\"abc\"]"), ver.get_last_version());
    char szShort[5];
    EXPECT_EQ(0, KOLVVessaObjectVersionItemGetLastVersion(szShort, sizeof(szShort), &ver));
    EXPECT_STREQ("[\"ab", szShort);
    ASSERT_EQ(0, KOLVVessaObjectVersionItemSetAuthor(&ver, kolvtest::kAlice));
    EXPECT_EQ(0, KOLVVessaObjectVersionItemGetAuthor(&author, &ver));
    EXPECT_EQ((unsigned long)kolvtest::kAlice, author);
}

} // namespace
