// Listing from the index: own objects first, then the shared ones others
// may see; filters; field selection; paging; the front-end checks.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_conf.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "kolvvessa/kolvvessa_object.h"
#include "index/kolvvessa_index_internal.h"
#include "index/sql_corpus.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::kAlice;
using kolvtest::kBob;
using kolvtest::kCarol;

Json::Value Acl(const char *szPublicPerm) {
    Json::Value j;
    j["enabled"] = szPublicPerm != nullptr;
    if (szPublicPerm) j["public"]["perm"] = szPublicPerm;
    return j;
}

// A chain of records written to the index with one batch.
class Rows {
  public:
    ~Rows() { KOLVVessaObjectFreeList(m_head); }
    KOLV_VESSA_OBJECT *Add(const std::string &strId, unsigned owner, long mtime, const Json::Value &jAcl = Acl(nullptr),
                           const std::string &strNs = "note") {
        KOLV_VESSA_OBJECT *p = KOLVVessaObjectAlloc();
        p->set_id(strId);
        p->set_ns(strNs);
        p->set_owner(owner);
        p->set_category("memo");
        p->set_parent_id(std::to_string(owner) + "_#00000000");
        p->set_mtime(mtime);
        p->set_ctime(mtime);
        p->set_acl(jAcl);
        *m_tail = p;
        m_tail = &p->m_next;
        return p;
    }
    bool Index() { return KOLVVessaObjectBatchIndex(m_head); }

  private:
    KOLV_VESSA_OBJECT *m_head = nullptr;
    KOLV_VESSA_OBJECT **m_tail = &m_head;
};

// "id/perm" of every object of a listing that returned count, which
// must be the chain's length; "ERR" for a failed one. Frees the chain.
std::string Listed(int count, KOLV_VESSA_OBJECT *pHead) {
    if (count < 0) return "ERR";
    std::string str;
    int n = 0;
    for (KOLV_VESSA_OBJECT *p = pHead; p; p = p->m_next, ++n)
        str += (str.empty() ? "" : ",") + p->get_id() + "/" + p->get_perm();
    EXPECT_EQ(count, n);
    KOLVVessaObjectFreeList(pHead);
    return str;
}

class ListTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        if (!kolvtest::HavePostgres()) GTEST_SKIP() << "PGHOST is not set: no PostgreSQL server for the index";
        kolvtest::DropIndexDatabase();
        m_sys.EnableNamespace("note");
    }

    static Json::Value Request(unsigned requester, const std::string &strNs = "note") {
        Json::Value j;
        j["ns"] = strNs;
        j["requester"] = requester;
        return j;
    }

    // "id/perm" of every listed object, "ERR" on failure; the count and
    // total must agree with the list.
    static std::string List(const Json::Value &jParm) {
        KOLV_VESSA_OBJECT *pHead = nullptr;
        unsigned total = 12345;
        int count = KOLVVessaObjectList(jParm, &pHead, total);
        if (count >= 0) {
            EXPECT_EQ((unsigned)count, total);
        }
        return Listed(count, pHead);
    }
};

