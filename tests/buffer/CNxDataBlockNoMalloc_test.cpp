#include <nx/buffer/CNxDataBlockNoMalloc.h>

#include <string>

#include <gtest/gtest.h>

TEST(CNxDataBlockNoMalloc, WritingStopsAtTheEndAndReadingDoesNot) {
    char memory[] = "-------";
    CNxDataBlockNoMalloc block(memory, 3);
    unsigned long n = 99;
    EXPECT_EQ(block.Write("abcd", 4, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 3U);
    char dst[8] = "";
    EXPECT_EQ(block.Read(dst, 5, &n), NX_OK);
    EXPECT_EQ(std::string(dst, n), "abc--");
    EXPECT_EQ(block.Read(dst, 5, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(std::string(dst, n), "--");
}
