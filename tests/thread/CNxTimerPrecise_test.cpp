// Precise timers: in a crowd, then at the end of a process.
#include <nx/thread/CNxTimerPreciseManager.h>

#include <chrono>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "ThreadSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds c_tick(10);

CNxTimeValue ToInterval(milliseconds time) {
    return {0, static_cast<long>(time.count()) * 1000};
}

// How many timers, and how many milliseconds the crowd lives: NXBASE_TEST_FULL=1 for its real size.
int GetSize() {
    return std::getenv("NXBASE_TEST_FULL") != nullptr ? 10000 : 500;
}

// Fires a known number of times; notes what is too early or elsewhere.
struct Counted : CNxTimerPreciseWrapperIDSink {
    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override {
        ++m_calls;
        m_faults += Clock::now() < m_start + m_interval * m_calls - c_tick;
        m_faults += !CNxThreadManager::IsEqualCurrentThread(m_type);
        *m_open -= m_calls == m_count ? 1 : 0;
    }

    milliseconds m_interval{0};
    int m_type = 0;
    std::atomic<int>* m_open = nullptr;
    Clock::time_point m_start = Clock::now();
    CNxTimerPreciseWrapperID m_id;
    int m_count = 0;
    int m_calls = 0;
    int m_faults = 0;
};

// Is cancelled and destroyed at some time: by its own n-th call, or for 0 by another thread.
struct ShortLived : CNxTimerPreciseWrapperIDSink {
    ShortLived(milliseconds interval, int lastCall, const Worker& target)
        : m_lastCall(lastCall), m_target(target) {
        EXPECT_EQ(m_id->Schedule(this, ToInterval(interval), 0, target.GetType()), NX_OK);
    }

    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override {
        m_faults += m_gone.load();
        if (++m_calls == m_lastCall) {
            End();
        }
    }

    void End() {
        m_faults += m_id->Cancel() != NX_OK;
        m_id.reset();
        // What the target has begun is let through.
        m_target.Do([] { return NX_OK; });
        m_gone = 1;
    }

    const int m_lastCall;
    const Worker& m_target;
    int m_calls = 0;
    std::unique_ptr<CNxTimerPreciseWrapperID> m_id = std::make_unique<CNxTimerPreciseWrapperID>();
    std::atomic<int> m_gone{0};
    std::atomic<int> m_faults{0};
};

struct Crowd {
    const Worker& Any() { return m_workers[m_random() % m_workers.size()]; }
    int Number(int low, int high) { return std::uniform_int_distribution(low, high)(m_random); }

    std::mt19937 m_random{4};
    std::deque<Worker> m_workers = std::deque<Worker>(16);
};

int RunShortLived(Crowd& crowd, const std::atomic<int>& open) {
    std::deque<ShortLived> all;
    while (open != 0) {
        const milliseconds interval(crowd.Number(1, 30));
        ShortLived& timer = all.emplace_back(interval, crowd.Number(0, 3), crowd.Any());
        CNxThreadManager::SleepMs(static_cast<unsigned long>(crowd.Number(0, 2)));
        if (timer.m_lastCall == 0) {
            timer.End();
        }
    }
    int faults = 0;
    for (ShortLived& timer : all) {
        YieldUntil([&timer] { return timer.m_gone != 0; });
        faults += timer.m_faults;
    }
    return faults;
}

TEST(TimerPreciseCrowd, EveryTimerFiresItsCountWhileOthersComeAndGo) {
    const int duration = GetSize();
    std::deque<Counted> counted;
    std::atomic<int> open{GetSize()};
    Crowd crowd;
    for (int i = 0; i < GetSize(); ++i) {
        Counted& timer = counted.emplace_back();
        timer.m_interval = milliseconds(crowd.Number(1, duration / 4));
        timer.m_count = duration / static_cast<int>((timer.m_interval.count() + 9) / 10 * 10);
        timer.m_type = crowd.Any().GetType();
        timer.m_open = &open;
        ASSERT_EQ(timer.m_id.Schedule(&timer, ToInterval(timer.m_interval),
                                      static_cast<unsigned long>(timer.m_count), timer.m_type),
                  NX_OK);
    }
    EXPECT_EQ(RunShortLived(crowd, open), 0);
    for (Counted& timer : counted) {
        EXPECT_EQ(timer.m_id.Cancel(), NX_ERROR_NOT_FOUND);
        EXPECT_EQ(timer.m_calls, timer.m_count);
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

TEST_F(TimerPreciseEnd, ProcessThatForgetsItsTimersExitsOnAnyThread) {
    for (const bool onTarget : {false, true}) {
        const auto body = [onTarget] {
            // Never destroyed: the targets run on while a target's exit() destroys statics.
            static auto* const sink = new ExitingSink;
            Must(Manager()->InitMainThread(0, nullptr));
            static auto* const crowd = new Crowd;
            for (int i = 0; i < GetSize(); ++i) {
                Must(g_forgotten.emplace_back().Schedule(sink, ToInterval(c_tick), 0,
                                                         crowd->Any().GetType()));
            }
            if (onTarget) {
                // Not before all are scheduled, which an exit under way refuses.
                sink->m_exitAt = sink->m_calls + 700;
                Manager()->GetThread(NX_THREAD_MAIN)->OnThreadRun();
            }
            YieldUntil([] { return sink->m_calls != 0; });
        };
        ExpectEnd(body);
    }
}

}  // namespace
