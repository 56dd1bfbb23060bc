// Object ids: their form, uniqueness across calls and processes, the root
// id, and reading the owner back.
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "support/kolv_test_support.h"

namespace {

using kolvtest::ErrIs;

class ObjectId : public kolvtest::SysrootTest {};

TEST_F(ObjectId, FormAndUniquenessAcrossCallsAndProcesses) {
    std::regex reId("1026_[0-9A-F]{96}");
    std::set<std::string> ids;
    for (int i = 0; i < 10000; ++i) {
        std::string strID = KOLVVessaObjectGenerateID(1026);
        ASSERT_TRUE(std::regex_match(strID, reId)) << strID;
        ASSERT_TRUE(ids.insert(strID).second) << "repeated " << strID;
    }
    EXPECT_TRUE(std::regex_match(KOLVVessaObjectGenerateID(4294967294u), std::regex("4294967294_[0-9A-F]{96}")));
    // Two children forked now inherit this process's counter and, within
    // the same second, its seed: only the process id and the clock differ.
    for (int child = 0; child < 2; ++child) {
        std::string strFile = m_sys.Path("/ids" + std::to_string(child));
        if (0 == fork()) {
            std::ofstream out(strFile);
            for (int i = 0; i < 50; ++i)
                out << KOLVVessaObjectGenerateID(1026) << "\n";
            out.close();
            _exit(0);
        }
        wait(nullptr);
        std::istringstream ssIds(kolvtest::ReadFile(strFile));
        int nLines = 0;
        for (std::string strLine; std::getline(ssIds, strLine); ++nLines)
            EXPECT_TRUE(ids.insert(strLine).second) << "repeated " << strLine;
        EXPECT_EQ(50, nLines);
    }
}

TEST_F(ObjectId, RootIdOwnerExtractionAndValidity) {
    EXPECT_EQ("1026_#00000000", KOLVVessaObjectDefaultID(1026));
    EXPECT_EQ("4294967295_#00000000", KOLVVessaObjectDefaultID(4294967295u));
    EXPECT_EQ(1026, KOLVVessaExtractUid("1026_#00000000"));
    EXPECT_EQ(1026u, KOLVVessaObjectGetOwnerByID("1026_#00000000"));
    std::string strID = KOLVVessaObjectGenerateID(1101);
    EXPECT_EQ(1101, KOLVVessaExtractUid(strID.c_str()));
    EXPECT_EQ(1101u, KOLVVessaObjectGetOwnerByID(strID));

    EXPECT_EQ(-1, KOLVVessaExtractUid(NULL));
    EXPECT_TRUE(ErrIs(1015, "NULL == id"));
    // 31 characters before the "_" still fit; 32 without one do not.
    EXPECT_EQ(1026, KOLVVessaExtractUid("0000000000000000000000000001026_x"));
    EXPECT_EQ(1026, KOLVVessaExtractUid("0000000000000000000000000001026"));
    EXPECT_EQ(-1, KOLVVessaExtractUid("00000000000000000000000000001026"));
    EXPECT_TRUE(ErrIs(1007, "32 <= i"));
    EXPECT_EQ(-1, KOLVVessaExtractUid("12x_ABC"));
    EXPECT_TRUE(ErrIs(1007, "endPtr && 0 != *endPtr"));
    EXPECT_EQ(0, KOLVVessaExtractUid(""));
    EXPECT_EQ(0, KOLVVessaExtractUid("_1026"));

    EXPECT_EQ(UID_ERR, KOLVVessaObjectGetOwnerByID("abc_1"));
    EXPECT_TRUE(ErrIs(1007, "Bad ID [abc_1]"));
    EXPECT_EQ(0u, KOLVVessaObjectGetOwnerByID(""));
    EXPECT_EQ(0u, KOLVVessaObjectGetOwnerByID("_x"));
    // No length limit, unlike KOLVVessaExtractUid.
    EXPECT_EQ(7u, KOLVVessaObjectGetOwnerByID(std::string(40, '0') + "7_x"));
    EXPECT_EQ(1026u, KOLVVessaObjectGetOwnerByID("1026"));

    // Validity: the owner decides, nothing of the id's tail is checked.
    EXPECT_TRUE(KOLVVessaObjectIDIsValid("1101_not-hex"));
    EXPECT_FAILS(KOLVVessaObjectIDIsValid(NULL), 1015, "NULL == szID");
    EXPECT_FAILS(KOLVVessaObjectIDIsValid("abc_1"), 1007, "Bad ID [abc_1]");
    EXPECT_FAILS(KOLVVessaObjectIDIsValid(KOLVVessaObjectDefaultID(kolvtest::kCarol).c_str()), 1030,
                 "jsInfo[\"expire\"].asBool()");
}

} // namespace
