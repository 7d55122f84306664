#include <gtest/gtest.h>
#include <nx/timer/CNxTimerPriorityQueue.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include "../support/SimulatedClock.h"
#include "../support/TimerWorld.h"

namespace {

// One queue in its world, which it observes.
template <class Queue>
struct Side : INxObserver {
    Side(const TimerChoices& choices, unsigned seed)
        : m_queue(this), m_world(m_queue, choices, seed) {}

    void OnObserve(const char* /*topic*/, void* /*data*/) override { ++m_calls; }

    void Step() {
        m_world.Operate();
        if (m_world.Random(3) == 0) {
            CNxTimeValue remaining;
            m_world.Log(3, m_queue.CheckExpire(&remaining), remaining.GetSec(),
                        remaining.GetUsec());
        }
        const CNxTimeValue earliest = m_queue.GetEarliestTime();
        m_world.Log(4, m_calls, earliest.GetSec(), earliest.GetUsec());
    }

    long m_calls = 0;
    Queue m_queue;
    TimerWorld m_world;
};

// The clock moves in coarse steps and the intervals are few, so that many timers are due at once.
TEST(CNxTimerPriorityQueue, DoesWhatTheOrderedListDoes) {
    const std::vector<CNxTimeValue> intervals = {
        {0, 0},    {-1, 0},   {0, 1},    {0, 100},  {0, 200},    {0, 1000},
        {0, 1100}, {0, 5000}, {0, 5000}, {0, 7000}, {1, 900000}, CNxTimeValue::s_tvMax()};
    const std::vector<unsigned long> counts = {0, 1, 1, 1, 2, 5, ~0ul};
    const long steps = GetTestSteps(20000) / 4;
    for (const unsigned handlers : {2u, 9u, 60u, 400u}) {
        SimulatedClock clock;
        const TimerChoices choices{handlers, intervals, counts, 30};
        Side<CNxTimerQueueOrderedList> list(choices, handlers);
        Side<CNxTimerPriorityQueue> heap(choices, handlers);
        std::mt19937 engine(handlers);
        while (list.m_world.m_operations < steps) {
            list.Step();
            heap.Step();
            ASSERT_EQ(list.m_world.m_log, heap.m_world.m_log)
                << handlers << " handlers, operation " << list.m_world.m_operations;
            list.m_world.m_log.clear();
            heap.m_world.m_log.clear();
            clock.Advance(static_cast<long>(engine() % 4 * 100));
        }
    }
}

}  // namespace
