#include <gtest/gtest.h>
#include <nx/thread/CNxThreadDummy.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/thread/CNxThreadProxyManager.h>
#include <nx/thread/CNxThreadReactor.h>
#include <nx/thread/CNxThreadTask.h>
#include <sched.h>

#include <thread>
#include <vector>

#include "../support/CountedEvent.h"

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;
constexpr auto c_joinable = CNxThreadManager::FLAG_JOINABLE;
constexpr auto c_detached = CNxThreadManager::FLAG_DETACHED;

int NextType() {
    return CNxThreadManager::Instance()->GetAndIncreamUserType();
}

void EndThread(CNxThread* thread) {
    thread->Stop(nullptr);
    EXPECT_EQ(thread->Join(), NX_OK);
    thread->Destory(0);
}

class FlagHandler : public INxTimerHandler {
public:
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* token) override {
        ++*static_cast<std::atomic<int>*>(token);
    }
};

TEST(Thread, StopFiresWhatWasPostedBeforeAndRefusesWhatComesLater) {
    for (const int withTimers : {0, 1}) {
        CNxThread* thread = nullptr;
        ASSERT_EQ(
            CNxThreadManager::Instance()->CreateUserTaskThread(thread, c_joinable, withTimers),
            NX_OK);
        EXPECT_EQ(thread->GetTimerQueue() != nullptr, withTimers != 0);
        EventCounts counts;
        INxEventQueue* const queue = thread->GetEventQueue();
        std::atomic<bool> go{false};
        queue->PostEvent(new CountedEvent(counts,
                                          [&] {
                                              while (!go.load()) {
                                                  std::this_thread::yield();
                                              }
                                              return thread->Join();
                                          }),
                         c_normal);
        for (int i = 0; i < 100; ++i) {
            queue->PostEvent(new CountedEvent(counts), c_normal);
        }
        EXPECT_EQ(thread->Stop(nullptr), NX_OK);
        EXPECT_EQ(thread->Stop(nullptr), NX_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(queue->PostEvent(new CountedEvent(counts), c_normal), NX_ERROR_NOT_INITIALIZED);
        go = true;
        // The first event tried to join its own thread, which must not have counted.
        EXPECT_EQ(thread->Join(), NX_OK);
        EXPECT_EQ(counts.m_fired, 101);
        EXPECT_TRUE(counts.AllDestroyed());
        thread->Destory(0);
    }
}

TEST(Thread, CpuSetPinsTheThreadAndIgnoresWhatIsNoProcessor) {
    struct Case {
        const char* m_text;
        std::vector<int> m_cpus;
    };
    cpu_set_t all;
    sched_getaffinity(0, sizeof(all), &all);
    std::vector<Case> cases{{"0", {0}}, {"2000,0,,x", {0}}};
    if (CPU_ISSET(1, &all)) {
        cases.push_back({"0,1", {0, 1}});
        cases.push_back({"1", {1}});
    }
    for (const Case& one : cases) {
        auto* const thread = new CNxThreadTaskWithEventQueueOnly;
        thread->SetCPUSet(one.m_text);
        ASSERT_EQ(thread->Create(NextType(), c_joinable), NX_OK);
        cpu_set_t set;
        EventCounts counts;
        thread->GetEventQueue()->SendEvent(new CountedEvent(counts, [&] {
            sched_getaffinity(0, sizeof(set), &set);
            return NX_OK;
        }));
        EXPECT_EQ(static_cast<size_t>(CPU_COUNT(&set)), one.m_cpus.size()) << one.m_text;
        for (const int cpu : one.m_cpus) {
            EXPECT_TRUE(CPU_ISSET(cpu, &set)) << one.m_text;
        }
        EndThread(thread);
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
        while (m_mayEnd.load() == 0) {
            std::this_thread::yield();
        }
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
            while (thread->IsRunning()) {
                std::this_thread::yield();
            }
            EXPECT_EQ(deleted, 0);
            thread->Destory(0);
        } else {
            thread->Destory(0);
            EXPECT_EQ(deleted, 0);
            mayEnd = 1;
        }
        while (deleted.load() == 0) {
            std::this_thread::yield();
        }
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
        EXPECT_EQ(CNxThreadManager::Instance()->GetThread(type), nullptr);
    }
}

