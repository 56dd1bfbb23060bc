/*
 * Hostile requests at every entry: each is refused with 1007 (1023 for a
 * binary source the requester may not read) and its condition, and
 * nothing is written.
 */

#include <algorithm>

#include "object/object_test_util.h"

namespace {

using kolvtest::ErrIs;
using kolvtest::Hash;
using kolvtest::StackText;
using objtest::J;

const char *const kRequesterText = "!kolv::IsUidValue(jParm[\"requester\"])";
const char *const kNulText = "kolv::HasNulCharacter(jParm)";
const char *const kDepthText = "KOLVVESSA_REQUEST_DEPTH_MAX < kolv::RequestDepth(jParm)";
const char *const kNsText = "!kolv::IsNamespaceName(jParm[\"ns\"].asString())";
const char *const kTimeText = "!jParm[\"ctime\"].isInt64() || Json::realValue == jParm[\"ctime\"].type()";

// A value nested nLevels objects deep.
Json::Value Nested(int nLevels) {
    Json::Value j(Json::objectValue);
    for (int i = 1; i < nLevels; ++i) {
        Json::Value jOuter(Json::objectValue);
        jOuter["a"] = j;
        j = jOuter;
    }
    return j;
}

std::string Entries(const std::string &strDir) {
    std::string strOut;
    kolvtest::RunCommand("ls -A '" + strDir + "'", &strOut);
    return strOut;
}

enum Op { kGet = 1, kCreate = 2, kSet = 4, kCopy = 8, kList = 16, kAll = 31 };

class ObjectRequestTest : public objtest::ObjectStoreTest {
  protected:
    void SetUp() override {
        ObjectStoreTest::SetUp();
        m_strID = Create(kolvtest::kAlice, J(R"({"text":{"t":"one"},"metatext":{"m":"one"}})"));
        KOLV_VESSA_OBJECT obj;
        ASSERT_TRUE(obj.Get(GetParm(m_strID, kolvtest::kAlice))) << StackText();
        m_strVer = obj.get_version();
    }

    Json::Value Base(Op op) const {
        Json::Value j = GetParm(m_strID, kolvtest::kAlice);
        if (kCreate == op) j = J(R"({"ns":"note","category":"memo","requester":1101,"text":{"t":"new"}})");
        if (kSet == op) {
            j["version"] = m_strVer;
            j["text"]["t"] = "two";
        }
        if (kList == op) j.removeMember("id");
        return j;
    }

    // Runs one JSON entry, or its string-hash form; true when it succeeded.
    static bool Run(Op op, const Json::Value &j) {
        KOLV_VESSA_OBJECT obj;
        KOLV_VESSA_OBJECT_LIST list;
        unsigned total = 0;
        return kGet == op      ? obj.Get(j)
               : kCreate == op ? obj.Create(j)
               : kSet == op    ? obj.Set(j)
               : kCopy == op   ? obj.Copy(j)
                               : 0 <= list.ListObject(j, total);
    }
    static bool RunHash(Op op, Hash &hash) {
        KOLV_VESSA_OBJECT obj, *pHead = NULL;
        std::string strID, strVer;
        unsigned total = 0;
        bool blOk = kGet == op    ? KOLVVessaObjectGet(hash.get(), &obj)
                    : kSet == op  ? KOLVVessaObjectSet(hash.get(), strVer)
                    : kCopy == op ? KOLVVessaObjectCopy(hash.get(), strID, strVer)
                                  : 0 <= KOLVVessaObjectList(hash.get(), &pHead, total);
        KOLVVessaObjectFreeList(pHead);
        return blOk;
    }

    void Snapshot() {
        m_repoBefore = Entries(m_sys.Repo());
        m_nsBefore = Entries(m_sys.Repo() + "/note");
    }

