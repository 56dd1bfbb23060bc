// Rows of objects: the upsert after a change, the batch, the escaped id
// list, reindex from the repository and the vacuum counter.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "index/sql_corpus.h"
#include "support/kolv_test_support.h"

namespace {

const auto &J = kolvtest::ParseJson;

class IndexObjectTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        if (!kolvtest::HavePostgres()) GTEST_SKIP() << "PGHOST is not set: no PostgreSQL server for the index";
        kolvtest::DropIndexDatabase();
        m_sys.WriteSettings(J(R"({"Access":{"enable":true,"enable_ns_note":true,"enable_ns_todo":true}})"));
    }

    // A new object of owner, through the object store (which also indexes it).
    static std::string Create(Json::Value jParm, unsigned owner) {
        jParm["requester"] = jParm["owner"] = owner;
        KOLV_VESSA_OBJECT Object;
        std::string strId, strVer;
        EXPECT_TRUE(Object.Create(jParm, strId, strVer)) << kolvtest::StackText();
        return strId;
    }
    static std::string Count(const std::string &strWhere = "TRUE") {
        return kolvtest::Psql("SELECT count(*) FROM object WHERE " + strWhere + ";");
    }
};

KOLV_VESSA_OBJECT *Record(const std::string &strId, const std::string &strCategory) {
    KOLV_VESSA_OBJECT *p = KOLVVessaObjectAlloc();
    p->set_id(strId);
    p->set_ns("note");
    p->set_owner(kolvtest::kAlice);
    p->set_category(strCategory);
    p->set_mtime(100);
    return p;
}

// After every kind of change the row is written from the object read
// back for the answer: it must be the row a fresh read would write, every
// column, the whole ACL even where the requester is a sharer "rw".
TEST_F(IndexObjectTest, RowsWrittenAfterEveryChangeEqualAFreshRead) {
    const std::string strRow = "SELECT row_to_json(o)::text FROM object o WHERE id = '";
    auto ExpectFresh = [&](const std::string &strId, unsigned requester, const char *szStep) {
        std::string strWritten = kolvtest::Psql(strRow + strId + "';");
        ASSERT_TRUE(KOLVVessaObjectIndex(strId.c_str(), "note", requester)) << kolvtest::StackText();
        EXPECT_EQ(kolvtest::Psql(strRow + strId + "';"), strWritten) << szStep;
        EXPECT_NE(std::string::npos, strWritten.find("\"hmx_user\"")) << szStep << ": " << strWritten;
    };
    Json::Value jParm = J(R"({"ns":"note","category":"memo","text":{"title":"t","body":"b"},"metatext":{"m":1},
                              "acl":{"enabled":true,"hmx_user":{"1102":{"perm":"rw","inherit":false}}},
                              "commit_msg":{"listable":true}})");
    std::string strId = Create(jParm, kolvtest::kAlice);
    ExpectFresh(strId, kolvtest::kAlice, "create");
    KOLV_VESSA_OBJECT Object;
    Json::Value jSet = J(R"({"ns":"note","text":{"title":"by bob","body":null},"metatext":{"m":2}})");
    jSet["id"] = strId;
    jSet["requester"] = kolvtest::kBob;
    Json::Value jGet = J(R"({"ns":"note","field":{"acl":true}})");
    jGet["id"] = strId;
    jGet["requester"] = kolvtest::kAlice;
    ASSERT_TRUE(Object.Get(jGet)) << kolvtest::StackText();
    jSet["version"] = Object.get_version();
    ASSERT_TRUE(Object.Set(jSet)) << kolvtest::StackText();
    ExpectFresh(strId, kolvtest::kBob, "set by a sharer rw");
    Json::Value jShare = J(R"({"ns":"note","type":"group","op":"set","perm":"ro","gid":100})");
    jShare["id"] = strId;
    jShare["requester"] = kolvtest::kAlice;
    ASSERT_TRUE(Object.Sharing(jShare)) << kolvtest::StackText();
    ExpectFresh(strId, kolvtest::kAlice, "sharing");
    Json::Value jRename = J(R"({"ns":"note","segment":"metatext","old_field":"m","new_field":"n"})");
    jRename["id"] = strId;
    jRename["requester"] = kolvtest::kAlice;
    ASSERT_TRUE(Object.FieldRename(jRename)) << kolvtest::StackText();
    ExpectFresh(strId, kolvtest::kAlice, "field rename");
    KOLV_VESSA_OBJECT_LIST List;
    Json::Value jBatch = J(R"({"ns":"note","metatext":{"m":3}})");
    jBatch["id"].append(strId);
    jBatch["requester"] = kolvtest::kAlice;
    Json::Value jResult;
    ASSERT_TRUE(List.Set(jBatch, jResult)) << kolvtest::StackText();
    ExpectFresh(strId, kolvtest::kAlice, "batch set");
}

