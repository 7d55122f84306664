#include <gtest/gtest.h>
#include <nx/timer/CNxTimedCall.h>
#include <nx/timer/CNxTimerPriorityQueue.h>

#include <array>
#include <functional>
#include <memory>
#include <string>

#include "../support/SimulatedClock.h"

namespace {

const CNxTimeValue c_second(1, 0);

class TimedCall : public ::testing::Test {
protected:
    // Lets so many seconds pass, with a look at the timers in each.
    void Pass(int seconds) {
        for (; seconds > 0; --seconds) {
            m_clock.Advance(1000000);
            m_timers.CheckExpire(nullptr);
        }
    }

    SimulatedClock m_clock;
    CNxTimerPriorityQueue m_timers{nullptr};
    CNxTimerPriorityQueue m_others{nullptr};
    std::unique_ptr<CNxTimedCall> m_call = std::make_unique<CNxTimedCall>();
    // What the function owns: 1 when it is gone.
    std::shared_ptr<int> m_token = std::make_shared<int>();
    int m_calls = 0;
};

TEST_F(TimedCall, RunsOnceOrUntilCancelledAndReplacesWhatIsPending) {
    const auto count = [this, token = m_token] { ++m_calls; };
    EXPECT_EQ(m_call->RunEvery(m_timers, CNxTimeValue(), count), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(m_call->RunAfter(m_timers, c_second, nullptr), NX_ERROR_INVALID_ARG);
    EXPECT_FALSE(m_call->IsPending());
    EXPECT_EQ(m_call->RunAfter(m_others, c_second, count), NX_OK);
    EXPECT_EQ(m_call->RunEvery(m_timers, c_second, count), NX_OK);
    EXPECT_EQ(m_others.GetEarliestTime(), CNxTimeValue::s_tvMax());
    Pass(2);
    EXPECT_EQ(m_calls, 2);
    // A refused one leaves what is pending.
    EXPECT_EQ(m_call->RunEvery(m_timers, CNxTimeValue(), [] {}), NX_ERROR_INVALID_ARG);
    Pass(1);
    EXPECT_EQ(m_calls, 3);
    EXPECT_EQ(m_call->RunAfter(m_timers, c_second, count), NX_OK);
    EXPECT_EQ(m_token.use_count(), 3);  // with `count`
    EXPECT_TRUE(m_call->IsPending());
    Pass(2);
    EXPECT_EQ(m_calls, 4);
    EXPECT_FALSE(m_call->IsPending());
    EXPECT_EQ(m_call->RunEvery(m_timers, c_second, count), NX_OK);
    m_call.reset();
    Pass(1);
    EXPECT_EQ(m_calls, 4);
    EXPECT_EQ(m_token.use_count(), 2);
}

// The function is used after each change, so that the sanitizers see one that is gone.
TEST_F(TimedCall, MayBeChangedInAnyWayInsideItsOwnCall) {
    const std::function<void()> changes[] = {
        [this] { m_call->Cancel(); },
        [this] { m_call.reset(); },
        [this] { m_call = std::make_unique<CNxTimedCall>(); },
        [this] {
            // Nor is it called again by a pass of its own, unless it is another call by then.
            m_clock.Advance(5000000);
            EXPECT_EQ(m_timers.CheckExpire(nullptr), m_call->IsPending() ? 1 : 0);
            EXPECT_EQ(m_calls, 1);
            EXPECT_EQ(m_call->RunAfter(m_timers, c_second, [this] { ++m_calls; }), NX_OK);
            m_clock.Advance(1000000);
            EXPECT_EQ(m_timers.CheckExpire(nullptr), 1);
            EXPECT_EQ(m_calls--, 2);
        },
    };
    for (const auto& change : changes) {
        for (const bool isPeriodic : {false, true}) {
            SCOPED_TRACE(std::to_string(&change - changes) + (isPeriodic ? " periodic" : " once"));
            m_calls = 0;
            m_call = std::make_unique<CNxTimedCall>();
            const auto run = [this, &change, token = m_token, more = std::string(50, 'x')] {
                ++m_calls;
                change();
                EXPECT_EQ(more.size(), 50u);
                EXPECT_EQ(token.use_count(), 3);  // with `run` and m_token
            };
            EXPECT_EQ(isPeriodic ? m_call->RunEvery(m_timers, c_second, run)
                                 : m_call->RunAfter(m_timers, c_second, run),
                      NX_OK);
            Pass(3);
            EXPECT_EQ(m_calls, 1);
        }
        EXPECT_EQ(m_token.use_count(), 1);
    }
}

// A function that owns its own handle.
TEST_F(TimedCall, MayBeDestroyedByTheEndOfItsFunction) {
    for (const bool isCancelled : {false, true}) {
        auto call = std::make_shared<CNxTimedCall>();
        CNxTimedCall& handle = *call;
        EXPECT_EQ(handle.RunAfter(m_timers, c_second, [call, token = m_token] {}), NX_OK);
        call.reset();
        if (isCancelled) {
            handle.Cancel();
        }
        Pass(1);
        EXPECT_EQ(m_token.use_count(), 1);
    }
}

}  // namespace
