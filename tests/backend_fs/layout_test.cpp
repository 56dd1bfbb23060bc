/*
 * Where the file store puts an object: path info, owner from the id, the
 * directories of a new object, refusal of names that would leave the
 * repository, field selection, and the operations not available yet.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "support/kolv_test_support.h"

namespace {

const char *const kNs = "note";
const std::string kId = "1101_0123456789ABCDEF";

Json::Value Parm(const std::string &strNs, const std::string &strId) {
    Json::Value j;
    j["ns"] = strNs;
    j["id"] = strId;
    return j;
}

bool IsDir(const std::string &strPath) {
    struct stat st;
    return 0 == stat(strPath.c_str(), &st) && S_ISDIR(st.st_mode);
}

class LayoutTest : public kolvtest::SysrootTest {
  protected:
    std::unique_ptr<KOLVVESSA_BACKEND_FS> m_fs{new KOLVVESSA_BACKEND_FS()};
};

TEST_F(LayoutTest, PathInfoOwnerFromTheIdFreshIdsAndInitChecks) {
    Json::Value jParm = Parm(kNs, kId);
    jParm["owner"] = 4242; // ignored: the id names the owner
    KOLV_VESSA_OBJECT object;
    ASSERT_TRUE(m_fs->mf_init(jParm, false, &object)) << kolvtest::StackText();
    EXPECT_EQ(kolvtest::kAlice, m_fs->m_jParm["owner"].asUInt());
    std::string strBase = m_sys.Repo() + "/note/" + kId;
    Json::Value jWant;
    jWant["id_path"] = strBase;
    jWant["tmp"] = m_sys.Repo() + "/@tmp/" + kId + "." + std::to_string(getpid());
    for (const char *szKey : {"basic.json", "metatext.json", "metabinary", "metabinary_info", "version", "version/text",
                              "version/binary", "version/binary_info", "git_info.json"})
        jWant[szKey] = strBase + "/" + szKey;
    EXPECT_EQ(jWant, m_fs->m_jPathInfo);
    // The record learns where it lives; nothing is made on disk.
    EXPECT_EQ(kolvtest::kAlice, object.get_owner());
    EXPECT_EQ(jWant, object.get_path_info());
    EXPECT_FALSE(IsDir(m_sys.Repo()));
    // A version checked out elsewhere moves only the three version folders.
    ASSERT_TRUE(m_fs->mf_GetPathInfoByGitBase("/scratch", m_fs->m_jPathInfo));
    EXPECT_EQ("/scratch/binary_info", m_fs->m_jPathInfo["version/binary_info"].asString());
    EXPECT_EQ(strBase + "/version", m_fs->m_jPathInfo["version"].asString());

    Json::Value jNoId;
    jNoId["ns"] = kNs;
    EXPECT_FAILS(m_fs->mf_init(jNoId), 1015, "!m_jParm.isMember(\"id\")");
    EXPECT_FAILS(m_fs->mf_init(jNoId, true), 1015, "!m_jParm.isMember(\"owner\")");
    // A requester makes the owner's existence matter; the system does not.
    jParm = Parm(kNs, "4242_00AA");
    ASSERT_TRUE(m_fs->mf_init(jParm)) << kolvtest::StackText();
    jParm["requester"] = kolvtest::kAlice;
    EXPECT_FAILS(m_fs->mf_init(jParm), 1022, "!KOLVVessaCheckUID((uid_t)jParm[\"owner\"].asInt64())");

    // A create makes a fresh id, or keeps the one given unchecked, and the
    // owner's folders.
    jParm = jNoId;
    jParm["owner"] = kolvtest::kAlice;
    ASSERT_TRUE(m_fs->mf_init(jParm, true)) << kolvtest::StackText();
    std::string strId = m_fs->m_jParm["id"].asString();
    EXPECT_TRUE(std::regex_match(strId, std::regex("1101_[0-9A-F]{96}"))) << strId;
    EXPECT_FALSE(IsDir(m_fs->m_jPathInfo["id_path"].asString()));
    ASSERT_TRUE(m_fs->mf_CreatePath()) << kolvtest::StackText();
    for (const char *szKey : {"id_path", "version", "version/text", "version/binary", "version/binary_info",
                              "metabinary", "metabinary_info"}) {
        EXPECT_TRUE(IsDir(m_fs->m_jPathInfo[szKey].asString())) << szKey; // owners: hostile_test.cpp
    }
    jParm["id"] = kId;
    ASSERT_TRUE(m_fs->mf_init(jParm, true));
    EXPECT_EQ(kId, m_fs->m_jParm["id"].asString());
}

TEST_F(LayoutTest, NamesThatLeaveTheRepositoryAreRefusedOthersFound) {
    const char *szNsCond = "!jParm[\"ns\"].isString() || !kolv::IsSafePathName(jParm[\"ns\"].asString())";
    const char *szIdCond = "!jParm[\"id\"].isString() || !kolv::IsSafePathName(jParm[\"id\"].asString())";
    for (const char *szNs : {"..", "a/b", ""}) {
        Json::Value jParm = Parm(szNs, kId);
        EXPECT_FAILS(m_fs->mf_init(jParm), 1007, szNsCond);
        jParm["owner"] = kolvtest::kAlice;
        EXPECT_FAILS(m_fs->mf_init(jParm, true), 1007, szNsCond);
    }
    for (const char *szId : {"1026_../../x", "1026_a/b"}) {
        Json::Value jParm = Parm(kNs, szId);
        EXPECT_FAILS(m_fs->mf_init(jParm), 1007, szIdCond);
        jParm["owner"] = 1026;
        EXPECT_FALSE(m_fs->mf_init(jParm, true)) << szId;
        EXPECT_FALSE(m_fs->mf_CreatePath());
    }
    // Another object named in a binary input is found in the same
    // namespace and held to the same rule.
    ASSERT_TRUE(m_fs->mf_init(Parm(kNs, kId)));
    Json::Value jIn, jOther;
    jIn["id"] = "1101_../../etc";
    jIn["name"] = "f";
    EXPECT_FAILS(m_fs->mf_GetBinaryObjectPath(jIn, jOther), 1007,
                 "!jIn[\"id\"].isString() || !kolv::IsSafePathName(jIn[\"id\"].asString())");
    EXPECT_FALSE(IsDir(m_sys.Repo()));
    EXPECT_FALSE(IsDir(m_sys.Path("/volume1/x")));

    jIn["id"] = "1102_BEEF";
    ASSERT_TRUE(m_fs->mf_GetBinaryObjectPath(jIn, jOther)) << kolvtest::StackText();
    EXPECT_EQ(m_sys.Repo() + "/note/1102_BEEF/version/binary", jOther["version/binary"].asString());
    jIn["id"] = "bob_BEEF";
    EXPECT_FAILS(m_fs->mf_GetBinaryObjectPath(jIn, jOther), 1015, "uid == UID_ERR");
    jIn.removeMember("name");
    EXPECT_FAILS(m_fs->mf_GetBinaryObjectPath(jIn, jOther), 1015, "!jIn.isMember(\"name\")");

    // A meta binary file's info record sits under the same encoded name.
    std::string strFile = m_fs->m_jPathInfo["metabinary"].asString() + "/QUJD";
    std::string strInfo;
    ASSERT_TRUE(m_fs->mf_GetBinaryInfoPath(strFile, strInfo));
    EXPECT_EQ(m_fs->m_jPathInfo["metabinary_info"].asString() + "/QUJD", strInfo);
    std::string strBare = "QUJD";
    EXPECT_FAILS(m_fs->mf_GetBinaryInfoPath(strBare, strInfo), 1015,
                 "cannot find the binary info path, binary file=QUJD");
}

TEST_F(LayoutTest, FieldSelectionPicksStorageUnits) {
    // The units a read with selection szField needs, a write with members szSet saves.
    auto units = [&](const char *szField, bool blSave) {
        Json::Value jParm = kolvtest::ParseJson(blSave ? szField : std::string("{\"field\":") + szField + "}");
        jParm["ns"] = kNs;
        jParm["id"] = kId;
        EXPECT_TRUE(m_fs->mf_init(jParm)) << kolvtest::StackText();
        std::string str;
        for (const char *szUnit : {"basic.json", "metatext.json", "metabinary", "metabinary_info", "version"})
            if (blSave ? m_fs->mf_NeedToSave(szUnit) : m_fs->mf_NeedToGet(szUnit)) str += std::string(szUnit) + " ";
        return str;
    };
    // No selection: everything; units not mentioned fall back to the table.
    EXPECT_EQ("basic.json metatext.json metabinary metabinary_info version ", units("null", false));
    EXPECT_TRUE(m_fs->mf_NeedToGet("git_info.json"));
    EXPECT_FALSE(m_fs->mf_NeedToGet(""));
    EXPECT_FALSE(m_fs->mf_NeedToGet(NULL));
    EXPECT_EQ("basic.json version ", units(R"({"acl":true})", false));
    // A nested selection counts when any boolean inside it is true; what is
    // neither boolean nor object is skipped.
    EXPECT_EQ("basic.json ",
              units(R"({"acl":true,"ver":false,"mtime":false,"text":{"a":false,"b":{"c":false}}})", false));
    EXPECT_EQ("basic.json version ", units(R"({"acl":true,"ver":false,"mtime":false,"text":{"b":{"c":true}}})", false));
    EXPECT_EQ("basic.json metabinary_info version ",
              units(R"({"acl":true,"metatext":1,"metabinary_info":{"x":true}})", false));
    // Writes: only members that are fields count.
    EXPECT_EQ("metatext.json metabinary ",
              units(R"({"metatext":{"k":1},"binary_files":[],"metabinary_files":[]})", true));
}

TEST_F(LayoutTest, ResetPathPermissionGivesTheWholeTreeToTheOwner) {
    if (0 != geteuid()) GTEST_SKIP() << "needs root to give files away";
    std::string strTop = m_sys.Path("/tree");
    ASSERT_EQ(0, kolvtest::RunCommand("mkdir -p '" + strTop + "/a/b'"));
    kolvtest::WriteFile(strTop + "/a/b/file", "x"); // made by root
    std::string strOutside = m_sys.Path("/outside");
    kolvtest::WriteFile(strOutside, "y");
    ASSERT_EQ(0, symlink(strOutside.c_str(), (strTop + "/a/link").c_str()));
    ASSERT_TRUE(m_fs->mf_init(Parm(kNs, "1102_AA")));
    EXPECT_TRUE(m_fs->mf_ResetPathPermission(strTop));
    for (const char *szRel : {"", "/a", "/a/b", "/a/b/file", "/a/link"}) {
        struct stat st;
        ASSERT_EQ(0, lstat((strTop + szRel).c_str(), &st)) << szRel;
        EXPECT_EQ(kolvtest::kBob, st.st_uid) << szRel;
    }
    struct stat stTarget;
    ASSERT_EQ(0, stat(strOutside.c_str(), &stTarget));
    EXPECT_EQ(0u, stTarget.st_uid); // a link's target is left alone
}

} // namespace
