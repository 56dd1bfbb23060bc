/*
 * The object and version records: life cycle, JSON forms, the plain
 * accessor family's argument reports, and the backend registry.
 */
#include <kolvplatform/kolv_platform.h>

#include <memory>
#include <string>
#include <vector>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "backend_pgsql/kolvvessa_backend_pgsql.h"
#include "kolvvessa/kolvvessa.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ParseJson;
using Names = std::vector<std::string>;

TEST(ObjectRecord, ClearResetsOwnerToUidErrAndKeepsPermAndPathInfo) {
    KOLV_VESSA_OBJECT obj;
    EXPECT_EQ(0UL, obj.get_owner());
    obj.set_ns("note");
    obj.set_owner(kolvtest::kAlice);
    obj.set_perm("rw");
    Json::Value jPath = ParseJson(R"({"id_path":"/repo/note/x"})");
    obj.set_path_info(jPath);
    obj.set_text(ParseJson(R"({"a":1})"));
    obj.clear();
    EXPECT_EQ((unsigned long)UID_ERR, obj.get_owner());
    EXPECT_EQ("rw", obj.get_perm());
    EXPECT_EQ(jPath, obj.get_path_info());
    EXPECT_EQ("", obj.get_ns());
    EXPECT_TRUE(obj.get_text().isNull());

    // A list owns its chain (the sanitizer builds catch a leak or a double free).
    KOLV_VESSA_OBJECT_LIST list;
    list.m_head = KOLVVessaObjectAlloc();
    list.m_head->m_next = KOLVVessaObjectAlloc();
    EXPECT_EQ(list.m_head->m_next, KOLVVessaObjectNext(list.m_head));
    list.clear();
    EXPECT_EQ(nullptr, list.m_head);
    KOLVVessaObjectFreeList(NULL);
}

class RecordJson : public kolvtest::SysrootTest {};

