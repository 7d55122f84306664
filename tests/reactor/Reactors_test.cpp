// What users of any reactor rely on, proved over each of them.
#include <netinet/in.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/reactor/CNxReactorRealTimeSignal.h>
#include <nx/reactor/CNxReactorSelect.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "ReactorSupport.h"

namespace {

template <class Reactor>
class Reactors : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_reactor.Open(), NX_OK); }
    void TearDown() override { m_reactor.Close(); }

    Reactor m_reactor;
    EventCounts m_counts;
};

struct ReactorNames {
    template <class Reactor>
    static std::string GetName(int /*index*/) {
        Reactor reactor;
        switch (reactor.GetReactorType()) {
            case INxReactor::TYPE_EPOLL:
                return "Epoll";
            case INxReactor::TYPE_REAL_TIME_SIGNAL:
                return "RealTimeSignal";
            default:
                return "Select";
        }
    }
};

using AllReactors = ::testing::Types<CNxReactorEpoll, CNxReactorSelect, CNxReactorRealTimeSignal>;
TYPED_TEST_SUITE(Reactors, AllReactors, ReactorNames);

template <class Reactor>
class ClosedReactors : public ::testing::Test {};
TYPED_TEST_SUITE(ClosedReactors, AllReactors, ReactorNames);

TYPED_TEST(Reactors, ReadableAndWritableGetsInputThenOutputInOneTurn) {
    auto& reactor = this->m_reactor;
    std::vector<int> order;
    End end(
        [&](End& self) {
            order.push_back(1);
            self.Drain();
            return 0;
        },
        [&](End& /*self*/) {
            order.push_back(2);
            return 0;
        });
    end.Send();
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ | NX_MASK_WRITE), NX_OK);
    StopSoon(reactor, this->m_counts);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

// Connects to an address, and keeps what became of it. A failure may come as OnClose or, as with
// any program that polls, as room for output with an error waiting.
class Connecting : public INxEventHandler {
public:
    Connecting(INxReactor& reactor, const CNxInetAddr& address) : m_reactor(reactor) {
        EXPECT_EQ(m_socket.CNxSocketBase::Open(AF_INET, SOCK_STREAM, 0, 0), 0);
        EXPECT_EQ(m_socket.Enable(CNxIPCBase::NON_BLOCK), 0);
        EXPECT_EQ(connect(GetHandle(), address.GetPtr(), static_cast<socklen_t>(address.GetSize())),
                  -1);
    }
    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnOutput(int fd) override {
        int error = 0;
        socklen_t length = sizeof(error);
        EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length), 0);
        m_connected = error == 0;
        m_reactor.StopEventLoop();
        return error == 0 ? 0 : -1;
    }
    int OnClose(int /*fd*/, long mask) override {
        m_closedWith = mask;
        m_reactor.StopEventLoop();
        return 0;
    }

    INxReactor& m_reactor;
    CNxSocketTcp m_socket;
    bool m_connected = false;
    long m_closedWith = 0;
};

TYPED_TEST(ClosedReactors, FailedConnectIsClosedAndSucceededConnectWrites) {
    CNxSocketTcp listener;
    ASSERT_EQ(listener.Open(1, CNxInetAddr("127.0.0.1", 0)), 0);
    CNxInetAddr address;
    ASSERT_EQ(listener.GetLocalAddr(address), 0);
    TypeParam reactor;
    for (const bool listening : {false, true}) {
        if (listening) {
            ASSERT_EQ(listen(listener.GetHandle(), 5), 0);
        }
        ASSERT_EQ(reactor.Open(), NX_OK);
        Connecting connecting(reactor, address);
        ASSERT_EQ(reactor.RegisterHandler(&connecting, NX_MASK_CONNECT), NX_OK);
        EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
        EXPECT_EQ(connecting.m_connected, listening);
        EXPECT_EQ(connecting.m_closedWith, listening ? 0 : NX_MASK_CONNECT);
        EXPECT_EQ(reactor.ProcessHandleEvent(connecting.GetHandle(), 0, 0, 0, 0),
                  listening ? NX_OK : NX_ERROR_NOT_FOUND);
        reactor.Close();
    }
}

