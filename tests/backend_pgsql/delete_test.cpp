// Removing rows from the index: exactly the named ids of the one
// namespace, whatever the ids hold.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kolvvessa/kolvvessa_backend.h"
#include "kolvvessa/kolvvessa_index.h"
#include "support/kolv_test_support.h"

namespace {

class IndexDeleteTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        if (!kolvtest::HavePostgres()) GTEST_SKIP() << "PGHOST is not set: no PostgreSQL server for the index";
        kolvtest::DropIndexDatabase();
        ASSERT_NE(nullptr, KOLVVessaOpenConn()); // makes the table
        kolvtest::Psql("INSERT INTO object(id, ns, mtime) VALUES ('a', 'note', 1), ('b', 'note', 1), "
                       "('c', 'note', 1), ('x''y', 'note', 1), ('d', 'todo', 1);");
    }
    static bool Delete(const Json::Value &jParm) {
        std::unique_ptr<KOLVVESSA_BACKEND_OP> pBackend(RegisterBackend::New("pgsql"));
        return pBackend->Delete(jParm);
    }
    static Json::Value Parm(const std::string &strNs, const Json::Value &jId) {
        Json::Value j;
        j["ns"] = strNs;
        j["id"] = jId;
        return j;
    }
    static std::string Rows() {
        return kolvtest::Psql("SELECT string_agg(ns || '/' || id, ',' ORDER BY ns, id) FROM object;");
    }
};

TEST_F(IndexDeleteTest, RemovesTheNamedIdsOfTheNamespaceOnly) {
    ASSERT_TRUE(Delete(Parm("note", "a"))) << kolvtest::StackText();
    ASSERT_TRUE(Delete(Parm("note", "d"))) << kolvtest::StackText();
    EXPECT_EQ("note/b,note/c,note/x'y,todo/d", Rows());
    Json::Value jIds = kolvtest::ParseJson(R"(["b","no-such-row"])");
    ASSERT_TRUE(Delete(Parm("note", jIds))) << kolvtest::StackText();
    EXPECT_EQ("note/c,note/x'y,todo/d", Rows());

    // Quotes in an id or the namespace are data, never SQL.
    ASSERT_TRUE(Delete(Parm("note", "c') OR ('1'='1"))) << kolvtest::StackText();
    ASSERT_TRUE(Delete(Parm("note' OR '1'='1", "c"))) << kolvtest::StackText();
    jIds = kolvtest::ParseJson(R"(["z') OR true; DELETE FROM object; --"])");
    ASSERT_TRUE(Delete(Parm("note", jIds))) << kolvtest::StackText();
    EXPECT_EQ("note/c,note/x'y,todo/d", Rows());
    ASSERT_TRUE(Delete(Parm("note", kolvtest::ParseJson(R"(["x'y"])")))) << kolvtest::StackText();
    EXPECT_EQ("note/c,todo/d", Rows());

    // An id cut short at a NUL would name another row.
    EXPECT_FAILS(Delete(Parm("note", std::string("c\0zz", 4))), 1007, "!IdsAreWhole(jParm[\"id\"])");
    EXPECT_FAILS(Delete(Parm("note", kolvtest::ParseJson("[\"c\", 1]"))), 1007, "!IdsAreWhole(jParm[\"id\"])");
    // No id at all is a statement the database refuses.
    EXPECT_FAILS(Delete(Parm("note", Json::Value(Json::arrayValue))), 1000,
                 "(0 != KOLVDBExecute(m_conn, strSQL.c_str(), NULL))");
    EXPECT_EQ("note/c,todo/d", Rows());
}

} // namespace
