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
    const auto expectSplit = [](const CNxString& text, const CNxString& delimiter, size_t hits,
                                Pieces expected) {
        SCOPED_TRACE(text);
        Pieces pieces = {"before"};
        expected.insert(expected.begin(), "before");
        EXPECT_EQ(SplitString2(text, delimiter, pieces), hits);
        EXPECT_EQ(pieces, expected);
    };
    expectSplit("a,,b", ",", 1, {"a", ",b"});
    expectSplit("abc", ",", 0, {});
    expectSplit("abc", "", 0, {});
    expectSplit(",", ",", 1, {});
    expectSplit(",a,", ",", 2, {"a"});
    expectSplit("a,,,b", ",", 2, {"a", ",", "b"});
    expectSplit("a::b::c", "::", 2, {"a", "b", ":c"});
    expectSplit("a::", "::", 1, {"a", ":"});
}

class CNxUtilsEnvironment : public testing::Test {
protected:
    void SetUp() override {
        setenv("NX_TEST_HOME", "/h", 1);
        setenv("NX_TEST_EMPTY", "", 1);
        unsetenv("NX_TEST_UNSET");
    }
    void TearDown() override {
        unsetenv("NX_TEST_HOME");
        unsetenv("NX_TEST_EMPTY");
    }
    static CNxString Resolve(const CNxString& in) {
        CNxString out("old");
        CNxString inPlace(in);
        EXPECT_EQ(ResolveStringEnv(in, out), NX_OK);
        EXPECT_EQ(ResolveStringEnv(inPlace, inPlace), NX_OK);
        EXPECT_EQ(inPlace, out);
        return out;
    }
};

TEST_F(CNxUtilsEnvironment, ResolvesReferencesWithTheirSurprises) {
    EXPECT_EQ(Resolve("${NX_TEST_HOME}/x"), "/h/x");
    EXPECT_EQ(Resolve("a/${NX_TEST_HOME}/${NX_TEST_HOME}"), "a//h//h");
    EXPECT_EQ(Resolve("${NX_TEST_UNSET}:${NX_TEST_EMPTY}"), "NX_TEST_UNSET:NX_TEST_EMPTY");
    EXPECT_EQ(Resolve("NX_TEST_HOME${NX_TEST_UNSET}"), "/hNX_TEST_UNSET");
    EXPECT_EQ(Resolve("NX_TEST_HOME}"), "NX_TEST_HOME}");
    EXPECT_EQ(Resolve(""), "");
    for (const char* bad : {"${NX_TEST_HOME", "${A}${B}", "a}b${C}", "}${"}) {
        EXPECT_EQ(Resolve(bad), CNxString("error! ${ is not match with } in string:") + bad);
    }
}

}  // namespace