    // Nothing new in the repository or the namespace, and the object
    // still at its version with its text.
    void ExpectNothingWritten() {
        EXPECT_EQ(m_repoBefore, Entries(m_sys.Repo()));
        EXPECT_EQ(m_nsBefore, Entries(m_sys.Repo() + "/note"));
        KOLV_VESSA_OBJECT obj;
        Json::Value jGet = GetParm(m_strID, kolvtest::kAlice);
        jGet["field"] = KOLVVessaObjectFieldAll();
        ASSERT_TRUE(obj.Get(jGet)) << StackText();
        EXPECT_EQ(m_strVer, obj.get_version());
        EXPECT_EQ("one", obj.get_text()["t"].asString());
        EXPECT_EQ("one", obj.get_metatext()["m"].asString());
    }

    std::string m_strID, m_strVer;
    std::string m_repoBefore, m_nsBefore;
};

TEST_F(ObjectRequestTest, HostileRequestsAreRefusedAtEveryEntryBeforeAnyWrite) {
    const std::string N(1, '\0');
    const struct {
        int ops;
        std::string strPath; // members joined with "/"
        Json::Value jVal;
        const char *szOrigin;
    } rgCases[] = {
        // Once read as 0 (the system) or as user 1101.
        {kAll, "requester", (Json::UInt64)4294967296ULL, kRequesterText},
        {kAll, "requester", (Json::UInt64)4294968397ULL, kRequesterText},
        {kAll, "requester", (Json::Int64)INT64_MIN, kRequesterText},
        {kAll, "requester", 4294967295u, kRequesterText},
        {kAll, "requester", -1, kRequesterText},
        {kAll, "requester", 1101.0, kRequesterText},
        // A NUL anywhere: names, values, member names deep in the text.
        {kAll, "ns", "no" + N + "te", kNulText},
        {kGet | kSet | kCopy, "id", "1101_A" + N, kNulText},
        {kCreate, "category", "me" + N + "mo", kNulText},
        {kCreate | kSet, "text/t", "a" + N + "b", kNulText},
        {kAll, "metatext/m/x/k" + N, 1, kNulText},
        {kGet | kList, "field/te" + N + "xt", true, kNulText},
        // Deeper than the limit: the request is level 1, "text" level 2.
        {kAll, "text/t", Nested(KOLVVESSA_REQUEST_DEPTH_MAX - 1), kDepthText},
        // Names that are the repository's own or mean something else.
        {kAll, "ns", "", kNsText},
        {kAll, "ns", ".", kNsText},
        {kAll, "ns", "..", kNsText},
        {kAll, "ns", "@tmp", kNsText},
        {kAll, "ns", ".git", kNsText},
        {kAll, "ns", "*", kNsText},
        {kAll, "ns", "a/b", kNsText},
        {kGet, "id", "1101_../../x", "!kolv::IsSafePathName(jParm[\"id\"].asString())"},
        // Fields of the wrong kind.
        {kCreate | kSet, "acl", "public", "!jParm[\"acl\"].isObject()"},
        {kCreate | kSet, "ctime", 1000.0, kTimeText},
        {kCreate | kSet, "ctime", (Json::UInt64)18446744073709551615ULL, kTimeText},
    };
    Snapshot();
    for (const auto &c : rgCases) {
        for (Op op : {kGet, kCreate, kSet, kCopy, kList}) {
            if (!(c.ops & op)) continue;
            Json::Value jParm = Base(op), *pMember = &jParm;
            for (size_t pos = 0, end = 0; end != std::string::npos; pos = end + 1) {
                end = c.strPath.find('/', pos);
                pMember = &(*pMember)[c.strPath.substr(pos, end - pos)];
            }
            *pMember = c.jVal;
            EXPECT_FALSE(Run(op, jParm)) << c.strPath << "=" << c.jVal.toStyledString().substr(0, 40) << " op " << op;
            EXPECT_TRUE(ErrIs(1007, c.szOrigin)) << c.strPath << " op " << op;
        }
    }
    ExpectNothingWritten();

    // At the limit the text is stored and read back whole.
    Json::Value jDeep = Base(kCreate);
    jDeep["text"]["t"] = Nested(KOLVVESSA_REQUEST_DEPTH_MAX - 2);
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Create(jDeep)) << StackText();
    EXPECT_EQ(jDeep["text"], obj.get_text());
}

