#include "SimulatedClock.h"

#include <sys/time.h>

#include <atomic>
#include <ctime>

namespace {
std::atomic<long> g_now{0};  // microseconds; 0 for the real clock
}

extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
    const long now = g_now.load(std::memory_order_relaxed);
    if (now != 0) {
        *time = {now / 1000000, now % 1000000};
        return 0;
    }
    timespec real{};
    const int result = clock_gettime(CLOCK_REALTIME, &real);
    *time = {real.tv_sec, real.tv_nsec / 1000};
    return result;
}

SimulatedClock::~SimulatedClock() {
    g_now = 0;
}

void SimulatedClock::Advance(long usec) {
    g_now += usec;
}
