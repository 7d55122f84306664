// The main thread in this process; every way of ending a process in processes of
// their own.
#include <gtest/gtest.h>
#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/thread/CNxThreadDummy.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxThreadTask.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "../support/CountedEvent.h"
#include "../support/Must.h"

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;
constexpr auto c_joinable = CNxThreadManager::FLAG_JOINABLE;

CNxThreadManager* Manager() {
    return CNxThreadManager::Instance();
}

TEST(ThreadManager, MainThreadIsTheCallerAndSignalsAreBlocked) {
    ASSERT_EQ(Manager()->InitMainThread(0, nullptr), NX_OK);
    EXPECT_EQ(Manager()->InitMainThread(0, nullptr), NX_ERROR_ALREADY_INITIALIZED);
    CNxThread* const mainThread = Manager()->GetThread(NX_THREAD_MAIN);
    EXPECT_TRUE(CNxThreadManager::IsEqualCurrentThread(NX_THREAD_MAIN));
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGRTMIN), 1);
    EXPECT_EQ(sigismember(&blocked, SIGIO), 1);

    CNxThread* worker = nullptr;
    ASSERT_EQ(Manager()->CreateUserTaskThread(worker, c_joinable, 0), NX_OK);
    NxResult fromWorker = NX_OK;
    EventCounts counts;
    worker->GetEventQueue()->SendEvent(new CountedEvent(counts, [&] {
        fromWorker = Manager()->StopAllThreads(nullptr);
        return Manager()->JoinAllThreads();
    }));
    EXPECT_EQ(fromWorker, NX_ERROR_FAILURE);
    // What the main thread's loop drains is its own queue.
    mainThread->GetEventQueue()->PostEvent(
        new CountedEvent(counts, [&] { return mainThread->Stop(nullptr); }), c_normal);
    mainThread->OnThreadRun();
    EXPECT_EQ(Manager()->StopAllThreads(nullptr), NX_OK);
    EXPECT_EQ(Manager()->JoinAllThreads(), NX_OK);
    EXPECT_EQ(worker->Join(), NX_ERROR_FAILURE);
    EXPECT_EQ(counts.m_fired, 2);
    worker->Destory(0);
    mainThread->Destory(0);
}

// The system gives the id of an ended thread to the next one.
TEST(ThreadManager, EndedThreadIsNotTakenForALaterOneWithItsId) {
    EventCounts counts;
    CNxThread* ended = nullptr;
    CNxThread* running = nullptr;
    ASSERT_EQ(Manager()->CreateUserTaskThread(ended, c_joinable, 0), NX_OK);
    EXPECT_EQ(ended->Stop(nullptr), NX_OK);
    EXPECT_EQ(ended->Join(), NX_OK);
    ASSERT_EQ(Manager()->CreateUserTaskThread(running, c_joinable, 0), NX_OK);
    running->GetEventQueue()->SendEvent(new CountedEvent(counts, [&] {
        EXPECT_EQ(Manager()->GetThread(NX_THREAD_CALLING), running);
        EXPECT_FALSE(CNxThreadManager::IsEqualCurrentThread(ended->GetThreadType()));
        return NX_OK;
    }));
    EXPECT_EQ(counts.m_fired, 1);
    running->Stop(nullptr);
    running->Join();
    running->Destory(0);
    ended->Destory(0);
}