// One wake-up of the pipe, many records behind it, no further traffic.
TYPED_TEST(Reactors, EveryNotificationMadeBeforeTheLoopWakesIsDispatched) {
    auto& reactor = this->m_reactor;
    End reads;
    End writes;
    ASSERT_EQ(reactor.RegisterHandler(&reads, NX_MASK_READ), NX_OK);
    ASSERT_EQ(reactor.RegisterHandler(&writes, NX_MASK_READ), NX_OK);
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(reactor.NotifyHandler(&reads, NX_MASK_READ), NX_OK);
        ASSERT_EQ(reactor.NotifyHandler(&writes, NX_MASK_WRITE), NX_OK);
        ASSERT_EQ(reactor.NotifyHandler(&writes, 0), NX_OK);
    }
    End last([&](End& /*self*/) { return static_cast<int>(reactor.StopEventLoop()); });
    ASSERT_EQ(reactor.RegisterHandler(&last, NX_MASK_READ), NX_OK);
    ASSERT_EQ(reactor.NotifyHandler(&last, NX_MASK_READ), NX_OK);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(reads.m_inputs, 30);
    EXPECT_EQ(writes.m_inputs + writes.m_outputs, 0);
}

TYPED_TEST(Reactors, FullPipeStrandsNeitherEventsNorTheStop) {
    auto& reactor = this->m_reactor;
    End end;
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    int notified = 0;
    while (reactor.NotifyHandler(&end, NX_MASK_READ) == NX_OK) {
        ++notified;
    }
    EXPECT_EQ(reactor.NotifyHandler(&end, NX_MASK_READ), NX_ERROR_UNEXPECTED);
    EXPECT_GT(notified, 10);
    // A wake-up for it finds no room in the pipe.
    std::thread poster([&] { reactor.PostEvent(new CountedEvent(this->m_counts), c_normal); });
    poster.join();
    Timer stop([&] {
        if (end.m_inputs == notified && this->m_counts.AllDestroyed()) {
            reactor.StopEventLoop();
        }
    });
    reactor.ScheduleTimer(&stop, nullptr, CNxTimeValue(0, 1000), 0);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, notified);
}

TYPED_TEST(ClosedReactors, EventsPostedBeforeOpenFireOnceTheLoopRuns) {
    TypeParam reactor;
    EventCounts counts;
    EXPECT_EQ(reactor.PostEvent(new CountedEvent(counts, [&] { return reactor.StopEventLoop(); }),
                                c_normal),
              NX_OK);
    EXPECT_NE(reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE), NX_OK);
    ASSERT_EQ(reactor.Open(), NX_OK);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(counts.m_fired, 1);
    reactor.Close();
}

