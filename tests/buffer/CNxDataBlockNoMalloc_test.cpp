#include <nx/buffer/CNxDataBlockNoMalloc.h>

#include <string>

#include <gtest/gtest.h>

TEST(CNxDataBlockNoMalloc, WriteStopsAtTheEndAndReportsWhatFitted) {
    char memory[8] = "-------";
    CNxDataBlockNoMalloc block(memory, 5);
    unsigned long n = 99;
    EXPECT_EQ(block.Write("abc", 3, &n), NX_OK);
    EXPECT_EQ(n, 3U);
    EXPECT_EQ(block.Write("defg", 4, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 2U);
    EXPECT_EQ(block.Write("x", 1, nullptr), NX_ERROR_PARTIAL_DATA);
    EXPECT_STREQ(memory, "abcde--");
}

TEST(CNxDataBlockNoMalloc, ReadGivesWhatIsAskedForBelowTheEndAndTheOvershootBeyondIt) {
    const char memory[] = "abcdefgh";
    CNxDataBlockNoMalloc block(memory, 4);
    char dst[8] = "";
    unsigned long n = 99;
    EXPECT_EQ(block.Read(dst, 4, &n), NX_OK);
    EXPECT_EQ(std::string(dst, n), "abcd");
    EXPECT_EQ(block.Read(dst, 1, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0U);

    CNxDataBlockNoMalloc beyond(memory, 4);
    EXPECT_EQ(beyond.Read(dst, 6, &n), NX_OK);
    EXPECT_EQ(std::string(dst, n), "abcdef");
    EXPECT_EQ(beyond.Read(dst, 5, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(std::string(dst, n), "gh");
}