class ProcessEnd : public ::testing::Test {
protected:
    // Each body runs in a fresh process; a hang is ended by the time limit of the test.
    void SetUp() override { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

CNxThread* StartWorker(CNxThreadManager::TFlag flags = c_joinable) {
    CNxThread* worker = nullptr;
    Must(Manager()->CreateUserTaskThread(worker, flags, 1));
    return worker;
}

class SayGoodbye : public CNxCleanUpBase {
public:
    ~SayGoodbye() override { std::fputs("cleaned up", stderr); }
};

TEST_F(ProcessEnd, ForgottenThreadsAreStoppedAndJoined) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        CNxThread* out = nullptr;
        Must(Manager()->CreateNetworkThread(NX_THREAD_NETWORK,
                                            CNxThreadManager::CreateNetworkReactor(), out));
        CNxThread* const worker = StartWorker();
        StartWorker(CNxThreadManager::FLAG_DETACHED);
        Must((new CNxThreadDummy)->Init(worker, Manager()->GetAndIncreamUserType()));
        auto* const heart = new CNxThreadHeartBeat;
        Must(heart->CreateNotRun(Manager()->GetAndIncreamUserType(), c_joinable));
        heart->OnThreadInit();
        new SayGoodbye;
        std::exit(3);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(3), "cleaned up");
}

// A kind of the application's own, on a thread that the library did not start.
class SaysThatItStops : public CNxThread {
public:
    NxResult Stop(CNxTimeValue* /*timeout*/) override {
        std::fputs("stopped", stderr);
        return NX_OK;
    }
    void OnThreadRun() override {}
};

TEST_F(ProcessEnd, KindsOnTheExitingThreadAreAskedToStopToo) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        Must((new SaysThatItStops)->CreateNotRun(NX_THREAD_USER, c_joinable));
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "stopped");
}

// For an event that is still in the queue, and for the one that ends the process.
TEST_F(ProcessEnd, WorkerThatWaitsForTheMainThreadDoesNotKeepTheProcess) {
    for (const bool inEvent : {false, true}) {
        const auto body = [inEvent] {
            static EventCounts counts;
            Must(Manager()->InitMainThread(0, nullptr));
            CNxThread* const mainThread = Manager()->GetThread(NX_THREAD_MAIN);
            INxEventQueue* const mainQueue = mainThread->GetEventQueue();
            const auto send = [mainQueue] {
                const auto end = []() -> NxResult { std::exit(0); };
                const NxResult answer = mainQueue->SendEvent(new CountedEvent(counts, end));
                std::fprintf(stderr, "answer %u", answer);
                return answer;
            };
            StartWorker()->GetEventQueue()->PostEvent(new CountedEvent(counts, send), c_normal);
            while (mainQueue->GetPendingEventsCount() == 0) {
                std::this_thread::yield();
            }
            if (inEvent) {
                mainThread->OnThreadRun();
            }
            std::exit(0);
        };
        EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "answer 10009") << inEvent;
    }
}

TEST_F(ProcessEnd, LoopOnAThreadOfTheApplicationDoesNotKeepTheProcess) {
    const auto body = [] {
        static std::atomic<bool> isUp{false};
        Must(Manager()->InitMainThread(0, nullptr));
        std::thread([] {
            auto* const thread = new CNxThreadTask;
            Must(thread->CreateNotRun(Manager()->GetAndIncreamUserType(), c_joinable));
            thread->OnThreadInit();
            isUp = true;
            thread->OnThreadRun();
        }).detach();
        while (!isUp) {
            std::this_thread::yield();
        }
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

// Posts to both until both refuse.
void PostUntilRefused(INxEventQueue* first, INxEventQueue* second, std::atomic<bool>& refused) {
    static EventCounts counts;
    bool goOn = true;
    while (goOn) {
        const NxResult one = first->PostEvent(new CountedEvent(counts), c_normal);
        const NxResult two = second->PostEvent(new CountedEvent(counts), c_normal);
        goOn = one != NX_ERROR_NOT_INITIALIZED || two != NX_ERROR_NOT_INITIALIZED;
    }
    refused = true;
    for (;;) {
        first->PostEvent(new CountedEvent(counts), c_normal);
        second->PostEvent(new CountedEvent(counts), c_normal);
    }
}

TEST_F(ProcessEnd, ThreadsOfTheApplicationMayPostUntilTheProcessIsGone) {
    const auto body = [] {
        static std::atomic<bool> refused{false};
        // Called after the tear-down.
        std::atexit([] {
            while (!refused) {
                std::this_thread::yield();
            }
            CNxThreadManager::SleepMs(20);
            std::fputs("all refused", stderr);
        });
        Must(Manager()->InitMainThread(0, nullptr));
        INxEventQueue* const mainQueue = Manager()->GetThreadEventQueue(NX_THREAD_MAIN);
        INxEventQueue* const workerQueue = StartWorker()->GetEventQueue();
        std::thread(&PostUntilRefused, mainQueue, workerQueue, std::ref(refused)).detach();
        while (mainQueue->GetPendingEventsCount() == 0) {
            std::this_thread::yield();
        }
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "all refused");
}

class EndlessThread : public CNxThread {
public:
    void OnThreadRun() override {
        while (Manager()->GetThread(NX_THREAD_CALLING) != nullptr) {
            std::this_thread::yield();
        }
    }
};

TEST_F(ProcessEnd, ThreadThatCannotBeStoppedDoesNotKeepTheProcess) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        CNxThreadManager::SetTearDownLimit(CNxTimeValue(0, 50000));
        Must((new EndlessThread)->Create(5000, c_joinable));
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "thread 5000 has not ended in 50 ms");
}

