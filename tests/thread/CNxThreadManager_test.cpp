// The main thread in this process; every way of ending a process in processes of
// their own.
#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/thread/CNxThreadDummy.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/thread/CNxThreadTask.h>

#include <csignal>

#include "ThreadSupport.h"

namespace {

TEST(ThreadManager, MainThreadIsTheCallerAndSignalsAreBlocked) {
    ASSERT_EQ(Manager()->InitMainThread(0, nullptr), NX_OK);
    EXPECT_EQ(Manager()->InitMainThread(0, nullptr), NX_ERROR_ALREADY_INITIALIZED);
    CNxThread* const mainThread = Manager()->GetThread(NX_THREAD_MAIN);
    EXPECT_TRUE(CNxThreadManager::IsEqualCurrentThread(NX_THREAD_MAIN));
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGRTMIN), 1);
    EXPECT_EQ(sigismember(&blocked, SIGIO), 1);

    CNxThread* const worker = StartWorker(0);
    const auto stopAll = [] { return Manager()->StopAllThreads(nullptr); };
    EXPECT_EQ(NxSendCall(*worker->GetEventQueue(), stopAll), NX_ERROR_FAILURE);
    // What the main thread's loop drains is its own queue.
    Must(NxPostCall(*mainThread->GetEventQueue(), [=] { mainThread->Stop(nullptr); }));
    mainThread->OnThreadRun();
    EXPECT_EQ(Manager()->StopAllThreads(nullptr), NX_OK);
    EXPECT_EQ(Manager()->JoinAllThreads(), NX_OK);
    EXPECT_EQ(worker->Join(), NX_ERROR_FAILURE);
    worker->Destory(0);
    mainThread->Destory(0);
}

// The system gives the id of an ended thread to the next one.
TEST(ThreadManager, EndedThreadIsNotTakenForALaterOneWithItsId) {
    CNxThread* const ended = StartWorker();
    EXPECT_EQ(ended->Stop(nullptr), NX_OK);
    EXPECT_EQ(ended->Join(), NX_OK);
    const Worker running;
    running.Do([&] {
        EXPECT_EQ(Manager()->GetThread(NX_THREAD_CALLING), running.Get());
        EXPECT_FALSE(CNxThreadManager::IsEqualCurrentThread(ended->GetThreadType()));
    });
    ended->Destory(0);
}

class SayGoodbye : public CNxCleanUpBase {
public:
    ~SayGoodbye() override { std::fputs("cleaned up", stderr); }
};

// A kind of the application's own, on a thread that the library did not start.
class SaysThatItStops : public CNxThread {
public:
    NxResult Stop(CNxTimeValue* /*timeout*/) override {
        std::fputs("stopped", stderr);
        return NX_OK;
    }
    void OnThreadRun() override {}
};

TEST_F(ProcessEnd, ForgottenThreadsOfAllKindsAreStoppedAndJoined) {
    const auto body = [] {
        static std::atomic<bool> isUp{false};
        Must(Manager()->InitMainThread(0, nullptr));
        StartNetwork();
        StartWorker(1, CNxThreadManager::FLAG_DETACHED);
        Must((new CNxThreadDummy)->Init(StartWorker(), NextType()));
        auto* const heart = new CNxThreadHeartBeat;
        Must(heart->CreateNotRun(NextType(), c_joinable));
        heart->OnThreadInit();
        Must((new SaysThatItStops)->CreateNotRun(NextType(), c_joinable));
        std::thread([] {
            auto* const task = new CNxThreadTask;
            Must(task->CreateNotRun(NextType(), c_joinable));
            task->OnThreadInit();
            isUp = true;
            task->OnThreadRun();
        }).detach();
        YieldUntil([] { return isUp.load(); });
        new SayGoodbye;
        std::exit(3);
    };
    ExpectEnd(body, "stopped.*cleaned up", 3);
}

