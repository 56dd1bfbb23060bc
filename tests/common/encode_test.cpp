// Name encoding: any bytes make a round trip, and the escaped form only
// holds characters that are safe in a file name on any file system.
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "kolvvessa/kolvvessa_common.h"
#include "kolvvessa/kolvvessa_error.h"
#include "support/kolv_test_support.h"

namespace {

// Encodes and decodes back into a buffer of exactly the input's size.
void ExpectRoundTrip(const std::vector<unsigned char> &vIn, bool blBase64Only) {
    static const std::regex reSafe("[0-9A-Z{}]+");
    std::string strEncoded;
    ASSERT_TRUE(KOLVVessaEncode(vIn.data(), (unsigned)vIn.size(), strEncoded, blBase64Only));
    if (!blBase64Only) {
        ASSERT_TRUE(std::regex_match(strEncoded, reSafe)) << strEncoded;
    }
    std::vector<unsigned char> vOut(vIn.size(), 0xEE);
    ASSERT_TRUE(KOLVVessaDecode(strEncoded, vOut.data(), (unsigned)vOut.size(), blBase64Only)) << strEncoded;
    ASSERT_EQ(vIn, vOut) << "length " << vIn.size();
}

} // namespace

TEST(NameEncoding, RoundTripOfRandomBytes) {
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (size_t n = 1; n <= 300; ++n) {
        std::vector<unsigned char> vIn(n);
        for (unsigned char &c : vIn)
            c = (unsigned char)byte(rng);
        vIn[rng() % n] = 0; // a zero byte in every string
        ExpectRoundTrip(vIn, false);
        ExpectRoundTrip(vIn, true);
    }
    std::vector<unsigned char> vAll(256);
    for (int i = 0; i < 256; ++i) {
        vAll[i] = (unsigned char)i;
        ExpectRoundTrip(std::vector<unsigned char>(1, (unsigned char)i), false);
    }
    ExpectRoundTrip(vAll, false);
}

TEST(NameEncoding, EscapedFormAndFailures) {
    std::string strOut, strDecoded;
    ASSERT_TRUE(KOLVVessaEncode("ab", strOut));
    EXPECT_EQ("YWI{61}", strOut);
    ASSERT_TRUE(KOLVVessaEncode("ab", strOut, true));
    EXPECT_EQ("YWI=", strOut);
    // Lower case, "+" and "/" are escaped too.
    ASSERT_TRUE(KOLVVessaEncode(std::string("\xfb\xff", 2), strOut));
    EXPECT_EQ("{43}{47}8{61}", strOut);
    ASSERT_TRUE(KOLVVessaEncode("i", strOut));
    EXPECT_EQ("{97}Q{61}{61}", strOut);
    // The string form stops at the first zero byte.
    ASSERT_TRUE(KOLVVessaEncode(std::string("a\0b", 3), strOut));
    ASSERT_TRUE(KOLVVessaDecode(strOut, strDecoded));
    EXPECT_EQ("a", strDecoded);

    EXPECT_FAILS(KOLVVessaEncode(NULL, 3, strOut), 1015, "NULL == szIn || 0 == nIn");
    // The unterminated brace appends to whatever stack is there.
    EXPECT_FALSE(KOLVVessaDecode("YWI{61", strOut));
    ASSERT_EQ(2u, KOLVVessaErrMsgGet().size());
    EXPECT_EQ(1015, KOLVVessaErrCodeGet());
    EXPECT_FALSE(KOLVVessaErrMsgGet()[1].isMember("code"));
    EXPECT_EQ("NULL == szEnd", KOLVVessaErrMsgGet()[1]["msg"].asString());
    EXPECT_FAILS(KOLVVessaDecode("", strOut), 1015, "0 == strIn.length()");
    EXPECT_FAILS(KOLVVessaDecode("YWI{61}", NULL, 4), 1015, "NULL == szOut");
    // "!" is no base64; "YWJj" needs three bytes.
    const char *szDecodeText = "!KOLVEncodingBase64Decode((const char *)strResult.c_str(), strResult.length(), "
                               "(char *)szOut, &nOut)";
    EXPECT_FAILS(KOLVVessaDecode("Y{33}I{61}", strOut), 1000, szDecodeText);
    unsigned char szShort[2];
    EXPECT_FAILS(KOLVVessaDecode("YWJj", szShort, sizeof(szShort), true), 1000, szDecodeText);
}
