// Ticks across the wrap, the calendar against the system's, the date string.
#include <gtest/gtest.h>
#include <nx/foundation/CNxTimeUtils.h>

#include <tuple>

namespace {

TEST(CNxTimeUtils, TicksCompareAcrossTheWrap) {
    EXPECT_TRUE(TimeIsLater(4294967280, 16) && !TimeIsLater(5, 5));
    EXPECT_EQ(TimeDiff(4294967280, 16), -32);
    EXPECT_TRUE(TimeIsBetween(4294967280, 16, 16) && !TimeIsBetween(4294967280, 17, 16));
}

TEST(CNxTimeUtils, CalendarAgreesWithTheSystemOnEveryDay) {
    for (long day = 0; day <= 2932896 && !HasFailure(); ++day) {
        const long t = day * 86400 + day * 7919 % 86400;
        tm own{};
        cnx_gmtime(t, &own);
        tm system{};
        gmtime_r(&t, &system);
        EXPECT_EQ(std::tuple(own.tm_year, own.tm_mon, own.tm_mday, own.tm_wday, own.tm_hour,
                             own.tm_min, own.tm_sec),
                  std::tuple(system.tm_year + 1900, system.tm_mon + 1, system.tm_mday,
                             system.tm_wday, system.tm_hour, system.tm_min, system.tm_sec));
    }
}

}  // namespace
