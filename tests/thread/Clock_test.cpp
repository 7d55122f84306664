// What a step of the wall clock moves, and what it does not.
#include <gtest/gtest.h>
#include <nx/foundation/CNxEventThread.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxTimerPreciseManager.h>
#include <nx/thread/CNxTimerPreciseWrapperID.h>
#include <nx/thread/CNxTimerWrapperID.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "../support/CountedEvent.h"
#include "../support/Must.h"
#include "../support/SimulatedClock.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr long c_hour = 3600L * 1000000;

// Sets the simulated wall clock to the real time and that much beyond.
void SetWallClock(SimulatedClock& clock, long usecFromNow) {
    const auto real = std::chrono::system_clock::now().time_since_epoch();
    const long now = std::chrono::duration_cast<std::chrono::microseconds>(real).count();
    clock.Advance(now + usecFromNow - CNxTimeValue::GetTimeOfDay().GetTotalInMsec() * 1000);
}

TEST(Clock, WaitLastsAsLongAsItSaysWhateverTheWallClockShows) {
    for (const long step : {-c_hour, c_hour}) {
        SimulatedClock clock;
        SetWallClock(clock, step);
        CNxEventThread never;
        CNxTimeValue timeout(0, 30000);
        const auto start = steady_clock::now();
        EXPECT_EQ(never.Wait(&timeout), NX_ERROR_TIMEOUT);
        EXPECT_GE(steady_clock::now() - start, milliseconds(30));
    }
}

class Sink : public CNxTimerPreciseWrapperIDSink {
public:
    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override { ++m_calls; }
    std::atomic<int> m_calls{0};
};

// A step at each of these moments; a wait that follows it runs into the time limit of the test.
TEST(Clock, StepKeepsNoPreciseTimerStopOrJoinWaiting) {
    for (const long step : {-c_hour, -1000000L, c_hour}) {
        SimulatedClock clock;
        SetWallClock(clock, 0);
        CNxThread* thread = nullptr;
        Must(CNxThreadManager::Instance()->CreateUserTaskThread(
            thread, CNxThreadManager::FLAG_JOINABLE, 1));
        Sink sink;
        CNxTimerPreciseWrapperID timer;
        Must(timer.Schedule(&sink, CNxTimeValue(0, 10000), 0, thread->GetThreadType()));
        clock.Advance(step);
        for (const int seen = sink.m_calls; sink.m_calls < seen + 3;) {
            std::this_thread::yield();
        }
        EXPECT_EQ(timer.Cancel(), NX_OK);
        EXPECT_EQ(thread->Stop(nullptr), NX_OK);
        EXPECT_EQ(thread->Join(), NX_OK);
        thread->Destory(0);
    }
}

class Expiry : public INxTimerHandler {
public:
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { m_isFired = true; }
    std::atomic<bool> m_isFired{false};
};

// One that is not noticed runs into the time limit of the test.
TEST(Clock, StepMovesTheTimersOfAThreadThatSleeps) {
    SimulatedClock clock;
    Expiry expiry;
    CNxThread* thread = nullptr;
    Must(CNxThreadManager::Instance()->CreateUserTaskThread(thread, CNxThreadManager::FLAG_JOINABLE,
                                                            1));
    EventCounts counts;
    thread->GetEventQueue()->SendEvent(new CountedEvent(counts, [&] {
        Must(thread->GetTimerQueue()->ScheduleTimer(&expiry, nullptr, CNxTimeValue(3600), 1));
        return NX_OK;
    }));
    CNxThreadManager::SleepMs(20);
    clock.Advance(c_hour);
    while (!expiry.m_isFired) {
        std::this_thread::yield();
    }
    thread->Stop(nullptr);
    thread->Join();
    thread->Destory(0);
}

long CountSleeps() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
}

TEST(Clock, PreciseTimersSleepUntilTheNextIsDue) {
    CNxThread* thread = nullptr;
    Must(CNxThreadManager::Instance()->CreateUserTaskThread(thread, CNxThreadManager::FLAG_JOINABLE,
                                                            0));
    Sink sink;
    CNxTimerPreciseWrapperID far;
    CNxTimerPreciseWrapperID near;
    Must(far.Schedule(&sink, CNxTimeValue(3600), 0, thread->GetThreadType()));
    EXPECT_FALSE(CNxTimerPreciseManager::Instance()->IsStopped());
    const long before = CountSleeps();
    CNxThreadManager::SleepMs(300);
    EXPECT_LT(CountSleeps() - before, 10);
    // Wakes a thread that was going to sleep for long, and counts from now.
    const auto start = steady_clock::now();
    Must(near.Schedule(&sink, CNxTimeValue(0, 20000), 1, thread->GetThreadType()));
    while (sink.m_calls == 0) {
        std::this_thread::yield();
    }
    EXPECT_GE(steady_clock::now() - start, milliseconds(20));
    EXPECT_EQ(far.Cancel(), NX_OK);
    thread->Stop(nullptr);
    thread->Join();
    thread->Destory(0);
}

// For good, so in a process of its own.
TEST(ClockChoice, TimersOfAProcessThatChoosesTheMonotonicClockDoNotMove) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
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
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
