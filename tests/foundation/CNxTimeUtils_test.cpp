// Ticks across the wrap, the calendar against the system's, the date string.
#include <gtest/gtest.h>
#include <nx/foundation/CNxTimeUtils.h>

#include <array>

namespace {

constexpr long c_day = 86400;

std::array<int, 7> Fields(const tm& t) {
    return {t.tm_year, t.tm_mon, t.tm_mday, t.tm_wday, t.tm_hour, t.tm_min, t.tm_sec};
}

TEST(CNxTimeUtils, TicksCompareAcrossTheWrap) {
    EXPECT_TRUE(TimeIsLater(4294967280, 16));
    EXPECT_FALSE(TimeIsLater(5, 5));
    EXPECT_TRUE(TimeIsLaterOrEqual(5, 5));
    EXPECT_FALSE(TimeIsLaterOrEqual(6, 5));
    EXPECT_FALSE(TimeIsLater(0, 0x80000000));
    EXPECT_EQ(TimeDiff(16, 4294967280), 32);
    EXPECT_EQ(TimeDiff(4294967280, 16), -32);
    EXPECT_TRUE(TimeIsBetween(4294967280, 3, 16));
    EXPECT_FALSE(TimeIsBetween(4294967280, 17, 16));
    EXPECT_TRUE(TimeIsBetween(16, 16, 32) && TimeIsBetween(16, 32, 32));
    EXPECT_EQ(TimeAfter(-1), 4294967295U);
    EXPECT_EQ(Time() + TimeMicros() + TimeNanos(), 0U);
}

TEST(CNxTimeUtils, CalendarAgreesWithTheSystemOnEveryDay) {
    for (long day = 0; day <= 2932896 && !HasFailure(); ++day) {
        const long t = day * c_day + day * 7919 % c_day;
        tm own{};
        cnx_gmtime(t, &own);
        tm system{};
        gmtime_r(&t, &system);
        system.tm_year += 1900;
        ++system.tm_mon;
        EXPECT_EQ(Fields(own), Fields(system)) << t;
    }
}

}  // namespace
