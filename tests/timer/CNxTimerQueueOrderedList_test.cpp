#include <gtest/gtest.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <functional>
#include <string>

#include "../support/SimulatedClock.h"

namespace {

struct Handler : INxTimerHandler {
    explicit Handler(std::function<void()> action) : m_action(std::move(action)) {}
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { m_action(); }

    const std::function<void()> m_action;
};

// The heap is compared with this queue, whose own answers are written out here.
TEST(TimerQueue, FiresByExpiryLastScheduledFirstAndDoesNotCatchUp) {
    SimulatedClock clock;
    CNxTimerQueueOrderedList queue(nullptr);
    std::string order;
    Handler a([&] { order += 'a'; });
    Handler b([&] { order += 'b'; });
    Handler late([&] { order += 'l'; });
    Handler once([&] {
        order += 'o';
        EXPECT_EQ(queue.CancelTimer(&once), NX_ERROR_NOT_FOUND);
        EXPECT_EQ(queue.CancelTimer(&late), NX_OK);
    });
    const CNxTimeValue second(1, 0);
    EXPECT_EQ(queue.ScheduleTimer(&a, nullptr, CNxTimeValue(0, -1), 2), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.GetEarliestTime(), CNxTimeValue::s_tvMax());
    EXPECT_EQ(queue.ScheduleTimer(&late, nullptr, CNxTimeValue(60, 0), 1), NX_OK);
    EXPECT_EQ(queue.ScheduleTimer(&a, nullptr, second, 3), NX_OK);
    EXPECT_EQ(queue.ScheduleTimer(&b, nullptr, second, 0), NX_OK);
    EXPECT_EQ(queue.ScheduleTimer(&once, nullptr, CNxTimeValue(0, 500), 1), NX_OK);
    // Many periods pass, of which each timer gets one.
    clock.Advance(5000000);
    CNxTimeValue remaining;
    EXPECT_EQ(queue.CheckExpire(&remaining), 3);
    EXPECT_EQ(order, "oba");
    EXPECT_EQ(remaining, second);
    clock.Advance(999999);
    EXPECT_EQ(queue.CheckExpire(nullptr), 0);
    for (int pass = 0; pass < 3; ++pass) {
        clock.Advance(1000000);
        queue.CheckExpire(nullptr);
    }
    EXPECT_EQ(order.substr(3), "abbab");
    EXPECT_EQ(queue.CancelTimer(&a), NX_ERROR_NOT_FOUND);
    EXPECT_EQ(queue.CancelTimer(&b), NX_OK);
}

// A container of an application's own.
class ObstinateQueue : public CNxTimerQueueOrderedList {
public:
    using CNxTimerQueueOrderedList::CNxTimerQueueOrderedList;

protected:
    NxResult PushNode_l(const CNode& node) override {
        return CNxTimerQueueOrderedList::PushNode_l(node) + 77;
    }
    NxResult EraseNode_l(INxTimerHandler* /*handler*/) override { return 77; }
    NxResult PopFirstNode_l(CNode& /*node*/) override { return 77; }
};

TEST(TimerQueue, WhatAContainerRefusesIsAFailureAndNoMore) {
    ObstinateQueue queue(nullptr);
    Handler never([] { FAIL(); });
    EXPECT_EQ(queue.ScheduleTimer(&never, nullptr, CNxTimeValue(0, 0), 1), NX_ERROR_FAILURE);
    EXPECT_EQ(queue.CancelTimer(&never), NX_ERROR_FAILURE);
    CNxTimeValue remaining;
    EXPECT_EQ(queue.CheckExpire(&remaining), 0);
    EXPECT_TRUE(remaining <= CNxTimeValue::s_tvZero());
}

}  // namespace
