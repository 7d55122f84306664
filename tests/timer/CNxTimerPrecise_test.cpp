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

class Sink : public CNxTimerPreciseWrapperIDSink {
public:
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
class TimerPrecise : public ::testing::Test {
protected:
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
    CNxTimerPreciseManager* const manager = CNxTimerPreciseManager::Instance();
    EXPECT_EQ(Manager()->GetThread(NX_THREAD_PRECISE_TIMER), manager);
    EXPECT_EQ(manager->Cancel(nullptr), NX_ERROR_NULL_POINTER);
    EXPECT_EQ(manager->Stop(nullptr), NX_OK);
    EXPECT_TRUE(manager->IsRunning());
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

TEST_F(TimerPrecise, IdMayGoAfterItsLastCallAndAfterAZeroIntervalIsCancelled) {
    auto id = std::make_unique<CNxTimerPreciseWrapperID>();
    Schedule(*id, milliseconds(0), 5);
    AwaitEvents(1);
    m_sink.m_action = [&id](CNxTimerPreciseWrapperID* fired) {
        EXPECT_EQ(fired, id.get());
        id.reset();
    };
    EXPECT_EQ(CallsOfWaitingEvents(), 1);
    for (int i = 0; i < 100; ++i) {
        CNxTimerPreciseWrapperID replaced;
        Schedule(replaced, c_tick, 0);
        Schedule(replaced, milliseconds(0), 1);
        EXPECT_EQ(replaced.Cancel(), NX_ERROR_NOT_FOUND);
    }
    CNxTimerPreciseWrapperID last;
    m_sink.m_action = nullptr;
    Schedule(last, c_tick, 1);
    m_target->DoHeartBeat();
    AwaitEvents(1);
    EXPECT_EQ(CallsOfWaitingEvents(), 1);
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

// Fires a known number of times; notes when that is too often or too early.
class Counted : public CNxTimerPreciseWrapperIDSink {
public:
    void Start(milliseconds interval, int count, int type, std::atomic<int>& open) {
        m_interval = interval;
        m_count = count;
        m_type = type;
        m_open = &open;
        m_start = Clock::now();
        m_id.Schedule(this, ToInterval(interval), static_cast<unsigned long>(count), type);
    }

    void OnTimer(CNxTimerPreciseWrapperID* id) override {
        ++m_calls;
        m_faults += Clock::now() < m_start + m_interval * m_calls - c_tick;
        m_faults += id != &m_id || !CNxThreadManager::IsEqualCurrentThread(m_type);
        if (m_calls == m_count) {
            --*m_open;
        }
    }

    CNxTimerPreciseWrapperID m_id;
    int m_calls = 0;
    int m_count = 0;
    int m_faults = 0;

private:
    milliseconds m_interval{0};
    int m_type = 0;
    std::atomic<int>* m_open = nullptr;
    Clock::time_point m_start;
};

// Is cancelled and destroyed at some time: by itself in a callback, or by another thread.
class ShortLived : public CNxTimerPreciseWrapperIDSink {
public:
    ShortLived(milliseconds interval, int callsOfItsOwn, int type)
        : m_type(type), m_callsOfItsOwn(callsOfItsOwn) {
        m_id->Schedule(this, ToInterval(interval), 0, type);
    }

    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override {
        m_faults += m_gone.load();
        if (++m_calls == m_callsOfItsOwn) {
            End();
        }
    }

    // On another thread: what the target has begun is let through.
    void EndFromOutside();

    bool EndsItself() const { return m_callsOfItsOwn != 0; }
    int GetFaults() const { return m_faults; }
    bool IsGone() const { return m_gone != 0; }

private:
    void End() {
        m_faults += m_id->Cancel() != NX_OK;
        m_id.reset();
        m_gone = 1;
    }

    const int m_type;
    const int m_callsOfItsOwn;
    int m_calls = 0;
    std::unique_ptr<CNxTimerPreciseWrapperID> m_id = std::make_unique<CNxTimerPreciseWrapperID>();
    std::atomic<int> m_gone{0};
    std::atomic<int> m_faults{0};
};

class Nothing : public INxEvent {
public:
    NxResult OnEventFire() override { return NX_OK; }
};

void ShortLived::EndFromOutside() {
    m_faults += m_id->Cancel() != NX_OK;
    m_id.reset();
    Manager()->GetThreadEventQueue(m_type)->SendEvent(new Nothing);
    m_gone = 1;
}

class Crowd {
public:
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

private:
    std::mt19937 m_random{4};
    std::vector<CNxThread*> m_threads = std::vector<CNxThread*>(16);
};

int RunShortLived(Crowd& crowd, const std::atomic<int>& open) {
    std::deque<ShortLived> all;
    while (open != 0) {
        const int calls = crowd.Number(0, 3);
        ShortLived& timer =
            all.emplace_back(milliseconds(crowd.Number(1, 30)), calls, crowd.AnyType());
        CNxThreadManager::SleepMs(static_cast<unsigned long>(crowd.Number(0, 2)));
        if (!timer.EndsItself()) {
            timer.EndFromOutside();
        }
    }
    int faults = 0;
    for (ShortLived& timer : all) {
        while (!timer.IsGone()) {
            std::this_thread::yield();
        }
        faults += timer.GetFaults();
    }
    std::printf("%zu timers cancelled and destroyed meanwhile\n", all.size());
    return faults;
}

TEST(TimerPreciseCrowd, EveryTimerFiresItsCountWhileOthersComeAndGo) {
    const int timers = IsFull() ? 10000 : 500;
    const int duration = IsFull() ? 10000 : 500;
    std::vector<Counted> counted(static_cast<size_t>(timers));
    std::atomic<int> open{timers};
    Crowd crowd;
    for (Counted& timer : counted) {
        const int interval = crowd.Number(1, duration / 4);
        const int onGrid = (interval + 9) / 10 * 10;
        timer.Start(milliseconds(interval), duration / onGrid, crowd.AnyType(), open);
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

class TimerPreciseEnd : public ::testing::Test {
protected:
    // Each body runs in a fresh process; a hang is ended by the time limit of the test.
    void SetUp() override { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

// Made before the manager, so destroyed, still scheduled, after the tear-down.
std::deque<CNxTimerPreciseWrapperID> g_forgotten;

void StartForGood(CNxTimerPreciseWrapperIDSink* sink, int type) {
    g_forgotten.emplace_back().Schedule(sink, ToInterval(c_tick), 0, type);
}

void Demand(bool condition, int line) {
    if (!condition) {
        std::fprintf(stderr, "line %d\n", line);
        std::_Exit(1);
    }
}

TEST_F(TimerPreciseEnd, ThreadEndsWithAllOthersAndStartsAgain) {
    const auto body = [] {
        static Sink sink;
        for (int round = 0; round < 2; ++round) {
            Demand(Manager()->InitMainThread(0, nullptr) == NX_OK, __LINE__);
            CNxTimerPreciseWrapperID id;
            CNxThread* const precise = Manager()->GetThread(NX_THREAD_PRECISE_TIMER);
            Demand(Manager()->JoinAllThreads() == NX_OK && precise->IsRunning(), __LINE__);
            CNxThread* worker = nullptr;
            Manager()->CreateUserTaskThread(worker, c_joinable, 1);
            StartForGood(&sink, worker->GetThreadType());
            for (const int before = sink.m_calls; sink.m_calls == before;) {
                std::this_thread::yield();
            }
            Manager()->StopAllThreads(nullptr);
            Demand(precise->IsRunning(), __LINE__);
            Manager()->JoinAllThreads();
            Demand(!precise->IsRunning(), __LINE__);
            const NxResult late = id.Schedule(&sink, ToInterval(c_tick), 1, NX_THREAD_MAIN);
            Demand(late == NX_ERROR_NULL_POINTER, __LINE__);
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
