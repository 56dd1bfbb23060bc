/*
 * The object and version records: life cycle, JSON forms, the plain
 * accessor family's argument reports, and the backend registry.
 */
#include <kolvplatform/kolv_platform.h>

#include <memory>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_pgsql/kolvvessa_backend_pgsql.h"
#include "kolvvessa/kolvvessa.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::OriginMsg;

TEST(ObjectRecord, ClearResetsOwnerToUidErrAndKeepsPermAndPathInfo) {
    KOLV_VESSA_OBJECT obj;
    EXPECT_EQ(0UL, obj.get_owner());
    EXPECT_TRUE(obj.m_param.isObject());
    obj.set_ns("note");
    obj.set_owner(kolvtest::kAlice);
    obj.set_perm("rw");
    Json::Value jPath;
    jPath["id_path"] = "/repo/note/x";
    obj.set_path_info(jPath);
    obj.set_text(kolvtest::ParseJson("{\"a\":1}"));
    obj.clear();
    EXPECT_EQ((unsigned long)UID_ERR, obj.get_owner());
    EXPECT_EQ("rw", obj.get_perm());
    EXPECT_EQ(jPath, obj.get_path_info());
    EXPECT_EQ("", obj.get_ns());
    EXPECT_TRUE(obj.get_text().isNull());

    KOLVVessaObjectFreeList(NULL);
    KOLVVessaObjectClear(NULL);
    EXPECT_EQ(NULL, KOLVVessaObjectNext(NULL));
    EXPECT_EQ(1, KOLVVessaObjectLog(0, 0, NULL, NULL));
    EXPECT_STREQ("object_delete_failed", KOLVVESSAOBJECT_LOG_STRING_MAP[5].szKey);
}

TEST(ObjectRecord, ListOwnsItsChain) {
    KOLV_VESSA_OBJECT_LIST list;
    list.m_head = KOLVVessaObjectAlloc();
    ASSERT_NE(nullptr, list.m_head);
    list.m_head->m_next = KOLVVessaObjectAlloc();
    EXPECT_EQ(list.m_head->m_next, KOLVVessaObjectNext(list.m_head));
    list.clear(); // the sanitizer builds catch a leak or a double free here
    EXPECT_EQ(nullptr, list.m_head);
}

class ObjectJsonTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        m_obj.set_ns("note");
        m_obj.set_id("1101_AB");
        m_obj.set_owner(kolvtest::kAlice);
        m_obj.set_text(kolvtest::ParseJson("{\"title\":\"t\",\"body\":\"b\"}"));
        m_obj.set_acl(kolvtest::ParseJson("{\"enabled\":true}"));
        m_obj.set_commit_msg(kolvtest::ParseJson("{\"m\":1}"));
        m_obj.set_ctime(5);
    }
    KOLV_VESSA_OBJECT m_obj;
};

TEST_F(ObjectJsonTest, DefaultSelectionWritesTheBasicFieldsOnly) {
    Json::Value jRet(Json::objectValue);
    jRet["stale"] = 1;
    ASSERT_TRUE(m_obj.toJson(Json::Value(Json::objectValue), jRet));
    for (const char *szKey : {"ns", "id", "category", "version", "perm", "parent_id", "owner", "ctime", "mtime"}) {
        EXPECT_TRUE(jRet.isMember(szKey)) << szKey;
    }
    for (const char *szKey : {"stale", "text", "metatext", "binary_info", "metabinary_info", "acl", "commit_msg"}) {
        EXPECT_FALSE(jRet.isMember(szKey)) << szKey;
    }
    EXPECT_EQ("alice", jRet["owner"]["display_name"].asString());
    EXPECT_EQ(kolvtest::kAlice, jRet["owner"]["uid"].asUInt());
    EXPECT_EQ(5, jRet["ctime"].asInt64());

    // Switched off fields go; sub-selections copy only what is asked and
    // present.
    Json::Value jSel = kolvtest::ParseJson(
        "{\"ns\":false,\"owner\":false,\"commit_msg\":true,\"text\":{\"title\":true,\"body\":false,\"none\":true}}");
    ASSERT_TRUE(m_obj.toJson(jSel, jRet));
    EXPECT_FALSE(jRet.isMember("ns"));
    EXPECT_FALSE(jRet.isMember("owner"));
    EXPECT_EQ(kolvtest::ParseJson("{\"title\":\"t\"}"), jRet["text"]);
    EXPECT_EQ(1, jRet["commit_msg"]["m"].asInt());

    // A deleted user and the anonymous owner still get a display name.
    m_obj.set_owner(4242);
    ASSERT_TRUE(m_obj.toJson(Json::Value(Json::objectValue), jRet));
    EXPECT_EQ("Deleted user #4242", jRet["owner"]["display_name"].asString());
}

