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

// The examples of RFC 4648, section 10, and one that tells the alphabets apart.
TEST(Base64, TextsOfBothAlphabetsGoThereAndBack) {
    const struct {
        CNxString m_bytes;
        CNxString m_text;
        ECnxBase64 m_kind;
    } cases[] = {
        {"", "", ECnxBase64::STANDARD},
        {"f", "Zg==", ECnxBase64::STANDARD},
        {"fo", "Zm8=", ECnxBase64::STANDARD},
        {"foo", "Zm9v", ECnxBase64::STANDARD},
        {"foobar", "Zm9vYmFy", ECnxBase64::STANDARD},
        {"\xFB\xFF", "+/8=", ECnxBase64::STANDARD},
        {"\xFB\xFF", "-_8", ECnxBase64::URL},
    };
    for (const auto& [bytes, text, kind] : cases) {
        EXPECT_EQ(text, cnx_base64_encode(bytes.data(), bytes.size(), kind));
        CNxString decoded = text;
        EXPECT_EQ(NX_OK, cnx_base64_decode(decoded, decoded, kind));
        EXPECT_EQ(bytes, decoded);
    }
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
