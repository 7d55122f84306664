// When memory runs out: every allocation of each operation fails in turn.
#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/event/NxCall.h>
#include <nx/timer/CNxTimedCall.h>
#include <nx/timer/CNxTimerPriorityQueue.h>
#include <nx/timer/CNxTimerQueueCalendar.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <array>
#include <initializer_list>

#include "../support/FailingNew.h"
#include "../support/SimulatedClock.h"
#include "ThreadSupport.h"

namespace {

// Each allocation of the operation fails in turn, until it gets through.
void Sweep(const std::function<NxResult()>& operation) {
    for (long n = 0, failed = 1; failed != 0; ++n) {
        const FailingNew memory(n, FailingNew::ONCE);
        const NxResult result = operation();
        failed = FailingNew::CountFailed();
        EXPECT_EQ(result, failed != 0 ? NX_ERROR_FAILURE : NX_OK) << "allocation " << n;
    }
}

TEST(Memory, NeitherStoppingNorACallThatAQueueHasRoomForNeedsAny) {
    for (const int calls : {0, 3}) {
        CNxThread* const worker = StartWorker(0);
        const auto call = [worker] { return NxSendCall(*worker->GetEventQueue(), [] {}); };
        // The queue and its loop have a buffer each.
        for (int i = 1; i < calls; ++i) {
            EXPECT_EQ(call(), NX_OK);
        }
        const FailingNew memory(0, FailingNew::ONWARDS);
        EXPECT_EQ(calls != 0 ? call() : NX_OK, NX_OK);
        StopAndDestroy(worker);
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

// A refused timer leaves what was there, and firing and arming again need no memory at all.
TEST(Memory, TimerQueueWithoutItRefusesAndKeepsWhatItHas) {
    SimulatedClock clock;
    CNxTimerQueueOrderedList list(nullptr);
    CNxTimerPriorityQueue heap(nullptr);
    CNxTimerQueueCalendar calendar(10, 1000, nullptr);
    const CNxTimeValue interval(0, 10000);
    for (INxTimerQueue* const queue :
         std::initializer_list<INxTimerQueue*>{&list, &heap, &calendar}) {
        Handler handlers[2];
        for (Handler& handler : handlers) {
            Sweep([&] { return queue->ScheduleTimer(&handler, nullptr, interval, 0); });
        }
        {
            const FailingNew memory(0, FailingNew::ONWARDS);
            const NxResult replaced = queue->ScheduleTimer(handlers, nullptr, interval, 0);
            EXPECT_TRUE(replaced == NX_ERROR_FOUND || replaced == NX_ERROR_FAILURE);
            for (int i = 0; i < 3; ++i) {
                clock.Advance(10000);
                list.CheckExpire(nullptr);
                heap.CheckExpire(nullptr);
                calendar.TimerTick();
                calendar.TimerTick();
            }
        }
        EXPECT_EQ(handlers[0].m_calls, handlers[1].m_calls);
        for (Handler& handler : handlers) {
            EXPECT_GE(handler.m_calls, 3);
            EXPECT_EQ(queue->CancelTimer(&handler), NX_OK);
        }
    }
}

TEST(Memory, TimedCallWithoutItIsRefusedAndThePendingOneStays) {
    int calls = 0;
    const auto large = [&calls, more = std::array<int, 50>{10}] { calls += more[0]; };
    CNxTimerPriorityQueue timers(nullptr);
    CNxTimedCall call;
    Must(call.RunAfter(timers, CNxTimeValue(), [&calls] { ++calls; }));
    Sweep([&] {
        const NxResult result = call.RunAfter(timers, CNxTimeValue(), large);
        timers.CheckExpire(nullptr);
        return result;
    });
    EXPECT_EQ(calls, 11);
}

// Which one, so that the line leads to the culprit.
TEST(MemoryEnd, ExceptionThatLeavesACallbackEndsTheProcessWithItsName) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto post = [] { Worker().Do([]() -> NxResult { throw std::bad_alloc(); }); };
    EXPECT_DEATH(post(), "exception.*OnEventFire.*bad_alloc");
    struct Thrower : INxTimerHandler {
        void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { throw 1; }
    };
    Thrower handler;
    CNxTimerQueueOrderedList queue(nullptr);
    Must(queue.ScheduleTimer(&handler, nullptr, CNxTimeValue(), 1));
    EXPECT_DEATH(queue.CheckExpire(nullptr), "exception.*OnTimeout");
}

}  // namespace
