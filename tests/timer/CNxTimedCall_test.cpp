#include <gtest/gtest.h>
#include <nx/timer/CNxTimedCall.h>
#include <nx/timer/CNxTimerPriorityQueue.h>

#include <functional>
#include <memory>

#include "../support/SimulatedClock.h"

namespace {

const CNxTimeValue c_second(1, 0);

// The function is used after each change, so that the sanitizers see one that is gone.
TEST(TimedCall, MayBeChangedInAnyWayInsideItsOwnCall) {
    SimulatedClock clock;
    CNxTimerPriorityQueue timers(nullptr);
    const auto pass = [&] {
        clock.Advance(1000000);
        return timers.CheckExpire(nullptr);
    };
    int calls = 0;
    const auto token = std::make_shared<int>(1);
    auto call = std::make_unique<CNxTimedCall>();
    const std::function<void()> changes[] = {
        [&] { call->Cancel(); },
        [&] { call.reset(); },
        [&] { call = std::make_unique<CNxTimedCall>(); },
        [&] {
            // Nor does a pass of its own call it again, unless it is another function by then.
            EXPECT_EQ(pass(), call->IsPending() ? 1 : 0);
            EXPECT_EQ(calls, 1);
            EXPECT_EQ(call->RunAfter(timers, c_second, [&calls] { --calls; }), NX_OK);
            EXPECT_EQ(pass(), 1);
            ++calls;
        },
    };
    for (const auto& change : changes) {
        for (const bool isPeriodic : {false, true}) {
            SCOPED_TRACE(&change - changes);
            const auto run = [&calls, &change, token] {
                calls += *token;
                change();
                EXPECT_EQ(*token, 1);
            };
            calls = 0;
            call = std::make_unique<CNxTimedCall>();
            EXPECT_EQ(isPeriodic ? call->RunEvery(timers, c_second, run)
                                 : call->RunAfter(timers, c_second, run),
                      NX_OK);
            EXPECT_EQ(pass(), 1);
            EXPECT_EQ(pass(), 0);
            EXPECT_EQ(calls, 1);
        }
        EXPECT_EQ(token.use_count(), 1);
    }
}

TEST(TimedCall, ReplacesWhatIsPendingUnlessItIsRefused) {
    SimulatedClock clock;
    CNxTimerPriorityQueue timers(nullptr);
    CNxTimerPriorityQueue others(nullptr);
    // Its function owns it.
    auto call = std::make_shared<CNxTimedCall>();
    CNxTimedCall& handle = *call;
    EXPECT_EQ(handle.RunEvery(others, c_second, [call] { FAIL(); }), NX_OK);
    EXPECT_EQ(handle.RunEvery(timers, c_second, [call] {}), NX_OK);
    EXPECT_EQ(handle.RunEvery(timers, CNxTimeValue(), [] {}), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(handle.RunAfter(timers, c_second, nullptr), NX_ERROR_INVALID_ARG);
    clock.Advance(2000000);
    EXPECT_EQ(others.CheckExpire(nullptr) + timers.CheckExpire(nullptr), 1);
    EXPECT_TRUE(handle.IsPending());
    const std::weak_ptr<CNxTimedCall> watch = std::exchange(call, nullptr);
    handle.Cancel();
    EXPECT_TRUE(watch.expired());
}

}  // namespace