TEST_F(ListTest, OwnObjectsNewestFirstThenSharedOnesOfOthers) {
    Rows rows;
    rows.Add("a1", kAlice, 10);
    rows.Add("a2", kAlice, 30);
    rows.Add("a3", kAlice, 20, Acl("ro"));
    rows.Add("b1", kBob, 40, Acl("ro"));
    rows.Add("b2", kBob, 50);
    rows.Add("b3", kBob, 5, Acl("rw"));
    rows.Add("c1", kCarol, 60, Acl("rw")); // an expired owner is never shown
    rows.Add("bt", kBob, 70, Acl("rw"), "todo");
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();

    EXPECT_EQ("a2/owner,a3/owner,a1/owner,b1/ro,b3/rw", List(Request(kAlice)));
    EXPECT_EQ("b2/owner,b1/owner,b3/owner,a3/ro", List(Request(kBob)));
    EXPECT_EQ("c1/rw,b2/rw,b1/rw,a2/rw,a3/rw,a1/rw,b3/rw", List(Request(0)));

    // Limit 0: no own objects (zero limit in the database), every visible
    // shared one (no limit in code).
    Json::Value jParm = Request(kAlice);
    jParm["limit"] = 0;
    EXPECT_EQ("b1/ro,b3/rw", List(jParm));
    // The offset counts the visible objects of either part.
    jParm["offset"] = 1;
    jParm["limit"] = 1;
    EXPECT_EQ("a3/owner,b3/rw", List(jParm));

    jParm = Request(kAlice);
    jParm["filter"]["owner"] = "bob";
    EXPECT_EQ("b1/ro,b3/rw", List(jParm));
    // The string-hash form: JSON members parsed, numbers decimal.
    kolvtest::Hash hash({{"ns", "note"},
                         {"requester", "1101"},
                         {"filter", R"({"owner":"bob"})"},
                         {"field", R"({"text":true})"},
                         {"offset", "1"},
                         {"limit", "10"}});
    KOLV_VESSA_OBJECT *pHead = nullptr;
    unsigned total = 0;
    int count = KOLVVessaObjectList(hash.get(), &pHead, total);
    EXPECT_EQ("b3/rw", Listed(count, pHead));
    jParm["filter"]["owner"] = "alice";
    EXPECT_EQ("a2/owner,a3/owner,a1/owner", List(jParm));
    jParm["filter"]["owner"] = "carol";
    EXPECT_EQ("", List(jParm));

    // The system requester, every namespace, one owner by uid.
    jParm = Request(0, "*");
    jParm["filter"]["owner_uid"] = kBob;
    EXPECT_EQ("bt/rw,b2/rw,b1/rw,b3/rw", List(jParm));

    // Bob withdraws sharing: his objects are gone for everybody else.
    ASSERT_EQ(0, KOLVVessaSettingsSharingSet("note", kBob, 0));
    jParm = Request(kAlice);
    jParm["filter"]["owner"] = "bob";
    EXPECT_EQ("", List(jParm));
    EXPECT_EQ("a2/owner,a3/owner,a1/owner", List(Request(kAlice)));
    EXPECT_EQ("b2/owner,b1/owner,b3/owner,a3/ro", List(Request(kBob)));

    // The namespace switched off: only the system lists. (Which switch
    // gives which code: tests/common/conf_test.cpp; a set refused for a NUL
    // never reaches the index: tests/object/object_request_test.cpp,
    // tests/index/index_object_test.cpp.)
    const std::string strAll = List(Request(0));
    m_sys.WriteSettings(kolvtest::ParseJson(R"({"Access":{"enable":true,"enable_ns_note":false}})"));
    EXPECT_EQ("ERR", List(Request(kAlice)));
    EXPECT_TRUE(kolvtest::ErrIs(1012, "!jConf[\"Access\"][szNSKey].asBool()"));
    EXPECT_EQ(strAll, List(Request(0)));
}

TEST_F(ListTest, FieldSelectionChoosesColumnsByKeyNotValue) {
    Rows rows;
    Json::Value jText;
    jText["title"] = "hello";
    rows.Add("a1", kAlice, 10, Acl("ro"))->set_text(jText);
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();

    Json::Value jParm = Request(kAlice);
    KOLV_VESSA_OBJECT_LIST list;
    unsigned total = 0;
    ASSERT_EQ(1, list.ListObject(jParm, total)) << kolvtest::StackText();
    EXPECT_TRUE(list.m_head->get_text().isNull());
    EXPECT_EQ("ro", list.m_head->get_acl()["public"]["perm"].asString());
    EXPECT_EQ(kAlice, list.m_head->get_owner());
    EXPECT_EQ(10, list.m_head->get_mtime());

    jParm["field"]["text"] = false;
    ASSERT_EQ(1, list.ListObject(jParm, total)) << kolvtest::StackText();
    EXPECT_EQ("hello", list.m_head->get_text()["title"].asString());
    EXPECT_TRUE(list.m_head->get_metatext().isNull());
}