TEST_F(RecordJson, SelectionsTheAclRuleAndTheVersionForm) {
    KOLV_VESSA_OBJECT obj;
    obj.set_ns("note");
    obj.set_owner(kolvtest::kAlice);
    obj.set_text(ParseJson(R"({"title":"t","body":"b"})"));
    obj.set_acl(ParseJson(R"({"enabled":true})"));
    obj.set_commit_msg(ParseJson(R"({"m":1})"));
    obj.set_ctime(5);
    Json::Value jRet = ParseJson(R"({"stale":1})");
    ASSERT_TRUE(obj.toJson(Json::Value(Json::objectValue), jRet));
    EXPECT_EQ(Names({"category", "ctime", "id", "mtime", "ns", "owner", "parent_id", "perm", "version"}),
              jRet.getMemberNames()); // nothing else, nothing stale
    EXPECT_EQ("alice", jRet["owner"]["display_name"].asString());
    EXPECT_EQ(kolvtest::kAlice, jRet["owner"]["uid"].asUInt());
    EXPECT_EQ(5, jRet["ctime"].asInt64());

    // Switched off fields go; sub-selections copy only what is asked and present.
    ASSERT_TRUE(obj.toJson(
        ParseJson(R"({"ns":false,"owner":false,"commit_msg":true,"text":{"title":true,"body":false,"none":true}})"),
        jRet));
    EXPECT_FALSE(jRet.isMember("ns") || jRet.isMember("owner"));
    EXPECT_EQ(ParseJson(R"({"title":"t"})"), jRet["text"]);
    EXPECT_EQ(1, jRet["commit_msg"]["m"].asInt());
    obj.set_owner(4242); // a deleted user still gets a display name
    ASSERT_TRUE(obj.toJson(Json::Value(Json::objectValue), jRet));
    EXPECT_EQ("Deleted user #4242", jRet["owner"]["display_name"].asString());

    // The ACL goes to writers only, unless forced.
    Json::Value jSel = ParseJson(R"({"acl":true})");
    obj.set_perm("ro");
    ASSERT_TRUE(obj.toJson(jSel, jRet));
    EXPECT_FALSE(jRet.isMember("acl"));
    ASSERT_TRUE(obj.toJson(jSel, jRet, true));
    EXPECT_TRUE(jRet["acl"]["enabled"].asBool());
    obj.set_perm("rw");
    ASSERT_TRUE(obj.toJson(jSel, jRet));
    EXPECT_TRUE(jRet.isMember("acl"));
    Json::Value jNotObject(Json::arrayValue);
    EXPECT_FAILS(obj.toJson(jSel, jNotObject), 1015, "!jRet.isObject()");

    // A version record: its five members by default, the author by name.
    KOLV_VESSA_OBJECT_VERSION *pVer = KOLVVessaObjectVersionAlloc();
    ASSERT_NE(nullptr, pVer);
    EXPECT_EQ(Json::Value(Json::arrayValue), pVer->get_last_version());
    pVer->set_ns("note");
    pVer->set_author(kolvtest::kBob);
    pVer->set_extra_info(Json::Value("hidden"));
    jRet = Json::Value(Json::objectValue);
    ASSERT_TRUE(pVer->toJson(Json::Value(Json::objectValue), jRet));
    EXPECT_EQ(Names({"author", "commit_msg", "last_version", "mtime", "version"}), jRet.getMemberNames());
    EXPECT_EQ("bob", jRet["author"].asString());
    ASSERT_TRUE(pVer->toJson(ParseJson(R"({"ns":true,"author":false})"), jRet));
    EXPECT_EQ("note", jRet["ns"].asString());
    EXPECT_FALSE(jRet.isMember("author") || jRet.isMember("extra_info"));
    EXPECT_FAILS(pVer->toJson(Json::Value(Json::objectValue), jNotObject), 1015, "!jRet.isObject()");
    pVer->m_next = KOLVVessaObjectVersionAlloc();
    KOLVVessaObjectVersionClear(pVer);
    EXPECT_EQ("", pVer->get_ns());
    EXPECT_EQ(pVer->m_next, KOLVVessaObjectVersionNext(pVer));
    KOLVVessaObjectVersionFreeList(pVer);
}

TEST(ObjectAccessors, ReportBadArgumentsOnThePlatformStackAndTruncate) {
    KOLV_VESSA_OBJECT obj;
    obj.set_id("1101_ABCDEF");
    char szBuf[64];
    EXPECT_EQ(-1, KOLVVessaObjectItemGetID(NULL, sizeof(szBuf), &obj));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_STREQ("include/kolvvessaobjectgetter", TRABCErrorGetFile());
    EXPECT_EQ(-1, KOLVVessaObjectItemGetID(szBuf, 0, &obj));
    EXPECT_EQ(-1, KOLVVessaObjectItemGetID(szBuf, sizeof(szBuf), NULL));
    unsigned long owner = 1;
    EXPECT_EQ(-1, KOLVVessaObjectItemGetOwner(NULL, &obj));
    EXPECT_EQ(-1, KOLVVessaObjectItemSetNameSpace(&obj, NULL));
    EXPECT_EQ(ERR_INVALID_ARG, TRABCErrGet());
    EXPECT_STREQ("include/kolvvessaobjectsetter", TRABCErrorGetFile());

    // A short buffer gets a truncated, terminated text, and success.
    char szShort[5];
    EXPECT_EQ(0, KOLVVessaObjectItemGetID(szShort, sizeof(szShort), &obj));
    EXPECT_STREQ("1101", szShort);
    ASSERT_EQ(0, KOLVVessaObjectItemSetACL(&obj, "{\"enabled\":false}")); // JSON text is parsed
    EXPECT_EQ(ParseJson(R"({"enabled":false})"), obj.get_acl());
    EXPECT_EQ(0, KOLVVessaObjectItemGetOwner(&owner, &obj));
    EXPECT_EQ(0UL, owner);
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

} // namespace
