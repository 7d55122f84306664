#include <gtest/gtest.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/Text_Formator.h>

#include <climits>
#include <string>

namespace {

constexpr auto HEX = CNxT120Trace::HEX;

TEST(Text_FormatorTest, HexadecimalLastsForOneInteger) {
    char buffer[256];
    Text_Formator text(buffer, sizeof(buffer));
    text << HEX << 255 << ' ' << 255 << HEX << "," << 0.5 << CNxString(",") << 16;
    text << std::string(",\0,", 3);
    text << HEX << LONG_MIN << LLONG_MIN;
    EXPECT_STREQ(text, "ff32255,0.500000,10,8000000000000000-9223372036854775808");
}

TEST(Text_FormatorTest, LeavesTheLast64BytesAlone) {
    for (const unsigned long size : {0UL, 1UL, 63UL, 64UL, 65UL, 70UL, 100UL}) {
        std::string buffer(128, 'z');
        Text_Formator text(&buffer[0], size);
        text << "0123456789" << 123456789 << 1.0;
        std::string expected =
            std::string("01234567891234567891.000000").substr(0, size > 64 ? size - 64 : 0);
        expected += std::string(size - expected.size(), '\0') + std::string(128 - size, 'z');
        EXPECT_EQ(buffer, expected) << size;
    }
}

}  // namespace
