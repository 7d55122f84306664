#include <gtest/gtest.h>
#include <nx/foundation/CNxFunction.h>

#include <array>
#include <string>

namespace {

int Twice(int value) {
    return 2 * value;
}

using Function = CNxFunctionT<int(int)>;

struct Number {
    int Add(int more) { return m_value + more; }
    int m_value = 1;
};

TEST(Function, NullInAnyFormMayBeCalledAndAnswersWithNothing) {
    int (*const noPointer)(int) = nullptr;
    Function functions[] = {
        Function(), nullptr, noPointer, std::function<int(int)>(), CNxFunctionT<short(int)>(),
        &Twice};
    Function holder(std::move(functions[5]));
    for (Function& function : functions) {
        EXPECT_FALSE(function);
        EXPECT_EQ(function(21), 0);
    }
    EXPECT_EQ(holder(21), 42);
    holder = nullptr;
    EXPECT_FALSE(holder);
    CNxFunctionT<int(Number&, int)> member(&Number::Add);
    Number number;
    EXPECT_EQ(member(number, 2), 3);
    EXPECT_EQ(Function(Twice)(1), 2);
}

// One inside the object, and one too large for it.
TEST(Function, WhatItHoldsMovesWithItAndEndsOnce) {
    const auto token = std::make_shared<int>(5);
    const auto check = [&token](auto more) {
        CNxFunctionT<std::unique_ptr<int>(std::unique_ptr<int>, std::string&)> function(
            [token, more](std::unique_ptr<int> passed, std::string& text) {
                text += static_cast<char>('a' + *passed);
                *passed += *token + static_cast<int>(more.size());
                return passed;
            });
        auto other = std::move(function);
        function = std::move(other);
        std::string text;
        EXPECT_EQ(*function(std::make_unique<int>(1), text), 6 + static_cast<int>(more.size()));
        EXPECT_EQ(text, "b");
        EXPECT_EQ(token.use_count(), 2);
        function = [](std::unique_ptr<int> passed, std::string&) { return passed; };
        EXPECT_EQ(token.use_count(), 1);
        function = [token](std::unique_ptr<int> passed, std::string&) { return passed; };
    };
    check(std::array<char, 0>());
    check(std::array<char, 100>());
    EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
