// Precise timers: in a crowd, then at the end of a process.
#include <gtest/gtest.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxTimerPreciseManager.h>
#include <nx/thread/CNxTimerPreciseWrapperID.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "../support/Must.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto c_joinable = CNxThreadManager::FLAG_JOINABLE;
constexpr milliseconds c_tick(10);

CNxThreadManager* Manager() {
    return CNxThreadManager::Instance();
}

CNxTimeValue ToInterval(milliseconds time) {
    return {0, static_cast<long>(time.count()) * 1000};
}

// NXBASE_TEST_FULL=1 runs the crowd in its real size.
bool IsFull() {
    return std::getenv("NXBASE_TEST_FULL") != nullptr;
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

struct Nothing : INxEvent {
    NxResult OnEventFire() override { return NX_OK; }
};

// Is cancelled and destroyed at some time: by its own n-th call, or for 0 by another thread.
struct ShortLived : CNxTimerPreciseWrapperIDSink {
    ShortLived(milliseconds interval, int lastCall, int type) : m_lastCall(lastCall), m_type(type) {
        EXPECT_EQ(m_id->Schedule(this, ToInterval(interval), 0, type), NX_OK);
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
        Manager()->GetThreadEventQueue(m_type)->SendEvent(new Nothing);
        m_gone = 1;
    }

    const int m_lastCall;
    const int m_type;
    int m_calls = 0;
    std::unique_ptr<CNxTimerPreciseWrapperID> m_id = std::make_unique<CNxTimerPreciseWrapperID>();
    std::atomic<int> m_gone{0};
    std::atomic<int> m_faults{0};
};

struct Crowd {
    Crowd() {
        for (CNxThread*& thread : m_threads) {
            Must(Manager()->CreateUserTaskThread(thread, c_joinable, 0));
        }
    }
    ~Crowd() {
        for (CNxThread* thread : m_threads) {
            thread->Stop(nullptr);
            thread->Join();
            thread->Destory(0);
        }
    }
    int AnyType() { return m_threads[m_random() % m_threads.size()]->GetThreadType(); }
    int Number(int low, int high) { return std::uniform_int_distribution(low, high)(m_random); }

    std::mt19937 m_random{4};
    std::vector<CNxThread*> m_threads = std::vector<CNxThread*>(16);
};

int RunShortLived(Crowd& crowd, const std::atomic<int>& open) {
    std::deque<ShortLived> all;
    while (open != 0) {
        const milliseconds interval(crowd.Number(1, 30));
        ShortLived& timer = all.emplace_back(interval, crowd.Number(0, 3), crowd.AnyType());
        CNxThreadManager::SleepMs(static_cast<unsigned long>(crowd.Number(0, 2)));
        if (timer.m_lastCall == 0) {
            timer.End();
        }
    }
    int faults = 0;
    for (ShortLived& timer : all) {
        while (timer.m_gone == 0) {
            std::this_thread::yield();
        }
        faults += timer.m_faults;
    }
    return faults;
}

// ------------------------------------------------------------------------------------------------

TEST(TimerPreciseCrowd, EveryTimerFiresItsCountWhileOthersComeAndGo) {
    const int timers = IsFull() ? 10000 : 500;
    const int duration = IsFull() ? 10000 : 500;
    std::deque<Counted> counted;
    std::atomic<int> open{timers};
    Crowd crowd;
    for (int i = 0; i < timers; ++i) {
        Counted& timer = counted.emplace_back();
        timer.m_interval = milliseconds(crowd.Number(1, duration / 4));
        timer.m_count = duration / static_cast<int>((timer.m_interval.count() + 9) / 10 * 10);
        timer.m_type = crowd.AnyType();
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

struct Sink : CNxTimerPreciseWrapperIDSink {
    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override {
        if (++m_calls == m_exitAt) {
            std::exit(0);
        }
    }

    std::atomic<int> m_calls{0};
    std::atomic<int> m_exitAt{0};
};

// Runs in a fresh process; a hang is ended by the time limit of the test.
TEST(TimerPreciseEnd, ProcessThatForgetsItsTimersExitsOnAnyThread) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    for (const bool onTarget : {false, true}) {
        const auto body = [onTarget] {
            // Never destroyed: the targets run on while a target's exit() destroys statics.
            static auto* const sink = new Sink;
            Must(Manager()->InitMainThread(0, nullptr));
            static auto* const crowd = new Crowd;
            for (int i = 0; i < (IsFull() ? 10000 : 500); ++i) {
                Must(g_forgotten.emplace_back().Schedule(sink, ToInterval(c_tick), 0,
                                                         crowd->AnyType()));
            }
            if (onTarget) {
                // Not before all are scheduled, which an exit under way refuses.
                sink->m_exitAt = sink->m_calls + 700;
                Manager()->GetThread(NX_THREAD_MAIN)->OnThreadRun();
            }
            while (sink->m_calls == 0) {
                std::this_thread::yield();
            }
            std::exit(0);
        };
        EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "") << "on a target " << onTarget;
    }
}

}  // namespace
