// Nothing is lost when a call fails, a peer resets or there is no memory, on any of the reactors.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/reactor/CNxReactorSelect.h>
#include <nx/reactor/realtime/CNxReactorRealTimeSignal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "../support/FailingCalls.h"
#include "ReactorSupport.h"

namespace {

constexpr long c_readWrite = NX_MASK_READ | NX_MASK_WRITE;

template <class Reactor>
class ReactorFaults : public ::testing::Test {
protected:
    Reactor m_reactor;
    EventCounts m_counts;
    FailingCalls m_calls;
};

struct ReactorNames {
    template <class Reactor>
    static std::string GetName(int index) {
        return index == 0 ? "Epoll" : index == 1 ? "Select" : "RealTimeSignal";
    }
};

using AllReactors = ::testing::Types<CNxReactorEpoll, CNxReactorSelect, CNxReactorRealTimeSignal>;
TYPED_TEST_SUITE(ReactorFaults, AllReactors, ReactorNames);

// A loop on a thread of its own that sleeps when Start returns.
class Loop {
public:
    explicit Loop(CNxReactorBase& reactor) : m_reactor(reactor) {
        std::promise<void> opened;
        m_thread = std::thread([&] {
            EXPECT_EQ(m_reactor.Open(), NX_OK);
            opened.set_value();
            EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
        });
        opened.get_future().wait();
        EventCounts counts;
        EXPECT_EQ(m_reactor.SendEvent(new CountedEvent(counts)), NX_OK);
        // Longer than from the event to the wait.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ~Loop() {
        while (m_reactor.StopEventLoop() != NX_OK) {
            std::this_thread::yield();
        }
        m_thread.join();
    }

private:
    CNxReactorBase& m_reactor;
    std::thread m_thread;
};

void FailWakeUps(FailingCalls& calls, int count) {
    calls.Fail(FailingCalls::SEND, ENOBUFS, count);
    calls.Fail(FailingCalls::SIGQUEUE, EAGAIN, count);
}

TYPED_TEST(ReactorFaults, NextPostMakesUpForALostWakeUp) {
    const Loop loop(this->m_reactor);
    FailWakeUps(this->m_calls, 2);
    EXPECT_EQ(this->m_reactor.PostEvent(new CountedEvent(this->m_counts), c_normal), NX_OK);
    EXPECT_EQ(this->m_reactor.PostEvent(new CountedEvent(this->m_counts), c_normal), NX_OK);
    std::promise<void> fired;
    const auto tell = [&] {
        fired.set_value();
        return NX_OK;
    };
    EXPECT_EQ(this->m_reactor.PostEvent(new CountedEvent(this->m_counts, tell), c_normal), NX_OK);
    EXPECT_EQ(fired.get_future().wait_for(std::chrono::milliseconds(500)),
              std::future_status::ready);
    EXPECT_EQ(this->m_counts.m_fired, 3);
}

TYPED_TEST(ReactorFaults, SendEventAndStopReturnAlthoughNoWakeUpGoesOut) {
    const Loop loop(this->m_reactor);
    FailWakeUps(this->m_calls, 1000);
    EXPECT_EQ(this->m_reactor.SendEvent(new CountedEvent(this->m_counts)), NX_OK);
}

TYPED_TEST(ReactorFaults, NotificationsAreNotRefusedForWantOfRoom) {
    constexpr int count = 10000;
    auto& reactor = this->m_reactor;
    ASSERT_EQ(reactor.Open(), NX_OK);
    End end;
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    int accepted = 0;
    const auto notify = [&] {
        for (int i = 0; i < count; ++i) {
            accepted += reactor.NotifyHandler(&end, NX_MASK_READ) == NX_OK ? 1 : 0;
        }
    };
    const int sends = this->m_calls.Count(FailingCalls::SEND);
    notify();
    EXPECT_EQ(this->m_calls.Count(FailingCalls::SEND), sends);
    std::thread(notify).join();
    EXPECT_EQ(accepted, 2 * count);
    Timer stop([&] { end.m_inputs == accepted ? reactor.StopEventLoop() : NX_OK; });
    EXPECT_EQ(reactor.ScheduleTimer(&stop, nullptr, CNxTimeValue(0, 1000), 0), NX_OK);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, accepted);
}

TEST(ReactorEpoll, FailedReRegistrationIsReturnedAndKeepsTheWatch) {
    CNxReactorEpoll reactor;
    EventCounts counts;
    FailingCalls calls;
    ASSERT_EQ(reactor.Open(), NX_OK);
    End end([&](End& self) {
        EXPECT_EQ(self.Drain(), 1);
        StopSoon(reactor, counts);
        return 0;
    });
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    calls.Fail(FailingCalls::EPOLL_CTL, ENOMEM, 2);
    EXPECT_EQ(reactor.RegisterHandler(&end, c_readWrite), NX_ERROR_FAILURE);
    calls.Fail(FailingCalls::EPOLL_CTL, ENOMEM, 0);
    end.Send();
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, 1);
    EXPECT_EQ(end.m_outputs, 0);
    // One call for a changed mask.
    const int before = calls.Count(FailingCalls::EPOLL_CTL);
    EXPECT_EQ(reactor.RegisterHandler(&end, c_readWrite), NX_ERROR_FOUND);
    EXPECT_EQ(calls.Count(FailingCalls::EPOLL_CTL), before + 1);
}

TEST(ReactorEpoll, WriterIsNotAskedForItsErrorAtEveryEvent) {
    CNxReactorEpoll reactor;
    EventCounts counts;
    FailingCalls calls;
    ASSERT_EQ(reactor.Open(), NX_OK);
    End end;
    ASSERT_EQ(reactor.RegisterHandler(&end, c_readWrite), NX_OK);
    StopSoon(reactor, counts);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_outputs, 1);
    EXPECT_EQ(calls.Count(FailingCalls::GETSOCKOPT), 0);
}

// In a child, so that the limits of the tests stay, and without the right to raise the hard one.
void ExitWithLimits(rlim_t soft, rlim_t hard, int wanted, rlim_t softAfter, rlim_t hardAfter) {
    rlimit limit{soft, hard};
    int actual = 0;
    const bool ok = setrlimit(RLIMIT_NOFILE, &limit) == 0 && seteuid(65534) == 0 &&
                    CNxEventHandlerRepository::SetRlimit(RLIMIT_NOFILE, wanted, actual) == NX_OK &&
                    getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur == softAfter &&
                    limit.rlim_max == hardAfter && actual == static_cast<int>(softAfter);
    _exit(ok ? 0 : 1);
}

TEST(ReactorLimits, HardLimitOfDescriptorsIsNeverLowered) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (geteuid() != 0 || limit.rlim_max < 10000) {
        GTEST_SKIP() << "may not change the limits as it wants";
    }
    const auto exited = testing::ExitedWithCode(0);
    EXPECT_EXIT(ExitWithLimits(1024, 10000, 8192, 8192, 10000), exited, "");
    EXPECT_EXIT(ExitWithLimits(1024, 10000, 9000, 9000, 10000), exited, "");
    EXPECT_EXIT(ExitWithLimits(1024, 3000, 8192, 3000, 3000), exited, "");
}

}  // namespace