TEST_F(IndexObjectTest, UpsertAddsOneRowThenUpdatesItInPlace) {
    // Every hostile value is data all the way, on a connection whose
    // server reads a backslash in a literal as an escape.
    KOLVDB *pConn = KOLVVessaOpenConn();
    ASSERT_NE(nullptr, pConn) << kolvtest::StackText();
    ASSERT_EQ(0, KOLVDBExecute(pConn, "SET standard_conforming_strings = off", NULL));
    std::string strCategory;
    Json::Value jText(Json::objectValue);
    for (const std::string s : kolvtest::kSqlInjectionCorpus) {
        strCategory += s;
        jText[s] = s;
    }
    Json::Value jParm = J(R"({"ns":"note"})");
    jParm["category"] = strCategory;
    jParm["text"] = jParm["metatext"] = jText;
    std::string strId = Create(jParm, kolvtest::kAlice);
    ASSERT_FALSE(strId.empty());
    auto Expect = [&](const char *szStep) {
        ASSERT_EQ("1", Count()) << szStep;
        Json::Value jWant(Json::arrayValue);
        for (const Json::Value &j : {Json::Value(strId), Json::Value("note"), Json::Value((int)kolvtest::kAlice),
                                     Json::Value(strCategory), jText, jText, Json::Value(true), Json::Value(true)})
            jWant.append(j);
        EXPECT_EQ(jWant,
                  kolvtest::ParseJson(kolvtest::Psql("SELECT json_build_array(id, ns, owner, category, text, metatext, "
                                                     "version ~ '^[0-9a-f]{40}$', mtime > 1) FROM object;")))
            << szStep;
    };
    Expect("create");
    kolvtest::Psql("UPDATE object SET category='stale', mtime=1;");
    ASSERT_TRUE(KOLVVessaObjectIndex(strId.c_str(), "note", 0)) << kolvtest::StackText();
    Expect("upsert");
    Json::Value jParam;
    jParam["ns"] = "note";
    ASSERT_TRUE(KOLVVessaReindex(jParam)) << kolvtest::StackText();
    Expect("reindex");
    EXPECT_EQ("0", kolvtest::Psql("SELECT count(*) FROM pg_tables WHERE tablename = 'pwned';"));

    // An object that cannot be read leaves the table alone.
    EXPECT_FALSE(KOLVVessaObjectIndex((std::to_string(kolvtest::kAlice) + "_" + std::string(96, 'A')).c_str(), "note",
                                      kolvtest::kAlice));
    Expect("unreadable");

    // Statements the database refuses: the texts name what was sent.
    kolvtest::Psql("ALTER TABLE object RENAME TO object_away;");
    EXPECT_FAILS(KOLVVessaObjectIndex(strId.c_str(), "note", 0), 1000,
                 "(0 != KOLVDBExecute(pConn, szSQLUpsert, NULL))");
    EXPECT_FAILS(KOLVVessaReindex(jParam), 1000, "0 > KOLVDBExecute(pConn, szSQLDelete, NULL)");
    kolvtest::Psql("ALTER TABLE object_away RENAME TO object;");

    // The index backend's create indexes the named object.
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackend(CreatePgsqlBackend());
    kolvtest::Psql("DELETE FROM object;");
    jParm = J(R"({"ns":"note"})");
    jParm["id"] = strId;
    std::string strOutId, strVer;
    ASSERT_TRUE(pBackend->Create(jParm, strOutId, strVer)) << kolvtest::StackText();
    EXPECT_EQ(strId, strOutId);
    Expect("backend create");
    jParm.removeMember("id");
    EXPECT_FAILS(pBackend->Create(jParm, strOutId, strVer), 1007,
                 "!jParm[\"id\"].isString() || !jParm[\"ns\"].isString()");
}

