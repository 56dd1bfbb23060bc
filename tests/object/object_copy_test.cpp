/*
 * Copying objects: content, binary files by reference, parent and ACL of
 * the copy.
 */
#include <unistd.h>

#include "object/object_test_util.h"

namespace {

using kolvtest::StackText;
using objtest::J;

class ObjectCopyTest : public objtest::ObjectStoreTest {};

TEST_F(ObjectCopyTest, AReaderCopiesUnderHisRootTheOwnerBesideTheSource) {
    std::string strFile = m_sys.Path("/tmp/picture.bin"), strThumb = m_sys.Path("/tmp/thumb.png");
    kolvtest::WriteFile(strFile, "binary content");
    kolvtest::WriteFile(strThumb, "thumbnail");
    std::string strParent = Create(kolvtest::kAlice, J("{\"acl\":{\"enabled\":true,\"public\":{\"perm\":\"ro\"}}}"));
    Json::Value jExtra = J(R"({"text":{"title":"orig"},"metatext":{"tag":"x"},
        "acl":{"enabled":true,"hmx_user":{"1102":{"perm":"ro"}}},
        "binary_files":[{"name":"picture.bin","format":"raw","path":")" +
                           strFile + R"("}],
        "metabinary_files":[{"name":"thumb","format":"png","path":")" +
                           strThumb + R"("}]})");
    jExtra["parent_id"] = strParent;
    std::string strID = Create(kolvtest::kAlice, jExtra);
    unlink(strThumb.c_str()); // the copy reads the source's own file

    Json::Value jParm = GetParm(strID, kolvtest::kBob);
    jParm["commit_msg"]["note"] = "copied";
    KOLV_VESSA_OBJECT copy;
    ASSERT_TRUE(copy.Copy(jParm)) << StackText();
    EXPECT_NE(strID, copy.get_id());
    EXPECT_EQ((unsigned long)kolvtest::kBob, copy.get_owner());
    EXPECT_EQ(KOLVVessaObjectDefaultID(kolvtest::kBob), copy.get_parent_id());
    // (Text and file infos equal the source's: tests/backend_fs/fault_test.cpp.)
    EXPECT_EQ("copied", copy.get_commit_msg()["note"].asString());
    EXPECT_TRUE(copy.get_acl().empty()); // the source's grants are not copied
    EXPECT_EQ("binary content", Git(copy.get_id(), "show HEAD:binary/" + Enc("picture.bin")));
    std::string strMetaPath;
    ASSERT_TRUE(KOLVVessaGetMetaBinaryPath("note", copy.get_id(), "thumb", strMetaPath));
    EXPECT_EQ("thumbnail", kolvtest::ReadFile(strMetaPath));
    EXPECT_FALSE(copy.Copy(GetParm("1101_NOSUCH", kolvtest::kBob)));

    // The owner's copy, through the string-hash entry, stays under the
    // source's parent and inherits its grants.
    kolvtest::Hash hash({{"ns", "note"}, {"id", strID}, {"requester", "1101"}});
    std::string strNewID, strNewVer;
    ASSERT_TRUE(KOLVVessaObjectCopy(hash.get(), strNewID, strNewVer)) << StackText();
    Json::Value jGet = GetParm(strNewID, kolvtest::kAlice);
    jGet["field"]["acl"] = true;
    ASSERT_TRUE(copy.Get(jGet)) << StackText();
    EXPECT_EQ(strNewVer, copy.get_version());
    EXPECT_EQ(strParent, copy.get_parent_id());
    EXPECT_TRUE(copy.get_acl()["public"]["inherit"].asBool());
    EXPECT_FAILS(KOLVVessaObjectCopy(NULL, strNewID, strNewVer), 1015, "NULL == pParmHash");
}

} // namespace