TEST_F(ObjectRequestTest, StringHashEntriesTakeOnlyPlainDecimalRequesters) {
    Snapshot();
    // Text that is no plain decimal number stays text and fails the
    // entry's own member test; digits out of range fail the requester test.
    const char *const kIsText = "!jParm[\"requester\"].isIntegral()";
    const std::pair<const char *, const char *> rgCases[] = {
        {"", kIsText},
        {"-1", kIsText},
        {"+1101", kIsText},
        {" 1101", kIsText},
        {"18446744073709551617", kIsText},
        {"4294967295", kRequesterText},
        {"4294967296", kRequesterText},
        {"4294968397", kRequesterText},
        {"1101.0", "endPtr && *endPtr"}, // digits first: the rest trails
    };
    for (const auto &c : rgCases) {
        for (Op op : {kGet, kSet, kCopy, kList}) {
            Hash hash({{"ns", "note"}, {"id", m_strID}, {"requester", c.first}});
            if (kSet == op) hash.Set("metatext", R"({"m":"two"})");
            EXPECT_FALSE(RunHash(op, hash)) << "[" << c.first << "] op " << op;
            const std::string strOrigin = kolvtest::OriginMsg(), strWant = c.second;
            EXPECT_EQ(1007, KOLVVessaErrCodeGet()) << "[" << c.first << "] op " << op;
            EXPECT_EQ(strWant, strOrigin.substr(strOrigin.size() - std::min(strOrigin.size(), strWant.size())))
                << "[" << c.first << "] op " << op;
        }
    }
    // A NUL reaches the set entry inside a JSON text.
    Hash hash({{"ns", "note"}, {"id", m_strID}, {"requester", "1101"}, {"metatext", R"({"m":"a\u0000b"})"}});
    std::string strVer;
    EXPECT_FALSE(KOLVVessaObjectSet(hash.get(), strVer));
    EXPECT_TRUE(ErrIs(1007, kNulText));
    ExpectNothingWritten();
}

TEST_F(ObjectRequestTest, BinarySourcesNeedReadPermissionOnTheSourceObject) {
    std::string strFile = m_sys.Path("/tmp/secret.bin");
    kolvtest::WriteFile(strFile, "bob's secret");
    Json::Value jBobs = J(R"({"binary_files":[{"name":"secret.bin","format":"raw"}]})");
    jBobs["binary_files"][0]["path"] = strFile;
    std::string strBobs = Create(kolvtest::kBob, jBobs);
    jBobs["acl"] = J(R"({"enabled":true,"hmx_user":{"1101":{"perm":"ro"}}})");
    std::string strShared = Create(kolvtest::kBob, jBobs);
    Json::Value jItem = J(R"({"name":"secret.bin","format":"object"})");
    jItem["id"] = strBobs;

    Json::Value jCreate = Base(kCreate), jSet = Base(kSet);
    jCreate["binary_files"].append(jItem);
    jSet["binary_files"].append(jItem);
    Json::Value jNoID = Base(kCreate);
    jNoID["binary_files"].append(J(R"({"name":"x","format":"object"})"));
    Snapshot();
    KOLV_VESSA_OBJECT obj;
    EXPECT_FAILS(obj.Create(jCreate), 1023, "!RequesterMayRead(jParm, strSourceID)");
    EXPECT_FAILS(obj.Set(jSet), 1023, "!RequesterMayRead(jParm, strSourceID)");
    EXPECT_FAILS(obj.Create(jNoID), 1007,
                 "!jItem[\"id\"].isString() || !kolv::IsSafePathName(jItem[\"id\"].asString())");
    ExpectNothingWritten();

    // Shared with alice for reading: she may take the file.
    jCreate["binary_files"][0]["id"] = strShared;
    ASSERT_TRUE(obj.Create(jCreate)) << StackText();
    EXPECT_EQ("bob's secret", Git(obj.get_id(), "show HEAD:binary/" + Enc("secret.bin")));
}

} // namespace
