#include <gtest/gtest.h>
#include <nx/timer/CNxTimerQueueCalendar.h>

#include <algorithm>
#include <list>
#include <map>

#include "../support/SimulatedClock.h"
#include "../support/TimerWorld.h"

namespace {

// The same wheel in the plainest way: every rule one line, nothing fast. An endless count is kept
// as the largest number, and `m_ticked` tells that a timer has had its turn in this tick.
class PlainCalendar : public INxTimerQueue {
public:
    PlainCalendar(unsigned long slot, unsigned long span)
        : m_slotMs(std::max(slot, 10ul)),
          m_last(span >= m_slotMs && span / m_slotMs > 10 ? span / m_slotMs - 1 : 10),
          m_slots(m_last + 1) {}

    NxResult ScheduleTimer(INxTimerHandler* handler, void* token, const CNxTimeValue& interval,
                           unsigned long count) override {
        const bool found = m_index.count(handler) != 0 && Erase(m_slots[m_index[handler]], handler);
        if (m_index.count(handler) == 0) {
            Erase(m_immediate, handler);
        }
        const Timer timer{handler, token, interval, count == 0 ? ~0ul : count, false};
        if (interval == CNxTimeValue::s_tvZero()) {
            m_immediate.push_front(timer);
            return NX_OK;
        }
        Place(timer);
        return found ? NX_ERROR_FOUND : NX_OK;
    }

    NxResult CancelTimer(INxTimerHandler* handler) override {
        if (m_index.count(handler) == 0) {
            Erase(m_immediate, handler);
            return NX_ERROR_NOT_FOUND;
        }
        if (!Erase(m_slots[m_index[handler]], handler)) {
            return NX_ERROR_NOT_FOUND;
        }
        m_index.erase(handler);
        return NX_OK;
    }

    void TimerTick() {
        std::map<INxTimerHandler*, void*> due;
        TakeImmediate(due);
        auto& slot = m_slots[m_current];
        const auto isReady = [](const Timer& timer) { return !timer.m_ticked; };
        for (auto at = slot.begin(); at != slot.end();
             at = std::find_if(slot.begin(), slot.end(), isReady)) {
            Timer timer = *at;
            slot.erase(at);
            due[timer.m_handler] = timer.m_token;
            if (timer.m_count != ~0ul && --timer.m_count == 0) {
                m_index.erase(timer.m_handler);
                continue;
            }
            Place(timer);
            if (timer.m_count == ~0ul && m_index[timer.m_handler] == m_current) {
                WaitFromThisSlot(timer);
            }
        }
        for (Timer& timer : slot) {
            timer.m_ticked = false;
        }
        m_current = m_current == m_last ? 0 : m_current + 1;
        Fire(due);
    }

    void OnEventFire() {
        std::map<INxTimerHandler*, void*> due;
        TakeImmediate(due);
        Fire(due);
    }

private:
    struct Timer {
        INxTimerHandler* m_handler;
        void* m_token;
        CNxTimeValue m_interval;
        unsigned long m_count;
        bool m_ticked;
    };

    void TakeImmediate(std::map<INxTimerHandler*, void*>& due) {
        for (const Timer& timer : m_immediate) {
            due[timer.m_handler] = timer.m_token;
        }
        m_immediate.clear();
    }

    void Fire(const std::map<INxTimerHandler*, void*>& due) {
        const CNxTimeValue now = CNxTimeValue::GetTimeOfDay();
        for (const auto& [handler, token] : due) {
            handler->OnTimeout(now, token);
        }
    }

    void Place(const Timer& timer) {
        const auto ms = static_cast<unsigned long>(timer.m_interval.GetTotalInMsec());
        unsigned long offset = ms / m_slotMs + (ms % m_slotMs != 0 ? 1 : 0);
        offset = offset > m_last - 1 ? m_last : offset;
        const unsigned long index =
            m_last - m_current >= offset ? m_current + offset : m_current + offset - m_last;
        m_slots[index].push_front(timer);
        m_index[timer.m_handler] = index;
    }

    // Below a millisecond till the next tick, too long till the next round.
    void WaitFromThisSlot(Timer timer) {
        auto& slot = m_slots[m_current];
        if (timer.m_interval.GetTotalInMsec() != 0) {
            slot.front().m_ticked = true;
            return;
        }
        slot.pop_front();
        m_index[timer.m_handler] = (m_current + 1) % m_slots.size();
        m_slots[m_index[timer.m_handler]].push_front(timer);
    }

    static bool Erase(std::list<Timer>& timers, INxTimerHandler* handler) {
        const auto found =
            std::find_if(timers.begin(), timers.end(),
                         [handler](const Timer& timer) { return timer.m_handler == handler; });
        return found != timers.end() && (timers.erase(found), true);
    }

