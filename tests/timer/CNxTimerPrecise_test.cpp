// Precise timers: on a queue that the test drains itself, then in a crowd, then at the end of a
// process.
#include <gtest/gtest.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/timer/CNxTimerPreciseManager.h>
#include <nx/timer/CNxTimerPreciseWrapperID.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

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

struct Sink : CNxTimerPreciseWrapperIDSink {
    void OnTimer(CNxTimerPreciseWrapperID* id) override {
        ++m_calls;
        if (m_action) {
            m_action(id);
        }
    }

    std::atomic<int> m_calls{0};
    std::function<void(CNxTimerPreciseWrapperID*)> m_action;
};

CNxThreadHeartBeat* MakeHandDrivenThread() {
    auto* const thread = new CNxThreadHeartBeat;
    thread->CreateNotRun(Manager()->GetAndIncreamUserType(), c_joinable);
    thread->OnThreadInit();
    return thread;
}

// The target is the test's own thread, whose events fire when the test says so.
struct TimerPrecise : ::testing::Test {
    ~TimerPrecise() override { m_target->Destory(0); }

    NxResult Schedule(CNxTimerPreciseWrapperID& id, milliseconds interval, unsigned long count) {
        return id.Schedule(&m_sink, ToInterval(interval), count, m_target->GetThreadType());
    }

    void AwaitEvents(size_t count) {
        while (m_target->GetEventQueue()->GetPendingEventsCount() < count) {
            std::this_thread::yield();
        }
    }

    int CallsOfWaitingEvents() {
        const int before = m_sink.m_calls;
        m_target->DoHeartBeat();
        return m_sink.m_calls - before;
    }

    CNxThreadHeartBeat* const m_target = MakeHandDrivenThread();
    Sink m_sink;
};

TEST_F(TimerPrecise, RefusesThreadsThatItCannotCall) {
    CNxTimerPreciseWrapperID id;
    EXPECT_EQ(id.Cancel(), NX_ERROR_FAILURE);
    for (const int type : {NX_THREAD_CALLING, NX_THREAD_PRECISE_TIMER}) {
        EXPECT_EQ(id.Schedule(&m_sink, ToInterval(c_tick), 1, type), NX_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(id.Schedule(&m_sink, ToInterval(c_tick), 1, 3), NX_ERROR_NULL_POINTER);
    EXPECT_EQ(id.Cancel(), NX_ERROR_FAILURE);
    EXPECT_EQ(CNxTimerPreciseManager::Instance()->Cancel(nullptr), NX_ERROR_NULL_POINTER);
}

TEST_F(TimerPrecise, FiresItsCount) {
    CNxTimerPreciseWrapperID id;
    CNxTimerPreciseWrapperID silent;
    EXPECT_EQ(Schedule(id, milliseconds(1), 3), NX_OK);
    silent.Schedule(nullptr, ToInterval(c_tick), 1, m_target->GetThreadType());
    AwaitEvents(3);
    EXPECT_EQ(CallsOfWaitingEvents(), 3);
    EXPECT_EQ(id.Cancel(), NX_ERROR_NOT_FOUND);
    EXPECT_EQ(id.Cancel(), NX_ERROR_FAILURE);
    EXPECT_EQ(Schedule(id, milliseconds(3600000), 0), NX_OK);
    EXPECT_EQ(Schedule(id, c_tick, 1), NX_OK);
    AwaitEvents(1);
    EXPECT_EQ(CallsOfWaitingEvents(), 1);
}

TEST_F(TimerPrecise, EventsThatWaitAreVoidOnceTheIdIsCancelled) {
    auto id = std::make_unique<CNxTimerPreciseWrapperID>();
    Schedule(*id, c_tick, 1);
    AwaitEvents(1);
    EXPECT_EQ(id->Cancel(), NX_ERROR_NOT_FOUND);
    Schedule(*id, c_tick, 1);
    AwaitEvents(2);
    EXPECT_EQ(CallsOfWaitingEvents(), 1);
    // Rescheduling alone leaves what waits in force.
    Schedule(*id, c_tick, 1);
    AwaitEvents(1);
    Schedule(*id, c_tick, 0);
    AwaitEvents(2);
    EXPECT_GE(CallsOfWaitingEvents(), 2);
    AwaitEvents(1);
    EXPECT_EQ(id->Cancel(), NX_OK);
    id.reset();
    EXPECT_EQ(CallsOfWaitingEvents(), 0);
}

TEST_F(TimerPrecise, IdMayGoAfterAZeroIntervalIsCancelledAndAfterItsLastCall) {
    for (int i = 0; i < 100; ++i) {
        CNxTimerPreciseWrapperID replaced;
        Schedule(replaced, c_tick, 0);
        Schedule(replaced, milliseconds(0), 1);
        EXPECT_EQ(replaced.Cancel(), NX_ERROR_NOT_FOUND);
    }
    auto id = std::make_unique<CNxTimerPreciseWrapperID>();
    Schedule(*id, c_tick, 1);
    m_sink.m_action = [&id](CNxTimerPreciseWrapperID* /*fired*/) { id.reset(); };
    while (id != nullptr) {
        m_target->DoHeartBeat();
    }
    EXPECT_EQ(m_sink.m_calls, 1);
}

#ifdef NXBASE_CHECK_THREADS
TEST_F(TimerPrecise, DestroyingAScheduledIdIsSaid) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto body = [this] {
        CNxTimerPreciseWrapperID id;
        Schedule(id, milliseconds(3600000), 1);
    };
    EXPECT_DEATH(body(), "destroyed while scheduled");
}
#endif

// ------------------------------------------------------------------------------------------------

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
        m_id->Schedule(this, ToInterval(interval), 0, type);
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
            Manager()->CreateUserTaskThread(thread, c_joinable, 0);
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
    std::printf("%zu timers cancelled and destroyed meanwhile\n", all.size());
    return faults;
}

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
        timer.m_id.Schedule(&timer, ToInterval(timer.m_interval),
                            static_cast<unsigned long>(timer.m_count), timer.m_type);
    }
    EXPECT_EQ(RunShortLived(crowd, open), 0);
    long calls = 0;
    for (Counted& timer : counted) {
        EXPECT_EQ(timer.m_id.Cancel(), NX_ERROR_NOT_FOUND);
        EXPECT_EQ(timer.m_calls, timer.m_count);
        EXPECT_EQ(timer.m_faults, 0);
        calls += timer.m_calls;
    }
    std::printf("%d timers, %ld calls\n", timers, calls);
}

