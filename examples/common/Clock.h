// The clock of all measurements.
#pragma once

#include <chrono>
#include <cstdint>

namespace examples {

constexpr std::int64_t c_nsPerSecond = 1000000000;

// Nanoseconds from an arbitrary start; does not move when the system time is set.
inline std::int64_t NowNs() {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart).count();
}

}  // namespace examples
