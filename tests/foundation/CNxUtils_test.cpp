// Splitting, environment references.
#include <gtest/gtest.h>
#include <nx/foundation/CNxUtils.h>

#include <cstdlib>

namespace {

using Pieces = std::vector<CNxString>;

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

TEST(CNxUtils, ResolvesReferencesWithTheirSurprises) {
    setenv("NX_TEST_HOME", "/h", 1);
    setenv("NX_TEST_EMPTY", "", 1);
    const char c_bad[] = "error! ${ is not match with } in string:";
    const CNxString cases[][2] = {
        {"${NX_TEST_HOME}/x", "/h/x"},
        {"a/${NX_TEST_HOME}/${NX_TEST_HOME}", "a//h//h"},
        {"${NX_TEST_UNSET}:${NX_TEST_EMPTY}", "NX_TEST_UNSET:NX_TEST_EMPTY"},
        {"NX_TEST_HOME${NX_TEST_UNSET}", "/hNX_TEST_UNSET"},
        {"${NX_TEST_HOME", CNxString(c_bad) + "${NX_TEST_HOME"},
        {"${A}${B}", CNxString(c_bad) + "${A}${B}"},
        {"}${", CNxString(c_bad) + "}${"}};
    for (const auto& [text, resolved] : cases) {
        CNxString out("old");
        EXPECT_EQ(ResolveStringEnv(text, out), NX_OK);
        EXPECT_EQ(out, resolved);
    }
}

}  // namespace
