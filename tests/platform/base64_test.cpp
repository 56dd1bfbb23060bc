/* Base64: round trips against OpenSSL, the terminator, rejection of bad input. */
#include <kolvplatform/kolv_platform.h>
#include <openssl/evp.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Encode(const std::string &strIn, BOOL blLineBreak = FALSE) {
    std::vector<char> buf(strIn.size() * 2 + 8);
    if (!SzBase64EncodeFull(reinterpret_cast<const unsigned char *>(strIn.data()), strIn.size(), buf.data(), buf.size(),
                            blLineBreak))
        return "<failed>";
    return buf.data();
}

bool Decode(const std::string &strIn, std::string *pOut, size_t cbCapacity = 1024) {
    std::vector<char> buf(cbCapacity + 1);
    size_t cb = cbCapacity;
    if (!KOLVEncodingBase64Decode(strIn.data(), strIn.size(), buf.data(), &cb)) return false;
    pOut->assign(buf.data(), cb);
    return true;
}

TEST(PlatformBase64, RoundTripsEveryLengthAndByte) {
    for (size_t len = 0; len <= 300; ++len) {
        std::string strIn;
        for (size_t i = 0; i < len; ++i)
            strIn += static_cast<char>((i * 131 + len) & 0xFF);
        if (len == 256)
            for (size_t i = 0; i < len; ++i)
                strIn[i] = static_cast<char>(i); // every byte once
        std::string strEnc = Encode(strIn);
        // OpenSSL as the reference encoder.
        std::vector<unsigned char> ref(len * 2 + 8);
        int n = EVP_EncodeBlock(ref.data(), reinterpret_cast<const unsigned char *>(strIn.data()), (int)len);
        ASSERT_EQ(std::string(reinterpret_cast<char *>(ref.data()), (size_t)n), strEnc) << len;
        std::string strOut;
        ASSERT_TRUE(Decode(strEnc, &strOut, len)) << len; // exact capacity
        ASSERT_EQ(strIn, strOut) << len;
        // With line breaks: lines of at most 76 characters, same data.
        std::string strLines = Encode(strIn, TRUE);
        size_t pos = 0, next;
        while ((next = strLines.find('\n', pos)) != std::string::npos) {
            EXPECT_EQ(76u, next - pos);
            pos = next + 1;
        }
        EXPECT_LE(strLines.size() - pos, 76u);
        ASSERT_TRUE(Decode(strLines, &strOut, len));
        ASSERT_EQ(strIn, strOut) << len;
    }
}

TEST(PlatformBase64, BadInputAndShortBuffersAreRefused) {
    char szOut[16];
    const unsigned char *p = reinterpret_cast<const unsigned char *>("foobar");
    EXPECT_FALSE(SzBase64EncodeFull(p, 6, szOut, 8, FALSE));
    EXPECT_TRUE(SzBase64EncodeFull(p, 6, szOut, 9, FALSE));
    EXPECT_STREQ("Zm9vYmFy", szOut);
    EXPECT_FALSE(SzBase64EncodeFull(nullptr, 3, szOut, sizeof(szOut), FALSE));
    EXPECT_FALSE(SzBase64EncodeFull(p, 3, nullptr, 16, FALSE));
    std::string strOut;
    for (const char *sz : {"Zg=", "Zg", "Z", "Z===", "====", "=Zg=", "Zg==Zg==", "Zm9v!A==", "Zm9v YmFy",
                           "Zm9v-_==", "Zg=A", "\xc3\xa9\xc3\xa9"}) {
        EXPECT_FALSE(Decode(sz, &strOut)) << sz;
    }
    // An embedded NUL inside cbIn is a bad character.
    EXPECT_FALSE(Decode(std::string("Zm9v\0Zm9v", 9), &strOut));
    EXPECT_FALSE(Decode("Zm9vYmFy", &strOut, 5)); // one byte short
    size_t cb = 8;
    EXPECT_TRUE(KOLVEncodingBase64Decode("Zm9vYmFy", 4, szOut, &cb)); // cbIn bounds the input
    EXPECT_EQ(3u, cb);
    EXPECT_FALSE(KOLVEncodingBase64Decode(nullptr, 4, szOut, &cb));
    EXPECT_FALSE(KOLVEncodingBase64Decode("Zm9v", 4, nullptr, &cb));
    EXPECT_FALSE(KOLVEncodingBase64Decode("Zm9v", 4, szOut, nullptr));
}

} // namespace
