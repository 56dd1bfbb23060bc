/*
 * The operations on many objects end to end, with the index: refused
 * calls change nothing and run no hook, the worker threads and their
 * fall-back, an object that fails alone, the children of deleted parents,
 * and the index matching the file store after every batch.
 */
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "object/object_batch.h"
#include "object/object_test_util.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::StackText;
using objtest::J;

class BatchTest : public objtest::IndexedStoreTest {
  protected:
    std::vector<std::string> CreateMany(int n, const std::string &strExtra = R"({"metatext":{"tag":"x"}})") {
        std::vector<std::string> vIds;
        for (int i = 0; i < n; ++i)
            vIds.push_back(Create(kAlice, J(strExtra)));
        return vIds;
    }
    static Json::Value Req(const std::vector<std::string> &vIds, unsigned requester) {
        Json::Value j;
        j["ns"] = "note";
        j["requester"] = requester;
        j["id"] = Json::Value(Json::arrayValue);
        for (const std::string &strId : vIds)
            j["id"].append(strId);
        return j;
    }
    // A metatext change stamped later than anything stored before.
    static Json::Value SetReq(const std::vector<std::string> &vIds, unsigned requester, const std::string &strTag,
                              long later) {
        Json::Value j = Req(vIds, requester);
        j["metatext"]["tag"] = strTag;
        j["mtime"] = (Json::Int64)(time(NULL) + later);
        return j;
    }
    Json::Value Stored(const std::string &strId) const {
        KOLV_VESSA_OBJECT obj;
        Json::Value jGet = GetParm(strId, 0);
        jGet["field"] = KOLVVessaObjectFieldAll();
        EXPECT_TRUE(obj.Get(jGet)) << StackText();
        Json::Value j;
        j["parent_id"] = obj.get_parent_id();
        j["version"] = obj.get_version();
        j["metatext"] = obj.get_metatext().isNull() ? Json::Value(Json::objectValue) : obj.get_metatext();
        return j;
    }
    std::vector<std::string> IdsOnDisk() const {
        std::vector<std::string> vIds;
        DIR *pDir = opendir((m_sys.Repo() + "/note").c_str());
        if (!pDir) return vIds;
        while (struct dirent *pEnt = readdir(pDir)) {
            if ('.' != pEnt->d_name[0]) vIds.push_back(pEnt->d_name);
        }
        closedir(pDir);
        std::sort(vIds.begin(), vIds.end());
        return vIds;
    }
    // Every object on disk has its row and every row its object, with the
    // parent, version and metatext the store holds.
    void ExpectIndexMatchesStore() const {
        std::istringstream rows(kolvtest::Psql("SELECT id || ' ' || parent_id || ' ' || version || ' ' || "
                                               "metatext::text FROM object WHERE ns = 'note' ORDER BY id;"));
        std::vector<std::string> vRowIds;
        std::string strLine;
        while (std::getline(rows, strLine)) {
            std::istringstream line(strLine);
            std::string strId, strParent, strVersion, strMeta;
            line >> strId >> strParent >> strVersion;
            std::getline(line, strMeta);
            vRowIds.push_back(strId);
            Json::Value jStored = Stored(strId);
            EXPECT_EQ(jStored["parent_id"].asString(), strParent) << strId;
            EXPECT_EQ(jStored["version"].asString(), strVersion) << strId;
            EXPECT_EQ(jStored["metatext"], J(strMeta)) << strId;
        }
        EXPECT_EQ(IdsOnDisk(), vRowIds);
    }
    std::string Tag(const std::string &strId) const { return Stored(strId)["metatext"]["tag"].asString(); }
};

const char *const kBobRw = R"({"metatext":{"tag":"x"},"acl":{"enabled":true,"hmx_user":{"1102":{"perm":"rw"}}}})";
const char *const kBobRo = R"({"metatext":{"tag":"x"},"acl":{"enabled":true,"hmx_user":{"1102":{"perm":"ro"}}}})";

