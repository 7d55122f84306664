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

constexpr const char* c_null = nullptr;

template <class Exception, class Call>
void ExpectThrows(const char* message, Call call) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
        EXPECT_STREQ(e.what(), message);
    }
}

TEST(CNxString, NullMakesAnEmptyStringButIsNeverCompared) {
    EXPECT_TRUE(CNxString(c_null).empty());
    CNxString s("x");
    s = nullptr;
    EXPECT_TRUE(s.empty());

    const char* message = "basic_string::_M_construct null not valid";
    const CNxString x("x");
    ExpectThrows<std::logic_error>(message, [&] { return x == c_null; });
    ExpectThrows<std::logic_error>(message, [&] { return c_null == x; });
    ExpectThrows<std::logic_error>(message, [&] { return x != c_null; });
    ExpectThrows<std::logic_error>(message, [&] { return c_null < x; });
    ExpectThrows<std::logic_error>(message, [&] { return x + c_null; });
    ExpectThrows<std::logic_error>(message, [&] { return c_null + x; });
    ExpectThrows<std::logic_error>(message, [&] { return s += c_null; });
    ExpectThrows<std::logic_error>(message, [&] { return x.find(c_null); });
    ExpectThrows<std::logic_error>(message, [&] { return CNxString(c_null, 1); });
    EXPECT_TRUE(CNxString(c_null, 0).empty());
    EXPECT_EQ(s.append(c_null, 0).insert(0, c_null, 0), "");
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

TEST(CNxString, SumsAndStreams) {
    const CNxString a("a");
    EXPECT_EQ(a + a, "aa");
    EXPECT_EQ(a + "b", "ab");
    EXPECT_EQ("b" + a, "ba");
    EXPECT_EQ(a + 'c', "ac");
    EXPECT_EQ('c' + a, "ca");
    EXPECT_EQ('<' + a + "b" + a + '>', "<aba>");
    EXPECT_EQ(a, "a");
    std::ostringstream out;
    out << a << CNxString("x\0y", 3);
    EXPECT_EQ(out.str(), std::string("ax\0y", 4));
}

TEST(CNxString, ConstructsAndAssigns) {
    const CNxString s("0123456789");
    EXPECT_EQ(CNxString(s, 2, 3), "234");
    EXPECT_EQ(CNxString("abc", 2), "ab");
    EXPECT_EQ(CNxString(3, 'x'), "xxx");
    EXPECT_EQ(s.substr(7), "789");
    CNxString t;
    EXPECT_EQ(t.assign(s, 8, 9), "89");
    EXPECT_EQ(t.assign("abc"), "abc");
    EXPECT_EQ(t.assign("abc", 0), "");
    EXPECT_EQ(t.assign(2, 'y'), "yy");
    EXPECT_EQ(t.assign(s), s);
    ExpectThrows<std::out_of_range>(
        "basic_string::at: __n (which is 10) >= this->size() (which is 10)",
        [&] { return s.at(10); });
    EXPECT_THROW(CNxString(s, 11, 1), std::out_of_range);
}

TEST(CNxString, AppendsInsertsReplacesErases) {
    const CNxString s("123");
    const char text[] = "abcd";
    CNxString t;
    t.append(s).append(s, 1, 1).append("x").append("yz", 1).append(2, '-').append(text, text + 2);
    EXPECT_EQ(t, "1232xy--ab");
    EXPECT_EQ(t.append(text, 0).append(text, 1), "1232xy--aba");
    t.erase(4);
    EXPECT_EQ(t.insert(0, s).insert(0, s, 2, 1).insert(0, "x").insert(0, "yz", 1), "yx31231232");
    EXPECT_EQ(t.insert(1, 2, '-').erase(3, 4), "y--31232");
    EXPECT_EQ(t.replace(0, 1, s).replace(0, 1, s, 2, 1).replace(0, 1, "x"), "x23--31232");
    EXPECT_EQ(t.replace(5, 9, "abc", 2).replace(0, 3, 2, 'z'), "zz--ab");
    t.pop_back();
    t.push_back('c');
    t.back() = 'd';
    t.front() = t[4];
    EXPECT_EQ(t += 'e', "az--ade");
    char bytes[3] = {};
    EXPECT_EQ(t.copy(bytes, 2, 5), 2U);
    EXPECT_STREQ(bytes, "de");
    t.resize(2);
    t.resize(4, '+');
    EXPECT_EQ(t, "az++");
}

TEST(CNxString, SearchesAndComparesParts) {
    const CNxString s("abcabcx");
    const CNxString bc("bc");
    EXPECT_EQ(s.find(bc), 1U);
    EXPECT_EQ(s.find("bc", 2), 4U);
    EXPECT_EQ(s.find("bx", 2, 1), 4U);
    EXPECT_EQ(s.find('x', 7), CNxString::npos);
    EXPECT_EQ(s.rfind(bc), 4U);
    EXPECT_EQ(s.rfind("bc", 3), 1U);
    EXPECT_EQ(s.rfind("bx", 3, 1), 1U);
    EXPECT_EQ(s.rfind('a'), 3U);
    EXPECT_EQ(s.find_first_of(bc, 3), 4U);
    EXPECT_EQ(s.find_last_of("ax", 5), 3U);
    EXPECT_EQ(s.find_first_not_of("abx", 0, 2), 2U);
    EXPECT_EQ(s.find_last_not_of('x'), 5U);
    EXPECT_EQ(s.compare(1, 2, bc), 0);
    EXPECT_EQ(s.compare(1, 2, s, 4, 2), 0);
    EXPECT_LT(s.compare(0, 3, "abd"), 0);
    EXPECT_GT(s.compare(0, 3, "abd", 2), 0);
}

TEST(CNxString, LowersBytesAndHashesByContent) {
    CNxString s("AbZ[@\xc4");
    s.Tolower();
    EXPECT_EQ(s, "abz[@\xc4");
    std::unordered_map<CNxString, int, CNxStringHash> map;
    map["one"] = 1;
    map[CNxString("xone", 4).erase(0, 1)] += 1;
    EXPECT_EQ(map.size(), 1U);
    EXPECT_EQ(map["one"], 2);
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
