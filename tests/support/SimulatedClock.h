// The wall clock under the control of a test: the library reads it with gettimeofday(), and a test
// program that has SimulatedClock.cpp among its sources gets its own one.
#pragma once

#include <nx/foundation/CNxTimeValue.h>

// The clock stands still until the test moves it; the real one runs again at the end of the scope.
class SimulatedClock {
public:
    SimulatedClock() { Advance(1000000000000000); }
    ~SimulatedClock();
    SimulatedClock(const SimulatedClock&) = delete;
    SimulatedClock& operator=(const SimulatedClock&) = delete;

    void Advance(long usec);
};
