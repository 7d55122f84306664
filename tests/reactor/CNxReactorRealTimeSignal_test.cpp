// What is particular to readiness by signals: the queue and its overflow.
#include <nx/thread/CNxThread.h>
#include <sys/resource.h>

#include <string>

#include "ReactorSupport.h"

namespace {

class ReactorRealTimeSignal : public OpenReactor<CNxReactorRealTimeSignal> {
protected:
    ReactorRealTimeSignal() { getrlimit(RLIMIT_SIGPENDING, &m_limit); }
    ~ReactorRealTimeSignal() override { setrlimit(RLIMIT_SIGPENDING, &m_limit); }

    void LimitSignals(rlim_t count) {
        const rlimit lowered{count, m_limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &lowered), 0);
    }

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
        EchoClients(100, 20);
        EXPECT_NE(testing::internal::GetCapturedStdout().find(OverflowLine(0)), std::string::npos);
        Reopen();
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
            const auto stopLater = [this] {
                StopSoon();
                return NX_OK;
            };
            m_reactor.PostEvent(new CountedEvent(m_counts, stopLater));
        }
        return 0;
    });
    End connects;
    Watch(idle, NX_MASK_READ);
    Watch(connects, NX_MASK_CONNECT);
    pthread_kill(pthread_self(), SIGIO);
    testing::internal::CaptureStdout();
    Run();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), OverflowLine(0) + OverflowLine(1));
    EXPECT_EQ(idle.m_inputs, 1);
    EXPECT_EQ(connects.m_closedWith, std::vector<long>{NX_MASK_CONNECT});
    EXPECT_EQ(connects.m_outputs, 0);
}

}  // namespace
