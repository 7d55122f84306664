// Hashes against the published values, and Base64.
#include <gtest/gtest.h>
#include <nx/process/base64.h>
#include <nx/process/hash_functions.h>

#include <string>

namespace {

TEST(Hashes, AreThePublishedOnes) {
    EXPECT_EQ(0x02CC5D05u, cnx_hash32(nullptr, 0));
    EXPECT_EQ(0x32D153FFu, cnx_hash32("abc", 3));
    EXPECT_EQ(0x2D06800538D394C2u, cnx_hash64(nullptr, 0));
    EXPECT_EQ(0x78AF5F94892F3950u, cnx_hash64("abc", 3));
    EXPECT_NE(cnx_hash64("abc", 3), cnx_hash64("abc", 3, 1));
    EXPECT_NE(cnx_hash32("abc", 3), cnx_hash32("abc", 3, 1));
    EXPECT_EQ(0xCBF43926u, cnx_crc32("123456789", 9));
    EXPECT_EQ(0xCBF43926u, cnx_crc32("6789", 4, cnx_crc32("12345", 5)));
    EXPECT_EQ(7u, cnx_crc32(nullptr, 0, 7));
}

// RFC 4648, section 10.
TEST(Base64, TheStandardsExamples) {
    const char* const texts[][2] = {{"", ""},
                                    {"f", "Zg=="},
                                    {"fo", "Zm8="},
                                    {"foo", "Zm9v"},
                                    {"foob", "Zm9vYg=="},
                                    {"fooba", "Zm9vYmE="},
                                    {"foobar", "Zm9vYmFy"}};
    for (const auto& [bytes, text] : texts) {
        EXPECT_EQ(text, cnx_base64_encode(bytes, std::string(bytes).size()).GetRawData());
        CNxString decoded = text;
        EXPECT_EQ(NX_OK, cnx_base64_decode(decoded, decoded));
        EXPECT_EQ(bytes, decoded.GetRawData());
    }
    CNxString bytes;
    EXPECT_EQ("+/8=", cnx_base64_encode("\xFB\xFF", 2));
    EXPECT_EQ("-_8", cnx_base64_encode("\xFB\xFF", 2, ECnxBase64::URL));
    EXPECT_EQ(NX_OK, cnx_base64_decode("-_8", bytes, ECnxBase64::URL));
    EXPECT_EQ("\xFB\xFF", bytes);
}

TEST(Base64, AnyOtherTextIsRefusedAndChangesNothing) {
    CNxString bytes = "as before";
    for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "Z===", "====", "Zm9v====", "Zg==Zg==",
                             "Zh==", "Zm9=", "Zm 9", "Zm9v\n", "-_8=", "Zm9\xFF"}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, cnx_base64_decode(text, bytes)) << text;
    }
    for (const char* text : {"Z", "Zg==", "Zh", "+/8", "Zm9v="}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, cnx_base64_decode(text, bytes, ECnxBase64::URL)) << text;
    }
    EXPECT_EQ(NX_ERROR_INVALID_ARG, cnx_base64_decode(CNxString("Zm9\0", 4), bytes));
    EXPECT_EQ("as before", bytes);
}

}  // namespace