TEST_F(ObjectJsonTest, AclOnlyForWritersUnlessForced) {
    Json::Value jSel = kolvtest::ParseJson("{\"acl\":true}");
    Json::Value jRet(Json::objectValue);
    m_obj.set_perm("ro");
    ASSERT_TRUE(m_obj.toJson(jSel, jRet));
    EXPECT_FALSE(jRet.isMember("acl"));
    ASSERT_TRUE(m_obj.toJson(jSel, jRet, true));
    EXPECT_TRUE(jRet["acl"]["enabled"].asBool());
    m_obj.set_perm("rw");
    ASSERT_TRUE(m_obj.toJson(jSel, jRet));
    EXPECT_TRUE(jRet.isMember("acl"));

    Json::Value jNotObject(Json::arrayValue);
    EXPECT_FALSE(m_obj.toJson(jSel, jNotObject));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jRet.isObject()", OriginMsg());
}

TEST(ObjectRecord, FromJsonKeepsInfoMembersAsTextAndRefusesNonObjects) {
    KOLV_VESSA_OBJECT obj;
    obj.set_category("keep");
    Json::Value jVal = kolvtest::ParseJson(
        "{\"ns\":\"note\",\"owner\":1102,\"binary_info\":{\"f\":{\"md5\":\"x\"}},\"text\":{\"a\":1},\"mtime\":7}");
    ASSERT_TRUE(obj.fromJson(jVal));
    EXPECT_EQ("note", obj.get_ns());
    EXPECT_EQ("keep", obj.get_category());
    EXPECT_EQ((unsigned long)kolvtest::kBob, obj.get_owner());
    EXPECT_EQ(7, obj.get_mtime());
    ASSERT_TRUE(obj.get_binary_info().isString());
    EXPECT_EQ(jVal["binary_info"], kolvtest::ParseJson(obj.get_binary_info().asString()));

    EXPECT_FALSE(obj.fromJson(Json::Value("text")));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
}

TEST(ObjectAccessors, GettersReportBadArgumentsOnThePlatformStack) {
    KOLV_VESSA_OBJECT obj;
    obj.set_id("1101_ABCDEF");
    char szBuf[64];
    EXPECT_EQ(-1, KOLVVessaObjectItemGetID(NULL, sizeof(szBuf), &obj));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_STREQ("include/kolvvessaobjectgetter", TRABCErrorGetFile());
    EXPECT_EQ(-1, KOLVVessaObjectItemGetID(szBuf, 0, &obj));
    EXPECT_EQ(-1, KOLVVessaObjectItemGetID(szBuf, sizeof(szBuf), NULL));
    unsigned long owner = 1;
    EXPECT_EQ(-1, KOLVVessaObjectItemGetOwner(&owner, NULL));
    EXPECT_EQ(-1, KOLVVessaObjectItemGetOwner(NULL, &obj));

    // A short buffer gets a truncated, terminated text, and success.
    char szShort[5];
    EXPECT_EQ(0, KOLVVessaObjectItemGetID(szShort, sizeof(szShort), &obj));
    EXPECT_STREQ("1101", szShort);
    obj.set_text(kolvtest::ParseJson("{\"a\":[1,2]}"));
    ASSERT_EQ(0, KOLVVessaObjectItemGetText(szBuf, sizeof(szBuf), &obj));
    EXPECT_EQ(obj.get_text(), kolvtest::ParseJson(szBuf));
    EXPECT_EQ(0, KOLVVessaObjectItemGetOwner(&owner, &obj));
    EXPECT_EQ(0UL, owner);
}

