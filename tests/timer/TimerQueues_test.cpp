// The list's own answers are written out; the heap is compared with the list, and the calendar with
// a plain wheel.
#include <gtest/gtest.h>
#include <nx/timer/CNxTimerPriorityQueue.h>
#include <nx/timer/CNxTimerQueueCalendar.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "../support/SimulatedClock.h"
#include "../support/TimerWorld.h"

namespace {

struct Handler : INxTimerHandler {
    explicit Handler(std::function<void()> action = [] { FAIL(); }) : m_action(std::move(action)) {}
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { m_action(); }

    const std::function<void()> m_action;
};

TEST(TimerQueue, FiresByExpiryLastScheduledFirstAndDoesNotCatchUp) {
    SimulatedClock clock;
    CNxTimerQueueOrderedList queue(nullptr);
    std::string order;
    Handler a([&] { order += 'a'; });
    Handler b([&] { order += 'b'; });
    Handler late;
    Handler once([&] {
        order += 'o';
        EXPECT_EQ(queue.CancelTimer(&once), NX_ERROR_NOT_FOUND);
        EXPECT_EQ(queue.CancelTimer(&late), NX_OK);
    });
    const CNxTimeValue second(1, 0);
    EXPECT_EQ(queue.ScheduleTimer(&a, nullptr, CNxTimeValue(0, -1), 2), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.GetEarliestTime(), CNxTimeValue::s_tvMax());
    EXPECT_EQ(queue.ScheduleTimer(&late, nullptr, CNxTimeValue(4, 0), 1), NX_OK);
    EXPECT_EQ(queue.ScheduleTimer(&a, nullptr, second, 3), NX_OK);
    EXPECT_EQ(queue.ScheduleTimer(&b, nullptr, second, 0), NX_OK);
    EXPECT_EQ(queue.ScheduleTimer(&once, nullptr, CNxTimeValue(0, 500), 1), NX_OK);
    // Many periods pass, of which each timer gets one.
    clock.Advance(5000000);
    CNxTimeValue remaining;
    EXPECT_EQ(queue.CheckExpire(&remaining), 3);
    EXPECT_EQ(remaining, second);
    clock.Advance(999999);
    EXPECT_EQ(queue.CheckExpire(nullptr), 0);
    for (int pass = 0; pass < 3; ++pass) {
        clock.Advance(1000000);
        queue.CheckExpire(nullptr);
    }
    EXPECT_EQ(order, "obaabbab");
}

// Has two queues do the same, each in a world of its own.
template <class Expected, class Queue, class Step>
void Compare(Expected& model, Queue& queue, const TimerChoices& choices, Step step) {
    SimulatedClock clock;
    TimerWorld expected(model, choices, choices.m_handlers);
    TimerWorld world(queue, choices, choices.m_handlers);
    std::mt19937 engine(choices.m_handlers);
    while (world.m_operations < GetTestSteps(4000)) {
        expected.Operate();
        step(model, expected);
        world.Operate();
        step(queue, world);
        ASSERT_EQ(expected.m_log, world.m_log) << "operation " << world.m_operations;
        expected.m_log.clear();
        world.m_log.clear();
        // In coarse steps, so that many timers are due at once.
        clock.Advance(static_cast<long>(engine() % 4 * 100));
    }
    EXPECT_NE(world.m_fired, 0);
}

template <class Queue>
struct Observed : INxObserver, Queue {
    Observed() : Queue(this) {}
    void OnObserve(const char* /*topic*/, void* /*data*/) override { ++m_calls; }
    long m_calls = 0;
};

TEST(TimerQueue, TheHeapDoesWhatTheListDoes) {
    for (const unsigned handlers : {2u, 9u, 60u, 400u}) {
        SCOPED_TRACE(handlers);
        const TimerChoices choices{handlers,
                                   {{0, 0},
                                    {-1, 0},
                                    {0, 1},
                                    {0, 100},
                                    {0, 200},
                                    {0, 1000},
                                    {0, 1100},
                                    {0, 5000},
                                    {0, 5000},
                                    {0, 7000},
                                    {1, 900000},
                                    CNxTimeValue::s_tvMax()},
                                   {0, 1, 1, 1, 2, 5, ~0ul},
                                   30};
        Observed<CNxTimerQueueOrderedList> list;
        Observed<CNxTimerPriorityQueue> heap;
        Compare(list, heap, choices, [](auto& queue, TimerWorld& world) {
            if (world.Random(3) == 0) {
                CNxTimeValue remaining;
                const int fired = queue.CheckExpire(&remaining);
                world.Log(3, fired, remaining.GetSec(), remaining.GetUsec());
            }
            const CNxTimeValue earliest = queue.GetEarliestTime();
            world.Log(4, queue.m_calls, earliest.GetSec(), earliest.GetUsec());
        });
    }
}

// Every rule one line, nothing fast. An endless count is kept as the largest number.
class PlainCalendar : public INxTimerQueue {
public:
    PlainCalendar(unsigned long slot, unsigned long span)
        : m_slotMs(std::max(slot, 10ul)),
          m_last(span >= m_slotMs && span / m_slotMs > 10 ? span / m_slotMs - 1 : 10) {}

