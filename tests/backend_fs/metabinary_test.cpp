/*
 * The meta binary store: files stored under their encoded names with an
 * info record each, replaced only by newer requests, deleted by newer
 * requests, and listed back into the object record.
 */
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "backend_fs/kolvvessaBackend_fs.h"
#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "kolvvessa/kolvvessa_object.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::OriginMsg;
using kolvtest::ParseJson;
using kolvtest::ReadFile;

const char *const kMd5Hello = "5d41402abc4b2a76b9719d911017c592";
const char *const kMd5World = "7d793037a0760186574b0282f2f435e7";

class MetaBinaryTest : public kolvtest::SysrootTest {
  protected:
    void SetUp() override {
        KOLVVESSA_BACKEND_FS fs;
        Json::Value jParm;
        jParm["ns"] = "note";
        jParm["owner"] = kolvtest::kAlice;
        ASSERT_TRUE(fs.mf_init(jParm, true)) << kolvtest::StackText();
        ASSERT_TRUE(fs.mf_CreatePath()) << kolvtest::StackText();
        m_strId = fs.m_jParm["id"].asString();
        m_jPathInfo = fs.m_jPathInfo;
    }

    std::string Source(const std::string &strName, const std::string &strContent) const {
        std::string strPath = m_sys.Path("/" + strName);
        kolvtest::WriteFile(strPath, strContent);
        return strPath;
    }

    static Json::Value Item(const std::string &strName, const std::string &strFormat, const std::string &strPath) {
        Json::Value j;
        j["name"] = strName;
        j["format"] = strFormat;
        if (!strPath.empty()) j["path"] = strPath;
        return j;
    }

    bool SetItems(long long mtime, const Json::Value &jItems) const {
        Json::Value jParm;
        jParm["ns"] = "note";
        jParm["id"] = m_strId;
        jParm["version"] = "";
        jParm["mtime"] = (Json::Int64)mtime;
        jParm["metabinary_files"] = jItems;
        std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
        std::string strVer;
        return pFs->Set(jParm, strVer);
    }

    bool Set(long long mtime, const Json::Value &jItem1, const Json::Value &jItem2 = Json::Value()) const {
        Json::Value jItems(Json::arrayValue);
        jItems.append(jItem1);
        if (!jItem2.isNull()) jItems.append(jItem2);
        return SetItems(mtime, jItems);
    }

    /* The stored file and its record, by the encoding callers use. */
    std::string Encoded(const std::string &strName) const {
        std::string str;
        EXPECT_TRUE(KOLVVessaEncode(strName, str));
        return str;
    }
    std::string FileOf(const std::string &strName) const {
        return m_jPathInfo["metabinary"].asString() + "/" + Encoded(strName);
    }
    Json::Value InfoOf(const std::string &strName) const {
        return ParseJson(ReadFile(m_jPathInfo["metabinary_info"].asString() + "/" + Encoded(strName)));
    }

    Json::Value ReadBack(const Json::Value &jSelection) const {
        Json::Value jGet;
        jGet["ns"] = "note";
        jGet["id"] = m_strId;
        jGet["field"]["ver"] = false;
        jGet["field"]["mtime"] = false;
        jGet["field"]["metabinary_info"] = jSelection;
        std::unique_ptr<KOLVVESSA_BACKEND_OP> pFs(CreateFsBackend());
        KOLV_VESSA_OBJECT object;
        EXPECT_TRUE(pFs->Get(jGet, &object)) << kolvtest::StackText();
        return object.get_metabinary_info();
    }

    std::string m_strId;
    Json::Value m_jPathInfo;
};

TEST_F(MetaBinaryTest, StoreReplaceRefuseAndDeleteByTime) {
    ASSERT_TRUE(Set(100, Item("a/b", "raw", Source("hello", "hello")))) << kolvtest::StackText();
    EXPECT_EQ("hello", ReadFile(FileOf("a/b")));
    Json::Value jInfo = InfoOf("a/b");
    EXPECT_EQ("a/b", jInfo["name"].asString());
    EXPECT_EQ("raw", jInfo["format"].asString());
    EXPECT_EQ(kMd5Hello, jInfo["md5"].asString());
    EXPECT_EQ(5, jInfo["size"].asInt64());
    EXPECT_EQ(100, jInfo["mtime"].asInt64());

    // Newer replaces; older and equally old requests leave it alone.
    ASSERT_TRUE(Set(200, Item("a/b", "text/plain", Source("world", "world"))));
    EXPECT_EQ("world", ReadFile(FileOf("a/b")));
    EXPECT_EQ(kMd5World, InfoOf("a/b")["md5"].asString());
    EXPECT_EQ("text/plain", InfoOf("a/b")["format"].asString());
    ASSERT_TRUE(Set(150, Item("a/b", "raw", Source("old", "old"))));
    ASSERT_TRUE(Set(200, Item("a/b", "raw", Source("same", "same"))));
    EXPECT_EQ("world", ReadFile(FileOf("a/b")));
    EXPECT_EQ(200, InfoOf("a/b")["mtime"].asInt64());

    // A delete obeys the same rule.
    ASSERT_TRUE(Set(199, Item("a/b", "delete", "")));
    EXPECT_TRUE(TRABCFileExist(FileOf("a/b").c_str()));
    ASSERT_TRUE(Set(300, Item("a/b", "delete", "")));
    EXPECT_FALSE(TRABCFileExist(FileOf("a/b").c_str()));
    EXPECT_EQ(0u, ReadBack(true).size());
    // Deleting what is not there is no failure.
    EXPECT_TRUE(Set(400, Item("a/b", "delete", ""))) << kolvtest::StackText();
}

