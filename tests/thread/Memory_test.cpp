// When memory runs out: every allocation of each operation fails in turn.
#include <gtest/gtest.h>
#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/foundation/CNxSingleton.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/timer/CNxTimerPriorityQueue.h>
#include <nx/timer/CNxTimerQueueCalendar.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <cstdlib>
#include <functional>
#include <memory>

#include "../support/CountedEvent.h"
#include "../support/FailingNew.h"
#include "../support/Must.h"
#include "../support/SimulatedClock.h"

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;
constexpr auto c_joinable = CNxThreadManager::FLAG_JOINABLE;

CNxThreadManager* Manager() {
    return CNxThreadManager::Instance();
}

// Repeats the operation until none of its allocations is left to fail. It returns
// NX_ERROR_FAILURE each time before; `check` is called after each.
void Sweep(const std::function<NxResult()>& operation, const std::function<void(bool)>& check) {
    for (long n = 0;; ++n) {
        NxResult result = NX_OK;
        bool failed = false;
        {
            const FailingNew memory(n, FailingNew::ONCE);
            result = operation();
            failed = FailingNew::CountFailed() != 0;
        }
        EXPECT_EQ(result, failed ? NX_ERROR_FAILURE : NX_OK) << "allocation " << n;
        check(failed);
        if (!failed) {
            return;
        }
    }
}

TEST(Memory, PostOrSendWithoutItDestroysTheEventOnce) {
    CNxThread* thread = nullptr;
    Must(Manager()->CreateUserTaskThread(thread, c_joinable, 0));
    INxEventQueue* const queue = thread->GetEventQueue();
    EventCounts counts;
    INxEvent* event = nullptr;
    const auto next = [&](bool) { event = new CountedEvent(counts); };
    // The first event that ends on a thread has it make room for places, which may fail.
    EXPECT_EQ(queue->SendEvent(new CountedEvent(counts)), NX_OK);
    next(false);
    Sweep([&] { return queue->PostEvent(event, c_normal); }, next);
    Sweep([&] { return queue->SendEvent(event); }, next);
    event->OnDestorySelf();
    {
        // Stopping needs none.
        const FailingNew memory(0, FailingNew::ONWARDS);
        EXPECT_EQ(thread->Stop(nullptr), NX_OK);
        EXPECT_EQ(thread->Join(), NX_OK);
    }
    EXPECT_TRUE(counts.AllDestroyed());
    thread->Destory(0);
}

struct Handler : INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { ++m_calls; }
    int m_calls = 0;
};

const std::function<int(INxTimerQueue&)> c_fire[] = {
    [](INxTimerQueue& queue) {
        return static_cast<CNxTimerQueueBase&>(queue).CheckExpire(nullptr);
    },
    [](INxTimerQueue& queue) {
        static_cast<CNxTimerQueueCalendar&>(queue).TimerTick();
        static_cast<CNxTimerQueueCalendar&>(queue).TimerTick();
        return 0;
    }};

// A refused timer leaves what was there, and firing and arming again need no memory at all.
TEST(Memory, BacklogIsTakenInSmallerPartsWithoutTheMemoryForLargeOnes) {
    CNxEventQueueUsingMutex queue;
    EventCounts counts;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(queue.PostEvent(new CountedEvent(counts), c_normal), NX_OK);
    }
    CNxEventQueueBase::Batch events;
    size_t remaining = 0;
    {
        const FailingNew memory(0, FailingNew::ONCE);
        CNxMutexGuardT<CNxMutexThread> guard(queue.GetMutex());
        ASSERT_EQ(queue.PopPendingEvents(events, 2, &remaining), NX_OK);
    }
    EXPECT_EQ(events.size(), 1u);
    EXPECT_EQ(remaining, 2u);
    queue.ProcessEvents(events);
}