TEST_F(BatchTest, RefusedCallsChangeNothingAndRunNoHookAndOneIdStartsNoThread) {
    std::vector<std::string> vIds = CreateMany(3, kBobRw);
    std::string strRo = Create(kAlice, J(kBobRo));
    std::vector<std::string> vWithRo = {vIds[0], vIds[1], strRo, vIds[2]};
    std::string strLog = UseNoteHooks();
    KOLV_VESSA_OBJECT_LIST list;
    Json::Value jsResult(Json::objectValue);

    Json::Value jParm = Req(vIds, kAlice);
    jParm["id"] = vIds[0];
    EXPECT_FAILS(list.Delete(jParm, jsResult), 1007, "!jParm[\"id\"].isArray()");
    jParm["metatext"]["tag"] = "y";
    EXPECT_FAILS(list.Set(jParm, jsResult), 1007, "!jParm[\"id\"].isArray()");
    jParm = Req(vIds, kAlice);
    jParm["recursive"] = "yes";
    EXPECT_FAILS(list.Delete(jParm, jsResult), 1007, "jParm.isMember(\"recursive\") && !jParm[\"recursive\"].isBool()");
    // One object bob may only read fails the whole call, whatever its place.
    EXPECT_FAILS(list.Set(SetReq(vWithRo, kBob, "y", 10), jsResult), 1023,
                 "rw != (*ppObj)->get_perm() && owner != (*ppObj)->get_perm() [ro]");
    Json::Value jShare = Req(vWithRo, kBob);
    jShare["type"] = "public";
    jShare["op"] = "set";
    jShare["perm"] = "ro";
    EXPECT_FAILS(list.Sharing(jShare, jsResult), 1023, "rw != pObj->get_perm() && owner != pObj->get_perm() [ro]");
    // "rw" never grants deletion.
    EXPECT_FAILS(list.Delete(Req(vIds, kBob), jsResult), 1023, "owner != requester");
    EXPECT_EQ(NULL, list.m_head);
    EXPECT_EQ(0u, jsResult.size());
    EXPECT_NE(0, access(strLog.c_str(), F_OK)) << kolvtest::ReadFile(strLog);
    for (const std::string &strId : vWithRo)
        EXPECT_EQ("x", Tag(strId));
    ExpectIndexMatchesStore();

    // One object: done on the calling thread, the batch hooks once.
    const unsigned long cStarted = kolv::BatchThreadsStarted();
    ASSERT_TRUE(list.Delete(Req({vIds[0]}, kAlice), jsResult)) << StackText();
    EXPECT_EQ(cStarted, kolv::BatchThreadsStarted());
    EXPECT_EQ(J("{\"" + vIds[0] + "\":true}"), jsResult);
    EXPECT_EQ("pre delete " + vIds[0] + "\npost delete " + vIds[0] + "\n", kolvtest::ReadFile(strLog));
    ExpectIndexMatchesStore();

    // bob, with "rw", may share and change; the grant lets him change the
    // object he could only read.
    jShare = Req({vIds[1], strRo}, kAlice);
    jShare["type"] = "user";
    jShare["op"] = "set";
    jShare["uid"] = kBob;
    jShare["perm"] = "rw";
    jsResult = Json::Value(Json::objectValue);
    ASSERT_TRUE(list.Sharing(jShare, jsResult)) << StackText();
    EXPECT_EQ(J("{\"" + vIds[1] + "\":true,\"" + strRo + "\":true}"), jsResult);
    std::vector<std::string> vLeft = {vIds[1], strRo, vIds[2]};
    ASSERT_TRUE(list.Set(SetReq(vLeft, kBob, "y", 10), jsResult = Json::Value())) << StackText();
    EXPECT_EQ(3u, jsResult.size());
    for (const std::string &strId : vLeft)
        EXPECT_TRUE(jsResult[strId].asBool()) << strId;
    EXPECT_EQ("y", Tag(strRo));
    ExpectIndexMatchesStore();
}

TEST_F(BatchTest, ThirtyOneIdsRunOnThirtyThreadsAndAFailingObjectFailsAlone) {
    std::vector<std::string> vIds = CreateMany(31);
    // The owner tampered with one object's metatext file: its change fails
    // in the worker, after every check has passed.
    const std::string &strBroken = vIds[7];
    kolvtest::WriteFile(ObjectDir(strBroken) + "/metatext.json", R"({"metatext":{"tag":"x"},"auto_mtime":{}})");
    KOLV_VESSA_OBJECT_LIST list;
    Json::Value jsResult;
    unsigned long cStarted = kolv::BatchThreadsStarted();
    ASSERT_TRUE(list.Set(SetReq(vIds, kAlice, "y", 10), jsResult)) << StackText();
    // 30 to read the objects, 30 to change them.
    EXPECT_EQ(cStarted + 60, kolv::BatchThreadsStarted());
    std::vector<kolv::BatchBucket> vBuckets = kolv::BatchBuckets(list.m_head);
    ASSERT_EQ(30u, vBuckets.size());
    ASSERT_EQ(2u, vBuckets[0].size());
    EXPECT_EQ(vIds[0], vBuckets[0][0]->get_id());
    EXPECT_EQ(vIds[30], vBuckets[0][1]->get_id());
    EXPECT_EQ(vIds[29], vBuckets[29][0]->get_id());
    ASSERT_EQ(31u, jsResult.size());
    for (const std::string &strId : vIds) {
        EXPECT_EQ(strId != strBroken, jsResult[strId].asBool()) << strId;
        EXPECT_EQ(strId != strBroken ? "y" : "x", Tag(strId)) << strId;
    }
    ExpectIndexMatchesStore();

    // The first thread of the change cannot be started: its bucket is done
    // by the caller.
    kolv::BatchThreadFaultArm(31);
    cStarted = kolv::BatchThreadsStarted();
    ASSERT_TRUE(list.Set(SetReq(vIds, kAlice, "z", 20), jsResult = Json::Value())) << StackText();
    EXPECT_EQ(cStarted + 59, kolv::BatchThreadsStarted());
    ASSERT_EQ(31u, jsResult.size());
    for (const std::string &strId : vIds) {
        EXPECT_EQ(strId != strBroken, jsResult[strId].asBool()) << strId;
        EXPECT_EQ(strId != strBroken ? "z" : "x", Tag(strId)) << strId;
    }
    ExpectIndexMatchesStore();

    // The ACL changes of all 31 on the threads: each a new version, indexed.
    Json::Value jShare = Req(vIds, kAlice);
    jShare["type"] = "public";
    jShare["op"] = "set";
    jShare["perm"] = "ro";
    ASSERT_TRUE(list.Sharing(jShare, jsResult = Json::Value())) << StackText();
    ASSERT_EQ(31u, jsResult.size());
    for (const std::string &strId : vIds)
        EXPECT_TRUE(jsResult[strId].asBool()) << strId;
    EXPECT_EQ("31", Rows("acl->'public'->>'perm' = 'ro'"));
    ExpectIndexMatchesStore();
}