// For an event that is still in the queue, and for the one that ends the process.
TEST_F(ProcessEnd, WorkerThatWaitsForTheMainThreadDoesNotKeepTheProcess) {
    for (const bool inEvent : {false, true}) {
        const auto body = [inEvent] {
            Must(Manager()->InitMainThread(0, nullptr));
            CNxThread* const mainThread = Manager()->GetThread(NX_THREAD_MAIN);
            INxEventQueue* const mainQueue = mainThread->GetEventQueue();
            const auto send = [mainQueue] {
                std::fprintf(stderr, "answer %u", NxSendCall(*mainQueue, [] { std::exit(0); }));
            };
            Must(NxPostCall(*StartWorker()->GetEventQueue(), send));
            YieldUntil([mainQueue] { return mainQueue->GetPendingEventsCount() != 0; });
            if (inEvent) {
                mainThread->OnThreadRun();
            }
        };
        ExpectEnd(body, "answer 10009");
    }
}

[[noreturn]] void PostForEver(INxEventQueue* one, INxEventQueue* two, std::atomic<bool>& refused) {
    for (;;) {
        const NxResult first = NxPostCall(*one, [] {});
        const NxResult second = NxPostCall(*two, [] {});
        refused = first == NX_ERROR_NOT_INITIALIZED && second == NX_ERROR_NOT_INITIALIZED;
    }
}

TEST_F(ProcessEnd, ThreadsOfTheApplicationMayPostUntilTheProcessIsGone) {
    const auto body = [] {
        static std::atomic<bool> refused{false};
        // Called after the tear-down.
        std::atexit([] {
            YieldUntil([] { return refused.load(); });
            CNxThreadManager::SleepMs(20);
            std::fputs("all refused", stderr);
        });
        Must(Manager()->InitMainThread(0, nullptr));
        INxEventQueue* const mainQueue = Manager()->GetThreadEventQueue(NX_THREAD_MAIN);
        INxEventQueue* const workerQueue = StartWorker()->GetEventQueue();
        std::thread(&PostForEver, mainQueue, workerQueue, std::ref(refused)).detach();
        YieldUntil([mainQueue] { return mainQueue->GetPendingEventsCount() != 0; });
    };
    ExpectEnd(body, "all refused");
}

TEST_F(ProcessEnd, ThreadThatCannotBeStoppedDoesNotKeepTheProcess) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        CNxThreadManager::SetTearDownLimit(CNxTimeValue(0, 50000));
        const auto endless = [] {
            YieldUntil([] { return Manager()->GetThread(NX_THREAD_CALLING) == nullptr; });
        };
        Must((new FunctionThread(endless))->Create(5000, c_joinable));
    };
    ExpectEnd(body, "thread 5000 has not ended in 50 ms");
}

// They may go on till then with what they have to do.
TEST_F(ProcessEnd, ThreadsThatEndByThemselvesAreWaitedForWhateverTheyMakeAndDestroyMeanwhile) {
    const auto end = [](int makes) {
        const auto run = [makes] {
            CNxThread* const old = StartWorker();
            CNxThreadManager::SleepMs(100);
            for (int i = 0; i < makes; ++i) {
                StartWorker();
            }
            StopAndDestroy(old);
            std::fputs("done ", stderr);
        };
        const auto atDeletion = [] { std::fputs("and destroyed", stderr); };
        Must(Manager()->InitMainThread(0, nullptr));
        for (int i = 0; i < 3; ++i) {
            Must((new FunctionThread(run, atDeletion))->Create(NextType(), c_joinable));
        }
        CNxThreadManager::SleepMs(50);
    };
    ExpectEnd([&] { end(20); }, "(done ){3}");
    // The thread sanitizer has a thread of its own, so no object is destroyed.
#if !defined(__SANITIZE_THREAD__)
    ExpectEnd([&] { end(0); }, "(done ){3}(and destroyed){3}");
#endif
}

TEST_F(ProcessEnd, MainThreadThatRunsElsewhereIsLeftAlone) {
    const auto body = [] {
        Must(Manager()->InitMainThread(0, nullptr));
        StartWorker();
        Must(Manager()->MainThreadDetachRun(Manager()->GetThread(NX_THREAD_MAIN)));
    };
    ExpectEnd(body);
}

}  // namespace
