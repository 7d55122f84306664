// The names of result codes.
#include <gtest/gtest.h>
#include <nx/foundation/NxResult.h>

#include <set>
#include <string>

TEST(NxResult, EveryCodeHasANameOfItsOwnAndTwoAreSuccesses) {
    std::set<std::string> names = {NxResultName(NX_OK)};
    for (NxResult code = NX_ERROR_FAILURE; code <= NX_ERROR_TIMEOUT; ++code) {
        const bool isUsed = code != 10007;
        EXPECT_EQ(names.insert(NxResultName(code)).first->rfind("NX_ERROR_", 0) == 0, isUsed);
        EXPECT_EQ(NxSucceeded(code), code == NX_ERROR_FOUND);
    }
    EXPECT_EQ(names.size(), 15U) << "one of them for all others";
    EXPECT_EQ(names.count(NxResultName(~0U)), 1U);
    EXPECT_TRUE(NxSucceeded(NX_OK));
}