TEST_F(BatchTest, DeletedParentsLeaveTheirChildrenAtTheRootOrTakeThemAlong) {
    // (A parent without an ACL cannot take children yet: give it one.)
    const char *const kParent = R"({"acl":{"enabled":false}})";
    std::string strP1 = Create(kAlice, J(kParent)), strP2 = Create(kAlice, J(kParent));
    std::string strC1 = Create(kAlice, J(R"({"acl":{"enabled":false},"parent_id":")" + strP1 + "\"}"));
    std::string strC2 = Create(kAlice, J(R"({"parent_id":")" + strP2 + "\"}"));
    std::string strG = Create(kAlice, J(R"({"parent_id":")" + strC1 + "\"}"));
    KOLV_VESSA_OBJECT_LIST list;
    Json::Value jsResult;
    // In the same second as the children's creation.
    ASSERT_TRUE(list.Delete(Req({strP1, strP2}, kAlice), jsResult)) << StackText();
    EXPECT_EQ(J("{\"" + strP1 + "\":true,\"" + strP2 + "\":true}"), jsResult);
    EXPECT_EQ(KOLVVessaObjectDefaultID(kAlice), Stored(strC1)["parent_id"].asString());
    EXPECT_EQ(KOLVVessaObjectDefaultID(kAlice), Stored(strC2)["parent_id"].asString());
    EXPECT_EQ(strC1, Stored(strG)["parent_id"].asString());
    ExpectIndexMatchesStore();

    std::string strKeep = Create(kAlice);
    Json::Value jParm = Req({strC1}, kAlice);
    jParm["recursive"] = true;
    ASSERT_TRUE(list.Delete(jParm, jsResult = Json::Value())) << StackText();
    std::vector<std::string> vLeft = {strC2, strKeep};
    std::sort(vLeft.begin(), vLeft.end());
    EXPECT_EQ(vLeft, IdsOnDisk());
    ExpectIndexMatchesStore();

    // An object whose owner no user is any more: the system's ordinary
    // delete refuses it, the clean-up's entry takes it.
    std::string strOrphan = "1999" + strKeep.substr(strKeep.find('_'));
    ASSERT_EQ(0, kolvtest::RunCommand("cp -a '" + ObjectDir(strKeep) + "' '" + ObjectDir(strOrphan) + "'"));
    ASSERT_TRUE(KOLVVessaObjectIndex(strOrphan.c_str(), "note", 0)) << StackText();
    EXPECT_FALSE(list.Delete(Req({strOrphan}, 0), jsResult = Json::Value()));
    EXPECT_EQ(1022, KOLVVessaErrCodeGet()) << StackText();
    ASSERT_TRUE(kolv::BatchDeleteAsSystem(Req({strOrphan, strKeep}, 0), jsResult)) << StackText();
    EXPECT_EQ(J("{\"" + strOrphan + "\":true,\"" + strKeep + "\":true}"), jsResult);
    EXPECT_EQ(std::vector<std::string>{strC2}, IdsOnDisk());
    ExpectIndexMatchesStore();
    EXPECT_FAILS(kolv::BatchDeleteAsSystem(Req({strC2}, kAlice), jsResult), 1023, "UID_ROOT != requester");
}

TEST_F(BatchTest, AHundredSetsOfThirtyOneObjects) {
    std::vector<std::string> vIds = CreateMany(31);
    KOLV_VESSA_OBJECT_LIST list;
    for (int i = 0; i < 100; ++i) {
        Json::Value jsResult;
        ASSERT_TRUE(list.Set(SetReq(vIds, kAlice, std::to_string(i), 10 + i), jsResult)) << StackText();
        for (const std::string &strId : vIds)
            ASSERT_TRUE(jsResult[strId].asBool()) << i << " " << strId;
    }
    for (const std::string &strId : vIds)
        EXPECT_EQ("99", Tag(strId));
    ExpectIndexMatchesStore();
}

} // namespace