TYPED_TEST(ClosedReactors, ReopeningLeaksNothingAndForgetsOldRegistrations) {
    const int before = CountDescriptors();
    {
        TypeParam reactor;
        End stale;
        EventCounts counts;
        for (int round = 0; round < 20; ++round) {
            ASSERT_EQ(reactor.Open(), NX_OK);
            reactor.RegisterHandler(&stale, NX_MASK_READ);
            ASSERT_EQ(reactor.Close(), NX_OK);
        }
        ASSERT_EQ(reactor.Open(), NX_OK);
        stale.Send();
        reactor.PostEvent(new CountedEvent(counts, [&] { return reactor.StopEventLoop(); }),
                          c_normal);
        EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
        EXPECT_EQ(stale.m_inputs, 0);
        // The loop has ended: nobody would fire them.
        EXPECT_EQ(reactor.PostEvent(new CountedEvent(counts), c_normal), NX_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(reactor.Open(), NX_ERROR_ALREADY_INITIALIZED);
        EXPECT_TRUE(counts.AllDestroyed());
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TYPED_TEST(Reactors, EndlessShortTimerStarvesNeitherInputNorEvents) {
    auto& reactor = this->m_reactor;
    Timer timer([] {});
    ASSERT_EQ(reactor.ScheduleTimer(&timer, nullptr, CNxTimeValue(0, 1), 0), NX_OK);
    End end([&](End& self) {
        self.Drain();
        StopSoon(reactor, this->m_counts);
        return 0;
    });
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    end.Send();
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, 1);
    EXPECT_GT(timer.m_fired, 0);
}

TYPED_TEST(Reactors, TimersFireWhileAnotherIsAlmostForEverAway) {
    auto& reactor = this->m_reactor;
    Timer never([] {});
    Timer soon([&] { reactor.StopEventLoop(); });
    ASSERT_EQ(reactor.ScheduleTimer(&never, nullptr, CNxTimeValue(1L << 40, 0), 1), NX_OK);
    std::thread later([&] {
        reactor.PostEvent(
            new CountedEvent(
                this->m_counts,
                [&] { return reactor.ScheduleTimer(&soon, nullptr, CNxTimeValue(0, 1500), 1); }),
            c_normal);
    });
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    later.join();
    EXPECT_EQ(soon.m_fired, 1);
    EXPECT_EQ(never.m_fired, 0);
}

// Two handlers ready in one batch; the first closes the second's descriptor and another handler
// gets its number.
TYPED_TEST(Reactors, ReadinessOfARemovedHandlerIsNotGivenToTheNextOfItsNumber) {
    auto& reactor = this->m_reactor;
    std::vector<std::unique_ptr<End>> ends;
    std::unique_ptr<End> newcomer;
    const auto replaceOther = [&](End& self) {
        self.Drain();
        std::unique_ptr<End>& other = ends[&self == ends[0].get() ? 1 : 0];
        const int number = other->GetHandle();
        reactor.RemoveHandler(other.get(), NX_MASK_ALL_EVENTS);
        other.reset();
        newcomer = std::make_unique<End>();
        EXPECT_EQ(newcomer->GetHandle(), number);
        reactor.RegisterHandler(newcomer.get(), NX_MASK_READ);
        StopSoon(reactor, this->m_counts);
        return 0;
    };
    ends.push_back(std::make_unique<End>(replaceOther));
    ends.push_back(std::make_unique<End>(replaceOther));
    for (const auto& end : ends) {
        end->Send();
        ASSERT_EQ(reactor.RegisterHandler(end.get(), NX_MASK_READ), NX_OK);
    }
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    ASSERT_NE(newcomer, nullptr);
    EXPECT_EQ(newcomer->m_inputs, 0);
}

// Posts, sends, notifications and the stop against the end and the closing of the loop, on the same
// reactor opened again and again.
TYPED_TEST(ClosedReactors, NothingIsLostOrWrittenElsewhereWhileTheReactorClosesAndReopens) {
    TypeParam reactor;
    EventCounts counts;
    std::atomic<bool> finished{false};
    std::atomic<int> accepted{0};
    const auto post = [&] {
        while (!finished.load()) {
            if (reactor.PostEvent(new CountedEvent(counts), c_normal) == NX_OK) {
                ++accepted;
            }
            reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE);
            std::this_thread::yield();
        }
    };
    const auto send = [&] {
        while (!finished.load()) {
            const NxResult result =
                reactor.SendEvent(new CountedEvent(counts, [] { return NX_ERROR_FOUND; }));
            EXPECT_TRUE(result == NX_ERROR_FOUND || result == NX_ERROR_NOT_INITIALIZED ||
                        result == NX_ERROR_NOT_AVAILABLE)
                << result;
            std::this_thread::yield();
        }
    };
    ASSERT_EQ(reactor.Open(), NX_OK);
    std::vector<std::thread> others;
    others.emplace_back(post);
    others.emplace_back(send);
    others.emplace_back(send);
    for (int round = 0; round < 100; ++round) {
        if (round > 0) {
            ASSERT_EQ(reactor.Open(), NX_OK);
        }
        std::thread stopper([&] {
            while (reactor.StopEventLoop() != NX_OK) {
                std::this_thread::yield();
            }
        });
        EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
        stopper.join();
        EXPECT_EQ(reactor.Close(), NX_OK);
        // A descriptor that takes the pipe's number must see nothing of the wake-ups.
        End bystander;
        std::this_thread::yield();
        char byte = 0;
        EXPECT_EQ(recv(bystander.GetHandle(), &byte, 1, MSG_DONTWAIT), -1);
    }
    finished = true;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_GT(accepted.load() + counts.m_fired.load(), 0);
    EXPECT_TRUE(counts.AllDestroyed());
}

// An event that posts its own successor, until a handler has had its turn.
TYPED_TEST(Reactors, FloodOfPostedEventsDoesNotStarveInput) {
    auto& reactor = this->m_reactor;
    End end;
    std::function<NxResult()> repost = [&] {
        return end.m_inputs > 0
                   ? reactor.StopEventLoop()
                   : reactor.PostEvent(new CountedEvent(this->m_counts, repost), c_normal);
    };
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    repost();
    end.Send();
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_GT(end.m_inputs, 0);
}

// Clients on another thread send a byte and wait for the answer, round after round.
TYPED_TEST(Reactors, EveryClientIsAnsweredInEveryRound) {
    EchoClients(this->m_reactor, 50, 40);
}

// The last of a peer's data is there when it has hung up already.
TYPED_TEST(Reactors, DataBeforeAHangUpIsRead) {
    auto& reactor = this->m_reactor;
    int got = 0;
    End end([&](End& self) {
        got += self.Drain();
        StopSoon(reactor, this->m_counts);
        return -1;
    });
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    end.Send();
    end.HangUp();
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(got, 1);
    EXPECT_EQ(end.m_closedWith, NX_MASK_READ);
}

}  // namespace
