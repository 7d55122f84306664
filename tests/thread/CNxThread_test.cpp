#include <nx/event/NxCall.h>
#include <nx/foundation/INxObserver.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/thread/CNxThreadTask.h>
#include <nx/timer/CNxTimedCall.h>

#include <vector>

#include "ThreadSupport.h"

namespace {

constexpr auto c_detached = CNxThreadManager::FLAG_DETACHED;

// Each waits for its last event, so that the loop falls asleep and is woken as often as it can be.
void PostFromManyThreads(INxEventQueue& queue) {
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 8; ++poster) {
        posters.emplace_back([&queue] {
            EventCounts counts;
            for (int round = 0; round < 300; ++round) {
                for (int post = 0; post <= round % 3; ++post) {
                    ASSERT_EQ(queue.PostEvent(new CountedEvent(counts)), NX_OK);
                }
                YieldUntil([&counts] { return counts.AllDestroyed(); });
            }
            EXPECT_EQ(counts.m_fired, 600);
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
}

// As the system has it.
CNxString NameOf(CNxThread& thread, const char* newName = nullptr) {
    char name[16] = "";
    EventCounts counts;
    thread.GetEventQueue()->SendEvent(new CountedEvent(counts, [&] {
        if (newName != nullptr) {
            thread.SetName(newName);
        }
        return pthread_getname_np(pthread_self(), name, sizeof(name)) == 0 ? NX_OK
                                                                           : NX_ERROR_FAILURE;
    }));
    EXPECT_EQ(thread.GetName(), name);
    return name;
}

TEST(Thread, IsCalledByItsTypeOrAsItIsTold) {
    const Worker worker;
    EXPECT_EQ(NameOf(*worker.Get()),
              CNxString("nx-task-") + CNxString(std::to_string(worker.GetType())));
    EXPECT_EQ(NameOf(*worker.Get(), "a name that is longer"), "a name that is ");
    CNxThread* thread = nullptr;
    Must(Manager()->CreateNetworkThread(2, CNxThreadManager::CreateNetworkReactor(), thread));
    EXPECT_EQ(NameOf(*thread), "nx-reactor-2");
    StopAndDestroy(thread);
}

TEST(Thread, NoPostIsStrandedByALoopThatFallsAsleep) {
    CNxThread* network = nullptr;
    Must(Manager()->CreateReactorThread(NextType(), CNxThreadManager::CreateNetworkReactor(),
                                        network));
    for (CNxThread* const thread : {StartWorker(), network}) {
        PostFromManyThreads(*thread->GetEventQueue());
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
        const auto joinItself = [&] {
            YieldUntil([&go] { return go.load(); });
            return thread->Join();
        };
        queue->PostEvent(new CountedEvent(counts, joinItself));
        // Priorities do not change the order.
        for (int i = 1; i <= 100; ++i) {
            const auto inTurn = [&counts, i] {
                EXPECT_EQ(counts.m_fired, i + 1);
                return NX_OK;
            };
            queue->PostEvent(new CountedEvent(counts, inTurn), i % 2 == 0
                                                                   ? INxEventQueue::PRIORITY_HIGH
                                                                   : INxEventQueue::PRIORITY_LOW);
        }
        EXPECT_EQ(thread->Stop(nullptr), NX_OK);
        EXPECT_EQ(thread->Stop(nullptr), NX_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(queue->PostEvent(new CountedEvent(counts)), NX_ERROR_NOT_INITIALIZED);
        go = true;
        // Joining itself must not have counted.
        EXPECT_EQ(thread->Join(), NX_OK);
        EXPECT_EQ(counts.m_fired, 101);
        EXPECT_TRUE(counts.AllDestroyed());
        thread->Destory(0);
    }
}

// Tells when it is gone.
class ShortThread : public CNxThread {
public:
    ShortThread(std::atomic<int>& deleted, std::atomic<int>& mayEnd, NxResult onCreate = NX_OK)
        : m_deleted(deleted), m_mayEnd(mayEnd), m_onCreate(onCreate) {}
    ~ShortThread() override { ++m_deleted; }

    NxResult OnCreate() override { return m_onCreate; }
    void OnThreadRun() override {
        YieldUntil([this] { return m_mayEnd != 0; });
    }

private:
    std::atomic<int>& m_deleted;
    std::atomic<int>& m_mayEnd;
    const NxResult m_onCreate;
};

TEST(Thread, DetachedObjectIsDeletedByTheSecondOfEndAndDestory) {
    for (const bool endFirst : {true, false}) {
        std::atomic<int> deleted{0};
        std::atomic<int> mayEnd{0};
        auto* const thread = new ShortThread(deleted, mayEnd);
        ASSERT_EQ(thread->Create(NextType(), c_detached), NX_OK);
        EXPECT_EQ(thread->Join(), NX_ERROR_FAILURE);
        if (endFirst) {
            mayEnd = 1;
            YieldUntil([thread] { return !thread->IsRunning(); });
            EXPECT_EQ(deleted, 0);
            thread->Destory(0);
        } else {
            thread->Destory(0);
            EXPECT_EQ(deleted, 0);
            mayEnd = 1;
        }
        YieldUntil([&deleted] { return deleted != 0; });
    }
}

TEST(Thread, RefusingOnCreateDeletesTheObjectAndTellsTheCreator) {
    for (const auto flags : {c_joinable, c_detached}) {
        std::atomic<int> deleted{0};
        std::atomic<int> mayEnd{1};
        const int type = NextType();
        auto* const thread = new ShortThread(deleted, mayEnd, NX_ERROR_FAILURE);
        EXPECT_EQ(thread->Create(type, flags), NX_ERROR_NULL_POINTER);
        EXPECT_EQ(deleted, 1);
        EXPECT_EQ(Manager()->GetThread(type), nullptr);
    }
}

// What its thread reports to lies on its stack.
TEST(Thread, ACancelledCreatorWaitsUntilItsThreadIsUp) {
    std::atomic<int> deleted{0};
    std::atomic<int> mayEnd{1};
    auto* const thread = new ShortThread(deleted, mayEnd);
    NxResult created = NX_ERROR_NOT_AVAILABLE;
    std::thread creator([&] {
        pthread_cancel(pthread_self());
        created = thread->Create(NextType(), c_joinable);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    creator.join();
    ASSERT_EQ(created, NX_OK);
    EXPECT_EQ(thread->Join(), NX_OK);
    thread->Destory(0);
}

class ReactorWhoseWaitingFails : public CNxReactorEpoll {
public:
    NxResult RunEventLoop() override { return m_fails ? NX_ERROR_FAILURE : NX_OK; }
    static inline bool m_fails = true;
};

class EndObserver : public INxObserver {
public:
    void OnObserve(const char* topic, void* data) override {
        EXPECT_STREQ(topic, "ThreadEnd");
        m_ended.push_back(static_cast<CNxThread*>(data));
    }
    std::vector<CNxThread*> m_ended;
};

TEST(Thread, LoopThatEndsByItselfIsReported) {
    EndObserver observer;
    CNxThreadManager::SetThreadEndObserver(&observer);
    for (const bool fails : {false, true}) {
        ReactorWhoseWaitingFails::m_fails = fails;
        CNxThread* thread = nullptr;
        ASSERT_EQ(Manager()->CreateReactorThread(NextType(), new ReactorWhoseWaitingFails, thread),
                  NX_OK);
        EXPECT_EQ(thread->Join(), NX_OK);
        EXPECT_EQ(observer.m_ended, std::vector<CNxThread*>(fails ? 1 : 0, thread));
        thread->Destory(0);
    }
    CNxThreadManager::SetThreadEndObserver(nullptr);
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

}  // namespace