TEST_F(ListTest, EveryFilterForm) {
    Rows rows;
    KOLV_VESSA_OBJECT *r1 = rows.Add("r1", kAlice, 30);
    KOLV_VESSA_OBJECT *r2 = rows.Add("r2", kAlice, 20);
    KOLV_VESSA_OBJECT *r3 = rows.Add("r3", kAlice, 10);
    rows.Add("b1", kBob, 40);
    r1->set_text(kolvtest::ParseJson(R"({"done":true,"title":"alpha","tags":["x","y"],"n":5})"));
    r2->set_text(kolvtest::ParseJson(R"({"done":false,"title":"beta","tags":["y"]})"));
    r3->set_text(kolvtest::ParseJson(R"({"title":"gamma"})"));
    r1->set_metatext(kolvtest::ParseJson(R"({"color":"red"})"));
    r2->set_metatext(kolvtest::ParseJson(R"({"color":"blue","pin":true})"));
    r1->set_binary_info(kolvtest::ParseJson(R"({"a.png":{"md5":"0"}})"));
    r2->set_metabinary_info(kolvtest::ParseJson(R"({"m.bin":{"md5":"1"}})"));
    r2->set_category("other");
    r1->set_parent_id("p1");
    r2->set_parent_id("p2");
    r3->set_parent_id("p3");
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();

    const struct {
        const char *szFilter;
        const char *szExpect;
    } rgCases[] = {
        {R"({"text":{"done":true}})", "r1/owner"},
        {R"({"text":{"done":false}})", "r2/owner"},
        {R"({"text":{"tags":["y"]}})", "r1/owner,r2/owner"},
        {R"({"text":{"tags":["x","y"]}})", "r1/owner"},
        {R"({"text":{"n":5}})", "r1/owner"},
        {R"({"text":["tags"]})", "r1/owner,r2/owner"},
        {R"({"metatext":{"pin":true}})", "r2/owner"},
        {R"({"metatext":["color"]})", "r1/owner,r2/owner"},
        {R"({"binary":["a.png"]})", "r1/owner"},
        {R"({"metabinary":["m.bin"]})", "r2/owner"},
        {R"({"binary":["m.bin"]})", ""},
        {R"({"category":"memo","text":{"title":"gamma"}})", "r3/owner"},
        {R"({"parent_id":"p2"})", "r2/owner"},
        {R"({"parent_id":["p1","p3"]})", "r1/owner,r3/owner"},
    };
    for (const auto &c : rgCases) {
        Json::Value jParm = Request(kAlice);
        jParm["filter"] = kolvtest::ParseJson(c.szFilter);
        EXPECT_EQ(c.szExpect, List(jParm)) << c.szFilter;
    }

    Json::Value jParm = Request(0, "*");
    jParm["filter"]["_not_owner_"].append(kAlice);
    EXPECT_EQ("b1/rw", List(jParm));
    jParm["filter"]["_not_owner_"] = Json::Value(Json::arrayValue);
    EXPECT_EQ("b1/rw,r1/rw,r2/rw,r3/rw", List(jParm));

    jParm = Request(kAlice);
    jParm["filter"]["binary"] = "a.png";
    EXPECT_FAILS("ERR" != List(jParm), 1007, "!jFilter.isArray()");
    jParm["filter"] = kolvtest::ParseJson(R"({"metatext":5})");
    EXPECT_FAILS("ERR" != List(jParm), 1007, "!jFilter.isObject()");
}

// The backend's own listing, as the front end calls it: "id/perm", "ERR".
std::string BackendList(Json::Value jParm) {
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackend(CreatePgsqlBackend());
    jParm["offset"] = 0;
    jParm["limit"] = -1;
    KOLV_VESSA_OBJECT *pHead = nullptr;
    unsigned total = 0;
    int count = pBackend->List(jParm, &pHead, total);
    return Listed(count, pHead);
}

