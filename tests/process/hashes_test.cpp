// Hashes against the published values, and Base64.
#include <gtest/gtest.h>
#include <nx/process/base64.h>
#include <nx/process/hash_functions.h>

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

// From RFC 4648, section 10, and one that tells the alphabets apart.
TEST(Base64, TextsOfBothAlphabetsGoThereAndBack) {
    const std::pair<CNxString, CNxString> cases[] = {
        {"", ""}, {"f", "Zg=="}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF", "+/8="}};
    CNxString decoded;
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(text, cnx_base64_encode(bytes.data(), bytes.size()));
        decoded = text;
        EXPECT_EQ(NX_OK, cnx_base64_decode(decoded, decoded));
        EXPECT_EQ(bytes, decoded);
    }
    EXPECT_EQ("-_8", cnx_base64_encode("\xFB\xFF", 2, ECnxBase64::URL));
    EXPECT_EQ(NX_OK, cnx_base64_decode("-_8", decoded, ECnxBase64::URL));
    EXPECT_EQ("\xFB\xFF", decoded);
}

TEST(Base64, AnyOtherTextIsRefusedAndChangesNothing) {
    CNxString bytes = "as before";
    for (const char* text : {"Zg", "Zg===", "Zg==Zg==", "Zh==", "Zm 9", "Zm9v\n", "-_8="}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, cnx_base64_decode(text, bytes)) << text;
    }
    EXPECT_EQ(NX_ERROR_INVALID_ARG, cnx_base64_decode("Zg==", bytes, ECnxBase64::URL));
    EXPECT_EQ("as before", bytes);
}

}  // namespace
