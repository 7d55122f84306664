#include <gtest/gtest.h>
#include <nx/foundation/CNxString.h>

namespace {

TEST(CNxStringReplace, ReplacesEveryOccurrenceOnce) {
    const char* const cases[][4] = {{"aXaXX", "X", "--", "a--a----"}, {"aaaaa", "aa", "a", "aaa"},
                                    {"ab", "a", "aa", "aab"},         {"abc", "c", "", "ab"},
                                    {"abc", "x", "y", "abc"},         {"abc", "", "y", "abc"}};
    for (const auto& [text, from, to, result] : cases) {
        CNxString replaced(text);
        EXPECT_EQ(CNxStringReplace(replaced, from, to), CNxString::npos);
        EXPECT_EQ(replaced, result);
    }
    CNxString self("ab");
    CNxStringReplace(self, self, "x");
    EXPECT_EQ(self, "x");
    CNxStringReplace(self = "xyx", "x", self);
    EXPECT_EQ(self, "xyxyxyx");
}

TEST(CNxString, IsAViewOfAllItsBytes) {
    const CNxString s("a\0b", 3);
    EXPECT_EQ(std::string(s) + std::string("c").append(s), std::string("a\0bca\0b", 7));
    EXPECT_TRUE(s == CNxString("a\0b", 3) && s != "a" && std::string_view("a") != s);
}

}  // namespace
