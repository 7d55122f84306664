#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/reactor/CNxReactorSelect.h>
#include <nx/thread/CNxReactorThreadProxy.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/thread/CNxTimerWrapperID.h>
#include <nx/timer/CNxTimedCall.h>

#include <future>
#include <vector>

#include "../reactor/ReactorSupport.h"
#include "../support/SimulatedClock.h"
#include "ThreadSupport.h"

namespace {

constexpr auto c_detached = CNxThreadManager::FLAG_DETACHED;

TEST(Thread, IsCalledByItsTypeOrAsItIsTold) {
    const Worker worker;
    char name[16] = "";
    const auto ask = [&] { pthread_getname_np(pthread_self(), name, sizeof(name)); };
    worker.Do(ask);
    EXPECT_EQ(name, "nx-task-" + std::to_string(worker.GetType()));
    worker.Do([&] { worker->SetName("a name that is longer"); });
    worker.Do(ask);
    EXPECT_STREQ(name, "a name that is ");
    EXPECT_EQ(worker->GetName(), name);
}

// Each poster waits for its last event, so that the loop falls asleep and is woken as often as it
// can be.
TEST(Thread, NoPostIsStrandedByALoopThatFallsAsleep) {
    CNxThread* network = nullptr;
    Must(Manager()->CreateReactorThread(NextType(), CNxThreadManager::CreateNetworkReactor(),
                                        network));
    for (CNxThread* const thread : {StartWorker(), network}) {
        const auto post = [queue = thread->GetEventQueue()] {
            EventCounts counts;
            for (int round = 0; round < 300; ++round) {
                for (int i = 0; i <= round % 3; ++i) {
                    ASSERT_EQ(queue->PostEvent(new CountedEvent(counts)), NX_OK);
                }
                YieldUntil([&counts] { return counts.AllDestroyed(); });
            }
            EXPECT_EQ(counts.m_fired, 600);
        };
        std::vector<std::future<void>> posters(8);
        for (std::future<void>& poster : posters) {
            poster = std::async(std::launch::async, post);
        }
        posters.clear();
        StopAndDestroy(thread);
    }
}

TEST(Thread, StopFiresWhatWasPostedBeforeAndRefusesWhatComesLater) {
    for (const int withTimers : {0, 1}) {
        CNxThread* const thread = StartWorker(withTimers);
        EXPECT_EQ(thread->GetTimerQueue() != nullptr, withTimers != 0);
        EventCounts counts;
        INxEventQueue* const queue = thread->GetEventQueue();
        std::atomic<bool> go{false};
        Must(NxPostCall(*queue, [&] {
            YieldUntil([&go] { return go.load(); });
            EXPECT_EQ(thread->Join(), NX_ERROR_FAILURE);
        }));
        // Priorities do not change the order.
        for (int i = 1; i <= 100; ++i) {
            const auto inTurn = [&counts, i] {
                EXPECT_EQ(counts.m_fired, i);
                return NX_OK;
            };
            const auto priority = static_cast<INxEventQueue::EPriority>(i % 3);
            Must(queue->PostEvent(new CountedEvent(counts, inTurn), priority));
        }
        EXPECT_EQ(thread->Stop(nullptr), NX_OK);
        EXPECT_EQ(thread->Stop(nullptr), NX_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(queue->PostEvent(new CountedEvent(counts)), NX_ERROR_NOT_INITIALIZED);
        go = true;
        // Joining itself must not have counted.
        EXPECT_EQ(thread->Join(), NX_OK);
        EXPECT_EQ(counts.m_fired, 100);
        EXPECT_TRUE(counts.AllDestroyed());
        thread->Destory(0);
    }
}

TEST(Thread, DetachedObjectIsDeletedByTheSecondOfEndAndDestory) {
    for (const bool endFirst : {true, false}) {
        std::atomic<bool> mayEnd{endFirst};
        std::atomic<bool> isDeleted{false};
        const auto run = [&] { YieldUntil([&] { return mayEnd.load(); }); };
        auto* const thread = new FunctionThread(run, [&] { isDeleted = true; });
        ASSERT_EQ(thread->Create(NextType(), c_detached), NX_OK);
        EXPECT_EQ(thread->Join(), NX_ERROR_FAILURE);
        YieldUntil([&] { return !endFirst || !thread->IsRunning(); });
        EXPECT_FALSE(isDeleted);
        thread->Destory(0);
        EXPECT_TRUE(endFirst || !isDeleted);
        mayEnd = true;
        YieldUntil([&] { return isDeleted.load(); });
    }
}

struct RefusingThread : FunctionThread {
    using FunctionThread::FunctionThread;
    NxResult OnCreate() override { return NX_ERROR_FAILURE; }
};

TEST(Thread, RefusingOnCreateDeletesTheObjectAndTellsTheCreator) {
    for (const auto flags : {c_joinable, c_detached}) {
        int deleted = 0;
        const int type = NextType();
        auto* const thread = new RefusingThread([] {}, [&] { ++deleted; });
        EXPECT_EQ(thread->Create(type, flags), NX_ERROR_NULL_POINTER);
        EXPECT_EQ(deleted, 1);
        EXPECT_EQ(Manager()->GetThread(type), nullptr);
    }
}

// What its thread reports to lies on its stack.
TEST(Thread, ACancelledCreatorWaitsUntilItsThreadIsUp) {
    auto* const thread = new FunctionThread([] {});
    NxResult created = NX_ERROR_NOT_AVAILABLE;
    std::thread([&] {
        pthread_cancel(pthread_self());
        created = thread->Create(NextType(), c_joinable);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    ASSERT_EQ(created, NX_OK);
    EXPECT_EQ(thread->Join(), NX_OK);
    thread->Destory(0);
}

// As if another thread had found it in the registry.
class ReactorStoppedWhileItOpens : public CNxReactorEpoll {
public:
    NxResult Open() override {
        Manager()->GetThread(NX_THREAD_NETWORK)->Stop(nullptr);
        return CNxReactorEpoll::Open();
    }
};

TEST(Thread, StopThatComesBeforeTheReactorIsOpenIsNotLost) {
    CNxThread* thread = nullptr;
    ASSERT_EQ(
        Manager()->CreateNetworkThread(NX_THREAD_NETWORK, new ReactorStoppedWhileItOpens, thread),
        NX_OK);
    EXPECT_EQ(thread->Join(), NX_OK);
    thread->Destory(0);
}

TEST(Thread, TimersOfAJoinedOneAreCancelledOnAnyOther) {
    CNxThread* const worker = StartWorker();
    CNxTimedCall call;
    const auto run = [&] { return call.RunAfter(*worker->GetTimerQueue(), {60, 0}, [] {}); };
    EXPECT_EQ(NxSendCall(*worker->GetEventQueue(), run), NX_OK);
#ifdef NXBASE_CHECK_THREADS
    EXPECT_DEATH(call.Cancel(), "belongs to thread");
#endif
    worker->Stop(nullptr);
    EXPECT_EQ(worker->Join(), NX_OK);
    call.Cancel();
    worker->Destory(0);
}

TEST(Thread, ItsReactorTakesHandlersFromAnyOtherByItsProxy) {
    const int type = NextType();
    CNxThread* thread = nullptr;
    Must(Manager()->CreateReactorThread(type, new CNxReactorSelect, thread));
    CNxReactorThreadProxyImp proxy(thread->GetReactor(), type);
    End end;
    EXPECT_EQ(proxy.RegisterHandler(&end, NX_MASK_WRITE | NX_MASK_READ), NX_OK);
    EXPECT_EQ(proxy.RegisterHandler(&end, NX_MASK_READ), NX_ERROR_FOUND);
    EXPECT_EQ(proxy.RemoveHandler(&end, NX_MASK_READ), NX_OK);
    StopAndDestroy(thread);
}

struct DeletingSink : CNxTimerWrapperIDSink {
    void OnTimer(CNxTimerWrapperID* id) override {
        ++m_calls;
        delete id;
    }
    int m_calls = 0;
};

TEST(Thread, ItsTimersMayBeDestroyedWhileScheduledAndFromTheirOwnCallback) {
    SimulatedClock clock;
    auto* const thread = new CNxThreadHeartBeat;
    Must(thread->CreateNotRun(NextType(), c_joinable));
    thread->OnThreadInit();
    DeletingSink sink;
    const CNxTimeValue second(1);
    {
        CNxTimerWrapperID scheduled;
        EXPECT_EQ(scheduled.Schedule(&sink, second, 0), NX_OK);
        EXPECT_EQ(scheduled.Schedule(&sink, second, 2), NX_ERROR_FOUND);
    }
    EXPECT_EQ((new CNxTimerWrapperID)->Schedule(&sink, second, 0), NX_OK);
    for (int pass = 0; pass < 2; ++pass) {
        clock.Advance(1000000);
        thread->DoHeartBeat();
    }
    EXPECT_EQ(sink.m_calls, 1);
    thread->Destory(0);
}

}  // namespace
