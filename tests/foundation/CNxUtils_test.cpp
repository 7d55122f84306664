// Conversions, splitting, environment references.
#include <gtest/gtest.h>
#include <nx/foundation/CNxUtils.h>

#include <cstdlib>
#include <limits>

namespace {

using Pieces = std::vector<CNxString>;

TEST(CNxUtils, ConvertsWholeNumbersOfEveryBase) {
    unsigned long u64 = 0;
    EXPECT_EQ(StrToU64("18446744073709551615", u64), NX_OK);
    EXPECT_EQ(u64, 18446744073709551615U);
    EXPECT_EQ(StrToU64(U64ToStr(u64), u64), NX_OK);
    long i64 = 0;
    EXPECT_EQ(StrTo64(" -9223372036854775808", i64), NX_OK);
    EXPECT_EQ(i64, std::numeric_limits<long>::min());
    unsigned int u32 = 0;
    EXPECT_EQ(StrToU32("0x10", u32), NX_OK);
    EXPECT_EQ(u32, 16U);
    int i32 = 0;
    EXPECT_EQ(StrTo32("4294967295", i32), NX_OK);
    EXPECT_EQ(i32, -1);
    EXPECT_EQ(U32ToStr(4294967295), "4294967295");
    EXPECT_EQ(U64ToStr(0), "0");
}

TEST(CNxUtils, SplitsWithItsSurprises) {
    const struct {
        const char* m_text;
        const char* m_delimiter;
        size_t m_hits;
        Pieces m_pieces;
    } cases[] = {{"a,,b", ",", 1, {"a", ",b"}},
                 {"abc", ",", 0, {}},
                 {"abc", "", 0, {}},
                 {",", ",", 1, {}},
                 {",a,", ",", 2, {"a"}},
                 {"a,,,b", ",", 2, {"a", ",", "b"}},
                 {"a::b::c", "::", 2, {"a", "b", ":c"}},
                 {"a::", "::", 1, {"a", ":"}}};
    for (const auto& [text, delimiter, hits, expected] : cases) {
        Pieces pieces = {"before"};
        EXPECT_EQ(SplitString2(text, delimiter, pieces), hits) << text;
        pieces.erase(pieces.begin());
        EXPECT_EQ(pieces, expected) << text;
    }
}

CNxString Resolve(const CNxString& in) {
    CNxString out("old");
    CNxString inPlace(in);
    EXPECT_EQ(ResolveStringEnv(in, out), NX_OK);
    EXPECT_EQ(ResolveStringEnv(inPlace, inPlace), NX_OK);
    EXPECT_EQ(inPlace, out);
    return out;
}

TEST(CNxUtils, ResolvesReferencesWithTheirSurprises) {
    setenv("NX_TEST_HOME", "/h", 1);
    setenv("NX_TEST_EMPTY", "", 1);
    const char* const cases[][2] = {
        {"${NX_TEST_HOME}/x", "/h/x"},
        {"a/${NX_TEST_HOME}/${NX_TEST_HOME}", "a//h//h"},
        {"${NX_TEST_UNSET}:${NX_TEST_EMPTY}", "NX_TEST_UNSET:NX_TEST_EMPTY"},
        {"NX_TEST_HOME${NX_TEST_UNSET}", "/hNX_TEST_UNSET"},
        {"NX_TEST_HOME}", "NX_TEST_HOME}"},
        {"", ""}};
    for (const auto& [text, resolved] : cases) {
        EXPECT_EQ(Resolve(text), resolved);
    }
    for (const char* bad : {"${NX_TEST_HOME", "${A}${B}", "a}b${C}", "}${"}) {
        EXPECT_EQ(Resolve(bad), CNxString("error! ${ is not match with } in string:") + bad);
    }
}

}  // namespace
