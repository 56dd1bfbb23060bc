/*
 * Copying objects: content, binary files by reference, parent and ACL of
 * the copy.
 */
#include <unistd.h>

#include "object/object_test_util.h"

namespace {

using kolvtest::OriginMsg;
using kolvtest::StackText;
using objtest::J;

class ObjectCopyTest : public objtest::ObjectStoreTest {};

TEST_F(ObjectCopyTest, AReaderGetsHisOwnCopyUnderHisRoot) {
    std::string strFile = m_sys.Path("/tmp/picture.bin");
    kolvtest::WriteFile(strFile, "binary content");
    Json::Value jExtra = J("{\"text\":{\"title\":\"orig\"},\"metatext\":{\"tag\":\"x\"},\"acl\":{\"enabled\":true,"
                           "\"hmx_user\":{\"1102\":{\"perm\":\"ro\"}}}}");
    jExtra["binary_files"][0]["name"] = "picture.bin";
    jExtra["binary_files"][0]["format"] = "raw";
    jExtra["binary_files"][0]["path"] = strFile;
    std::string strThumb = m_sys.Path("/tmp/thumb.png");
    kolvtest::WriteFile(strThumb, "thumbnail");
    jExtra["metabinary_files"][0]["name"] = "thumb";
    jExtra["metabinary_files"][0]["format"] = "png";
    jExtra["metabinary_files"][0]["path"] = strThumb;
    std::string strID = Create(kolvtest::kAlice, jExtra);
    ASSERT_FALSE(strID.empty()) << StackText();
    unlink(strThumb.c_str()); // the copy reads the source's own file

    Json::Value jParm = GetParm(strID, kolvtest::kBob);
    jParm["commit_msg"]["note"] = "copied";
    KOLV_VESSA_OBJECT copy;
    ASSERT_TRUE(copy.Copy(jParm)) << StackText();
    EXPECT_NE(strID, copy.get_id());
    EXPECT_EQ((unsigned long)kolvtest::kBob, copy.get_owner());
    EXPECT_EQ(KOLVVessaObjectDefaultID(kolvtest::kBob), copy.get_parent_id());
    EXPECT_EQ("orig", copy.get_text()["title"].asString());
    EXPECT_EQ("x", copy.get_metatext()["tag"].asString());
    EXPECT_EQ("copied", copy.get_commit_msg()["note"].asString());
    EXPECT_TRUE(copy.get_acl().empty()); // the source's grants are not copied
    std::string strOut;
    kolvtest::RunCommand("git -c safe.directory='*' -C '" + ObjectDir(copy.get_id()) +
                             "/version' show HEAD:binary/$(ls '" + ObjectDir(copy.get_id()) + "/version/binary')",
                         &strOut);
    EXPECT_EQ("binary content", strOut);
    std::string strMetaPath;
    ASSERT_TRUE(KOLVVessaGetMetaBinaryPath("note", copy.get_id(), "thumb", strMetaPath));
    EXPECT_EQ("thumbnail", kolvtest::ReadFile(strMetaPath));

    EXPECT_FALSE(copy.Copy(GetParm("1101_NOSUCH", kolvtest::kBob)));
    EXPECT_NE(std::string::npos, StackText().find("!PrepareCopyParm(jParm, jCreateParm)"));
}

TEST_F(ObjectCopyTest, TheOwnersCopyStaysBesideTheSource) {
    std::string strParent = Create(kolvtest::kAlice, J("{\"acl\":{\"enabled\":true,\"public\":{\"perm\":\"ro\"}}}"));
    ASSERT_FALSE(strParent.empty()) << StackText();
    Json::Value jChild = J("{\"text\":{\"t\":1}}");
    jChild["parent_id"] = strParent;
    std::string strChild = Create(kolvtest::kAlice, jChild);
    ASSERT_FALSE(strChild.empty()) << StackText();

    TRABCSzHash *pHash = TRABCSzHashAlloc(8);
    TRABCSzHashSetValue(&pHash, "ns", "note");
    TRABCSzHashSetValue(&pHash, "id", strChild.c_str());
    TRABCSzHashSetValue(&pHash, "requester", "1101");
    std::string strNewID, strNewVer;
    ASSERT_TRUE(KOLVVessaObjectCopy(pHash, strNewID, strNewVer)) << StackText();
    TRABCSzHashFree(pHash);

    KOLV_VESSA_OBJECT copy;
    Json::Value jGet = GetParm(strNewID, kolvtest::kAlice);
    jGet["field"]["acl"] = true;
    ASSERT_TRUE(copy.Get(jGet)) << StackText();
    EXPECT_EQ(strNewVer, copy.get_version());
    EXPECT_EQ(strParent, copy.get_parent_id());
    EXPECT_TRUE(copy.get_acl()["public"]["inherit"].asBool());

    EXPECT_FALSE(KOLVVessaObjectCopy(NULL, strNewID, strNewVer));
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_EQ("NULL == pParmHash", OriginMsg());
}

} // namespace