    NxResult ScheduleTimer(INxTimerHandler* handler, void* token, const CNxTimeValue& interval,
                           unsigned long count) override {
        const bool found = CancelTimer(handler) == NX_OK;
        Timer& timer = m_timers[handler];
        if (interval == CNxTimeValue::s_tvZero()) {
            timer.m_immediate.push_back(token);
            timer.m_isReplaced |= found;
            return NX_OK;
        }
        timer = {timer.m_immediate, false, token, interval, count == 0 ? ~0ul : count,
                 GetSlot(interval)};
        return found ? NX_ERROR_FOUND : NX_OK;
    }

    NxResult CancelTimer(INxTimerHandler* handler) override {
        Timer& timer = m_timers[handler];
        if (std::exchange(timer.m_count, 0) != 0) {
            return NX_OK;
        }
        if (!timer.m_isReplaced && !timer.m_immediate.empty()) {
            timer.m_immediate.pop_back();
        }
        return NX_ERROR_NOT_FOUND;
    }

    void Tick(bool withRing) {
        std::map<INxTimerHandler*, void*> due;
        for (auto& [handler, timer] : m_timers) {
            if (!timer.m_immediate.empty()) {
                due[handler] = timer.m_immediate.front();
                timer.m_immediate.clear();
            }
            if (withRing && timer.m_count != 0 && timer.m_slot == m_current) {
                due[handler] = timer.m_token;
                ArmAgain(timer);
            }
        }
        m_current = (m_current + (withRing ? 1 : 0)) % (m_last + 1);
        for (const auto& [handler, token] : due) {
            handler->OnTimeout(CNxTimeValue::GetTimeOfDay(), token);
        }
    }
    void TimerTick() { Tick(true); }
    void OnEventFire() { Tick(false); }

private:
    struct Timer {
        std::vector<void*> m_immediate;
        bool m_isReplaced = false;  // by an immediate one
        void* m_token = nullptr;
        CNxTimeValue m_interval;
        unsigned long m_count = 0;  // 0 when it is not in the ring
        unsigned long m_slot = 0;
    };

    void ArmAgain(Timer& timer) const {
        timer.m_slot = GetSlot(timer.m_interval);
        const bool isThisSlot = timer.m_slot == m_current;
        if (timer.m_count != ~0ul) {
            timer.m_count = isThisSlot ? 0 : timer.m_count - 1;
        } else if (isThisSlot && timer.m_interval.GetTotalInMsec() == 0) {
            timer.m_slot = (m_current + 1) % (m_last + 1);
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
    std::map<INxTimerHandler*, Timer> m_timers;
    unsigned long m_current = 0;
};

// Slot intervals and spans that are refused, raised and rounded; intervals on both sides of every
// limit, so that places wrap and endless timers meet their own slot again; handlers in passing, for
// which the queue needs room.
TEST(TimerQueue, TheCalendarDoesWhatThePlainWheelDoes) {
    const struct {
        unsigned long m_slot, m_span;
        unsigned m_handlers;
    } wheels[] = {{10, 0, 3},      {5, 109, 20},       {10, 120, 10},   {7, 1000, 50},
                  {25, 1037, 200}, {10, 7200000, 400}, {~0ul, ~0ul, 10}};
    std::vector<Handler> passers(100);
    const auto step = [&passers](auto& calendar, TimerWorld& world) {
        Handler& passer = passers[world.Random(passers.size())];
        EXPECT_EQ(calendar.ScheduleTimer(&passer, nullptr, CNxTimeValue(1, 0), 1), NX_OK);
        EXPECT_EQ(calendar.CancelTimer(&passer), NX_OK);
        if (world.Random(2) == 0) {
            calendar.TimerTick();
        } else if (world.Random(20) == 0) {
            calendar.OnEventFire();
        }
    };
    for (const auto& wheel : wheels) {
        SCOPED_TRACE(wheel.m_slot);
        const long slot = wheel.m_slot < 10 ? 10 : static_cast<long>(wheel.m_slot % 1000);
        const long span = std::max(11 * slot, static_cast<long>(std::min(wheel.m_span, 100000ul)));
        std::vector<CNxTimeValue> intervals = {{0, 0},    {0, 0},  {0, 500},
                                               {0, -500}, {-3, 0}, CNxTimeValue::s_tvMax()};
        for (const long ms : {1l, slot, slot + 1, 2 * slot, 3 * slot, span / 2, span - 3 * slot,
                              span - 2 * slot, span - slot, span, span + 1}) {
            intervals.emplace_back(0, ms * 1000);
        }
        PlainCalendar plain(wheel.m_slot, wheel.m_span);
        CNxTimerQueueCalendar calendar(wheel.m_slot, wheel.m_span, nullptr);
        Compare(plain, calendar, {wheel.m_handlers, intervals, {0, 1, 1, 2, 3, 6, ~0ul}, 20}, step);
    }
}

}  // namespace