TEST(Memory, TimerQueueWithoutItRefusesAndKeepsWhatItHas) {
    SimulatedClock clock;
    for (int kind = 0; kind < 3; ++kind) {
        std::unique_ptr<INxTimerQueue> queue;
        if (kind == 0) {
            queue = std::make_unique<CNxTimerQueueOrderedList>(nullptr);
        } else if (kind == 1) {
            queue = std::make_unique<CNxTimerPriorityQueue>(nullptr);
        } else {
            queue = std::make_unique<CNxTimerQueueCalendar>(10, 1000, nullptr);
        }
        Handler first;
        Handler second;
        const CNxTimeValue interval(0, 10000);
        Sweep([&] { return queue->ScheduleTimer(&first, nullptr, interval, 0); }, [](bool) {});
        Sweep([&] { return queue->ScheduleTimer(&second, nullptr, interval, 0); }, [](bool) {});
        {
            const FailingNew memory(0, FailingNew::ONWARDS);
            const NxResult replaced = queue->ScheduleTimer(&first, nullptr, interval, 0);
            EXPECT_TRUE(replaced == NX_ERROR_FOUND || replaced == NX_ERROR_FAILURE);
            for (int i = 0; i < 3; ++i) {
                clock.Advance(10000);
                c_fire[kind / 2](*queue);
            }
        }
        EXPECT_GE(first.m_calls, 3) << kind;
        EXPECT_EQ(first.m_calls, second.m_calls) << kind;
        EXPECT_EQ(queue->CancelTimer(&first), NX_OK) << kind;
        EXPECT_EQ(queue->CancelTimer(&second), NX_OK) << kind;
    }
}

TEST(Memory, ThreadThatIsNotMadeLeavesNothing) {
    Manager();  // without memory it throws
    CNxThread* thread = nullptr;
    const auto end = [&thread](bool failed) {
        EXPECT_EQ(thread == nullptr, failed);
        if (thread != nullptr) {
            thread->Stop(nullptr);
            thread->Join();
            thread->Destory(0);
        }
        thread = nullptr;
    };
    for (const int withTimers : {0, 1}) {
        Sweep([&] { return Manager()->CreateUserTaskThread(thread, c_joinable, withTimers); }, end);
    }
    EXPECT_EQ(Manager()->GetThread(NX_THREAD_USER), nullptr);
}

class Throws {
public:
    Throws() { throw std::bad_alloc(); }
};

TEST(Memory, SingletonThatIsNotMadeIsNotCleanedUp) {
    EXPECT_THROW(CNxSingletonT<Throws>::Instance(), std::bad_alloc);
    CNxCleanUpBase::CleanupAll();
}

class MemoryEnd : public ::testing::Test {
protected:
    void SetUp() override { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

TEST_F(MemoryEnd, TearDownNeedsNone) {
    const auto body = [] {
        // Called after the tear-down.
        std::atexit([] { std::_Exit(FailingNew::CountFailed() == 0 ? 0 : 1); });
        Must(Manager()->InitMainThread(0, nullptr));
        CNxThread* thread = nullptr;
        Must(Manager()->CreateNetworkThread(NX_THREAD_NETWORK,
                                            CNxThreadManager::CreateNetworkReactor(), thread));
        Must(Manager()->CreateUserTaskThread(thread, c_joinable, 1));
        const FailingNew memory(0, FailingNew::ONWARDS);
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

// Which one, so that the line leads to the culprit.
TEST_F(MemoryEnd, ExceptionThatLeavesACallbackEndsTheProcessWithItsName) {
    EventCounts counts;
    const auto post = [&counts] {
        CNxThread* thread = nullptr;
        Must(Manager()->CreateUserTaskThread(thread, c_joinable, 0));
        thread->GetEventQueue()->SendEvent(
            new CountedEvent(counts, []() -> NxResult { throw std::bad_alloc(); }));
    };
    EXPECT_DEATH(post(), "exception.*OnEventFire.*bad_alloc");
    struct Thrower : INxTimerHandler {
        void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { throw 1; }
    };
    const auto fire = [] {
        Thrower handler;
        CNxTimerQueueOrderedList queue(nullptr);
        Must(queue.ScheduleTimer(&handler, nullptr, CNxTimeValue(), 1));
        queue.CheckExpire(nullptr);
    };
    EXPECT_DEATH(fire(), "exception.*OnTimeout");
}

}  // namespace
