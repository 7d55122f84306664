#include <nx/foundation/CNxTimeValue.h>

#include <atomic>
#include <ctime>

namespace {

constexpr long c_nsecPerUsec = 1000;

// From the monotonic clock to what GetTimeOfDay returns, in microseconds; c_wallClock while that is
// the wall clock.
constexpr long c_wallClock = std::numeric_limits<long>::min();
std::atomic<long> s_offset{c_wallClock};

CNxTimeValue GetWallClock() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now;
}

}  // namespace

CNxTimeValue CNxTimeValue::GetTimeOfDay() noexcept {
    const long offset = s_offset.load(std::memory_order_relaxed);
    return offset == c_wallClock ? GetWallClock() : GetMonotonicTime() + CNxTimeValue(0, offset);
}

void CNxTimeValue::UseMonotonicClock() noexcept {
    const CNxTimeValue offset = GetWallClock() - GetMonotonicTime();
    long none = c_wallClock;
    s_offset.compare_exchange_strong(none, offset.GetSec() * c_usecPerSec + offset.GetUsec());
}

CNxTimeValue CNxTimeValue::GetMonotonicTime() noexcept {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec / c_nsecPerUsec};
}
