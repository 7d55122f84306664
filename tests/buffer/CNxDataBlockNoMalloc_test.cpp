#include <nx/buffer/CNxDataBlockNoMalloc.h>

#include <string>

#include <gtest/gtest.h>

TEST(CNxDataBlockNoMalloc, ReportsWhatFittedWhatItHadAndTheOvershootBeyondTheEnd) {
    char memory[] = "-------";
    CNxDataBlockNoMalloc block(memory, 5);
    unsigned long n = 99;
    EXPECT_EQ(block.Write("abc", 3, &n), NX_OK);
    EXPECT_EQ(n, 3U);
    EXPECT_EQ(block.Write("defg", 4, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 2U);
    EXPECT_STREQ(memory, "abcde--");

    char dst[8] = "";
    EXPECT_EQ(block.Read(dst, 5, &n), NX_OK);
    EXPECT_EQ(std::string(dst, n), "abcde");
    EXPECT_EQ(block.Read(dst, 1, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0U);
    CNxDataBlockNoMalloc beyond(memory, 3);
    EXPECT_EQ(beyond.Read(dst, 5, &n), NX_OK);
    EXPECT_EQ(beyond.Read(dst, 5, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(std::string(dst, n), "--");
}