// With standard_conforming_strings off a backslash in a plain literal
// escapes the next character: only the connection's own escaping keeps
// such a value inside its literal. Every value is in every string column
// and every filter form; alice's filtered listings find her object and
// never bob's private one, nothing the values say is run.
TEST_F(ListTest, InjectionCorpusIsDataWithNonStandardStrings) {
    KOLVDB *pConn = KOLVVessaOpenConn();
    ASSERT_NE(nullptr, pConn) << kolvtest::StackText();
    ASSERT_EQ(0, KOLVDBExecute(pConn, "SET standard_conforming_strings = off", NULL));
    Rows rows;
    for (const std::string s : kolvtest::kSqlInjectionCorpus) {
        KOLV_VESSA_OBJECT *p = rows.Add("a" + s, kAlice, 20, Acl(nullptr), "n" + s);
        p->set_category(s);
        p->set_parent_id(s);
        Json::Value jText;
        jText[s] = s;
        jText["arr"].append(s);
        p->set_text(jText);
        p->set_metatext(jText);
        p->set_binary_info(jText);
        p->set_metabinary_info(jText);
        rows.Add("b" + s, kBob, 10, Acl(nullptr), "n" + s);
    }
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();
    const size_t cValues = sizeof(kolvtest::kSqlInjectionCorpus) / sizeof(kolvtest::kSqlInjectionCorpus[0]);
    EXPECT_EQ(std::to_string(2 * cValues), kolvtest::Psql("SELECT count(*) FROM object;"));

    for (const std::string s : kolvtest::kSqlInjectionCorpus) {
        Json::Value jArr(Json::arrayValue);
        jArr.append(s);
        Json::Value rgFilters[12];
        rgFilters[1]["category"] = s;
        rgFilters[2]["parent_id"] = s;
        rgFilters[3]["parent_id"] = jArr;
        rgFilters[4]["text"][s] = s;
        rgFilters[5]["text"]["arr"] = jArr;
        rgFilters[6]["text"] = jArr;
        rgFilters[7]["metatext"][s] = s;
        rgFilters[8]["metatext"] = jArr;
        rgFilters[9]["binary"] = jArr;
        rgFilters[10]["metabinary"] = jArr;
        rgFilters[11]["category"] = s;
        rgFilters[11]["text"][s] = s;
        for (const Json::Value &jFilter : rgFilters) {
            Json::Value jParm = Request(kAlice, "n" + s);
            if (!jFilter.isNull()) jParm["filter"] = jFilter;
            EXPECT_EQ("a" + s + "/owner", BackendList(jParm)) << jParm.toStyledString();
            jParm["requester"] = kBob;
            EXPECT_EQ(jFilter.isNull() ? "b" + s + "/owner" : "", BackendList(jParm)) << jParm.toStyledString();
        }
        // The front end's owner filter is a user name, looked up, never sent.
        Json::Value jParm = Request(kAlice);
        jParm["filter"]["owner"] = s;
        EXPECT_EQ("ERR", List(jParm));
        EXPECT_EQ(1022, KOLVVessaErrCodeGet()) << s;
    }

    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackend(CreatePgsqlBackend());
    for (const std::string s : kolvtest::kSqlInjectionCorpus) {
        Json::Value jDel;
        jDel["ns"] = "n" + s;
        jDel["id"] = "a" + s;
        ASSERT_TRUE(pBackend->Delete(jDel)) << kolvtest::StackText();
    }
    EXPECT_EQ(std::to_string(cValues) + "|" + std::to_string(cValues),
              kolvtest::Psql("SELECT count(*), count(*) FILTER (WHERE owner = 1102) FROM object;"));
    EXPECT_EQ("0", kolvtest::Psql("SELECT count(*) FROM pg_tables WHERE tablename = 'pwned';"));
}

// Pages of jParm by offset (after == false) or by the cursor each page
// gives for the next, until a page comes back empty: every id in order.
std::vector<std::string> Pages(Json::Value jParm, int limit, bool blAfter) {
    std::vector<std::string> vIds;
    jParm["limit"] = limit;
    for (int page = 0; page < 1000; ++page) {
        if (!blAfter) jParm["offset"] = page * limit;
        KOLV_VESSA_OBJECT_LIST list;
        unsigned total = 0;
        int count = list.ListObject(jParm, total);
        EXPECT_LE(0, count) << kolvtest::StackText();
        if (count <= 0) break;
        for (KOLV_VESSA_OBJECT *p = list.m_head; p; p = p->m_next)
            vIds.push_back(p->get_id());
        if (limit <= 0) break;
        if (!blAfter) continue;
        jParm["after"] = KOLVVessaObjectListNext(jParm, list.m_head);
        if (jParm["after"].isNull()) break;
    }
    return vIds;
}

