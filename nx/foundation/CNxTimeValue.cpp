#include <nx/foundation/CNxTimeValue.h>

#include <ctime>

namespace {

constexpr long c_nsecPerUsec = 1000;

}  // namespace

CNxTimeValue CNxTimeValue::GetTimeOfDay() noexcept {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now;
}

CNxTimeValue CNxTimeValue::GetMonotonicTime() noexcept {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec / c_nsecPerUsec};
}
