#include <gtest/gtest.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

class Handler : public INxTimerHandler {
public:
    explicit Handler(std::function<void(void*)> action = nullptr) : m_action(std::move(action)) {}

    void OnTimeout(const CNxTimeValue& curTime, void* token) override {
        ++m_fired;
        m_lastTime = curTime;
        if (m_action) {
            m_action(token);
        }
    }

    int m_fired = 0;
    CNxTimeValue m_lastTime;

private:
    std::function<void(void*)> m_action;
};

class Observer : public INxObserver {
public:
    void OnObserve(const char* topic, void* data) override {
        EXPECT_STREQ(topic, "TimerQueue");
        EXPECT_EQ(data, nullptr);
        ++m_calls;
    }
    int m_calls = 0;
};

// Gives the tests the container, with expiries of their own choice.
class OpenList : public CNxTimerQueueOrderedList {
public:
    OpenList() : CNxTimerQueueOrderedList(nullptr) {}
    using CNxTimerQueueBase::CNode;
    using CNxTimerQueueOrderedList::EraseNode_l;
    using CNxTimerQueueOrderedList::GetEarliestTime_l;
    using CNxTimerQueueOrderedList::PopFirstNode_l;
    using CNxTimerQueueOrderedList::PushNode_l;
    using CNxTimerQueueOrderedList::RePushNode_l;
};

const CNxTimeValue c_hour(3600, 0);
const CNxTimeValue c_now(0, 0);

