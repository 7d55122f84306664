// Precise timers: in a crowd, then at the end of a process.
#include <nx/thread/CNxTimerPreciseManager.h>

#include <chrono>
#include <deque>
#include <memory>
#include <random>

#include "ThreadSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds c_tick(10);
constexpr int c_count = 20;

// How many timers, and how many milliseconds the crowd lives: NXBASE_TEST_FULL=1 for its real size.
int GetSize() {
    return std::getenv("NXBASE_TEST_FULL") != nullptr ? 10000 : 500;
}

struct Crowd {
    const Worker& Any() { return m_workers[m_random() % m_workers.size()]; }
    int Number(int low, int high) { return std::uniform_int_distribution(low, high)(m_random); }

    std::mt19937 m_random{4};
    std::deque<Worker> m_workers = std::deque<Worker>(16);
};

// Fires a number of times, or until it is cancelled and destroyed: by its own n-th call, or by
// another thread. Notes calls that are too early, after its end or elsewhere.
struct Timer : CNxTimerPreciseWrapperIDSink {
    Timer(Crowd& crowd, int longest, unsigned long count, int lastCall)
        : m_interval(crowd.Number(1, longest)), m_target(crowd.Any()), m_lastCall(lastCall) {
        const CNxTimeValue interval(0, static_cast<long>(m_interval.count()) * 1000);
        EXPECT_EQ(m_id->Schedule(this, interval, count, m_target.GetType()), NX_OK);
    }

    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override {
        m_faults += m_gone.load();
        m_faults += Clock::now() < m_start + m_interval * ++m_calls - c_tick;
        m_faults += !CNxThreadManager::IsEqualCurrentThread(m_target.GetType());
        if (m_calls == m_lastCall) {
            End();
        }
    }

    void End() {
        m_faults += m_id->Cancel() != NX_OK;
        m_id.reset();
        // What the target has begun is let through.
        m_target.Do([] {});
        m_gone = 1;
    }

    const milliseconds m_interval;
    const Worker& m_target;
    const int m_lastCall;
    const Clock::time_point m_start = Clock::now();
    std::unique_ptr<CNxTimerPreciseWrapperID> m_id = std::make_unique<CNxTimerPreciseWrapperID>();
    std::atomic<int> m_calls{0};
    std::atomic<int> m_gone{0};
    std::atomic<int> m_faults{0};
};

TEST(TimerPreciseCrowd, EveryTimerFiresItsCountWhileOthersComeAndGo) {
    std::deque<Timer> counted;
    std::deque<Timer> shortLived;
    Crowd crowd;
    const Clock::time_point end = Clock::now() + milliseconds(GetSize());
    for (int i = 0; i < GetSize(); ++i) {
        counted.emplace_back(crowd, GetSize() / c_count, c_count, 0);
    }
    while (Clock::now() < end) {
        Timer& timer = shortLived.emplace_back(crowd, 30, 0, crowd.Number(0, 3));
        CNxThreadManager::SleepMs(static_cast<unsigned long>(crowd.Number(0, 2)));
        if (timer.m_lastCall == 0) {
            timer.End();
        }
    }
    for (Timer& timer : shortLived) {
        YieldUntil([&timer] { return timer.m_gone != 0; });
        EXPECT_EQ(timer.m_faults, 0);
    }
    for (Timer& timer : counted) {
        YieldUntil([&timer] { return timer.m_calls >= c_count; });
        EXPECT_EQ(timer.m_id->Cancel(), NX_ERROR_NOT_FOUND);
        EXPECT_EQ(timer.m_calls, c_count);
        EXPECT_EQ(timer.m_faults, 0);
    }
}

// Made before the manager, so destroyed, still scheduled, after the tear-down.
std::deque<CNxTimerPreciseWrapperID> g_forgotten;

struct ExitingSink : CountingSink {
    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override {
        if (++m_calls == m_exitAt) {
            std::exit(0);
        }
    }
    std::atomic<int> m_exitAt{0};
};

using TimerPreciseEnd = ProcessEnd;

TEST_F(TimerPreciseEnd, ProcessThatForgetsItsTimersExitsOnTheirTarget) {
    const auto body = [] {
        // Never destroyed: the targets run on while a target's exit() destroys statics.
        static auto* const sink = new ExitingSink;
        Must(Manager()->InitMainThread(0, nullptr));
        static auto* const crowd = new Crowd;
        for (int i = 0; i < GetSize(); ++i) {
            Must(g_forgotten.emplace_back().Schedule(sink, CNxTimeValue(0, 10000), 0,
                                                     crowd->Any().GetType()));
        }
        // Not before all are scheduled, which an exit under way refuses.
        sink->m_exitAt = sink->m_calls + 700;
        Manager()->GetThread(NX_THREAD_MAIN)->OnThreadRun();
    };
    ExpectEnd(body);
}

}  // namespace
