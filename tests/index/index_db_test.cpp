// The platform database layer and the index connection: database made on
// first use with its schema, escaping, result sets, service check.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "common/kolvvessa_raii.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_index.h"
#include "index/sql_corpus.h"
#include "support/kolv_test_support.h"

namespace {

class IndexDbTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        if (!kolvtest::HavePostgres()) GTEST_SKIP() << "PGHOST is not set: no PostgreSQL server for the index";
        kolvtest::DropIndexDatabase();
    }
};

std::string Escape(KOLVDB *pConn, const char *szTemplate, const char *szVal) {
    kolv::CString sz(KOLVDBEscapeStringEX3(1, pConn, szTemplate, szVal));
    return sz ? sz.get() : "<null>";
}

TEST_F(IndexDbTest, FirstUseCreatesTheSchemaLiteralsHoldAnyValueResultsReadBack) {
    std::string strOut;
    kolvtest::RunCommand("psql -X -A -t -U postgres -d postgres -c "
                         "\"SELECT count(*) FROM pg_database WHERE datname='kolvvessa'\"",
                         &strOut);
    ASSERT_EQ("0\n", strOut);

    KOLVDB *pConn = KOLVVessaOpenConn();
    ASSERT_NE(nullptr, pConn) << kolvtest::StackText();
    EXPECT_EQ(pConn, KOLVVessaOpenConn());
    // Closing is the exit handler's business.
    KOLVVessaCloseConn();
    EXPECT_EQ(pConn, KOLVVessaOpenConn());

    EXPECT_EQ("acl_idx,category_idx,id_idx,mtime_idx,ns_idx,object_ns_owner_order_idx,object_ns_shared_order_idx,"
              "object_pkey,object_search_idx,owner_idx,parent_id_idx",
              kolvtest::Psql("SELECT string_agg(indexname, ',' ORDER BY indexname) FROM pg_indexes "
                             "WHERE tablename='object';"));
    EXPECT_EQ("id:text,ns:text,owner:bigint,category:text,parent_id:text,version:text,commit_msg:json,acl:json,"
              "text:json,metatext:json,binary_info:json,metabinary_info:json,ctime:integer,mtime:integer,"
              "extra_info:json,search:tsvector",
              kolvtest::Psql("SELECT string_agg(column_name || ':' || data_type, ',' ORDER BY ordinal_position) "
                             "FROM information_schema.columns WHERE table_name='object';"));

    // Without a connection a quote is doubled; a backslash, whose meaning
    // depends on the server's standard_conforming_strings, is refused.
    EXPECT_EQ("v='it''s ok'", Escape(NULL, "v='@KOLV:VAR'", "it's ok"));
    EXPECT_EQ("<null>", Escape(NULL, "v='@KOLV:VAR'", "a \\' OR true --"));
    EXPECT_EQ("no placeholder", Escape(NULL, "no placeholder", "unused"));
    EXPECT_EQ("<null>", Escape(NULL, "v='@KOLV:VAR'", NULL));
    EXPECT_EQ(nullptr, KOLVDBEscapeStringEX3(2, NULL, "x"));
    kolv::CString szNums(KOLVDBEscapeStringEX3(1, NULL, "@KOLV:INT,@KOLV:LLINT,'@KOLV:VAR'@KOLV:X", -5,
                                               (long long)4294967295LL, "@KOLV:INT"));
    // A value that looks like a placeholder is data, not a template.
    EXPECT_STREQ("-5,4294967295,'@KOLV:INT'@KOLV:X", szNums.get());

    // With the connection, whatever the value and the setting, the literal
    // holds it exactly; text invalid in the connection's encoding is refused.
    EXPECT_EQ("<null>", Escape(pConn, "v='@KOLV:VAR'", "bad \xff\xfe utf-8"));
    for (const char *szSetting : {"on", "off"}) {
        ASSERT_EQ(0,
                  KOLVDBExecute(pConn, (std::string("SET standard_conforming_strings = ") + szSetting).c_str(), NULL));
        for (const char *szNasty : kolvtest::kSqlInjectionCorpus) {
            std::string strSQL = Escape(pConn, "SELECT '@KOLV:VAR' AS v", szNasty);
            KOLVDBRESULT *pRaw = NULL;
            ASSERT_EQ(0, KOLVDBExecute(pConn, strSQL.c_str(), &pRaw)) << szSetting << " " << strSQL;
            kolv::DBResult pResult(pRaw);
            ASSERT_EQ(1, KOLVDBResultRows(pResult.get())) << szSetting << " " << strSQL;
            EXPECT_STREQ(szNasty, KOLVDBFetchField(pResult.get(), 0, "v")) << szSetting;
        }
    }

    // Several statements in one call: the last one's result set.
    KOLVDB *pOther = KOLVDBConnect(NULL, "postgres", NULL, "postgres");
    ASSERT_NE(nullptr, pOther);
    KOLVDBRESULT *pRaw = NULL;
    ASSERT_EQ(0, KOLVDBExecute(pOther,
                               "CREATE TEMP TABLE t(a int, b text); INSERT INTO t VALUES (1, 'x'), (2, NULL);"
                               "SELECT a, b FROM t ORDER BY a;",
                               &pRaw));
    kolv::DBResult pResult(pRaw);
    EXPECT_EQ(2, KOLVDBResultRows(pResult.get()));
    EXPECT_STREQ("x", KOLVDBFetchField(pResult.get(), 0, "b"));
    EXPECT_STREQ("", KOLVDBFetchField(pResult.get(), 1, "b"));
    EXPECT_EQ(nullptr, KOLVDBFetchField(pResult.get(), 0, "nope"));
    EXPECT_EQ(nullptr, KOLVDBFetchField(pResult.get(), 2, "a"));

    EXPECT_EQ(-1, KOLVDBExecute(pOther, "SELECT * FROM no_such_table", &pRaw));
    EXPECT_EQ(nullptr, pRaw);
    EXPECT_NE(std::string::npos, std::string(KOLVDBErrorGet(pOther)).find("no_such_table"));
    KOLVDBClose(pOther);

    EXPECT_EQ(nullptr, KOLVDBConnect(NULL, "postgres", NULL, "no_such_database"));
}

TEST_F(IndexDbTest, ConnectionToAnExistingDatabaseKeepsItsRows) {
    ASSERT_EQ(0, KOLVDBCreateDatabase("postgres", "kolvvessa"));
    // An existing database is success too.
    ASSERT_EQ(0, KOLVDBCreateDatabase("postgres", "kolvvessa"));
    kolvtest::Psql("CREATE TABLE object(id text PRIMARY KEY, mark text); INSERT INTO object VALUES ('keep', 'me');");
    ASSERT_NE(nullptr, KOLVVessaOpenConn()) << kolvtest::StackText();
    // The schema statement is not sent to a database that exists.
    EXPECT_EQ("keep|me", kolvtest::Psql("SELECT id, mark FROM object;"));
}

TEST_F(IndexDbTest, StoppedServiceFailsWithoutCreatingTheDatabase) {
    setenv("PGHOST", (m_sys.Root() + "/no-such-server").c_str(), 1);
    EXPECT_FAILS(nullptr != KOLVVessaOpenConn(), 1024, "FALSE == TRABServiceIsRunning(SZ_PGSQL_SERVICE_NAME)");
    EXPECT_FAILS(KOLVVessaReindex(Json::Value()), 1000, "NULL == (pConn = KOLVVessaOpenConn())");
}

} // namespace
