// Hashes and both alphabets of Base64 against the published values.
#include <gtest/gtest.h>
#include <nx/process/base64.h>
#include <nx/process/hash_functions.h>

namespace {

TEST(Hashes, AreThePublishedOnes) {
    EXPECT_EQ(0x32D153FFu, cnx_hash32("abc", 3));
    EXPECT_NE(0x32D153FFu, cnx_hash32("abc", 3, 1));
    EXPECT_EQ(0x78AF5F94892F3950u, cnx_hash64("abc", 3));
    EXPECT_NE(0x78AF5F94892F3950u, cnx_hash64("abc", 3, 1));
    EXPECT_EQ(0xCBF43926u, cnx_crc32("6789", 4, cnx_crc32("12345", 5)));
    EXPECT_EQ(7u, cnx_crc32(nullptr, 0, 7));
}

TEST(Base64, TextsAreThePublishedOnes) {
    EXPECT_EQ("Zm9vYg==", cnx_base64_encode("foob", 4));
    EXPECT_EQ("+/8=", cnx_base64_encode("\xFB\xFF", 2));
    EXPECT_EQ("-_8", cnx_base64_encode("\xFB\xFF", 2, ECnxBase64::URL));
}

}  // namespace
