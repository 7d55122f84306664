#include <gtest/gtest.h>
#include <nx/event/CNxEventQueueUsingConditionVariable.h>
#include <nx/thread/CNxThreadManager.h>

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