TEST(ThreadProxy, PostsAndSendsToItsThreadAndDestroysWhatHasNoTarget) {
    EventCounts counts;
    CNxThreadProxyBase* nowhere = nullptr;
    class Proxy : public CNxThreadProxyBase {
    public:
        using CNxThreadProxyBase::CNxThreadProxyBase;
    };
    Proxy lost(NextType());
    nowhere = &lost;
    EXPECT_EQ(nowhere->PostEvent_i(nullptr), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(nowhere->PostEvent_i(new CountedEvent(counts)), NX_ERROR_UNEXPECTED);
    EXPECT_EQ(nowhere->SendEvent_i(new CountedEvent(counts)), NX_ERROR_UNEXPECTED);
    EXPECT_TRUE(counts.AllDestroyed());
    CNxThread* thread = nullptr;
    ASSERT_EQ(CNxThreadManager::Instance()->CreateUserTaskThread(thread, c_joinable, 0), NX_OK);
    Proxy byThread(thread);
    Proxy byType(thread->GetThreadType());
    EXPECT_EQ(byThread.PostEvent_i(new CountedEvent(counts)), NX_OK);
    EXPECT_EQ(byType.SendEvent_i(new CountedEvent(counts, [] { return NX_ERROR_FOUND; })),
              NX_ERROR_FOUND);
    EndThread(thread);
    EXPECT_EQ(counts.m_fired, 2);
}

// Threads that post to and send each other work while they are being stopped, one after the other.
TEST(ThreadRaces, ThreadsThatSendToEachOtherStopWithoutLosingAnEvent) {
    for (int round = 0; round < 30; ++round) {
        EventCounts counts;
        std::vector<CNxThread*> threads(4);
        for (CNxThread*& thread : threads) {
            ASSERT_EQ(CNxThreadManager::Instance()->CreateUserTaskThread(thread, c_joinable, 1),
                      NX_OK);
        }
        // Only towards higher numbers, so that no two wait for each other.
        for (size_t from = 0; from + 1 < threads.size(); ++from) {
            for (int i = 0; i < 50; ++i) {
                INxEventQueue* const next = threads[from + 1]->GetEventQueue();
                const auto action = [&counts, next] {
                    next->PostEvent(new CountedEvent(counts), c_normal);
                    return next->SendEvent(new CountedEvent(counts));
                };
                threads[from]->GetEventQueue()->PostEvent(new CountedEvent(counts, action),
                                                          c_normal);
            }
        }
        for (CNxThread* thread : threads) {
            EXPECT_EQ(thread->Stop(nullptr), NX_OK);
        }
        for (CNxThread* thread : threads) {
            EXPECT_EQ(thread->Join(), NX_OK);
        }
        for (CNxThread* thread : threads) {
            thread->Destory(0);
        }
        ASSERT_TRUE(counts.AllDestroyed()) << "round " << round;
    }
}

TEST(Thread, HeartBeatFiresTimersAndEventsWhenDriven) {
    auto* const heart = new CNxThreadHeartBeat;
    ASSERT_EQ(heart->CreateNotRun(NextType(), c_joinable), NX_OK);
    heart->OnThreadInit();
    EXPECT_EQ(CNxThreadManager::Instance()->GetThread(NX_THREAD_CALLING), heart);
    std::atomic<int> fired{0};
    FlagHandler handler;
    EventCounts counts;
    heart->GetTimerQueue()->ScheduleTimer(&handler, &fired, CNxTimeValue::s_tvZero(), 1);
    heart->GetEventQueue()->PostEvent(new CountedEvent(counts), c_normal);
    EXPECT_EQ(heart->DoHeartBeat(), NX_OK);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(counts.m_fired, 1);
    EXPECT_EQ(heart->Stop(nullptr), NX_OK);
    EXPECT_EQ(heart->Join(), NX_ERROR_FAILURE);
    heart->Destory(0);
}

TEST(Thread, TaskFiresATimerWithoutAnyEvent) {
    CNxThread* thread = nullptr;
    ASSERT_EQ(CNxThreadManager::Instance()->CreateUserTaskThread(thread, c_joinable, 1), NX_OK);
    std::atomic<int> fired{0};
    FlagHandler handler;
    EventCounts counts;
    const auto schedule = [&] {
        return thread->GetTimerQueue()->ScheduleTimer(&handler, &fired, CNxTimeValue(0, 2000), 3);
    };
    EXPECT_EQ(thread->GetEventQueue()->SendEvent(new CountedEvent(counts, schedule)), NX_OK);
    while (fired.load() < 3) {
        std::this_thread::yield();
    }
    EndThread(thread);
}

TEST(Thread, DummyLeadsToItsThreadAndOwnsNothing) {
    auto* const dummy = new CNxThreadDummy;
    EXPECT_EQ(dummy->Create(NextType(), c_joinable), NX_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(dummy->Stop(nullptr), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(dummy->GetEventQueue(), nullptr);
    EXPECT_EQ(dummy->Init(nullptr, NextType()), NX_ERROR_INVALID_ARG);
    CNxThread* actual = nullptr;
    ASSERT_EQ(CNxThreadManager::Instance()->CreateUserTaskThread(actual, c_joinable, 1), NX_OK);
    const int type = NextType();
    ASSERT_EQ(dummy->Init(actual, type), NX_OK);
    EXPECT_EQ(dummy->Init(actual, type), NX_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(CNxThreadManager::Instance()->GetThreadEventQueue(type), actual->GetEventQueue());
    EXPECT_EQ(CNxThreadManager::Instance()->GetThreadTimerQueue(type), actual->GetTimerQueue());
    EXPECT_EQ(dummy->GetThreadId(), actual->GetThreadId());
    EXPECT_EQ(dummy->Join(), NX_ERROR_FAILURE);
    EXPECT_EQ(dummy->Stop(nullptr), NX_OK);
    dummy->Destory(0);
    EXPECT_EQ(CNxThreadManager::Instance()->GetThread(type), nullptr);
    EXPECT_EQ(actual->Join(), NX_OK);
    actual->Destory(0);
}

}  // namespace
