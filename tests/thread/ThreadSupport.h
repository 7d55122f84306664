// What the tests of threads have in common.
#pragma once

#include <gtest/gtest.h>
#include <nx/event/NxCall.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxTimerPreciseWrapperID.h>

#include <cstdlib>
#include <functional>
#include <thread>
#include <utility>

#include "../support/CountedEvent.h"
#include "../support/Must.h"

inline constexpr auto c_joinable = CNxThreadManager::FLAG_JOINABLE;

inline CNxThreadManager* Manager() {
    return CNxThreadManager::Instance();
}

inline int NextType() {
    return Manager()->GetAndIncreamUserType();
}

// One that never holds runs into the time limit of the test.
template <class Condition>
void YieldUntil(Condition condition) {
    while (!condition()) {
        std::this_thread::yield();
    }
}

inline CNxThread* StartWorker(int withTimers = 1, CNxThreadManager::TFlag flags = c_joinable) {
    CNxThread* worker = nullptr;
    Must(Manager()->CreateUserTaskThread(worker, flags, withTimers));
    return worker;
}

inline CNxThread* StartNetwork() {
    CNxThread* network = nullptr;
    Must(Manager()->CreateNetworkThread(NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(),
                                        network));
    return network;
}

inline void StopAndDestroy(CNxThread* thread) {
    EXPECT_EQ(thread->Stop(nullptr), NX_OK);
    EXPECT_EQ(thread->Join(), NX_OK);
    thread->Destory(0);
}

// A task thread that ends with the scope.
class Worker {
public:
    explicit Worker(int withTimers = 1) : m_thread(StartWorker(withTimers)) {}
    ~Worker() { StopAndDestroy(m_thread); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    CNxThread* operator->() const { return m_thread; }
    CNxThread* Get() const { return m_thread; }
    int GetType() const { return m_thread->GetThreadType(); }

    // Returns when the thread has done it.
    void Do(const std::function<void()>& action) const {
        EXPECT_EQ(NxSendCall(*m_thread->GetEventQueue(), action), NX_OK);
    }

private:
    CNxThread* const m_thread;
};

// A kind of the application's own, whose run Stop does not end.
class FunctionThread : public CNxThread {
public:
    using Function = std::function<void()>;

    explicit FunctionThread(
        Function run, Function atDeletion = [] {})
        : m_run(std::move(run)), m_atDeletion(std::move(atDeletion)) {}
    ~FunctionThread() override { m_atDeletion(); }

    void OnThreadRun() override { m_run(); }

private:
    const Function m_run;
    const Function m_atDeletion;
};

class CountingSink : public CNxTimerPreciseWrapperIDSink {
public:
    void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override { ++m_calls; }
    std::atomic<int> m_calls{0};
};

// How a process ends: each body runs in a fresh one.
class ProcessEnd : public ::testing::Test {
protected:
    void SetUp() override { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }

    // The body calls std::exit(status), or returns for 0; the text is among what the process says.
    static void ExpectEnd(const std::function<void()>& body, const char* text = "",
                          int status = 0) {
        const auto whole = [&body] {
            body();
            std::exit(0);
        };
        EXPECT_EXIT(whole(), ::testing::ExitedWithCode(status), text);
    }
};
