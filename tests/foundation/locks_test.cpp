// Condition, event object and semaphore.
#include <gtest/gtest.h>
#include <nx/foundation/CNxEventThread.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxSemaphore.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace {

TEST(CNxConditionVariableThread, TimesOutAtOnceForPastAndAbsurdDeadlines) {
    CNxMutexThread mutex;
    CNxConditionVariableThread condition(mutex);
    CNxMutexGuardT<CNxMutexThread> guard(mutex);
    for (CNxTimeValue timeout : {CNxTimeValue(0, 0), CNxTimeValue(-1, 0), CNxTimeValue(0, -1),
                                 CNxTimeValue(-9000000000000000000, 0)}) {
        EXPECT_EQ(condition.Wait(&timeout), NX_ERROR_TIMEOUT) << timeout.GetSec();
    }
    CNxTimeValue negativeBeforeEpoch(0, -500000);
    EXPECT_EQ(condition.WaitUntil(negativeBeforeEpoch), NX_ERROR_TIMEOUT);
}

TEST(CNxEventThread, PulseLetsPassWhoWaitsAndNobodyLater) {
    for (const int manual : {0, 1}) {
        CNxEventThread event(manual, 0);
        std::atomic<int> passed{0};
        std::vector<std::future<void>> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.push_back(std::async(std::launch::async,
                                         [&] { passed += event.Wait(nullptr) == NX_OK ? 1 : 0; }));
        }
        // Pulses until all have gone through: one pulse frees all or one of those that wait.
        while (passed.load() < 3) {
            event.Pulse();
            std::this_thread::yield();
        }
        waiters.clear();
        CNxTimeValue zero;
        EXPECT_EQ(event.Wait(&zero), NX_ERROR_TIMEOUT) << "manual " << manual;
    }
}

// Waiters with the shortest of time-outs against a signaller: what was signalled is what passed,
// plus at most the one signal that is kept.
TEST(CNxEventThread, NoAutomaticSignalIsLostOrDoubledWhenTimeRunsOutMeanwhile) {
    CNxEventThread event(0, 0);
    std::atomic<bool> stop{false};
    std::atomic<long> passed{0};
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(std::async(std::launch::async, [&, i] {
            while (!stop.load()) {
                CNxTimeValue timeout(0, 5L * i);
                if (event.Wait(&timeout) == NX_OK) {
                    ++passed;
                }
            }
        }));
    }
    long signalled = 0;
    for (; signalled < 5000; ++signalled) {
        event.Signal();
        // Each signal is taken before the next: none may be folded into a kept one.
        while (passed.load() != signalled + 1) {
            ASSERT_LE(passed.load(), signalled + 1) << "one signal passed two waits";
            std::this_thread::yield();
        }
    }
    stop = true;
    waiters.clear();
    EXPECT_EQ(passed.load(), signalled);
}

TEST(CNxSemaphore, WaitsUntilADeadlineAtMost) {
    CNxSemaphore semaphore(1);
    const CNxTimeValue now = CNxTimeValue::GetMonotonicTime();
    EXPECT_EQ(semaphore.LockUntil(now), NX_OK);
    EXPECT_EQ(semaphore.LockUntil(now + CNxTimeValue(0, 1000)), NX_ERROR_TIMEOUT);
    std::thread giver([&] { semaphore.UnLock(); });
    EXPECT_EQ(semaphore.LockUntil(now + CNxTimeValue(60, 0)), NX_OK);
    giver.join();
}

}  // namespace