TEST(TimerQueue, RefusesWhatCannotBeScheduledAndChangesNothing) {
    CNxTimerQueueOrderedList queue(nullptr);
    Handler handler;
    EXPECT_EQ(queue.ScheduleTimer(nullptr, nullptr, c_hour, 1), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.ScheduleTimer(&handler, nullptr, c_now, 0), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.ScheduleTimer(&handler, nullptr, c_now, 2), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.ScheduleTimer(&handler, nullptr, CNxTimeValue(0, -1), 2), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.CancelTimer(nullptr), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(queue.CancelTimer(&handler), NX_ERROR_NOT_FOUND);
    CNxTimeValue remaining;
    EXPECT_EQ(queue.CheckExpire(&remaining), 0);
    EXPECT_EQ(remaining, CNxTimeValue::s_tvMax());
    EXPECT_EQ(queue.GetEarliestTime(), CNxTimeValue::s_tvMax());
}

TEST(TimerQueue, CountedTimerFiresItsCountAndALatePassDoesNotCatchUp) {
    OpenList queue;
    Handler handler;
    const CNxTimeValue longAgo = CNxTimeValue::GetTimeOfDay() - CNxTimeValue(5, 0);
    // Due five periods ago: one firing, and armed from the pass on.
    queue.PushNode_l({&handler, nullptr, longAgo, c_hour, 3});
    EXPECT_EQ(queue.CheckExpire(nullptr), 1);
    EXPECT_EQ(queue.GetEarliestTime(), handler.m_lastTime + c_hour);
    for (int pass = 2; pass <= 3; ++pass) {
        OpenList::CNode node{};
        ASSERT_EQ(queue.PopFirstNode_l(node), 0);
        node.m_expiry = longAgo;
        queue.RePushNode_l(node);
        EXPECT_EQ(queue.CheckExpire(nullptr), 1);
    }
    EXPECT_EQ(handler.m_fired, 3);
    EXPECT_EQ(queue.CancelTimer(&handler), NX_ERROR_NOT_FOUND);
}

TEST(TimerQueue, HandlerMayCancelReplaceAndScheduleFromItsCallback) {
    CNxTimerQueueOrderedList queue(nullptr);
    const CNxTimeValue tick(0, 1);
    std::vector<NxResult> results;
    Handler other;
    Handler cancels;
    Handler canceller([&](void*) {
        results.push_back(queue.CancelTimer(&canceller));
        results.push_back(queue.CancelTimer(&cancels));
    });
    Handler replaces(
        [&](void*) { results.push_back(queue.ScheduleTimer(&replaces, nullptr, c_hour, 1)); });
    Handler oneShot([&](void*) {
        results.push_back(queue.CancelTimer(&oneShot));
        results.push_back(queue.ScheduleTimer(&other, nullptr, c_hour, 1));
    });
    const auto run = [&](Handler& handler, unsigned long count) {
        results.clear();
        queue.ScheduleTimer(&handler, nullptr, tick, count);
        while (queue.CheckExpire(nullptr) == 0) {
        }
        return results;
    };
    queue.ScheduleTimer(&cancels, nullptr, c_hour, 1);
    EXPECT_EQ(run(canceller, 0), (std::vector<NxResult>{NX_OK, NX_OK}));
    EXPECT_EQ(run(replaces, 0), (std::vector<NxResult>{NX_ERROR_FOUND}));
    EXPECT_EQ(run(oneShot, 1), (std::vector<NxResult>{NX_ERROR_NOT_FOUND, NX_OK}));
    EXPECT_EQ(queue.CheckExpire(nullptr), 0);
    EXPECT_EQ(canceller.m_fired + replaces.m_fired + oneShot.m_fired, 3);
    EXPECT_EQ(other.m_fired + cancels.m_fired, 0);
}

TEST(TimerQueue, ExpiryBeyondTheLargestTimeNeverComes) {
    CNxTimerQueueOrderedList queue(nullptr);
    Handler handler;
    EXPECT_EQ(queue.ScheduleTimer(&handler, nullptr, CNxTimeValue::s_tvMax(), 0), NX_OK);
    CNxTimeValue remaining;
    EXPECT_EQ(queue.CheckExpire(&remaining), 0);
    EXPECT_TRUE(remaining > CNxTimeValue(9000000000000000000, 0));
}

TEST(TimerQueue, ObserverHearsOfTheFirstTimerOnly) {
    Observer observer;
    CNxTimerQueueOrderedList queue(&observer);
    Handler one;
    Handler two;
    queue.ScheduleTimer(&one, nullptr, c_hour, 1);
    queue.ScheduleTimer(&two, nullptr, c_hour, 1);
    queue.ScheduleTimer(&one, nullptr, c_hour, 1);
    EXPECT_EQ(observer.m_calls, 1);
    queue.CancelTimer(&one);
    queue.CancelTimer(&two);
    queue.ScheduleTimer(&two, nullptr, c_hour, 1);
    EXPECT_EQ(observer.m_calls, 2);
}

// Ordered by expiry, and by the time of insertion backwards where expiries are equal.
class Model {
public:
    int Push(const OpenList::CNode& node) {
        const int replaced = Erase(node.m_handler) == 0 ? 1 : 0;
        RePush(node);
        return replaced;
    }
    void RePush(const OpenList::CNode& node) {
        m_nodes.insert(m_nodes.begin(), node);
        std::stable_sort(m_nodes.begin(), m_nodes.end(),
                         [](const OpenList::CNode& a, const OpenList::CNode& b) {
                             return b.m_expiry > a.m_expiry;
                         });
    }
    int Erase(const INxTimerHandler* handler) {
        const auto found =
            std::find_if(m_nodes.begin(), m_nodes.end(),
                         [&](const OpenList::CNode& node) { return node.m_handler == handler; });
        if (found == m_nodes.end()) {
            return 1;
        }
        m_nodes.erase(found);
        return 0;
    }
    std::vector<OpenList::CNode> m_nodes;
};

TEST(TimerQueue, RandomOperationsKeepTheOrderOfAPlainModel) {
    OpenList queue;
    Model model;
    std::vector<Handler> handlers(12);
    std::mt19937 random(20240229);
    for (int step = 0; step < 20000; ++step) {
        Handler* const handler = &handlers[random() % handlers.size()];
        const unsigned int choice = random() % 8;
        if (choice < 5) {
            const OpenList::CNode node{handler, nullptr,
                                       CNxTimeValue(static_cast<long>(random() % 6), 0), c_hour, 1};
            ASSERT_EQ(queue.PushNode_l(node), model.Push(node)) << step;
        } else if (choice < 6) {
            ASSERT_EQ(queue.EraseNode_l(handler), model.Erase(handler)) << step;
        } else if (!model.m_nodes.empty()) {
            OpenList::CNode node{};
            CNxTimeValue earliest;
            ASSERT_EQ(queue.GetEarliestTime_l(earliest), 0);
            ASSERT_EQ(earliest, model.m_nodes.front().m_expiry);
            ASSERT_EQ(queue.PopFirstNode_l(node), 0);
            ASSERT_EQ(node.m_handler, model.m_nodes.front().m_handler) << step;
            model.m_nodes.erase(model.m_nodes.begin());
            if (choice == 7) {
                node.m_expiry = CNxTimeValue(3, 0);
                queue.RePushNode_l(node);
                model.RePush(node);
            }
        }
    }
}

}  // namespace
