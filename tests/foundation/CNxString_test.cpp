// The string: what differs from std::string, and that every forwarded form reaches the right one.
#include <gtest/gtest.h>
#include <nx/foundation/CNxString.h>

#include <sstream>
#include <stdexcept>
#include <unordered_map>

static_assert(sizeof(CNxString) == sizeof(std::string));
static_assert(std::is_nothrow_move_constructible_v<CNxString>);
static_assert(std::is_nothrow_move_assignable_v<CNxString>);

namespace {

template <class Exception, class Call>
void ExpectThrows(const char* message, Call call) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
        EXPECT_STREQ(e.what(), message);
    }
}

TEST(CNxString, EveryComparisonIsUnambiguousAndBytewise) {
    const CNxString low("a");
    const CNxString high("\xff");
    EXPECT_TRUE(low == low && "a" == low && low == "a");
    EXPECT_TRUE(low != high && "a" != high && low != "\xff");
    EXPECT_TRUE(low < high && "a" < high && low < "\xff");
    EXPECT_TRUE(low <= high && "a" <= high && low <= "\xff" && "a" <= low && low <= "a");
    EXPECT_TRUE(high > low && "\xff" > low && high > "a");
    EXPECT_TRUE(high >= low && "\xff" >= low && high >= "a" && "a" >= low && low >= "a");
    EXPECT_FALSE(low > high || "a" > high || low > "\xff" || low < "a" || "a" < low);
    EXPECT_FALSE(low == high || low == "\xff" || "a" == high || low != "a" || "a" != low);
    const CNxString withZero("a\0b", 3);
    EXPECT_TRUE(withZero != "a" && withZero > "a" && "a" < withZero);
    EXPECT_FALSE(withZero == "a");
}

TEST(CNxStringReplace, ReplacesEveryOccurrenceOnce) {
    const auto replaced = [](CNxString text, const CNxString& from, const CNxString& to) {
        EXPECT_EQ(CNxStringReplace(text, from, to), CNxString::npos);
        return text;
    };
    EXPECT_EQ(replaced("aXaXX", "X", "--"), "a--a----");
    EXPECT_EQ(replaced("aaaaa", "aa", "a"), "aaa");
    EXPECT_EQ(replaced("ab", "a", "aa"), "aab");
    EXPECT_EQ(replaced("abc", "c", ""), "ab");
    EXPECT_EQ(replaced("abc", "x", "y"), "abc");
    EXPECT_EQ(replaced("abc", "", "y"), "abc");
    CNxString self("ab");
    CNxStringReplace(self, self, "x");
    EXPECT_EQ(self, "x");
    CNxStringReplace(self = "xyx", "x", self);
    EXPECT_EQ(self, "xyxyxyx");
}

}  // namespace
