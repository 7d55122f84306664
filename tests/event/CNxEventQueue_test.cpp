#include <gtest/gtest.h>
#include <nx/event/CNxEventQueueUsingConditionVariable.h>

#include <pthread.h>

#include <memory>
#include <thread>
#include <vector>

#include "../support/CountedEvent.h"

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;

class LastEventQueue : public CNxEventQueueUsingConditionVariable {
public:
    void Stop() { SetStopped_i(true); }
};

TEST(EventQueue, StoppedQueueDestroysWhatItRefuses) {
    LastEventQueue queue;
    EventCounts counts;
    queue.PostEvent(new CountedEvent(counts), c_normal);
    queue.Stop();
    // Its end posts once more to the same queue: no lock may be held.
    const auto again = [&] { queue.PostEvent(new CountedEvent(counts), c_normal); };
    EXPECT_EQ(queue.PostEvent(new CountedEvent(counts, nullptr, again), c_normal),
              NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(queue.SendEvent(new CountedEvent(counts)), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(counts.m_destroyed, 3);
    queue.DestoryPendingEvents();
    EXPECT_EQ(counts.m_fired, 0);
    EXPECT_TRUE(counts.AllDestroyed());
    EXPECT_EQ(queue.SendEvent(nullptr), NX_ERROR_INVALID_ARG);
}

// Tells its sender's stack that it fired and that it is gone, as late as its class can.
class OnTheSendersStack : public INxEvent {
public:
    OnTheSendersStack(int& fired, int& gone) : m_fired(fired), m_gone(gone) {}
    ~OnTheSendersStack() override {
        std::this_thread::yield();
        m_gone += m_fired;
    }
    NxResult OnEventFire() override {
        ++m_fired;
        return NX_ERROR_FOUND;
    }

private:
    int& m_fired;
    int& m_gone;
};

TEST(EventQueue, ASentEventIsGoneBeforeItsSenderGoesOn) {
    CNxEventQueueUsingConditionVariable queue;
    bool stopped = false;
    std::thread owner([&] {
        queue.SetOwnerThreadId(pthread_self());
        std::list<INxEvent*> events;
        while (!stopped) {
            if (queue.PopOrWaitPendingEvents(events, nullptr, 100) == NX_OK) {
                queue.ProcessEvents(events);
                events.clear();
            }
        }
    });
    for (int i = 0; i < 1000; ++i) {
        int fired = 0;
        int gone = 0;
        ASSERT_EQ(queue.SendEvent(new OnTheSendersStack(fired, gone)), NX_ERROR_FOUND);
        ASSERT_EQ(gone, 1);
    }
    EventCounts counts;
    queue.PostLastEvent(new CountedEvent(counts, [&] {
        stopped = true;
        return NX_OK;
    }));
    owner.join();
}

// A sender that is cancelled waits all the same: the queue has what lies on its stack.
TEST(EventQueue, ACancelledSenderIsNotTornFromItsEvent) {
    CNxEventQueueUsingConditionVariable queue;
    EventCounts counts;
    std::thread sender([&] {
        EXPECT_EQ(queue.SendEvent(new CountedEvent(counts)), NX_OK);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    while (queue.GetPendingEventsCount() == 0) {
        std::this_thread::yield();
    }
    pthread_cancel(sender.native_handle());
    std::list<INxEvent*> events;
    ASSERT_EQ(queue.PopOrWaitPendingEvents(events, nullptr, 1), NX_OK);
    queue.ProcessEvents(events);
    sender.join();
    EXPECT_TRUE(counts.AllDestroyed());
}

// As a queue that wakes its owner by a system call.
class QueueWithACancellationPoint : public CNxEventQueueUsingConditionVariable {
public:
    NxResult PostEvent(INxEvent* event, EPriority priority) override {
        const NxResult posted = CNxEventQueueUsingConditionVariable::PostEvent(event, priority);
        pthread_testcancel();
        return posted;
    }
};

TEST(EventQueue, ASenderIsNotCancelledWithinItsPost) {
    QueueWithACancellationPoint queue;
    EventCounts counts;
    std::thread sender([&] {
        pthread_cancel(pthread_self());
        EXPECT_EQ(queue.SendEvent(new CountedEvent(counts)), NX_OK);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    std::list<INxEvent*> events;
    while (queue.PopOrWaitPendingEvents(events, nullptr, 1) != NX_OK) {
    }
    queue.ProcessEvents(events);
    sender.join();
    EXPECT_EQ(counts.m_fired, 1);
    EXPECT_TRUE(counts.AllDestroyed());
}

// Both fail themselves where a cancellation unwinds the stack out of a system call.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A post that is still on its way to wake the owner when that is cancelled.
class QueueWithASlowWakeUp : public CNxEventQueueUsingConditionVariable {
public:
    bool HasSleeper() {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        return m_sleepers != 0;
    }

    std::atomic<unsigned long> m_ownerThread{0};
    std::atomic<bool> m_isGone{false};
    bool m_wasGone = true;

protected:
    void WakeSleeper() override {
        pthread_cancel(m_ownerThread.load());
        for (int i = 0; i < 10000 && !m_isGone.load(); ++i) {
            std::this_thread::yield();
        }
        m_wasGone = m_isGone.load();
        CNxEventQueueUsingConditionVariable::WakeSleeper();
    }
};

TEST(EventQueue, ACancelledOwnerLeavesTheQueueAfterTheWakeUpThatIsForIt) {
    QueueWithASlowWakeUp queue;
    EventCounts counts;
    std::thread owner([&] {
        queue.m_ownerThread = pthread_self();
        const std::shared_ptr<void> atEnd(nullptr, [&](void*) { queue.m_isGone = true; });
        CNxEventQueueBase::Batch events;
        static_cast<void>(queue.PopOrWaitPendingEvents(events, nullptr, 1));
    });
    while (!queue.HasSleeper()) {
        std::this_thread::yield();
    }
    EXPECT_EQ(queue.PostEvent(new CountedEvent(counts), c_normal), NX_OK);
    owner.join();
    EXPECT_FALSE(queue.m_wasGone);
    // Nobody is taken for asleep.
    EXPECT_FALSE(queue.HasSleeper());
}
#endif

// Posters, senders and a stopping owner in every interleaving that the scheduler finds: every event
// ends exactly once, every sender returns with one of its three answers, nothing hangs.
TEST(EventQueueRaces, PostsAndSendsAgainstTheStopAreCountedToTheLast) {
    for (int round = 0; round < 200; ++round) {
        EventCounts counts;
        std::atomic<int> accepted{0};
        std::atomic<int> answered{0};
        {
            CNxEventQueueUsingConditionVariable queue;
            std::atomic<bool> stopped{false};
            std::thread owner([&] {
                queue.SetOwnerThreadId(pthread_self());
                CNxEventQueueBase::Batch events;
                while (!stopped.load()) {
                    if (queue.PopOrWaitPendingEvents(events, nullptr, 100) == NX_OK) {
                        queue.ProcessEvents(events);
                        events.clear();
                    }
                }
                queue.StopAndDestoryPendingEvents();
            });
            const auto post = [&] {
                while (queue.PostEvent(new CountedEvent(counts), c_normal) == NX_OK) {
                    ++accepted;
                }
            };
            const auto send = [&] {
                NxResult result = NX_OK;
                while (result == NX_OK) {
                    result = queue.SendEvent(new CountedEvent(counts));
                    answered += result == NX_OK ? 1 : 0;
                }
                EXPECT_TRUE(result == NX_ERROR_NOT_INITIALIZED || result == NX_ERROR_NOT_AVAILABLE);
            };
            std::vector<std::thread> others;
            others.emplace_back(post);
            others.emplace_back(send);
            others.emplace_back(send);
            while (answered.load() < round % 7) {
                std::this_thread::yield();
            }
            EXPECT_EQ(queue.PostLastEvent(new CountedEvent(counts,
                                                           [&] {
                                                               stopped = true;
                                                               return NX_OK;
                                                           })),
                      NX_OK);
            EXPECT_EQ(queue.PostLastEvent(new CountedEvent(counts)), NX_ERROR_NOT_INITIALIZED);
            for (std::thread& other : others) {
                other.join();
            }
            owner.join();
        }
        ASSERT_TRUE(counts.AllDestroyed()) << "round " << round;
        // Everything accepted before the last event was fired, and the last one too.
        ASSERT_EQ(counts.m_fired, accepted + answered + 1) << "round " << round;
    }
}

}  // namespace
