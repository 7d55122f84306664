// The time value: normalisation against a literal model, extremes, comparisons.
#include <gtest/gtest.h>
#include <nx/foundation/CNxTimeValue.h>

#include <limits>
#include <queue>
#include <type_traits>
#include <vector>

static_assert(sizeof(CNxTimeValue) == 16 && std::is_trivially_copyable_v<CNxTimeValue>);
static_assert(CNxTimeValue(1, 500000) + CNxTimeValue(0, 500000) == CNxTimeValue(2));
static_assert(CNxTimeValue(1.25).GetTotalInMsec() == 1250);

namespace {

constexpr long c_min = std::numeric_limits<long>::min();
constexpr long c_max = std::numeric_limits<long>::max();

void ExpectFields(const CNxTimeValue& value, long sec, long usec) {
    EXPECT_EQ(value.GetSec(), sec);
    EXPECT_EQ(value.GetUsec(), usec);
}

// Carries in steps of a second.
void ExpectNormalisedAsModel(long sec, long usec) {
    SCOPED_TRACE(testing::Message() << sec << ", " << usec);
    const CNxTimeValue value(sec, usec);
    for (; usec > 999999; usec -= 1000000) {
        ++sec;
    }
    for (; usec < -999999; usec += 1000000) {
        --sec;
    }
    if (sec > 0 && usec < 0) {
        --sec;
        usec += 1000000;
    } else if (sec < 0 && usec > 0) {
        ++sec;
        usec -= 1000000;
    }
    ExpectFields(value, sec, usec);
}

TEST(CNxTimeValue, NormalisesAsCarryingInStepsDoes) {
    const long usecs[] = {0, 1, 300000, 999999, 1000000, 1000001, 1500000, 2000000, 2500000};
    for (long sec = -4; sec <= 4; ++sec) {
        for (long usec : usecs) {
            ExpectNormalisedAsModel(sec, usec);
            ExpectNormalisedAsModel(sec, -usec);
        }
    }
    ExpectFields(timeval{2, -300000}, 1, 700000);
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

TEST(CNxTimeValue, LessMeansLaterAndTheOthersAreOrdinary) {
    const CNxTimeValue ordered[] = {
        CNxTimeValue(c_min), CNxTimeValue(-1, -5),   CNxTimeValue(-1), CNxTimeValue(0, -1),
        CNxTimeValue(),      CNxTimeValue(0, 1),     CNxTimeValue(1),  CNxTimeValue(1, 5),
        CNxTimeValue(c_max), CNxTimeValue::s_tvMax()};
    for (const CNxTimeValue& a : ordered) {
        for (const CNxTimeValue& b : ordered) {
            EXPECT_EQ(a<b, &a> & b ? 1 : 0);
            EXPECT_EQ(a > b, &a > &b ? 1 : 0);
            EXPECT_EQ(a >= b, &a >= &b ? 1 : 0);
            EXPECT_EQ(a <= b, &a <= &b ? 1 : 0);
            EXPECT_EQ(a == b, &a == &b ? 1 : 0);
            EXPECT_EQ(a != b, &a != &b ? 1 : 0);
        }
    }
    std::priority_queue<CNxTimeValue> heap({}, std::vector<CNxTimeValue>(ordered, ordered + 10));
    EXPECT_TRUE(heap.top() == ordered[0]);
}

}  // namespace