TEST_F(ListTest, PagesOfEqualTimesNeverOverlap) {
    Rows rows;
    for (int i = 0; i < 500; ++i)
        rows.Add(KOLVVessaObjectGenerateID(kAlice), kAlice, 1000, Acl("ro"));
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();

    // Alice's own objects are paged by the database, bob's view of them in
    // code; the cursor walks the same rows as the offset.
    for (unsigned requester : {kAlice, kBob}) {
        std::vector<std::string> vByOffset = Pages(Request(requester), 50, false);
        EXPECT_EQ(500u, std::set<std::string>(vByOffset.begin(), vByOffset.end()).size()) << requester;
        EXPECT_EQ(vByOffset, Pages(Request(requester), 50, true)) << requester;
        EXPECT_EQ(vByOffset, Pages(Request(requester), 7, true)) << requester;
    }

    // A cursor past every row keeps them all; one before every row keeps
    // none.
    Json::Value jParm = Request(kBob);
    jParm["after"]["mtime"] = (Json::Int64)INT64_MAX;
    jParm["after"]["id"] = "";
    EXPECT_EQ(500u, Pages(jParm, -1, false).size());
    jParm["after"]["mtime"] = (Json::Int64)INT64_MIN;
    EXPECT_EQ("", List(jParm));
}

// Bob shares many objects, few of them with alice: the ones she may see
// are all on her pages, in order, however the others fall. Some pass the
// database's look at the ACL and fail only the permission in code.
TEST_F(ListTest, SharedPagesFindTheFewVisibleRowsAmongMany) {
    Rows rows;
    std::vector<std::string> vVisible;
    const char *rgAcl[] = {
        R"({"enabled":true,"hmx_user":{"1104":{"perm":"rw"}}})",   // another user's grant
        R"({"enabled":true,"hmx_user":{"1101":{"perm":"none"}}})", // a word that grants nothing
        R"({"enabled":false,"public":{"perm":"rw"}})",             // not shared
        R"({"enabled":true,"public":{"perm":"xx"}})",              // no permission word
        R"({"enabled":true,"public":{"perm":"ro"}})",              // visible
        R"({"enabled":true,"hmx_group":{"2001":{"perm":"rw"}}})",  // visible by her group
    };
    for (int i = 0; i < 600; ++i) {
        int kind = i % 37 == 0 ? 4 : i % 53 == 0 ? 5 : i % 4;
        std::string strId = "b" + std::to_string(1000 + i);
        rows.Add(strId, kBob, 100000 - i / 3, kolvtest::ParseJson(rgAcl[kind]));
        if (kind >= 4) vVisible.push_back(strId);
    }
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();
    ASSERT_LT(20u, vVisible.size());
    // Three rows a second; equal times go by id, highest first.
    for (size_t i = 0; i + 1 < vVisible.size(); ++i) {
        if ((std::stoi(vVisible[i].substr(1)) - 1000) / 3 == (std::stoi(vVisible[i + 1].substr(1)) - 1000) / 3)
            std::swap(vVisible[i], vVisible[i + 1]);
    }
    EXPECT_EQ(vVisible, Pages(Request(kAlice), 3, false));
    EXPECT_EQ(vVisible, Pages(Request(kAlice), 3, true));
    Json::Value jParm = Request(kAlice);
    jParm["filter"]["owner"] = "bob";
    EXPECT_EQ(vVisible, Pages(jParm, 5, true));
    EXPECT_EQ(vVisible, Pages(Request(kAlice), -1, false));
}