    const unsigned long m_slotMs;
    const unsigned long m_last;
    std::vector<std::list<Timer>> m_slots;
    std::list<Timer> m_immediate;
    std::map<INxTimerHandler*, unsigned long> m_index;
    unsigned long m_current = 0;
};

template <class Calendar>
void Step(Calendar& calendar, TimerWorld& world) {
    world.Operate();
    if (world.Random(2) == 0) {
        calendar.TimerTick();
    } else if (world.Random(20) == 0) {
        calendar.OnEventFire();
    }
}

class OwnQueue : public INxEventQueue {
    NxResult PostEvent(INxEvent* /*event*/, EPriority /*priority*/) override { return NX_OK; }
    NxResult SendEvent(INxEvent* /*event*/) override { return NX_OK; }
    size_t GetPendingEventsCount() override { return 0; }
};

// Slot intervals and spans that are refused, raised and rounded; intervals on both sides of every
// limit, so that places wrap and endless timers meet their own slot again.
TEST(CNxTimerQueueCalendar, DoesWhatThePlainWheelDoes) {
    const struct {
        unsigned long m_slot, m_span;
        unsigned m_handlers;
    } wheels[] = {{10, 0, 3},      {5, 109, 20},       {10, 120, 10},   {7, 1000, 50},
                  {25, 1037, 200}, {10, 7200000, 400}, {~0ul, ~0ul, 10}};
    const long steps = GetTestSteps(20000) / 7 + 1;
    OwnQueue queue;
    for (const auto& wheel : wheels) {
        const long slot = wheel.m_slot < 10 ? 10 : static_cast<long>(wheel.m_slot % 1000);
        const long span = std::max(11 * slot, static_cast<long>(std::min(wheel.m_span, 100000ul)));
        std::vector<CNxTimeValue> intervals = {CNxTimeValue(0, 0),   CNxTimeValue(0, 0),
                                               CNxTimeValue(0, 500), CNxTimeValue(0, -500),
                                               CNxTimeValue(-3, 0),  CNxTimeValue::s_tvMax()};
        for (const long ms : {1l, slot, slot + 1, 2 * slot, 3 * slot, span / 2, span - 3 * slot,
                              span - 2 * slot, span - slot, span, span + 1}) {
            intervals.emplace_back(0, ms * 1000);
        }
        const TimerChoices choices{wheel.m_handlers, intervals, {0, 1, 1, 2, 3, 6, ~0ul}, 20};
        SimulatedClock clock;
        PlainCalendar plain(wheel.m_slot, wheel.m_span);
        CNxTimerQueueCalendar calendar(wheel.m_slot, wheel.m_span, &queue);
        TimerWorld expected(plain, choices, 1);
        TimerWorld world(calendar, choices, 1);
        while (world.m_operations < steps) {
            Step(plain, expected);
            Step(calendar, world);
            ASSERT_EQ(expected.m_log, world.m_log)
                << "slot " << wheel.m_slot << ", operation " << world.m_operations;
            expected.m_log.clear();
            world.m_log.clear();
            clock.Advance(slot * 1000);
        }
        std::printf("slot %lu ms, span %lu ms, %u handlers: %ld operations, %ld firings\n",
                    wheel.m_slot, wheel.m_span, wheel.m_handlers, world.m_operations,
                    world.m_fired);
    }
}

struct CountingHandler : INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { ++m_calls; }
    int m_calls = 0;
};

// Whatever the queue forgets when it needs room for others.
TEST(CNxTimerQueueCalendar, ATimerOfZeroThatReplacedAnotherIsNotCancelledHoweverManyHandlersCome) {
    OwnQueue queue;
    CNxTimerQueueCalendar calendar(10, 1000, &queue);
    CountingHandler replaced;
    const CNxTimeValue interval(0, 20000);
    EXPECT_EQ(calendar.ScheduleTimer(&replaced, nullptr, interval, 1), NX_OK);
    EXPECT_EQ(calendar.ScheduleTimer(&replaced, nullptr, CNxTimeValue(0, 0), 1), NX_OK);
    std::vector<CountingHandler> others(1000);
    for (CountingHandler& other : others) {
        ASSERT_EQ(calendar.ScheduleTimer(&other, nullptr, interval, 1), NX_OK);
        ASSERT_EQ(calendar.CancelTimer(&other), NX_OK);
    }
    EXPECT_EQ(calendar.CancelTimer(&replaced), NX_ERROR_NOT_FOUND);
    calendar.TimerTick();
    EXPECT_EQ(replaced.m_calls, 1);
    EXPECT_TRUE(calendar.IsEmpty());
}

}  // namespace
