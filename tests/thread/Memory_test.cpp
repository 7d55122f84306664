// When memory runs out: every allocation of each operation fails in turn.
#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/event/NxCall.h>
#include <nx/foundation/CNxSingleton.h>
#include <nx/timer/CNxTimedCall.h>
#include <nx/timer/CNxTimerPriorityQueue.h>
#include <nx/timer/CNxTimerQueueCalendar.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <array>
#include <memory>

#include "../support/FailingNew.h"
#include "../support/SimulatedClock.h"
#include "ThreadSupport.h"

namespace {

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
    CNxThread* const thread = StartWorker(0);
    INxEventQueue* const queue = thread->GetEventQueue();
    EventCounts counts;
    INxEvent* event = nullptr;
    const auto next = [&](bool) { event = new CountedEvent(counts); };
    // The first event that ends on a thread has it make room for places, which may fail.
    EXPECT_EQ(queue->SendEvent(new CountedEvent(counts)), NX_OK);
    next(false);
    Sweep([&] { return queue->PostEvent(event); }, next);
    Sweep([&] { return queue->SendEvent(event); }, next);
    event->OnDestorySelf();
    {
        // Neither a sent call nor stopping needs any.
        const FailingNew memory(0, FailingNew::ONWARDS);
        EXPECT_EQ(NxSendCall(*queue, [] {}), NX_OK);
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

void Fire(INxTimerQueue& queue) {
    if (auto* const calendar = dynamic_cast<CNxTimerQueueCalendar*>(&queue)) {
        calendar->TimerTick();
        calendar->TimerTick();
    } else {
        static_cast<CNxTimerQueueBase&>(queue).CheckExpire(nullptr);
    }
}

TEST(Memory, BacklogIsTakenInSmallerPartsWithoutTheMemoryForLargeOnes) {
    CNxEventQueueUsingMutex queue;
    EventCounts counts;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(queue.PostEvent(new CountedEvent(counts)), NX_OK);
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

// A refused timer leaves what was there, and firing and arming again need no memory at all.
TEST(Memory, TimerQueueWithoutItRefusesAndKeepsWhatItHas) {
    SimulatedClock clock;
    const std::unique_ptr<INxTimerQueue> queues[] = {
        std::make_unique<CNxTimerQueueOrderedList>(nullptr),
        std::make_unique<CNxTimerPriorityQueue>(nullptr),
        std::make_unique<CNxTimerQueueCalendar>(10, 1000, nullptr)};
    for (const auto& queue : queues) {
        SCOPED_TRACE(&queue - queues);
        Handler first;
        Handler second;
        const CNxTimeValue interval(0, 10000);
        for (Handler* const handler : {&first, &second}) {
            Sweep([&] { return queue->ScheduleTimer(handler, nullptr, interval, 0); }, [](bool) {});
        }
        {
            const FailingNew memory(0, FailingNew::ONWARDS);
            const NxResult replaced = queue->ScheduleTimer(&first, nullptr, interval, 0);
            EXPECT_TRUE(replaced == NX_ERROR_FOUND || replaced == NX_ERROR_FAILURE);
            for (int i = 0; i < 3; ++i) {
                clock.Advance(10000);
                Fire(*queue);
            }
        }
        EXPECT_GE(first.m_calls, 3);
        EXPECT_EQ(first.m_calls, second.m_calls);
        EXPECT_EQ(queue->CancelTimer(&first), NX_OK);
        EXPECT_EQ(queue->CancelTimer(&second), NX_OK);
    }
}

TEST(Memory, ThreadThatIsNotMadeLeavesNothing) {
    Manager();  // without memory it throws
    CNxThread* thread = nullptr;
    const auto end = [&thread](bool failed) {
        EXPECT_EQ(thread == nullptr, failed);
        if (thread != nullptr) {
            StopAndDestroy(std::exchange(thread, nullptr));
        }
    };
    for (const int withTimers : {0, 1}) {
        Sweep([&] { return Manager()->CreateUserTaskThread(thread, c_joinable, withTimers); }, end);
    }
    EXPECT_EQ(Manager()->GetThread(NX_THREAD_USER), nullptr);
}

TEST(Memory, CallWithoutItIsRefusedAndWhatIsPendingStays) {
    int calls = 0;
    const auto large = [&calls, more = std::array<int, 50>{10}] { calls += more[0]; };
    CNxEventQueueUsingMutex queue;
    Sweep([&] { return NxPostCall(queue, large); }, [](bool) {});
    CNxTimerPriorityQueue timers(nullptr);
    CNxTimedCall call;
    Must(call.RunAfter(timers, CNxTimeValue(), [&calls] { ++calls; }));
    Sweep([&] { return call.RunAfter(timers, CNxTimeValue(), large); },
          [&timers](bool) { timers.CheckExpire(nullptr); });
    EXPECT_EQ(calls, 11);
}

class Throws {
public:
    Throws() { throw std::bad_alloc(); }
};

TEST(Memory, SingletonThatIsNotMadeIsNotCleanedUp) {
    EXPECT_THROW(CNxSingletonT<Throws>::Instance(), std::bad_alloc);
    CNxCleanUpBase::CleanupAll();
}

using MemoryEnd = ProcessEnd;

TEST_F(MemoryEnd, TearDownNeedsNone) {
    const auto body = [] {
        // Called after the tear-down.
        std::atexit([] { std::_Exit(FailingNew::CountFailed() == 0 ? 0 : 1); });
        Must(Manager()->InitMainThread(0, nullptr));
        CNxThread* network = nullptr;
        Must(Manager()->CreateNetworkThread(NX_THREAD_NETWORK,
                                            CNxThreadManager::CreateNetworkReactor(), network));
        StartWorker();
        const FailingNew memory(0, FailingNew::ONWARDS);
        std::exit(0);
    };
    ExpectEnd(body);
}

// Which one, so that the line leads to the culprit.
TEST_F(MemoryEnd, ExceptionThatLeavesACallbackEndsTheProcessWithItsName) {
    const auto post = [] { Worker().Do([]() -> NxResult { throw std::bad_alloc(); }); };
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