// An index table made before the listing indexes: opening adds them once,
// from four processes at the same time, and keeps every row.
TEST_F(ListTest, AnOldTableGetsTheListingIndexesOnFirstUse) {
    ASSERT_LE(0, KOLVDBCreateDatabase("postgres", "kolvvessa"));
    EXPECT_EQ(
        "",
        kolvtest::Psql(
            "BEGIN;CREATE TABLE IF NOT EXISTS object(id text PRIMARY KEY, ns text, owner bigint, category text, "
            "parent_id text, version text, commit_msg json, acl json, text json, metatext json, binary_info json, "
            "metabinary_info json,ctime int,mtime int,extra_info json);CREATE INDEX id_idx ON object (id);CREATE INDEX "
            "owner_idx ON object (owner);CREATE INDEX ns_idx ON object (ns);CREATE INDEX category_idx ON object "
            "(category);CREATE INDEX parent_id_idx ON object (parent_id);CREATE INDEX acl_idx ON object "
            "((acl->>'enabled'));CREATE INDEX mtime_idx ON object (mtime);END;"
            "INSERT INTO object (id, ns, owner, acl, text, mtime) SELECT 'o' || i, 'note', 1101 + i % 2, "
            "'{\"enabled\":true,\"public\":{\"perm\":\"ro\"}}', ('{\"n\":' || i || '}')::json, i FROM "
            "generate_series(1, 3000) AS i;"));
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    std::vector<pid_t> vPids;
    for (int i = 0; i < 4; ++i) {
        pid_t pid = fork();
        if (0 == pid) {
            // All start when the parent closes the pipe.
            close(fds[1]);
            char c;
            if (0 != read(fds[0], &c, 1)) _exit(2);
            KOLVDB *pConn = KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa");
            _exit(pConn && kolv::MigrateIndexSchema(pConn) ? 0 : 1);
        }
        vPids.push_back(pid);
    }
    close(fds[0]);
    close(fds[1]);
    for (pid_t pid : vPids) {
        int status = -1;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && 0 == WEXITSTATUS(status)) << status;
    }
    EXPECT_EQ("object_ns_owner_order_idx\nobject_ns_shared_order_idx",
              kolvtest::Psql("SELECT indexname FROM pg_indexes WHERE indexname LIKE 'object_ns_%' ORDER BY 1;"));

    KOLV_VESSA_OBJECT *pHead = nullptr;
    unsigned total = 0;
    Json::Value jParm = Request(kBob);
    jParm["field"]["text"] = true;
    ASSERT_EQ(3000, KOLVVessaObjectList(jParm, &pHead, total)) << kolvtest::StackText();
    EXPECT_EQ(kBob, pHead->get_owner());
    EXPECT_EQ(2999, pHead->get_text()["n"].asInt());
    KOLVVessaObjectFreeList(pHead);
    EXPECT_EQ("3000|1500", kolvtest::Psql("SELECT count(*), count(*) FILTER (WHERE owner = 1101) FROM object;"));
}