TEST_F(MetaBinaryTest, NamesAreEncodedAndListedBack) {
    std::string strSrc = Source("src", "hello");
    ASSERT_TRUE(Set(10, Item("a/b", "raw", strSrc), Item("..", "raw", strSrc))) << kolvtest::StackText();
    ASSERT_TRUE(Set(11, Item("\xC3\xA9\xE6\x96\x87", "raw", strSrc))) << kolvtest::StackText(); // "é文"
    for (const char *szName : {"a/b", "..", "\xC3\xA9\xE6\x96\x87"}) {
        std::string strEnc = Encoded(szName);
        EXPECT_EQ(std::string::npos, strEnc.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ{}")) << strEnc;
        EXPECT_EQ("hello", ReadFile(FileOf(szName))) << szName;
        // The repository's own lookup of a meta binary file agrees.
        std::string strPath;
        EXPECT_TRUE(KOLVVessaGetMetaBinaryPath("note", m_strId, szName, strPath));
        EXPECT_EQ(FileOf(szName), strPath);
    }

    Json::Value jAll = ReadBack(true);
    ASSERT_EQ(3u, jAll.size());
    EXPECT_EQ(InfoOf("\xC3\xA9\xE6\x96\x87"), jAll["\xC3\xA9\xE6\x96\x87"]);
    EXPECT_EQ(kMd5Hello, jAll[".."]["md5"].asString());

    // A selection object picks names; the record reads back by name.
    Json::Value jSel;
    jSel[".."] = true;
    Json::Value jSome = ReadBack(jSel);
    ASSERT_EQ(1u, jSome.size());
    EXPECT_TRUE(jSome.isMember(".."));

    KOLVVESSA_BACKEND_FS fs;
    Json::Value jParm;
    jParm["ns"] = "note";
    jParm["id"] = m_strId;
    ASSERT_TRUE(fs.mf_init(jParm));
    Json::Value jInfo;
    ASSERT_TRUE(fs.mf_GetMetaBinaryInfoByName("a/b", jInfo));
    EXPECT_EQ(jAll["a/b"], jInfo);
    EXPECT_FALSE(fs.mf_GetMetaBinaryInfoByName("missing", jInfo));
    EXPECT_EQ(1008, KOLVVessaErrCodeGet());
    EXPECT_EQ("!TRABCFileExist(strInfoPath.c_str())", OriginMsg());

    // blAll ignores the selection.
    fs.m_jParm["field"]["metabinary_info"] = jSel;
    KOLV_VESSA_OBJECT object;
    ASSERT_TRUE(fs.mf_GetMetaBinaryInfo(&object, true));
    EXPECT_EQ(3u, object.get_metabinary_info().size());
}

TEST_F(MetaBinaryTest, MalformedItemsTouchNothing) {
    std::string strSrc = Source("src", "hello");
    Json::Value jNoPath = Item("b", "raw", "");
    EXPECT_FALSE(Set(10, Item("a", "raw", strSrc), jNoPath));
    EXPECT_EQ(1007, KOLVVessaErrCodeGet());
    EXPECT_EQ("!blDelete && (!jItem[\"path\"].isString() || jItem[\"path\"].asString().empty())", OriginMsg());
    EXPECT_FALSE(TRABCFileExist(FileOf("a").c_str()));

    EXPECT_FALSE(Set(10, Item("a", "raw", strSrc), Item("a", "delete", "")));
    EXPECT_EQ(1007, KOLVVessaErrCodeGet());
    EXPECT_EQ("jSeen.isMember(jItem[\"name\"].asString())", OriginMsg());

    EXPECT_FALSE(Set(10, Item("", "raw", strSrc)));
    EXPECT_EQ("!jItem[\"name\"].isString() || jItem[\"name\"].asString().empty()", OriginMsg());
    EXPECT_FALSE(TRABCFileExist(FileOf("a").c_str()));

    // A source that cannot be read fails the request and stores nothing.
    EXPECT_FALSE(Set(10, Item("a", "raw", m_sys.Path("/absent"))));
    EXPECT_EQ(1000, KOLVVessaErrCodeGet());
    EXPECT_EQ("0 > KOLVFileCopy(strSrc.c_str(), item.strFile.c_str())", OriginMsg());
    EXPECT_EQ(0u, ReadBack(true).size());
}

} // namespace