// Cannot be stopped, but comes to its end.
class WorkingThread : public CNxThread {
public:
    ~WorkingThread() override { std::fputs("and destroyed", stderr); }
    void OnThreadRun() override {
        CNxThreadManager::SleepMs(100);
        std::fputs("done ", stderr);
    }
};

TEST_F(ProcessEnd, ThreadThatEndsByItselfIsWaitedFor) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        Must((new WorkingThread)->Create(Manager()->GetAndIncreamUserType(), c_joinable));
        std::exit(0);
    };
    // The thread sanitizer has a thread of its own, so no object is destroyed.
#if defined(__SANITIZE_THREAD__)
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "done");
#else
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "done and destroyed");
#endif
}

// Goes on with what it has to do while the process exits.
class BusyThread : public CNxThread {
public:
    void OnThreadRun() override {
        CNxThread* const old = StartWorker();
        CNxThreadManager::SleepMs(100);
        for (int i = 0; i < 20; ++i) {
            StartWorker();
        }
        old->Stop(nullptr);
        old->Join();
        old->Destory(0);
    }
};

TEST_F(ProcessEnd, ThreadsThatAreMadeAndDestroyedMeanwhileDoNotDisturbIt) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        for (int i = 0; i < 3; ++i) {
            Must((new BusyThread)->Create(Manager()->GetAndIncreamUserType(), c_joinable));
        }
        CNxThreadManager::SleepMs(50);
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(ProcessEnd, ExitOnAnotherThreadLeavesRunningThreadsAlone) {
    for (const bool detachedMain : {false, true}) {
        const auto body = [detachedMain] {
            static EventCounts counts;
            Must(Manager()->InitMainThread(0, nullptr));
            CNxThread* const mainThread = Manager()->GetThread(NX_THREAD_MAIN);
            StartWorker();
            if (detachedMain) {
                Must(Manager()->MainThreadDetachRun(mainThread));
                std::exit(0);
            }
            StartWorker()->GetEventQueue()->PostEvent(
                new CountedEvent(counts, []() -> NxResult { std::exit(0); }), c_normal);
            mainThread->OnThreadRun();
        };
        EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "") << "detached main " << detachedMain;
    }
}

class StaticCounted : public CNxReferenceControlT<CNxMutexThread> {};

TEST_F(ProcessEnd, CountedObjectsOutliveTheManager) {
    const auto body = [] {
        // Made before the manager, so destroyed after it.
        static struct Holder {
            ~Holder() {
                m_object->AddReference();
                m_object->ReleaseReference();
                m_object->ReleaseReference();
            }
            StaticCounted* m_object = nullptr;
        } holder;
        holder.m_object = new StaticCounted;
        holder.m_object->AddReference();
        Must(Manager()->InitMainThread(0, nullptr));
        std::exit(0);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
