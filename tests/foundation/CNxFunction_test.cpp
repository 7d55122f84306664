#include <gtest/gtest.h>
#include <nx/foundation/CNxFunction.h>

#include <array>

namespace {

int Twice(int value) {
    return 2 * value;
}

TEST(Function, NullInAnyFormMayBeCalledAndAnswersWithNothing) {
    using Function = CNxFunctionT<int(int)>;
    int (*const noPointer)(int) = nullptr;
    Function functions[] = {nullptr, noPointer, std::function<int(int)>(),
                            CNxFunctionT<short(int)>(), Twice};
    Function holder(std::move(functions[4]));
    for (Function& function : functions) {
        EXPECT_FALSE(function);
        EXPECT_EQ(function(21), 0);
    }
    EXPECT_EQ(holder(21), 42);
}

// One inside the object, and one too large for it.
TEST(Function, WhatItHoldsMovesWithItAndEndsOnce) {
    const auto token = std::make_shared<int>(5);
    const auto check = [&token](auto more) {
        CNxFunctionT<int(std::unique_ptr<int>)> function(
            [token, more](std::unique_ptr<int> passed) { return *token + *passed + more[0]; });
        auto other = std::move(function);
        function = std::move(other);
        EXPECT_EQ(function(std::make_unique<int>(1)), 6);
        EXPECT_EQ(token.use_count(), 2);
        function = nullptr;
        EXPECT_EQ(token.use_count(), 1);
    };
    check(std::array<char, 1>());
    check(std::array<char, 100>());
}

}  // namespace
