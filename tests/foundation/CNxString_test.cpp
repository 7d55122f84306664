// The string: what differs from std::string, and that every forwarded form reaches the right one.
#include <gtest/gtest.h>
#include <nx/foundation/CNxString.h>

#include <array>
#include <string>

static_assert(sizeof(CNxString) == sizeof(std::string));
static_assert(std::is_nothrow_move_constructible_v<CNxString>);
static_assert(std::is_nothrow_move_assignable_v<CNxString>);

namespace {

template <class Left, class Right>
std::array<bool, 6> Compare(const Left& left, const Right& right) {
    return {left == right, left != right, left >= right, left > right, left <= right, left < right};
}

TEST(CNxString, EveryComparisonIsUnambiguousAndBytewise) {
    const std::string texts[] = {"a", "\xff", "", std::string("a\0b", 3)};
    for (const std::string& text : texts) {
        for (const char* const other : {"a", "\xff", ""}) {
            const CNxString string(text.data(), text.size());
            EXPECT_EQ(Compare(string, CNxString(other)), Compare(text, std::string(other)));
            EXPECT_EQ(Compare(string, other), Compare(text, other));
            EXPECT_EQ(Compare(other, string), Compare(other, text));
        }
    }
}

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

}  // namespace
