/*
 * object_test_util.h - a sysroot with the "note" namespace switched on and
 * small helpers to make objects through the real store.
 */
#ifndef KOLV_OBJECT_TEST_UTIL_H
#define KOLV_OBJECT_TEST_UTIL_H

#include <stdlib.h>

#include <string>

#include "kolvvessa/kolvvessa.h"
#include "support/kolv_test_support.h"

namespace objtest {

class ObjectStoreTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        // No index server here: the index step fails, is logged, and must
        // not undo anything.
        unsetenv("PGHOST");
        m_sys.EnableNamespace("note");
    }

    /* Creates an object of requester in "note" with extra members; returns
     * the new id ("" and a test failure when it cannot). */
    std::string Create(unsigned requester, const Json::Value &jExtra = Json::Value(Json::objectValue)) {
        Json::Value jParm = jExtra;
        jParm["ns"] = "note";
        if (!jParm.isMember("category")) jParm["category"] = "memo";
        if (!jParm.isMember("text")) jParm["text"]["title"] = "memo";
        jParm["requester"] = requester;
        KOLV_VESSA_OBJECT obj;
        if (!obj.Create(jParm)) ADD_FAILURE() << "create failed: " << kolvtest::StackText();
        return obj.get_id();
    }

    static Json::Value GetParm(const std::string &strID, unsigned requester) {
        Json::Value j;
        j["ns"] = "note";
        j["id"] = strID;
        j["requester"] = requester;
        return j;
    }

    std::string ObjectDir(const std::string &strID) const { return m_sys.Repo() + "/note/" + strID; }
    /* git in the object's version repository. */
    std::string Git(const std::string &strID, const std::string &strArgs) const {
        return kolvtest::Git(ObjectDir(strID) + "/version", strArgs);
    }
    static std::string Enc(const std::string &strName) {
        std::string str;
        KOLVVessaEncode(strName, str);
        return str;
    }
};

/* The store with its index: the tests that check the index keep PGHOST
 * and start from an empty database. */
class IndexedStoreTest : public ObjectStoreTest {
  protected:
    void SetUp() override {
        if (!kolvtest::HavePostgres()) GTEST_SKIP() << "PGHOST is not set: no PostgreSQL server for the index";
        kolvtest::DropIndexDatabase();
        m_sys.EnableNamespace("note");
    }
    void TearDown() override { unsetenv("KOLV_HOOK_LOG"); }

#ifdef KOLV_NOTE_HOOK_LIB
    /* The note hook library for "note"; returns the file its lines go to. */
    std::string UseNoteHooks() {
        kolvtest::WriteFile(m_sys.Path("/usr/local/libexec/kolvvessa/note.lib"),
                            std::string("{\"lib\":\"") + KOLV_NOTE_HOOK_LIB + "\"}");
        std::string strLog = m_sys.Path("/tmp/hook.log");
        setenv("KOLV_HOOK_LOG", strLog.c_str(), 1);
        return strLog;
    }
#endif
    static std::string Rows(const std::string &strWhere) {
        return kolvtest::Psql("SELECT count(*) FROM object WHERE " + strWhere + ";");
    }
    static std::string RowOf(const std::string &strID) { return Rows("id = '" + strID + "'"); }
};

inline Json::Value J(const std::string &str) {
    return kolvtest::ParseJson(str);
}

} // namespace objtest

#endif /* KOLV_OBJECT_TEST_UTIL_H */
