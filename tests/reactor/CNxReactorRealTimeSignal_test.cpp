// What is particular to readiness by signals: the queue and its overflow.
#include <nx/reactor/realtime/CNxReactorRealTimeSignal.h>
#include <nx/thread/CNxThread.h>
#include <sys/resource.h>

#include <string>

#include "ReactorSupport.h"

namespace {

class ReactorRealTimeSignal : public ::testing::Test {
protected:
    void SetUp() override {
        getrlimit(RLIMIT_SIGPENDING, &m_limit);
        ASSERT_EQ(m_reactor.Open(), NX_OK);
    }
    void TearDown() override {
        m_reactor.Close();
        setrlimit(RLIMIT_SIGPENDING, &m_limit);
    }

    void LimitSignals(rlim_t count) {
        const rlimit lowered{count, m_limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &lowered), 0);
    }

    CNxReactorRealTimeSignal m_reactor;
    EventCounts m_counts;
    rlimit m_limit{};
};

std::string OverflowLine(int flag) {
    return "CReactorRealTimeSignal::RunEventLoop. sigtimedwait() failed! sigRet=29 err=0 "
           "m_bSignalOverFlowing=" +
           std::to_string(flag) + "\n";
}

TEST_F(ReactorRealTimeSignal, OverflowLosesNoClient) {
    LimitSignals(0);
    std::thread other([&] {
        EXPECT_EQ(m_reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE), NX_ERROR_FAILURE);
        EXPECT_EQ(m_reactor.StopEventLoop(), NX_ERROR_FAILURE);
    });
    other.join();
    for (const rlim_t signals : {0u, 1u, 8u}) {
        LimitSignals(signals);
        testing::internal::CaptureStdout();
        EchoClients(m_reactor, 100, 20);
        EXPECT_NE(testing::internal::GetCapturedStdout().find(OverflowLine(0)), std::string::npos);
        ASSERT_EQ(m_reactor.Close(), NX_OK);
        ASSERT_EQ(m_reactor.Open(), NX_OK);
    }
}

TEST_F(ReactorRealTimeSignal, FullQueueDoesNotKeepTheThreadFromStopping) {
    m_reactor.Close();
    CNxThreadManager* const manager = CNxThreadManager::Instance();
    CNxThread* thread = nullptr;
    ASSERT_EQ(manager->CreateNetworkThread(NX_THREAD_NETWORK, new CNxReactorRealTimeSignal, thread),
              NX_OK);
    LimitSignals(0);
    EXPECT_EQ(thread->Stop(nullptr), NX_ERROR_FAILURE);
    EXPECT_EQ(manager->StopAllThreads(nullptr), NX_OK);
    EXPECT_EQ(manager->JoinAllThreads(), NX_OK);
    EXPECT_FALSE(thread->IsRunning());
    thread->Destory(0);
}

TEST_F(ReactorRealTimeSignal, OverflowCallsAllOnceAndDropsThoseThatConnect) {
    End idle([&](End& self) {
        if (self.m_inputs == 1) {
            // A second overflow, and an end behind it.
            pthread_kill(pthread_self(), SIGIO);
            m_reactor.PostEvent(new CountedEvent(m_counts,
                                                 [&] {
                                                     StopSoon(m_reactor, m_counts);
                                                     return NX_OK;
                                                 }),
                                c_normal);
        }
        return 0;
    });
    End connects;
    ASSERT_EQ(m_reactor.RegisterHandler(&idle, NX_MASK_READ), NX_OK);
    ASSERT_EQ(m_reactor.RegisterHandler(&connects, NX_MASK_CONNECT), NX_OK);
    pthread_kill(pthread_self(), SIGIO);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), OverflowLine(0) + OverflowLine(1));
    EXPECT_EQ(idle.m_inputs, 1);
    EXPECT_EQ(connects.m_closedWith, std::vector<long>{NX_MASK_CONNECT});
    EXPECT_EQ(connects.m_outputs, 0);
}

}  // namespace