// "search": every word a prefix of a word of a string value of text or
// meta text, at any depth; in both parts of a listing, with the filters,
// the sharing rules and paging; best first by rank; the corpus searched
// as words, never as syntax; a set rewrites the words at once.
TEST_F(ListTest, SearchFindsAllWordsAsPrefixesInVisibleObjectsOnly) {
    Rows rows;
    rows.Add("a1", kAlice, 50)
        ->set_text(kolvtest::ParseJson(R"({"title":"Quarterly Report","body":{"d":["Budget \u00fcberblick"]}})"));
    rows.Add("a2", kAlice, 40)->set_text(kolvtest::ParseJson(R"({"title":"quarterly plan plan plan"})"));
    rows.Add("a3", kAlice, 30, Acl("ro"))->set_text(kolvtest::ParseJson(R"({"budget":"plan"})"));
    rows.Add("b1", kBob, 60)->set_text(kolvtest::ParseJson(R"({"title":"quarterly budget plan"})"));
    rows.Add("b2", kBob, 20, Acl("ro"))->set_text(kolvtest::ParseJson(R"({"title":"quarterly plan"})"));
    rows.Add("b3", kBob, 10, Acl("rw"))->set_text(kolvtest::ParseJson(R"({"title":"quarterly"})"));
    rows.Add("c1", kCarol, 70, Acl("rw"))->set_text(kolvtest::ParseJson(R"({"title":"quarterly plan"})"));
    KOLV_VESSA_OBJECT *a4 = rows.Add("a4", kAlice, 5);
    a4->set_text(kolvtest::ParseJson(R"({"n":1})"));
    a4->set_metatext(kolvtest::ParseJson(R"({"tag":["ÉTÉ finance"]})"));
    ASSERT_TRUE(rows.Index()) << kolvtest::StackText();
    auto Search = [](unsigned requester, const char *szWords, const char *szExtra = "{}") {
        Json::Value jParm = kolvtest::ParseJson(szExtra);
        jParm["ns"] = "note";
        jParm["requester"] = requester;
        jParm["search"] = szWords;
        return List(jParm);
    };
    EXPECT_EQ("a1/owner", Search(kAlice, "quarterly BUDGET überblick"));
    EXPECT_EQ("a1/owner", Search(kAlice, "quart rep \"budg\""));
    // Member names are not words; meta text is searched.
    EXPECT_EQ("a1/owner", Search(kAlice, "budget"));
    EXPECT_EQ("a4/owner", Search(kAlice, "été fin"));
    EXPECT_EQ("", Search(kAlice, "title"));
    // Bob's private b1 and expired carol's c1 are never found.
    EXPECT_EQ("a1/owner,a2/owner,b2/ro,b3/rw", Search(kAlice, "quarterly"));
    EXPECT_EQ("b2/ro", Search(kAlice, "quarterly", R"({"filter":{"owner":"bob"},"limit":1})"));
    EXPECT_EQ("a2/owner,b3/rw", Search(kAlice, "q", R"({"offset":1,"limit":1})"));
    EXPECT_EQ("a2/owner", Search(kAlice, "q", R"({"filter":{"text":{"title":"quarterly plan plan plan"}}})"));
    EXPECT_EQ("c1/rw,b1/rw,a2/rw,a3/rw,b2/rw", Search(0, "plan"));
    // Best first (three "plan" before one), ties newest first; paged.
    EXPECT_EQ("a2/owner,a3/owner,b2/ro", Search(kAlice, "plan", R"({"order":"rank"})"));
    EXPECT_EQ("c1/rw,b1/rw,a3/rw,b2/rw", Search(0, "plan", R"({"order":"rank","offset":1})"));
    EXPECT_EQ("a3/owner", Search(kAlice, "plan", R"({"order":"rank","offset":1,"limit":1})"));
    // No word at all: no filter.
    EXPECT_EQ(List(Request(kAlice)), Search(kAlice, " -- & | ! :* "));
    EXPECT_FAILS("ERR" != Search(kAlice, "plan", R"({"order":"rank","after":{"mtime":1,"id":"x"}})"), 1007,
                 "blRank && jParm.isMember(\"after\")");
    EXPECT_FAILS("ERR" != Search(kAlice, "plan", R"({"order":"mtime"})"), 1007,
                 "blRank && jParm[\"order\"] != \"rank\"");
    Json::Value jParm = Request(kAlice);
    jParm["search"] = 5;
    EXPECT_FAILS("ERR" != List(jParm), 1007, "!jParm[\"search\"].isString()");

    // Words of the corpus in alice's objects, and in a private one of bob:
    // each found as data, with the server reading backslashes the old way.
    KOLVDB *pConn = KOLVVessaOpenConn();
    ASSERT_NE(nullptr, pConn) << kolvtest::StackText();
    ASSERT_EQ(0, KOLVDBExecute(pConn, "SET standard_conforming_strings = off", NULL));
    Rows corpus;
    int i = 0;
    for (const char *szNasty : kolvtest::kSqlInjectionCorpus) {
        Json::Value jText;
        jText["t"] = std::string("zz") + szNasty;
        corpus.Add("n" + std::to_string(i), kAlice, 100 + i, Acl(nullptr))->set_text(jText);
        corpus.Add("bob" + std::to_string(i++), kBob, 100, Acl(nullptr))->set_text(jText);
    }
    ASSERT_TRUE(corpus.Index()) << kolvtest::StackText();
    i = 0;
    for (const char *szNasty : kolvtest::kSqlInjectionCorpus) {
        Json::Value jSearch = Request(kAlice);
        jSearch["search"] = std::string("zz") + szNasty;
        jSearch["order"] = "rank";
        std::string strListed = List(jSearch);
        EXPECT_NE(std::string::npos, strListed.find("n" + std::to_string(i++) + "/owner")) << szNasty;
        EXPECT_EQ(std::string::npos, strListed.find("bob")) << szNasty;
    }
    const size_t cValues = sizeof(kolvtest::kSqlInjectionCorpus) / sizeof(kolvtest::kSqlInjectionCorpus[0]);
    EXPECT_EQ(std::to_string(8 + 2 * cValues), kolvtest::Psql("SELECT count(*) FROM object;"));
    EXPECT_EQ("0", kolvtest::Psql("SELECT count(*) FROM pg_tables WHERE tablename = 'pwned';"));
    ASSERT_EQ(0, KOLVDBExecute(pConn, "SET standard_conforming_strings = on", NULL));

    // A set: the new words are found at once, the old ones no more.
    Json::Value jCreate = Request(kAlice);
    jCreate["category"] = "memo";
    jCreate["text"]["title"] = "zebra crossing";
    KOLV_VESSA_OBJECT obj;
    ASSERT_TRUE(obj.Create(jCreate)) << kolvtest::StackText();
    EXPECT_EQ(obj.get_id() + "/owner", Search(kAlice, "zebra"));
    Json::Value jSet = Request(kAlice);
    jSet["id"] = obj.get_id();
    jSet["version"] = obj.get_version();
    jSet["text"]["title"] = "okapi";
    KOLV_VESSA_OBJECT objSet;
    ASSERT_TRUE(objSet.Set(jSet)) << kolvtest::StackText();
    EXPECT_EQ("", Search(kAlice, "zebra"));
    EXPECT_EQ(obj.get_id() + "/owner", Search(kAlice, "okap"));
}

