// The one representation of a point in time and of a duration: whole seconds and microseconds, both
// signed 64-bit. Points in time are wall-clock time since the epoch, so timers move when the system
// clock is set, unless the process has chosen otherwise (UseMonotonicClock). How long anything
// waits is measured by the monotonic clock.
//
// operator< means LATER THAN, the same as operator>: heaps of the standard library then keep the
// earliest time at their top. No std::sort, std::min, std::max or ordered container by accident;
// compare with > and <=.
#pragma once

#include <sys/time.h>

#include <cassert>
#include <limits>

// Two words, passed by value. Always normalised: the microseconds lie between -999999 and 999999,
// and when the seconds are not zero both fields have the same sign or the microseconds are zero.
// Minus half a second is (0, -500000).
//
// Overflow is not detected: seconds, sums and milliseconds wrap modulo 2^64, also with s_tvMax().
class CNxTimeValue {
public:
    constexpr CNxTimeValue() noexcept = default;
    constexpr explicit CNxTimeValue(int sec) noexcept : m_sec(sec) {}
    constexpr explicit CNxTimeValue(long sec) noexcept : m_sec(sec) {}
    constexpr CNxTimeValue(long sec, long usec) noexcept { Set(sec, usec); }
    constexpr CNxTimeValue(const timeval& time) noexcept { Set(time); }

    // Cut off after the microseconds, so 2.3 gives (2, 299999). Saturates: what is too large gives
    // s_tvMax(), too small its counterpart (LONG_MIN, -999999), not a number zero.
    constexpr explicit CNxTimeValue(double seconds) noexcept { Set(seconds); }

    constexpr void Set(long sec, long usec) noexcept;
    constexpr void Set(const timeval& time) noexcept { Set(time.tv_sec, time.tv_usec); }
    constexpr void Set(double seconds) noexcept;
    constexpr void SetByTotalMsec(long msec) noexcept;

    constexpr long GetSec() const noexcept { return m_sec; }
    constexpr long GetUsec() const noexcept { return m_usec; }

    // Microseconds below a whole millisecond are cut off towards zero. -1 for s_tvMax(), by
    // wrapping.
    constexpr long GetTotalInMsec() const noexcept;

    // The wall clock now.
    static CNxTimeValue GetTimeOfDay() noexcept;

    // FOR THE WHOLE PROCESS AND FOR GOOD: from here on GetTimeOfDay goes on from what it is now at
    // the pace of the monotonic clock, whatever the system clock is set to, and with it all timers.
    // It drifts apart from the system clock then: times for people to read and for other machines
    // come from gettimeofday(2). Before the first timer; a second call changes nothing.
    static void UseMonotonicClock() noexcept;

    // The monotonic clock now: since some point in the past that is the same for the whole process,
    // never set. For measuring how long something takes.
    static CNxTimeValue GetMonotonicTime() noexcept;

    static constexpr CNxTimeValue s_tvZero() noexcept { return {0, 0}; }

    // The largest value: stands for "nothing pending" and "wait without limit".
    static constexpr CNxTimeValue s_tvMax() noexcept {
        return {std::numeric_limits<long>::max(), c_usecPerSec - 1};
    }

    // Every operation leaves its value normalised; there is no need to call it.
    constexpr void Normalize() noexcept;

    constexpr CNxTimeValue& operator+=(const CNxTimeValue& other) noexcept;
    constexpr CNxTimeValue& operator-=(const CNxTimeValue& other) noexcept;

private:
    static constexpr long c_usecPerSec = 1000000;

    // Signed overflow is undefined; these wrap.
    static constexpr unsigned long U(long value) { return static_cast<unsigned long>(value); }
    static constexpr long Add(long a, long b) { return static_cast<long>(U(a) + U(b)); }
    static constexpr long Sub(long a, long b) { return static_cast<long>(U(a) - U(b)); }

    long m_sec = 0;
    long m_usec = 0;
};

// 1 or 0 each.
constexpr int operator>(const CNxTimeValue& a, const CNxTimeValue& b) noexcept {
    return a.GetSec() > b.GetSec() || (a.GetSec() == b.GetSec() && a.GetUsec() > b.GetUsec());
}
constexpr int operator>=(const CNxTimeValue& a, const CNxTimeValue& b) noexcept {
    return a.GetSec() > b.GetSec() || (a.GetSec() == b.GetSec() && a.GetUsec() >= b.GetUsec());
}
// Later than, see the top.
constexpr int operator<(const CNxTimeValue& a, const CNxTimeValue& b) noexcept {
    return a > b;
}
constexpr int operator<=(const CNxTimeValue& a, const CNxTimeValue& b) noexcept {
    return b >= a;
}
constexpr int operator==(const CNxTimeValue& a, const CNxTimeValue& b) noexcept {
    return a.GetSec() == b.GetSec() && a.GetUsec() == b.GetUsec();
}
constexpr int operator!=(const CNxTimeValue& a, const CNxTimeValue& b) noexcept {
    return a.GetSec() != b.GetSec() || a.GetUsec() != b.GetUsec();
}

constexpr CNxTimeValue operator+(CNxTimeValue a, const CNxTimeValue& b) noexcept {
    return a += b;
}
constexpr CNxTimeValue operator-(CNxTimeValue a, const CNxTimeValue& b) noexcept {
    return a -= b;
}

// Implementation.

constexpr void CNxTimeValue::Set(long sec, long usec) noexcept {
    m_sec = sec;
    m_usec = usec;
    Normalize();
}

constexpr void CNxTimeValue::Set(double seconds) noexcept {
    constexpr long c_minSec = std::numeric_limits<long>::min();
    constexpr double c_limit = -static_cast<double>(c_minSec);  // 2^63 exactly
    if (seconds >= c_limit) {
        *this = s_tvMax();
    } else if (seconds < -c_limit) {
        Set(c_minSec, 1 - c_usecPerSec);
    } else if (seconds != seconds) {
        *this = s_tvZero();
    } else {
        const long sec = static_cast<long>(seconds);
        Set(sec, static_cast<long>((seconds - static_cast<double>(sec)) * 1000000.0));
    }
}

constexpr void CNxTimeValue::SetByTotalMsec(long msec) noexcept {
    m_sec = msec / 1000;
    m_usec = msec % 1000 * 1000;
}

constexpr long CNxTimeValue::GetTotalInMsec() const noexcept {
    return static_cast<long>(U(m_sec) * 1000 + U(m_usec / 1000));
}

constexpr void CNxTimeValue::Normalize() noexcept {
    if (m_usec >= c_usecPerSec || m_usec <= -c_usecPerSec) {
        m_sec = Add(m_sec, m_usec / c_usecPerSec);
        m_usec %= c_usecPerSec;
    }
    if (m_sec > 0 && m_usec < 0) {
        --m_sec;
        m_usec += c_usecPerSec;
    } else if (m_sec < 0 && m_usec > 0) {
        ++m_sec;
        m_usec -= c_usecPerSec;
    }
    assert(m_usec > -c_usecPerSec && m_usec < c_usecPerSec);
    assert(m_sec == 0 || m_usec == 0 || (m_sec > 0) == (m_usec > 0));
}

constexpr CNxTimeValue& CNxTimeValue::operator+=(const CNxTimeValue& other) noexcept {
    Set(Add(m_sec, other.m_sec), m_usec + other.m_usec);
    return *this;
}

constexpr CNxTimeValue& CNxTimeValue::operator-=(const CNxTimeValue& other) noexcept {
    Set(Sub(m_sec, other.m_sec), m_usec - other.m_usec);
    return *this;
}
