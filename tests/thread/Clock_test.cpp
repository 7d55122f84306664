// What a step of the wall clock moves, and what it does not.
#include <nx/thread/CNxTimerPreciseManager.h>
#include <nx/timer/CNxTimedCall.h>
#include <sys/resource.h>

#include <chrono>

#include "../support/SimulatedClock.h"
#include "ThreadSupport.h"

namespace {

constexpr long c_hour = 3600L * 1000000;

// Sets the simulated wall clock to the real time and that much beyond.
void SetWallClock(SimulatedClock& clock, long usecFromNow) {
    const auto real = std::chrono::system_clock::now().time_since_epoch();
    const long now = std::chrono::duration_cast<std::chrono::microseconds>(real).count();
    clock.Advance(now + usecFromNow - CNxTimeValue::GetTimeOfDay().GetTotalInMsec() * 1000);
}

// A step at each of these moments; a wait that follows it runs into the time limit of the test.
TEST(Clock, StepKeepsNoPreciseTimerStopOrJoinWaiting) {
    for (const long step : {-c_hour, -1000000L, c_hour}) {
        SimulatedClock clock;
        SetWallClock(clock, 0);
        CountingSink sink;
        CNxTimerPreciseWrapperID timer;
        const Worker worker;
        Must(timer.Schedule(&sink, CNxTimeValue(0, 10000), 0, worker.GetType()));
        clock.Advance(step);
        YieldUntil([&, seen = sink.m_calls.load()] { return sink.m_calls >= seen + 3; });
        EXPECT_EQ(timer.Cancel(), NX_OK);
    }
}

// One that is not noticed runs into the time limit of the test.
TEST(Clock, StepMovesTheTimersOfAThreadThatSleeps) {
    SimulatedClock clock;
    std::atomic<bool> isFired{false};
    CNxTimedCall call;
    const Worker worker;
    worker.Do([&] {
        const auto fire = [&isFired] { isFired = true; };
        Must(call.RunAfter(*worker->GetTimerQueue(), CNxTimeValue(3600), fire));
    });
    CNxThreadManager::SleepMs(20);
    clock.Advance(c_hour);
    YieldUntil([&] { return isFired.load(); });
}

long CountSleeps() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
}

TEST(Clock, PreciseTimersSleepUntilTheNextIsDue) {
    CountingSink sink;
    CNxTimerPreciseWrapperID far;
    CNxTimerPreciseWrapperID near;
    const Worker worker(0);
    Must(far.Schedule(&sink, CNxTimeValue(3600), 0, worker.GetType()));
    EXPECT_FALSE(CNxTimerPreciseManager::Instance()->IsStopped());
    const long before = CountSleeps();
    CNxThreadManager::SleepMs(300);
    EXPECT_LT(CountSleeps() - before, 10);
    // Wakes a thread that was going to sleep for long, and counts from now.
    const auto start = std::chrono::steady_clock::now();
    Must(near.Schedule(&sink, CNxTimeValue(0, 20000), 1, worker.GetType()));
    YieldUntil([&] { return sink.m_calls != 0; });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_EQ(far.Cancel(), NX_OK);
}

using ClockChoice = ProcessEnd;

// For good, so in a process of its own.
TEST_F(ClockChoice, TimersOfAProcessThatChoosesTheMonotonicClockDoNotMove) {
    const auto body = [] {
        SimulatedClock clock;
        const CNxTimeValue wall = CNxTimeValue::GetTimeOfDay();
        CNxTimeValue::UseMonotonicClock();
        const CNxTimeValue first = CNxTimeValue::GetTimeOfDay();
        const bool goesOn = first >= wall && first - wall <= CNxTimeValue(60);
        clock.Advance(-c_hour);
        CNxTimeValue::UseMonotonicClock();
        const CNxTimeValue second = CNxTimeValue::GetTimeOfDay();
        std::exit(goesOn && second >= first && second - first <= CNxTimeValue(60) ? 0 : 1);
    };
    ExpectEnd(body);
}

}  // namespace