TEST_F(ListTest, FrontEndRefusesMalformedRequests) {
    const char *szHead = "!jParm.isMember(\"ns\") || !jParm[\"ns\"].isString() || !jParm.isMember(\"requester\") || "
                         "!jParm[\"requester\"].isIntegral()";
    const char *szAfter = "!jAfter.isObject() || !jAfter[\"mtime\"].isInt64() || !jAfter[\"id\"].isString()";
    const struct {
        const char *szReq;
        int code;
        const char *szOrigin;
    } rgCases[] = {
        {R"({"ns":"note","requester":"1101"})", 1007, szHead},
        {R"({"ns":"note","requester":1101,"filter":[]})", 1007, "!jParm[\"filter\"].isObject()"},
        {R"({"ns":"note","requester":1101,"filter":{"owner":1102}})", 1007, "!jParm[\"filter\"][\"owner\"].isString()"},
        {R"({"ns":"note","requester":1101,"filter":{"owner":"no-such-user"}})", 1022,
         "0 > KOLVUserGet(jParm[\"filter\"][\"owner\"].asCString(), &pUser)"},
        {R"({"ns":"note","requester":1101,"limit":1.5})", 1007,
         "jParm.isMember(\"limit\") && !jParm[\"limit\"].isIntegral()"},
        {R"({"ns":"note","requester":1101,"after":[1,"x"]})", 1007, szAfter},
        {R"({"ns":"note","requester":1101,"after":{"mtime":"1","id":"x"}})", 1007, szAfter},
        {R"({"ns":"note","requester":1101,"after":{"mtime":18446744073709551615,"id":"x"}})", 1007, szAfter},
        {R"({"ns":"note","requester":1101,"after":{"mtime":1}})", 1007, szAfter},
        {R"({"ns":"note","requester":1101,"after":{"mtime":1,"id":"x\u0000' OR true --"}})", 1007,
         "kolv::HasNulCharacter(jParm)"},
    };
    for (const auto &c : rgCases) {
        EXPECT_FAILS("ERR" != List(kolvtest::ParseJson(c.szReq)), c.code, c.szOrigin) << c.szReq;
    }

    // The backend itself wants paging spelt out.
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackend(CreatePgsqlBackend());
    KOLV_VESSA_OBJECT *pHead = nullptr;
    unsigned total = 0;
    Json::Value jParm = Request(kAlice);
    jParm["offset"] = 0;
    EXPECT_FAILS(-1 != pBackend->List(jParm, &pHead, total), 1007, "!jParm.isMember(\"limit\")");

    // A negative offset is the database's to refuse.
    jParm["offset"] = -1;
    EXPECT_FAILS("ERR" != List(jParm), 1000, "(0 != KOLVDBExecute(m_conn, strSql.c_str(), &pResult))");
}

} // namespace
