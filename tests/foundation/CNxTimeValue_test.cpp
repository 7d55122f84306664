// The time value: normalisation, extremes, comparisons.
#include <gtest/gtest.h>
#include <nx/foundation/CNxTimeValue.h>

#include <limits>
#include <type_traits>

static_assert(sizeof(CNxTimeValue) == 16 && std::is_trivially_copyable_v<CNxTimeValue>);
static_assert(CNxTimeValue(1, 500000) + CNxTimeValue(0, 500000) == CNxTimeValue(2));
static_assert(CNxTimeValue(1.25).GetTotalInMsec() == 1250);
// Less means later, the others are ordinary.
static_assert(CNxTimeValue(2) < CNxTimeValue(1) && !(CNxTimeValue(1) < CNxTimeValue(1)));
static_assert(CNxTimeValue(0, 1) > CNxTimeValue(0, -1));
static_assert(CNxTimeValue(1) >= CNxTimeValue(1));
static_assert(CNxTimeValue(-1, -5) <= CNxTimeValue(-1) && !(CNxTimeValue() > CNxTimeValue()));

namespace {

constexpr long c_min = std::numeric_limits<long>::min();
constexpr long c_max = std::numeric_limits<long>::max();

void ExpectFields(const CNxTimeValue& value, long sec, long usec) {
    EXPECT_EQ(value.GetSec(), sec);
    EXPECT_EQ(value.GetUsec(), usec);
}

TEST(CNxTimeValue, SecondsAndMicrosecondsHaveOneSign) {
    for (const long sign : {1, -1}) {
        ExpectFields(CNxTimeValue(0, sign * 2500000), sign * 2, sign * 500000);
        ExpectFields(CNxTimeValue(sign, sign * 1000000), sign * 2, 0);
        ExpectFields(CNxTimeValue(sign, sign * -1), 0, sign * 999999);
        ExpectFields(CNxTimeValue(sign, sign * -1500000), 0, sign * -500000);
        ExpectFields(timeval{sign * 2, sign * -300000}, sign, sign * 700000);
    }
}

TEST(CNxTimeValue, ExtremesWrapInsteadOfOverflowing) {
    ExpectFields(CNxTimeValue(0, c_max), c_max / 1000000, c_max % 1000000);
    ExpectFields(CNxTimeValue(0, c_min), c_min / 1000000, c_min % 1000000);
    ExpectFields(CNxTimeValue(c_max, 1000000), c_min, 0);
    ExpectFields(CNxTimeValue(c_min, -1000000), c_max, 0);
    ExpectFields(CNxTimeValue(c_min, 1), c_min + 1, -999999);
    ExpectFields(CNxTimeValue::s_tvMax() + CNxTimeValue(0, 1), c_min, 0);
    ExpectFields(CNxTimeValue::s_tvMax() + CNxTimeValue::s_tvMax(), 0, -2);
    ExpectFields(CNxTimeValue(c_min) - CNxTimeValue(1), c_max, 0);
    EXPECT_EQ(CNxTimeValue::s_tvMax().GetTotalInMsec(), -1);
    EXPECT_EQ(CNxTimeValue(c_min).GetTotalInMsec(), 0);
}

}  // namespace
