#include <gtest/gtest.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxTraceManager.h>
#include <nx/trace/Text_Formator.h>

#include <climits>
#include <limits>
#include <string>

namespace {

constexpr auto HEX = CNxT120Trace::HEX;

template <class T>
std::string Format(T value, bool isHex) {
    char buffer[512];
    CNxT120Trace::Text_Formator text(buffer, sizeof(buffer));
    text << (isHex ? CNxT120Trace::HEX : CNxT120Trace::DEC) << value;
    return static_cast<char*>(text);
}

TEST(Text_FormatorTest, FormatsEveryIntegerInBothBases) {
    EXPECT_EQ(Format('A', false), "65");
    EXPECT_EQ(Format(static_cast<char>(-1), true), "ffffffff");
    EXPECT_EQ(Format<unsigned char>(255, true), "ff");
    EXPECT_EQ(Format<short>(-2, false), "-2");
    EXPECT_EQ(Format<short>(-2, true), "fffffffe");
    EXPECT_EQ(Format<unsigned short>(65535, true), "ffff");
    EXPECT_EQ(Format(INT_MIN, false), "-2147483648");
    EXPECT_EQ(Format(UINT_MAX, false), "4294967295");
    EXPECT_EQ(Format(LONG_MIN, true), "8000000000000000");
    EXPECT_EQ(Format(ULONG_MAX, false), "18446744073709551615");
    EXPECT_EQ(Format(LLONG_MIN, false), "-9223372036854775808");
    EXPECT_EQ(Format(ULLONG_MAX, true), "ffffffffffffffff");
    EXPECT_EQ(Format(1.5F, true), "1.500000");
    EXPECT_EQ(Format(-std::numeric_limits<double>::max(), false).size(), 317u);
}

TEST(Text_FormatorTest, HexadecimalLastsForOneInteger) {
    char buffer[256];
    Text_Formator text(buffer, sizeof(buffer));
    text << HEX << 255 << ' ' << 255 << HEX << "," << 0.5 << CNxString(",") << 16;
    EXPECT_STREQ(text, "ff32255,0.500000,10");
    text.reset();
    text << HEX << static_cast<void*>(nullptr) << reinterpret_cast<void*>(0xAB) << 10;
    text << static_cast<Text_Formator::Ordix>(7) << static_cast<const char*>(nullptr);
    text.advance(nullptr);
    text.advance("!");
    EXPECT_STREQ(text, "0x00xab10!");
    EXPECT_EQ(text.get_hex_flag(), 0);
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
    Text_Formator nowhere(nullptr, 100);
    nowhere << "x" << 1;
    STrace("%d", 1);
}

}  // namespace
