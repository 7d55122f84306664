// When memory runs out: every allocation of each operation fails in turn.
#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/event/NxCall.h>
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

TEST(Memory, NeitherStoppingNorACallThatAQueueHasRoomForNeedsAny) {
    for (const int calls : {0, 3}) {
        auto worker = std::make_unique<Worker>(0);
        const auto call = [&worker] { return NxSendCall(*worker->Get()->GetEventQueue(), [] {}); };
        // The queue and its loop have a buffer each.
        for (int i = 1; i < calls; ++i) {
            EXPECT_EQ(call(), NX_OK);
        }
        const FailingNew memory(0, FailingNew::ONWARDS);
        EXPECT_EQ(calls != 0 ? call() : NX_OK, NX_OK);
        worker.reset();
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

struct Handler : INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { ++m_calls; }
    int m_calls = 0;
};

template <class Queue, class Fire>
void ExpectTimersToStay(Queue&& queue, Fire fire) {
    SimulatedClock clock;
    Handler handlers[2];
    const CNxTimeValue interval(0, 10000);
    for (Handler& handler : handlers) {
        Sweep([&] { return queue.ScheduleTimer(&handler, nullptr, interval, 0); }, [](bool) {});
    }
    {
        const FailingNew memory(0, FailingNew::ONWARDS);
        const NxResult replaced = queue.ScheduleTimer(handlers, nullptr, interval, 0);
        EXPECT_TRUE(replaced == NX_ERROR_FOUND || replaced == NX_ERROR_FAILURE);
        for (int i = 0; i < 3; ++i) {
            clock.Advance(10000);
            fire(queue);
        }
    }
    EXPECT_EQ(handlers[0].m_calls, handlers[1].m_calls);
    for (Handler& handler : handlers) {
        EXPECT_GE(handler.m_calls, 3);
        EXPECT_EQ(queue.CancelTimer(&handler), NX_OK);
    }
}

// A refused timer leaves what was there, and firing and arming again need no memory at all.
TEST(Memory, TimerQueueWithoutItRefusesAndKeepsWhatItHas) {
    const auto checkExpire = [](CNxTimerQueueBase& queue) { queue.CheckExpire(nullptr); };
    const auto tick = [](CNxTimerQueueCalendar& calendar) {
        calendar.TimerTick();
        calendar.TimerTick();
    };
    ExpectTimersToStay(CNxTimerQueueOrderedList(nullptr), checkExpire);
    ExpectTimersToStay(CNxTimerPriorityQueue(nullptr), checkExpire);
    ExpectTimersToStay(CNxTimerQueueCalendar(10, 1000, nullptr), tick);
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

TEST(Memory, TimedCallWithoutItIsRefusedAndThePendingOneStays) {
    int calls = 0;
    const auto large = [&calls, more = std::array<int, 50>{10}] { calls += more[0]; };
    CNxTimerPriorityQueue timers(nullptr);
    CNxTimedCall call;
    Must(call.RunAfter(timers, CNxTimeValue(), [&calls] { ++calls; }));
    Sweep([&] { return call.RunAfter(timers, CNxTimeValue(), large); },
          [&timers](bool) { timers.CheckExpire(nullptr); });
    EXPECT_EQ(calls, 11);
}

using MemoryEnd = ProcessEnd;

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
