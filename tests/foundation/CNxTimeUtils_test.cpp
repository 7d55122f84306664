// Ticks across the wrap, the calendar against the system's, the date string.
#include <gtest/gtest.h>
#include <nx/foundation/CNxTimeUtils.h>

#include <limits>

namespace {

constexpr long c_day = 86400;

void ExpectSame(const tm& own, const tm& expected) {
    EXPECT_EQ(own.tm_year, expected.tm_year + 1900);
    EXPECT_EQ(own.tm_mon, expected.tm_mon + 1);
    EXPECT_EQ(own.tm_mday, expected.tm_mday);
    EXPECT_EQ(own.tm_wday, expected.tm_wday);
    EXPECT_EQ(own.tm_hour, expected.tm_hour);
    EXPECT_EQ(own.tm_min, expected.tm_min);
    EXPECT_EQ(own.tm_sec, expected.tm_sec);
}

// The time that cnx_gmtime(t) answers is the one the system knows as `expected`.
void ExpectConverts(long t, long expected) {
    SCOPED_TRACE(t);
    tm own = {};
    cnx_gmtime(t, &own);
    tm system = {};
    gmtime_r(&expected, &system);
    ExpectSame(own, system);
}

TEST(CNxTimeUtils, TicksCompareAcrossTheWrap) {
    EXPECT_TRUE(TimeIsLater(4294967280, 16));
    EXPECT_FALSE(TimeIsLater(16, 4294967280));
    EXPECT_FALSE(TimeIsLater(5, 5));
    EXPECT_TRUE(TimeIsLaterOrEqual(5, 5));
    EXPECT_FALSE(TimeIsLaterOrEqual(6, 5));
    EXPECT_TRUE(TimeIsLater(0, 0x7FFFFFFF));
    EXPECT_FALSE(TimeIsLater(0, 0x80000000));
    EXPECT_EQ(TimeDiff(16, 4294967280), 32);
    EXPECT_EQ(TimeDiff(4294967280, 16), -32);
    EXPECT_TRUE(TimeIsBetween(4294967280, 3, 16));
    EXPECT_FALSE(TimeIsBetween(4294967280, 17, 16));
    EXPECT_FALSE(TimeIsBetween(16, 3, 32));
    EXPECT_TRUE(TimeIsBetween(16, 16, 32) && TimeIsBetween(16, 32, 32));
    EXPECT_EQ(TimeAfter(-1), 4294967295U);
    EXPECT_EQ(Time() + TimeMicros() + TimeNanos(), 0U);
}

TEST(CNxTimeUtils, CalendarAgreesWithTheSystemOnEveryDay) {
    for (long day = 0; day <= 2932896 && !HasFailure(); ++day) {
        ExpectConverts(day * c_day + day * 7919 % c_day, day * c_day + day * 7919 % c_day);
    }
    ExpectConverts(951782400, 951782400);
}

}  // namespace
