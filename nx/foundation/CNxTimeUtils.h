// Clock helpers beside CNxTimeValue: ticks that wrap, calendar conversion, the date of HTTP
// headers. All clocks are the wall clock. Nothing here keeps state; any thread may call anything.
#pragma once

#include <sys/time.h>

#include <ctime>

#include <nx/foundation/CNxString.h>

// Ticks are 32-bit counters that wrap: the sign of their difference decides which of two is later,
// so they compare correctly while they are less than 2^31 apart.

// Placeholders for tick sources: always 0.
constexpr unsigned int Time() noexcept {
    return 0;
}
constexpr unsigned long TimeMicros() noexcept {
    return 0;
}
constexpr unsigned long TimeNanos() noexcept {
    return 0;
}

// The tick `elapsed` from now; as Time() stands still at 0, `elapsed` itself.
constexpr unsigned int TimeAfter(int elapsed) noexcept {
    return Time() + static_cast<unsigned int>(elapsed);
}

// a - b: positive when a is later.
constexpr int TimeDiff(unsigned int a, unsigned int b) noexcept {
    return static_cast<int>(a - b);
}

// Whether b, the SECOND, is later than a.
constexpr bool TimeIsLater(unsigned int a, unsigned int b) noexcept {
    return TimeDiff(b, a) > 0;
}
constexpr bool TimeIsLaterOrEqual(unsigned int a, unsigned int b) noexcept {
    return TimeDiff(b, a) >= 0;
}

// Whether `middle` lies in [earlier, later], a range that may wrap.
constexpr bool TimeIsBetween(unsigned int earlier, unsigned int middle,
                             unsigned int later) noexcept {
    return earlier <= later ? earlier <= middle && middle <= later
                            : earlier <= middle || middle <= later;
}

// gettimeofday(2), its result unchanged.
int cnx_gettimeofday(timeval* tv, void* tz);

// The current UTC time as the system's tm (months 0..11, years since 1900) and the microseconds of
// the second; the epoch when the clock cannot be read. A null pointer leaves its half out.
void CurrentTmTime(tm* out, int* usec);

// The library's own UTC conversion. UNLIKE the system's, tm_mon is 1..12 and tm_year the full year,
// e.g. 2026. Sets those, tm_mday, tm_hour, tm_min, tm_sec and tm_wday (0 is Sunday); the other
// fields stay as they are. Clamps: times before 1970 give its first second, times after the year
// 9999 its last. Days are counted in 32 bits, so from t = 86400 * 2^32 on the calendar starts anew.
void cnx_gmtime(long t, tm* out);

// The current UTC time as in "Sun, 15 Nov 2026 18:12:11 GMT" (RFC 1123).
CNxString GetGMTTimeString();

// Sleeps that many milliseconds in full, also when signals interrupt it; any other failure of
// nanosleep(2) ends the sleep.
void cnx_sleep_ms(unsigned long ms);
