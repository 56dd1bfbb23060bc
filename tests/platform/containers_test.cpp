/* The string list and the string hash. */
#include <gtest/gtest.h>
#include <kolvplatform/kolv_platform.h>

#include <string>

namespace {

TEST(SzList, GrowsPastItsCapacityAndKeepsOrder) {
    TRABCSzList *pList = TRABCSzListAlloc(1);
    ASSERT_NE(nullptr, pList);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(i + 1, TRABCSzListPush(&pList, std::to_string(i).c_str()));
    ASSERT_EQ(1000, TRABCSzListCount(pList));
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(std::to_string(i), TRABCSzListGet(pList, i));
    EXPECT_EQ(nullptr, TRABCSzListGet(pList, 1000));
    EXPECT_EQ(nullptr, TRABCSzListGet(pList, -1));
    TRABCSzListFree(pList);
}

TEST(SzList, PushCopiesTheText) {
    TRABCSzList *pList = TRABCSzListAlloc(4);
    char szText[] = "abc";
    ASSERT_EQ(1, TRABCSzListPush(&pList, szText));
    szText[0] = 'x';
    EXPECT_STREQ("abc", TRABCSzListGet(pList, 0));
    TRABCSzListFree(pList);
}

TEST(SzList, RefusesNullAndBadSizes) {
    EXPECT_EQ(nullptr, TRABCSzListAlloc(0));
    EXPECT_EQ(nullptr, TRABCSzListAlloc(-1));
    EXPECT_EQ(0, TRABCSzListCount(nullptr));
    EXPECT_EQ(nullptr, TRABCSzListGet(nullptr, 0));
    TRABCSzListFree(nullptr);
    TRABCSzList *pList = TRABCSzListAlloc(2);
    TRABCSzList *pNull = nullptr;
    EXPECT_LT(TRABCSzListPush(nullptr, "a"), 0);
    EXPECT_LT(TRABCSzListPush(&pNull, "a"), 0);
    EXPECT_LT(TRABCSzListPush(&pList, nullptr), 0);
    EXPECT_EQ(0, TRABCSzListCount(pList));
    TRABCSzListFree(pList);
}

TEST(SzHash, GrowsAndEnumeratesKeysInInsertionOrder) {
    TRABCSzHash *pHash = TRABCSzHashAlloc(1);
    ASSERT_NE(nullptr, pHash);
    const int n = 5000;
    // Keys in an order that is neither sorted nor hash order.
    for (int i = 0; i < n; ++i) {
        std::string strKey = "k" + std::to_string((i * 7919) % n);
        ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, strKey.c_str(), std::to_string(i).c_str()));
    }
    ASSERT_EQ(n, TRABCSzHashCount(pHash));
    // Replacing a value keeps the key where it was.
    ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, "k0", "zero"));
    EXPECT_EQ(n, TRABCSzHashCount(pHash));
    EXPECT_STREQ("zero", TRABCSzHashGetValue(pHash, "k0"));
    EXPECT_STREQ("1", TRABCSzHashGetValue(pHash, "k2919"));
    EXPECT_EQ(nullptr, TRABCSzHashGetValue(pHash, "missing"));

    TRABCSzList *pList = TRABCSzListAlloc(1);
    ASSERT_EQ(0, TRABCSzListPush(&pList, "before") - 1);
    ASSERT_EQ(n, TRABCSzHashEnumKey(pHash, &pList));
    ASSERT_EQ(n + 1, TRABCSzListCount(pList));
    EXPECT_STREQ("before", TRABCSzListGet(pList, 0));
    for (int i = 0; i < n; ++i)
        EXPECT_EQ("k" + std::to_string((i * 7919) % n), TRABCSzListGet(pList, i + 1));
    TRABCSzListFree(pList);
    TRABCSzHashFree(pHash);
}

TEST(SzHash, ValuesStayValidWhileOtherKeysAreAdded) {
    TRABCSzHash *pHash = TRABCSzHashAlloc(0);
    ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, "a", "a value longer than any small-string buffer"));
    const char *szValue = TRABCSzHashGetValue(pHash, "a");
    ASSERT_EQ(0, TRABCSzHashSetValue(&pHash, "", "empty key"));
    for (int i = 0; i < 1000; ++i)
        TRABCSzHashSetValue(&pHash, std::to_string(i).c_str(), "x");
    EXPECT_EQ(szValue, TRABCSzHashGetValue(pHash, "a"));
    EXPECT_STREQ("empty key", TRABCSzHashGetValue(pHash, ""));
    TRABCSzHashFree(pHash);
}

TEST(SzHash, RefusesNullArguments) {
    TRABCSzHash *pHash = TRABCSzHashAlloc(8);
    TRABCSzHash *pNull = nullptr;
    EXPECT_LT(TRABCSzHashSetValue(nullptr, "k", "v"), 0);
    EXPECT_LT(TRABCSzHashSetValue(&pNull, "k", "v"), 0);
    EXPECT_LT(TRABCSzHashSetValue(&pHash, nullptr, "v"), 0);
    EXPECT_LT(TRABCSzHashSetValue(&pHash, "k", nullptr), 0);
    EXPECT_EQ(0, TRABCSzHashCount(pHash));
    EXPECT_EQ(nullptr, TRABCSzHashGetValue(pHash, nullptr));
    EXPECT_EQ(nullptr, TRABCSzHashGetValue(nullptr, "k"));
    EXPECT_EQ(0, TRABCSzHashCount(nullptr));
    TRABCSzList *pList = TRABCSzListAlloc(1), *pNullList = nullptr;
    EXPECT_LT(TRABCSzHashEnumKey(nullptr, &pList), 0);
    EXPECT_LT(TRABCSzHashEnumKey(pHash, nullptr), 0);
    EXPECT_LT(TRABCSzHashEnumKey(pHash, &pNullList), 0);
    EXPECT_EQ(0, TRABCSzHashEnumKey(pHash, &pList));
    TRABCSzListFree(pList);
    TRABCSzHashFree(pHash);
    TRABCSzHashFree(nullptr);
}

} // namespace
