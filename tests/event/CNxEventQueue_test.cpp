#include <gtest/gtest.h>
#include <nx/event/CNxEventQueueUsingConditionVariable.h>
#include <nx/event/NxCall.h>

#include <pthread.h>

#include <memory>
#include <thread>

#include "../support/CountedEvent.h"

namespace {

// Both sanitizers fail themselves where a cancellation unwinds the stack out of a system call.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Its owner is cancelled in its sleep while a post is still on the way to wake it, and the waking
// is a cancellation point.
class CancellingQueue : public CNxEventQueueUsingConditionVariable {
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
        pthread_testcancel();
        CNxEventQueueUsingConditionVariable::WakeSleeper();
    }
};

// The owner leaves after the wake-up that is for it; the sender, neither in its post nor in its
// wait: the queue has what lies on its stack.
TEST(EventQueue, NeitherACancelledOwnerNorACancelledSenderIsTornFromIt) {
    CancellingQueue queue;
    EventCounts counts;
    CNxEventQueueBase::Batch events;
    std::thread owner([&] {
        queue.m_ownerThread = pthread_self();
        const std::shared_ptr<void> atEnd(nullptr, [&](void*) { queue.m_isGone = true; });
        static_cast<void>(queue.PopOrWaitPendingEvents(events, nullptr, 1));
    });
    while (!queue.HasSleeper()) {
        std::this_thread::yield();
    }
    NxResult sent = NX_ERROR_FAILURE;
    std::thread sender([&] {
        pthread_cancel(pthread_self());
        sent = queue.SendEvent(new CountedEvent(counts));
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    owner.join();
    EXPECT_FALSE(queue.m_wasGone);
    // Nobody is taken for asleep.
    EXPECT_FALSE(queue.HasSleeper());
    ASSERT_EQ(queue.PopOrWaitPendingEvents(events, nullptr, 1), NX_OK);
    queue.ProcessEvents(events);
    sender.join();
    EXPECT_EQ(sent, NX_OK);
    EXPECT_TRUE(counts.AllDestroyed());
}
#endif

// Posters, senders and a stopping owner in every interleaving that the scheduler finds: every event
// ends exactly once, every sender returns with one of its three answers when its event is gone,
// nothing hangs.
TEST(EventQueueRaces, PostsAndSendsAgainstTheStopAreCountedToTheLast) {
    for (int round = 0; round < 200; ++round) {
        EventCounts counts;
        std::atomic<int> accepted{0};
        std::atomic<int> answered{0};
        {
            CNxEventQueueUsingConditionVariable queue;
            bool stopped = false;
            std::thread owner([&] {
                queue.SetOwnerThreadId(pthread_self());
                CNxEventQueueBase::Batch events;
                while (!stopped) {
                    if (queue.PopOrWaitPendingEvents(events, nullptr, 100) == NX_OK) {
                        queue.ProcessEvents(events);
                        events.clear();
                    }
                }
                queue.StopAndDestoryPendingEvents();
            });
            const auto post = [&] {
                while (queue.PostEvent(new CountedEvent(counts)) == NX_OK) {
                    ++accepted;
                }
                // The end of one that is refused posts once more: no lock may be held.
                const auto again = [&] { queue.PostEvent(new CountedEvent(counts)); };
                queue.PostEvent(new CountedEvent(counts, nullptr, again));
            };
            const auto send = [&] {
                NxResult result = NX_ERROR_FOUND;
                while (result == NX_ERROR_FOUND) {
                    bool isGone = false;
                    // Told as late as the event can.
                    const auto tell = [&isGone](void*) {
                        std::this_thread::yield();
                        isGone = true;
                    };
                    result = queue.SendEvent(new CountedEvent(
                        counts,
                        [end = std::shared_ptr<void>(nullptr, tell)] { return NX_ERROR_FOUND; }));
                    EXPECT_TRUE(isGone);
                    answered += result == NX_ERROR_FOUND ? 1 : 0;
                }
                EXPECT_TRUE(result == NX_ERROR_NOT_INITIALIZED || result == NX_ERROR_NOT_AVAILABLE);
            };
            std::thread others[] = {std::thread(post), std::thread(send), std::thread(send)};
            while (answered.load() < round % 7) {
                std::this_thread::yield();
            }
            const auto stop = [&] {
                stopped = true;
                return NX_OK;
            };
            EXPECT_EQ(queue.PostLastEvent(new CountedEvent(counts, stop)), NX_OK);
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

TEST(Call, IsMadeOnceOrDestroyedUncalledAndTheSenderGetsItsValueOrTheOneCodeWhyNot) {
    CNxEventQueueUsingConditionVariable queue;
    std::atomic<int> calls{0};
    const auto token = std::make_shared<int>(7);
    const auto post = [&] {
        return NxPostCall(queue,
                          [&calls, token, own = std::make_unique<int>(1)] { calls += *own; });
    };
    const auto give = [&] { return std::make_unique<int>(*token); };
    EXPECT_EQ(post(), NX_OK);
    std::thread owner([&] {
        queue.Reset2CurrentThread();
        EXPECT_EQ(*NxSendCall(queue, give).GetValue(), 7);
        while (!queue.IsQueueStopped()) {
            CNxEventQueueBase::Batch events;
            if (queue.PopOrWaitPendingEvents(events, nullptr, 1) == NX_OK) {
                queue.ProcessEvents(events);
            }
        }
    });
    EXPECT_EQ(*NxSendCall(queue, give).GetValue(), 7);
    EXPECT_EQ(NxSendCall(queue, [] { return NX_ERROR_FOUND; }), NX_ERROR_FOUND);
    const auto stop = [&] {
        EXPECT_EQ(post(), NX_OK);
        queue.StopAndDestoryPendingEvents();
    };
    EXPECT_EQ(NxSendCall(queue, stop), NX_OK);
    owner.join();
    EXPECT_EQ(post(), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(NxSendCall(queue, give).GetResult(), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