TEST(ObjectAccessors, SettersParseJsonAndReportBadArguments) {
    KOLV_VESSA_OBJECT obj;
    EXPECT_EQ(-1, KOLVVessaObjectItemSetNameSpace(&obj, NULL));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_STREQ("include/kolvvessaobjectsetter", TRABCErrorGetFile());
    EXPECT_EQ(-1, KOLVVessaObjectItemSetNameSpace(NULL, "note"));
    EXPECT_EQ(-1, KOLVVessaObjectItemSetCreateTime(NULL, 3));

    EXPECT_EQ(0, KOLVVessaObjectItemSetACL(&obj, "{\"enabled\":false}"));
    EXPECT_FALSE(obj.get_acl()["enabled"].asBool());
    EXPECT_EQ(0, KOLVVessaObjectItemSetModifyTime(&obj, 9));
    long mtime = 0;
    EXPECT_EQ(0, KOLVVessaObjectItemGetModifyTime(&mtime, &obj));
    EXPECT_EQ(9, mtime);
}

TEST(BackendRegistry, UnknownNamesGiveNullAndTheLastRegistrationWins) {
    EXPECT_EQ(nullptr, RegisterBackend::New("nosuch"));
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(RegisterBackend::New("fs"));
    EXPECT_NE(nullptr, dynamic_cast<KOLVVESSA_BACKEND_FS *>(pFs.get()));

    RegisterBackend first("twice", CreateFsBackend);
    RegisterBackend second("twice", CreatePgsqlBackend);
    std::unique_ptr<KOLVVESSA_BACKEND_OP> pTwice(RegisterBackend::New("twice"));
    EXPECT_NE(nullptr, dynamic_cast<KOLVVESSA_BACKEND_PGSQL *>(pTwice.get()));
}

class VersionRecordTest : public kolvtest::SysrootTest {};

TEST_F(VersionRecordTest, DefaultsAndJsonForm) {
    KOLV_VESSA_OBJECT_VERSION *pVer = KOLVVessaObjectVersionAlloc();
    ASSERT_NE(nullptr, pVer);
    EXPECT_EQ(0UL, pVer->get_author());
    EXPECT_TRUE(pVer->get_commit_msg().isNull());
    EXPECT_EQ(Json::Value(Json::arrayValue), pVer->get_last_version());
    pVer->set_ns("note");
    pVer->set_author(kolvtest::kBob);
    pVer->set_version("abc");
    pVer->set_extra_info(Json::Value("hidden"));

    Json::Value jRet(Json::objectValue);
    ASSERT_TRUE(pVer->toJson(Json::Value(Json::objectValue), jRet));
    EXPECT_EQ(5u, jRet.size());
    for (const char *szKey : {"version", "author", "mtime", "commit_msg", "last_version"}) {
        EXPECT_TRUE(jRet.isMember(szKey)) << szKey;
    }
    EXPECT_EQ("bob", jRet["author"].asString());
    ASSERT_TRUE(pVer->toJson(kolvtest::ParseJson("{\"ns\":true,\"author\":false}"), jRet));
    EXPECT_EQ("note", jRet["ns"].asString());
    EXPECT_FALSE(jRet.isMember("author"));
    EXPECT_FALSE(jRet.isMember("extra_info"));

    Json::Value jNull;
    EXPECT_FALSE(pVer->toJson(Json::Value(Json::objectValue), jNull));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("!jRet.isObject()", OriginMsg());

    pVer->m_next = KOLVVessaObjectVersionAlloc();
    KOLVVessaObjectVersionClear(pVer);
    EXPECT_EQ("", pVer->get_ns());
    EXPECT_EQ(pVer->m_next, KOLVVessaObjectVersionNext(pVer));
    KOLVVessaObjectVersionFreeList(pVer);
}

} // namespace
