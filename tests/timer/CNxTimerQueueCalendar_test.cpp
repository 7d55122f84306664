#include <gtest/gtest.h>
#include <nx/timer/CNxTimerQueueCalendar.h>

#include <algorithm>
#include <map>
#include <utility>

#include "../support/SimulatedClock.h"
#include "../support/TimerWorld.h"

namespace {

// The same wheel in the plainest way: every rule one line, nothing fast. An endless count is kept
// as the largest number.
class PlainCalendar : public INxTimerQueue {
public:
    PlainCalendar(unsigned long slot, unsigned long span)
        : m_slotMs(std::max(slot, 10ul)),
          m_last(span >= m_slotMs && span / m_slotMs > 10 ? span / m_slotMs - 1 : 10) {}

    NxResult ScheduleTimer(INxTimerHandler* handler, void* token, const CNxTimeValue& interval,
                           unsigned long count) override {
        DropImmediate(handler);
        const bool found = m_ring.erase(handler) != 0;
        if (interval == CNxTimeValue::s_tvZero()) {
            m_immediate[handler].push_back(token);
            m_isReplaced[handler] |= found;
            return NX_OK;
        }
        m_isReplaced[handler] = false;
        m_ring[handler] = {token, interval, count == 0 ? ~0ul : count, GetSlot(interval)};
        return found ? NX_ERROR_FOUND : NX_OK;
    }

    NxResult CancelTimer(INxTimerHandler* handler) override {
        DropImmediate(handler);
        return m_ring.erase(handler) != 0 ? NX_OK : NX_ERROR_NOT_FOUND;
    }

    void TimerTick() {
        auto due = TakeImmediate();
        for (auto next = m_ring.begin(); next != m_ring.end();) {
            const auto at = next++;
            Timer& timer = at->second;
            if (timer.m_slot != m_current) {
                continue;
            }
            due[at->first] = timer.m_token;
            timer.m_slot = GetSlot(timer.m_interval);
            const bool isThisSlot = timer.m_slot == m_current;
            if (timer.m_count != ~0ul && (--timer.m_count == 0 || isThisSlot)) {
                m_ring.erase(at);
            } else if (isThisSlot && timer.m_interval.GetTotalInMsec() == 0) {
                // Not till the next round.
                timer.m_slot = (m_current + 1) % (m_last + 1);
            }
        }
        m_current = m_current == m_last ? 0 : m_current + 1;
        Fire(due);
    }

    void OnEventFire() { Fire(TakeImmediate()); }

private:
    using Due = std::map<INxTimerHandler*, void*>;

    struct Timer {
        void* m_token;
        CNxTimeValue m_interval;
        unsigned long m_count;
        unsigned long m_slot;
    };

    // The last of those that no timer in the ring, nor one that they replaced, stands before.
    void DropImmediate(INxTimerHandler* handler) {
        auto& tokens = m_immediate[handler];
        if (m_ring.count(handler) == 0 && !m_isReplaced[handler] && !tokens.empty()) {
            tokens.pop_back();
        }
    }

    Due TakeImmediate() {
        Due due;
        for (const auto& [handler, tokens] : std::exchange(m_immediate, {})) {
            if (!tokens.empty()) {
                due[handler] = tokens.front();
            }
        }
        return due;
    }

    static void Fire(const Due& due) {
        const CNxTimeValue now = CNxTimeValue::GetTimeOfDay();
        for (const auto& [handler, token] : due) {
            handler->OnTimeout(now, token);
        }
    }

    unsigned long GetSlot(const CNxTimeValue& interval) const {
        const auto ms = static_cast<unsigned long>(interval.GetTotalInMsec());
        const unsigned long ticks = ms / m_slotMs + (ms % m_slotMs != 0 ? 1 : 0);
        const unsigned long slot = m_current + std::min(ticks, m_last);
        return slot > m_last ? slot - m_last : slot;
    }

    const unsigned long m_slotMs;
    const unsigned long m_last;
    std::map<INxTimerHandler*, Timer> m_ring;
    std::map<INxTimerHandler*, std::vector<void*>> m_immediate;
    std::map<INxTimerHandler*, bool> m_isReplaced;
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
        std::vector<CNxTimeValue> intervals = {{0, 0},    {0, 0},  {0, 500},
                                               {0, -500}, {-3, 0}, CNxTimeValue::s_tvMax()};
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
    }
}

struct Idle : INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override {}
};

// Whatever the queue forgets when it needs room for others.
TEST(CNxTimerQueueCalendar, ATimerOfZeroThatReplacedAnotherIsNotCancelledHoweverManyHandlersCome) {
    OwnQueue queue;
    CNxTimerQueueCalendar calendar(10, 1000, &queue);
    Idle handlers[1000];
    for (Idle& handler : handlers) {
        EXPECT_EQ(calendar.ScheduleTimer(&handler, nullptr, CNxTimeValue(0, 20000), 1), NX_OK);
        if (&handler == handlers) {
            EXPECT_EQ(calendar.ScheduleTimer(&handler, nullptr, CNxTimeValue(0, 0), 1), NX_OK);
        } else {
            EXPECT_EQ(calendar.CancelTimer(&handler), NX_OK);
        }
    }
    EXPECT_EQ(calendar.CancelTimer(handlers), NX_ERROR_NOT_FOUND);
    EXPECT_FALSE(calendar.IsEmpty());
    calendar.TimerTick();
    EXPECT_TRUE(calendar.IsEmpty());
}

}  // namespace