// ------------------------------------------------------------------------------------------------

// Each body runs in a fresh process; a hang is ended by the time limit of the test.
struct TimerPreciseEnd : ::testing::Test {
    TimerPreciseEnd() { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

// Made before the manager, so destroyed, still scheduled, after the tear-down.
std::deque<CNxTimerPreciseWrapperID> g_forgotten;

void StartForGood(CNxTimerPreciseWrapperIDSink* sink, int type) {
    g_forgotten.emplace_back().Schedule(sink, ToInterval(c_tick), 0, type);
}

TEST_F(TimerPreciseEnd, ThreadEndsWithAllOthersAndStartsAgain) {
    const auto body = [] {
        static Sink sink;
        for (int round = 0; round < 2; ++round) {
            bool good = Manager()->InitMainThread(0, nullptr) == NX_OK;
            CNxTimerPreciseWrapperID id;
            CNxThread* const precise = Manager()->GetThread(NX_THREAD_PRECISE_TIMER);
            good = good && Manager()->JoinAllThreads() == NX_OK && precise->IsRunning();
            CNxThread* worker = nullptr;
            Manager()->CreateUserTaskThread(worker, c_joinable, 1);
            StartForGood(&sink, worker->GetThreadType());
            for (const int before = sink.m_calls; sink.m_calls == before;) {
                std::this_thread::yield();
            }
            Manager()->StopAllThreads(nullptr);
            good = good && precise->IsRunning();
            Manager()->JoinAllThreads();
            good = good && !precise->IsRunning();
            const NxResult late = id.Schedule(&sink, ToInterval(c_tick), 1, NX_THREAD_MAIN);
            if (!good || late != NX_ERROR_NULL_POINTER) {
                std::exit(1);
            }
            worker->Destory(0);
            Manager()->GetThread(NX_THREAD_MAIN)->Destory(0);
        }
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

// Made before the manager, so destroyed after the tear-down.
struct ExitWatch {
    ~ExitWatch() {
        const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - m_exitCalled);
        std::fprintf(stderr, "tear-down took %ld ms, %s\n", static_cast<long>(took.count()),
                     !IsFull() || took < milliseconds(100) ? "in time" : "too late");
    }
    Clock::time_point m_exitCalled;
};

TEST_F(TimerPreciseEnd, ProcessThatForgetsItsTimersExits) {
    const auto body = [] {
        static ExitWatch watch;
        static Sink sink;
        Manager()->InitMainThread(0, nullptr);
        auto* const crowd = new Crowd;
        StartForGood(&sink, MakeHandDrivenThread()->GetThreadType());
        for (int i = 0; i < (IsFull() ? 10000 : 500); ++i) {
            StartForGood(&sink, crowd->AnyType());
        }
        while (sink.m_calls == 0) {
            std::this_thread::yield();
        }
        watch.m_exitCalled = Clock::now();
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "in time");
}

TEST_F(TimerPreciseEnd, ExitOnATargetThreadIsSafe) {
    const auto body = [] {
        static Sink sink;
        Manager()->InitMainThread(0, nullptr);
        CNxThread* worker = nullptr;
        Manager()->CreateUserTaskThread(worker, c_joinable, 1);
        StartForGood(&sink, MakeHandDrivenThread()->GetThreadType());
        sink.m_action = [](CNxTimerPreciseWrapperID*) { std::exit(0); };
        StartForGood(&sink, worker->GetThreadType());
        Manager()->GetThread(NX_THREAD_MAIN)->OnThreadRun();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
