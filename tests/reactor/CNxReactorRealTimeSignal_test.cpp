// What is particular to readiness by signals: the queue and its overflow.
#include <nx/thread/CNxThread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <deque>
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

const char* const c_overflowLine =
    "CReactorRealTimeSignal::RunEventLoop. sigtimedwait() failed! sigRet=29 err=0 "
    "m_bSignalOverFlowing=0\n";

// Each round is under way together and has arrived before the next.
TEST_F(ReactorRealTimeSignal, OverflowLosesNoClient) {
    for (const rlim_t signals : {0u, 1u, 8u}) {
        LimitSignals(signals);
        testing::internal::CaptureStdout();
        std::atomic<int> received{0};
        std::deque<End> ends;
        for (int i = 0; i < 100; ++i) {
            ends.emplace_back([&](End& self) {
                received += self.Drain();
                return 0;
            });
            Watch(ends.back(), NX_MASK_READ);
        }
        std::thread clients([&] {
            for (int round = 1; round <= 20; ++round) {
                std::for_each(ends.begin(), ends.end(), [](const End& end) { end.Send(); });
                while (received != round * 100) {
                    std::this_thread::yield();
                }
            }
            StopSoon();
        });
        Run();
        clients.join();
        EXPECT_NE(testing::internal::GetCapturedStdout().find(c_overflowLine), std::string::npos);
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
    End idle;
    End connects;
    Watch(idle, NX_MASK_READ);
    Watch(connects, NX_MASK_CONNECT);
    pthread_kill(pthread_self(), SIGIO);
    StopSoon();
    testing::internal::CaptureStdout();
    Run();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c_overflowLine);
    EXPECT_EQ(idle.m_inputs, 1);
    EXPECT_EQ(connects.m_closedWith, std::vector<long>{NX_MASK_CONNECT});
    EXPECT_EQ(connects.m_outputs, 0);
}

}  // namespace
