// When memory runs out, as far as the allocation sweep does not see it.
#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include "../support/FailingNew.h"
#include "ThreadSupport.h"

namespace {

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

// Which one, so that the line leads to the culprit.
TEST(MemoryEnd, ExceptionThatLeavesACallbackEndsTheProcessWithItsName) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto post = [] { Worker().Do([] { throw std::bad_alloc(); }); };
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
