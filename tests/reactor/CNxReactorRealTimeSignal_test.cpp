// What is particular to readiness by signals: registration, the queue and its overflow, and the
// threads that may get a signal.
#include <nx/reactor/CNxReactorRealTimeSignal.h>
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

    void RunUntilIdle() {
        StopSoon(m_reactor, m_counts);
        EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    }

    CNxReactorRealTimeSignal m_reactor;
    EventCounts m_counts;
    rlimit m_limit{};
};

bool IsPending(int signal) {
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, signal) == 1;
}

std::string OverflowLine(int flag) {
    return "CReactorRealTimeSignal::RunEventLoop. sigtimedwait() failed! sigRet=29 err=0 "
           "m_bSignalOverFlowing=" +
           std::to_string(flag) + "\n";
}

TEST_F(ReactorRealTimeSignal, RegistrationSetsTheStatusFlagsAndRemovalClearsThem) {
    End end;
    fcntl(end.GetHandle(), F_SETFL, O_APPEND);
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    EXPECT_EQ(fcntl(end.GetHandle(), F_GETFL), O_RDWR | O_NONBLOCK | O_ASYNC);
    ASSERT_EQ(m_reactor.RemoveHandler(&end, NX_MASK_READ), NX_OK);
    EXPECT_EQ(fcntl(end.GetHandle(), F_GETFL), O_RDWR);
    end.HangUp();
    EXPECT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_ERROR_FAILURE);
    EXPECT_EQ(fcntl(end.GetHandle(), F_GETFL), O_RDWR);
    EXPECT_EQ(m_reactor.OnHandleRegister(-1, NX_MASK_READ, &end), NX_ERROR_UNEXPECTED);
}

TEST_F(ReactorRealTimeSignal, WhatIsReadyBeforeItsRegistrationIsDispatchedWithoutASignal) {
    End accepts;
    End connects;
    End writes;
    accepts.Send();
    connects.Send();
    ASSERT_EQ(m_reactor.RegisterHandler(&accepts, NX_MASK_ACCEPT), NX_OK);
    ASSERT_EQ(m_reactor.RegisterHandler(&connects, NX_MASK_CONNECT | NX_MASK_READ), NX_OK);
    ASSERT_EQ(m_reactor.RegisterHandler(&writes, NX_MASK_WRITE), NX_OK);
    RunUntilIdle();
    EXPECT_EQ(accepts.m_inputs, 1);
    // It hears that it is connected, and looks for input then.
    EXPECT_EQ(connects.m_inputs, 0);
    EXPECT_EQ(connects.m_outputs, 1);
    EXPECT_EQ(writes.m_outputs, 1);
}

TEST_F(ReactorRealTimeSignal, FailureOfAnEarlierDescriptorDoesNotCloseTheNextOfItsNumber) {
    class Renumbered : public INxEventHandler {
    public:
        int GetHandle() const override { return m_fd; }
        int OnInput(int /*fd*/) override { return 0; }
        int OnClose(int /*fd*/, long /*mask*/) override { return ++m_closed; }
        int m_fd = -1;
        int m_closed = 0;
    } newcomer;
    End other;
    End end([&](End& self) {
        m_reactor.RemoveHandler(&self, NX_MASK_READ);
        dup2(other.GetHandle(), self.GetHandle());
        newcomer.m_fd = self.GetHandle();
        EXPECT_EQ(m_reactor.RegisterHandler(&newcomer, NX_MASK_READ), NX_OK);
        EXPECT_TRUE(IsPending(SIGRTMIN));
        return 0;
    });
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    end.Send();
    end.HangUp();
    RunUntilIdle();
    EXPECT_NE(newcomer.m_fd, -1);
    EXPECT_EQ(newcomer.m_closed, 0);
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
    EXPECT_EQ(connects.m_closedWith, NX_MASK_CONNECT);
    EXPECT_EQ(connects.m_outputs, 0);
}

TEST_F(ReactorRealTimeSignal, ClosedReactorGetsNoSignalsAndAnOldStopDoesNotCount) {
    std::thread stopper([&] { EXPECT_EQ(m_reactor.StopEventLoop(), NX_OK); });
    stopper.join();
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    ASSERT_EQ(m_reactor.Close(), NX_OK);
    EXPECT_TRUE(IsPending(SIGRTMIN));
    ASSERT_EQ(m_reactor.Open(), NX_OK);
    EXPECT_FALSE(IsPending(SIGRTMIN));
    Timer timer([&] { m_reactor.StopEventLoop(); });
    m_reactor.ScheduleTimer(&timer, nullptr, CNxTimeValue(0, 1000), 1);
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(timer.m_fired, 1);

    End end;
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    ASSERT_EQ(m_reactor.Close(), NX_OK);
    end.Send();
    EXPECT_EQ(m_reactor.StopEventLoop(), NX_ERROR_FAILURE);
    EXPECT_EQ(m_reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE), NX_ERROR_FAILURE);
    EXPECT_FALSE(IsPending(SIGRTMIN));
}

TEST_F(ReactorRealTimeSignal, ThreadThatHasTheSignalsOpenNeitherEndsTheProcessNorTakesReadiness) {
    testing::internal::CaptureStdout();
    EchoClients(m_reactor, 20, 50, [] {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGRTMIN);
        sigaddset(&signals, SIGIO);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    });
    testing::internal::GetCapturedStdout();
}

TEST_F(ReactorRealTimeSignal, LoopOnAnotherThreadThanOpenIsWokenThere) {
    CNxEventThread running(0, 0);
    Timer started([&] { running.Signal(); });
    m_reactor.ScheduleTimer(&started, nullptr, CNxTimeValue(0, 0), 1);
    std::thread loop([&] {
        m_reactor.Reset2CurrentThread();
        EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    });
    running.Wait(nullptr);
    EXPECT_EQ(m_reactor.SendEvent(new CountedEvent(m_counts, [] { return NX_ERROR_FOUND; })),
              NX_ERROR_FOUND);
    EXPECT_EQ(m_reactor.StopEventLoop(), NX_OK);
    loop.join();
    m_reactor.Reset2CurrentThread();
}

}  // namespace
