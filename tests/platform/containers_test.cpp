/* The string list and the string hash. */
#include <gtest/gtest.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

namespace {

TEST(SzList, GrowsCopiesAndRefusesBadArguments) {
    TRABCSzList *pList = TRABCSzListAlloc(1);
    ASSERT_NE(nullptr, pList);
    char szText[] = "0";
    ASSERT_EQ(1, TRABCSzListPush(&pList, szText));
    szText[0] = 'x'; // the list holds a copy
    for (int i = 1; i < 1000; ++i)
        ASSERT_EQ(i + 1, TRABCSzListPush(&pList, std::to_string(i).c_str()));
    ASSERT_EQ(1000, TRABCSzListCount(pList));
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(std::to_string(i), TRABCSzListGet(pList, i));
    EXPECT_EQ(nullptr, TRABCSzListGet(pList, 1000));
    EXPECT_EQ(nullptr, TRABCSzListGet(pList, -1));
    TRABCSzList *pNull = nullptr;
    EXPECT_LT(TRABCSzListPush(&pNull, "a"), 0);
    EXPECT_LT(TRABCSzListPush(&pList, nullptr), 0);
    EXPECT_EQ(nullptr, TRABCSzListAlloc(0));
    EXPECT_EQ(0, TRABCSzListCount(nullptr));
    TRABCSzListFree(pList);
    TRABCSzListFree(nullptr);
}

TEST(SzHash, GrowsKeepsValuesAndEnumeratesKeysInInsertionOrder) {
    TRABCSzHash *pHash = TRABCSzHashAlloc(1);
    ASSERT_NE(nullptr, pHash);
    ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, "", "a value longer than any small-string buffer"));
    const char *szValue = TRABCSzHashGetValue(pHash, "");
    const int n = 5000;
    // Keys in an order that is neither sorted nor hash order.
    for (int i = 0; i < n; ++i) {
        std::string strKey = "k" + std::to_string((i * 7919) % n);
        ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, strKey.c_str(), std::to_string(i).c_str()));
    }
    ASSERT_EQ(n + 1, TRABCSzHashCount(pHash));
    EXPECT_EQ(szValue, TRABCSzHashGetValue(pHash, "")); // still valid after growth
    // Replacing a value keeps the key where it was.
    ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, "k0", "zero"));
    EXPECT_EQ(n + 1, TRABCSzHashCount(pHash));
    EXPECT_STREQ("zero", TRABCSzHashGetValue(pHash, "k0"));
    EXPECT_STREQ("1", TRABCSzHashGetValue(pHash, "k2919"));
    EXPECT_EQ(nullptr, TRABCSzHashGetValue(pHash, "missing"));

    TRABCSzList *pList = TRABCSzListAlloc(1);
    ASSERT_EQ(1, TRABCSzListPush(&pList, "before"));
    ASSERT_EQ(n + 1, TRABCSzHashEnumKey(pHash, &pList)); // appended
    ASSERT_EQ(n + 2, TRABCSzListCount(pList));
    EXPECT_STREQ("before", TRABCSzListGet(pList, 0));
    EXPECT_STREQ("", TRABCSzListGet(pList, 1));
    for (int i = 0; i < n; ++i)
        EXPECT_EQ("k" + std::to_string((i * 7919) % n), TRABCSzListGet(pList, i + 2));

    EXPECT_LT(TRABCSzHashSetValue(&pHash, nullptr, "v"), 0);
    EXPECT_LT(TRABCSzHashSetValue(&pHash, "k", nullptr), 0);
    EXPECT_EQ(nullptr, TRABCSzHashGetValue(nullptr, "k"));
    EXPECT_LT(TRABCSzHashEnumKey(nullptr, &pList), 0);
    EXPECT_LT(TRABCSzHashEnumKey(pHash, nullptr), 0);
    TRABCSzListFree(pList);
    TRABCSzHashFree(pHash);
    TRABCSzHashFree(nullptr);
}

} // namespace
