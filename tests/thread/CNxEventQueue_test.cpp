#include <gtest/gtest.h>
#include <nx/thread/CNxEventQueueUsingConditionVariable.h>
#include <nx/thread/CNxEventQueueUsingMutex.h>
#include <nx/thread/CNxThreadManager.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "../support/CountedEvent.h"

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;
constexpr size_t c_all = std::numeric_limits<size_t>::max();

class LastEventQueue : public CNxEventQueueUsingMutex {
public:
    void Stop() { SetStopped_i(true); }
};

// Pops and fires as an owner does; false when nothing waited.
bool Drain(CNxEventQueueUsingMutex& queue) {
    std::list<INxEvent*> events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(queue.GetMutex());
        queue.PopPendingEvents(events, c_all, nullptr);
    }
    queue.ProcessEvents(events);
    return !events.empty();
}

TEST(EventQueue, FiresInPostingOrderWhateverThePriority) {
    CNxEventQueueUsingMutex queue;
    EventCounts counts;
    std::string order;
    const auto post = [&](char name, INxEventQueue::EPriority priority) {
        queue.PostEvent(new CountedEvent(counts,
                                         [&order, name] {
                                             order += name;
                                             return NX_OK;
                                         }),
                        priority);
    };
    post('a', INxEventQueue::PRIORITY_LOW);
    post('b', INxEventQueue::PRIORITY_HIGH);
    post('c', INxEventQueue::PRIORITY_NORMAL);
    EXPECT_EQ(queue.GetPendingEventsCount(), 3u);
    EXPECT_TRUE(Drain(queue));
    EXPECT_EQ(order, "abc");
    EXPECT_TRUE(counts.AllDestroyed());
}

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

TEST(EventQueue, SendFromElsewhereBlocksForTheResult) {
    CNxEventQueueUsingMutex queue;
    queue.SetOwnerThreadId(CNxThreadManager::GetThreadSelfId());
    EventCounts counts;
    NxResult result = NX_OK;
    std::atomic<bool> done{false};
    std::thread sender([&] {
        result = queue.SendEvent(new CountedEvent(counts, [] { return NX_ERROR_FOUND; }));
        done = true;
    });
    while (!done.load()) {
        Drain(queue);
    }
    sender.join();
    Drain(queue);
    EXPECT_EQ(result, NX_ERROR_FOUND);
    EXPECT_EQ(counts.m_fired, 1);
    EXPECT_TRUE(counts.AllDestroyed());
}

TEST(EventQueue, SenderOfADiscardedEventWakesWithNotAvailable) {
    EventCounts counts;
    NxResult result = NX_OK;
    std::thread sender;
    {
        CNxEventQueueUsingMutex queue;
        sender = std::thread([&] { result = queue.SendEvent(new CountedEvent(counts)); });
        while (queue.GetPendingEventsCount() == 0) {
            std::this_thread::yield();
        }
        queue.StopAndDestoryPendingEvents();
        sender.join();
    }
    EXPECT_EQ(result, NX_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(counts.m_fired, 0);
    EXPECT_TRUE(counts.AllDestroyed());
}

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
                queue.SetOwnerThreadId(CNxThreadManager::GetThreadSelfId());
                std::list<INxEvent*> events;
                while (!stopped.load()) {
                    if (queue.PopOrWaitPendingEvents(events, nullptr, 3) == NX_OK) {
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