TEST_F(IndexObjectTest, BatchReplacesEveryRowInOneStatementAndIdListsAreEscaped) {
    KOLVDB *pConn = KOLVVessaOpenConn();
    ASSERT_NE(nullptr, pConn) << kolvtest::StackText();
    KOLV_VESSA_OBJECT *pList = Record("a", "one");
    pList->m_next = Record("b'); DELETE FROM object; --", "two");
    pList->m_next->m_next = Record("c", "three");
    ASSERT_TRUE(KOLVVessaObjectBatchIndex(pList)) << kolvtest::StackText();
    EXPECT_EQ("3", Count());
    // Null JSON members are stored as empty objects.
    EXPECT_EQ("{}|{}|{}", kolvtest::Psql("SELECT acl::text, text::text, extra_info::text FROM object WHERE id='a';"));

    pList->m_next->set_category("TWO");
    ASSERT_TRUE(KOLVVessaObjectBatchIndexEx(pList, pConn)) << kolvtest::StackText();
    EXPECT_EQ("3", Count());
    EXPECT_EQ("TWO", kolvtest::Psql("SELECT category FROM object WHERE id='b''); DELETE FROM object; --';"));
    KOLVVessaObjectFreeList(pList);

    // An empty chain makes a statement the database refuses; nothing moves.
    EXPECT_FAILS(KOLVVessaObjectBatchIndexEx(NULL, pConn), 1000, "(0 != KOLVDBExecute(pConn, strSQL.c_str(), NULL))");
    EXPECT_EQ("3", Count());
    EXPECT_FALSE(KOLVVessaObjectBatchIndexEx(NULL, NULL));

    // The escaped id list of a string, an array, or anything else.
    EXPECT_EQ("('x')", KOLVVessaObjectEscapeStringArray(Json::Value("x")));
    EXPECT_EQ("()", KOLVVessaObjectEscapeStringArray(Json::Value(Json::arrayValue)));
    EXPECT_EQ("('a''b','c\\')", KOLVVessaObjectEscapeStringArray(J(R"(["a'b","c\\"])")));
    KOLVVessaErrSetEx(1, "x", 1, "reset");
    EXPECT_EQ("()", KOLVVessaObjectEscapeStringArray(Json::Value(5)));
    EXPECT_EQ(1, KOLVVessaErrCodeGet());
    EXPECT_EQ("reset\n!jsArray.isArray()", kolvtest::StackText());
}

// A NUL can be stored in a json column but no operator reads it back, so
// one such row would fail every filtered listing of its namespace; bytes
// that are no UTF-8 fail the whole statement that carries them. Such an
// object is refused at the index write and logged, its old row stands,
// and the other objects of an upsert's reindex or batch go on.
TEST_F(IndexObjectTest, ValuesTheIndexCannotHoldNeverReachIt) {
    std::string strGood = Create(J(R"({"ns":"note","category":"good","text":{"title":"x"}})"), kolvtest::kAlice);
    std::string strBad = Create(J(R"({"ns":"note","category":"bad","text":{"title":"x"}})"), kolvtest::kAlice);
    ASSERT_FALSE(strGood.empty() || strBad.empty());
    // Planted by the owner in his own folder, as no request can.
    const std::string strMetaFile = m_sys.Repo() + "/note/" + strBad + "/metatext.json";
    const struct {
        const char *szMeta;
        int code;
        const char *szOrigin;
    } rgCases[] = {
        {R"({"m":"x\u0000y"})", 1007, "KOLVVessaObjectHoldsNul(Object)"},
        {R"({"m\u0000":"x"})", 1007, "KOLVVessaObjectHoldsNul(Object)"},
        {R"({"m":[1,[{"d":"\u0000"}]]})", 1007, "KOLVVessaObjectHoldsNul(Object)"},
        {"{\"m\":\"\xff\xfe\"}", 1000, "(NULL == szSQLUpsert)"},
    };
    Json::Value jNs;
    jNs["ns"] = "note";
    Json::Value jList = kolvtest::ParseJson(R"({"ns":"note","requester":1101,"filter":{"metatext":{"m":"x"}}})");
    const std::string strMetaClean = kolvtest::ReadFile(strMetaFile);
    for (const auto &c : rgCases) {
        kolvtest::WriteFile(strMetaFile, strMetaClean);
        ASSERT_TRUE(KOLVVessaReindex(jNs)) << kolvtest::StackText();
        kolvtest::WriteFile(strMetaFile, std::string("{\"metatext\":") + c.szMeta + ",\"auto_mtime\":{}}");
        EXPECT_FAILS(KOLVVessaObjectIndex(strBad.c_str(), "note", kolvtest::kAlice), c.code, c.szOrigin);
        EXPECT_EQ("bad,good", kolvtest::Psql("SELECT string_agg(category, ',' ORDER BY category) FROM object;"));
        ASSERT_TRUE(KOLVVessaReindex(jNs)) << kolvtest::StackText();
        EXPECT_EQ("good", kolvtest::Psql("SELECT string_agg(category, ',') FROM object;")) << c.szMeta;

        KOLV_VESSA_OBJECT *pList = Record("z-meta", "z");
        pList->set_metatext(kolvtest::ParseJson(c.szMeta));
        pList->m_next = Record("z-ok", "ok");
        pList->m_next->m_next = Record("z-category", std::string("nul\0inside", 10));
        EXPECT_TRUE(KOLVVessaObjectBatchIndex(pList)) << kolvtest::StackText();
        KOLVVessaObjectFreeList(pList);
        EXPECT_EQ("good,ok", kolvtest::Psql("SELECT string_agg(category, ',' ORDER BY category) FROM object;"));

        // Every filtered listing of the namespace still answers.
        KOLV_VESSA_OBJECT *pHead = nullptr;
        unsigned total = 0;
        EXPECT_EQ(0, KOLVVessaObjectList(jList, &pHead, total)) << kolvtest::StackText();
        KOLVVessaObjectFreeList(pHead);
    }
}

TEST_F(IndexObjectTest, ReindexRebuildsOneNamespaceOrAll) {
    std::string strNote1 = Create(J(R"({"ns":"note","category":"n1","text":{"title":"one"}})"), kolvtest::kAlice);
    std::string strNote2 = Create(J(R"({"ns":"note","category":"n2","text":{"title":"two"}})"), kolvtest::kBob);
    Create(J(R"({"ns":"todo","category":"t1","text":{"title":"three"}})"), kolvtest::kAlice);
    ASSERT_EQ("3", Count());
    // A directory that is no object is logged and left out.
    std::string strBad = m_sys.Repo() + "/note/" + std::to_string(kolvtest::kAlice) + "_" + std::string(96, 'B');
    ASSERT_EQ(0, mkdir(strBad.c_str(), 0755));

    kolvtest::Psql("DELETE FROM object WHERE ns='note'; UPDATE object SET category='kept';");
    kolvtest::Psql("INSERT INTO object(id, ns, mtime) VALUES ('ghost', 'note', 1);");
    Json::Value jParam;
    jParam["ns"] = "note";
    ASSERT_TRUE(KOLVVessaReindex(jParam)) << kolvtest::StackText();
    EXPECT_EQ(strNote1 + "|n1\n" + strNote2 + "|n2",
              kolvtest::Psql("SELECT id, category FROM object WHERE ns='note' ORDER BY category;"));
    EXPECT_EQ("kept", kolvtest::Psql("SELECT category FROM object WHERE ns='todo';"));

    ASSERT_TRUE(KOLVVessaReindex(Json::Value(Json::objectValue))) << kolvtest::StackText();
    EXPECT_EQ("n1,n2,t1", kolvtest::Psql("SELECT string_agg(category, ',' ORDER BY category) FROM object;"));

    // A namespace with no objects inserts nothing and succeeds.
    ASSERT_EQ(0, mkdir((m_sys.Repo() + "/empty").c_str(), 0755));
    jParam["ns"] = "empty";
    EXPECT_TRUE(KOLVVessaReindex(jParam)) << kolvtest::StackText();
    EXPECT_EQ("3", Count());

    // A namespace that would leave the repository is refused before the
    // table is touched.
    for (const char *szNs : {"..", "../note", "", "a/b"}) {
        jParam["ns"] = szNs;
        EXPECT_FAILS(KOLVVessaReindex(jParam), 1007,
                     "jParam.isMember(\"ns\") && (!jParam[\"ns\"].isString() || "
                     "!kolv::IsSafePathName(jParam[\"ns\"].asString()))")
            << szNs;
    }
    EXPECT_FAILS(KOLVVessaReindexByNs(KOLVVessaOpenConn(), m_sys.Repo(), ".."), 1007,
                 "NULL == szNs || !kolv::IsSafePathName(szNs)");
    EXPECT_EQ("3", Count());
}

// The counter file as the child leaves it, waiting (bounded) for the
// detached child to write it.
std::string WaitForCounter(const std::string &strFile, const std::string &strOld) {
    std::string strNow;
    for (int i = 0; i < 600; ++i) {
        strNow = kolvtest::ReadFile(strFile);
        if (!strNow.empty() && strNow != strOld) break;
        usleep(50 * 1000);
    }
    return strNow;
}

TEST_F(IndexObjectTest, VacuumChildCountsExitsAndVacuumsPastTheThreshold) {
    ASSERT_NE(nullptr, KOLVVessaOpenConn()) << kolvtest::StackText();
    std::string strFile = m_sys.Path("/tmp/kolvvessa.tmp");

    // A missing file counts as 0.
    EXPECT_GT(KOLVVessaCheckVaccum(), 0);
    Json::Value j = kolvtest::ParseJson(WaitForCounter(strFile, ""));
    EXPECT_EQ(1, j["vacuum_cnt"].asInt());

    kolvtest::WriteFile(strFile, "{\"vacuum_cnt\":50000}");
    EXPECT_GT(KOLVVessaCheckVaccum(), 0);
    j = kolvtest::ParseJson(WaitForCounter(strFile, "{\"vacuum_cnt\":50000}"));
    EXPECT_EQ(50001, j["vacuum_cnt"].asInt());

    std::string strBefore = kolvtest::ReadFile(strFile);
    EXPECT_GT(KOLVVessaCheckVaccum(), 0);
    j = kolvtest::ParseJson(WaitForCounter(strFile, strBefore));
    // Written back only after a successful vacuum.
    EXPECT_EQ(0, j["vacuum_cnt"].asInt());
}

} // namespace
