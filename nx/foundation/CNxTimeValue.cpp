#include <nx/foundation/CNxTimeValue.h>

CNxTimeValue CNxTimeValue::GetTimeOfDay() noexcept {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now;
}
