#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <thread>
#include <vector>

#include "../support/CountedEvent.h"

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;

// One end of a socket pair with its handler; the other end is the peer.
class End : public INxEventHandler {
public:
    using Callback = std::function<int(End&)>;

    explicit End(Callback onInput = nullptr, Callback onOutput = nullptr)
        : m_onInput(std::move(onInput)), m_onOutput(std::move(onOutput)) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_fds), 0);
    }
    ~End() override {
        close(m_fds[0]);
        close(m_fds[1]);
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    int GetHandle() const override { return m_fds[0]; }
    int OnInput(int /*fd*/) override {
        ++m_inputs;
        return m_onInput ? m_onInput(*this) : 0;
    }
    int OnOutput(int /*fd*/) override {
        ++m_outputs;
        return m_onOutput ? m_onOutput(*this) : 0;
    }
    int OnClose(int /*fd*/, long mask) override {
        m_closedWith = mask;
        return 0;
    }
    void Send() const { EXPECT_EQ(write(m_fds[1], "x", 1), 1); }
    void Drain() const {
        char buffer[64];
        while (recv(m_fds[0], buffer, sizeof(buffer), MSG_DONTWAIT) > 0) {
        }
    }

    int m_inputs = 0;
    int m_outputs = 0;
    long m_closedWith = 0;

private:
    Callback m_onInput;
    Callback m_onOutput;
    int m_fds[2] = {-1, -1};
};

class Timer : public INxTimerHandler {
public:
    explicit Timer(std::function<void()> action) : m_action(std::move(action)) {}
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override {
        ++m_fired;
        m_action();
    }
    int m_fired = 0;

private:
    std::function<void()> m_action;
};

int CountDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

class ReactorEpoll : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_reactor.Open(), NX_OK); }
    void TearDown() override { m_reactor.Close(); }

    // Makes the loop end; what is posted or ready by then is still served in order.
    void StopSoon() {
        m_reactor.PostEvent(new CountedEvent(m_counts, [&] { return m_reactor.StopEventLoop(); }),
                            c_normal);
    }

    CNxReactorEpoll m_reactor;
    EventCounts m_counts;
};

TEST_F(ReactorEpoll, ReadableAndWritableGetsInputThenOutputInOneTurn) {
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
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ | NX_MASK_WRITE), NX_OK);
    StopSoon();
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(ReactorEpoll, WhatCannotBeWatchedIsRefused) {
    class Fixed : public INxEventHandler {
    public:
        explicit Fixed(int fd) : m_fd(fd) {}
        int GetHandle() const override { return m_fd; }

    private:
        const int m_fd;
    };
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    Fixed regular(file);
    Fixed closed(file + 100);
    Fixed negative(-1);
    for (Fixed* handler : {&regular, &closed, &negative}) {
        EXPECT_EQ(m_reactor.RegisterHandler(handler, NX_MASK_READ), NX_ERROR_FAILURE);
        EXPECT_EQ(m_reactor.RemoveHandler(handler, NX_MASK_READ), NX_OK);
    }
    EXPECT_EQ(m_reactor.ProcessHandleEvent(file, NX_MASK_READ, 0, 0, 0), NX_ERROR_NOT_FOUND);
    close(file);
}

TEST_F(ReactorEpoll, FailedConnectClosesAndSucceededConnectWrites) {
    CNxSocketTcp listener;
    ASSERT_EQ(listener.Open(1, CNxInetAddr("127.0.0.1", 0)), 0);
    CNxInetAddr address;
    ASSERT_EQ(listener.GetLocalAddr(address), 0);
    for (const bool listening : {false, true}) {
        if (listening) {
            ASSERT_EQ(listen(listener.GetHandle(), 5), 0);
        }
        class Connecting : public INxEventHandler {
        public:
            int GetHandle() const override { return m_socket.GetHandle(); }
            int OnOutput(int /*fd*/) override {
                m_connected = true;
                m_reactor->StopEventLoop();
                return 0;
            }
            int OnClose(int /*fd*/, long mask) override {
                m_closedWith = mask;
                m_reactor->StopEventLoop();
                return 0;
            }
            CNxSocketTcp m_socket;
            CNxReactorEpoll* m_reactor = nullptr;
            bool m_connected = false;
            long m_closedWith = 0;
        } connecting;
        CNxReactorEpoll reactor;
        ASSERT_EQ(reactor.Open(), NX_OK);
        connecting.m_reactor = &reactor;
        ASSERT_EQ(connecting.m_socket.CNxSocketBase::Open(AF_INET, SOCK_STREAM, 0, 0), 0);
        ASSERT_EQ(connecting.m_socket.Enable(CNxIPCBase::NON_BLOCK), 0);
        ASSERT_EQ(connect(connecting.GetHandle(), address.GetPtr(),
                          static_cast<socklen_t>(address.GetSize())),
                  -1);
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
TEST_F(ReactorEpoll, EveryNotificationMadeBeforeTheLoopWakesIsDispatched) {
    End reads;
    End writes;
    ASSERT_EQ(m_reactor.RegisterHandler(&reads, NX_MASK_READ), NX_OK);
    ASSERT_EQ(m_reactor.RegisterHandler(&writes, NX_MASK_READ), NX_OK);
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(m_reactor.NotifyHandler(&reads, NX_MASK_READ), NX_OK);
        ASSERT_EQ(m_reactor.NotifyHandler(&writes, NX_MASK_WRITE), NX_OK);
        ASSERT_EQ(m_reactor.NotifyHandler(&writes, 0), NX_OK);
    }
    End last([&](End& /*self*/) { return static_cast<int>(m_reactor.StopEventLoop()); });
    ASSERT_EQ(m_reactor.RegisterHandler(&last, NX_MASK_READ), NX_OK);
    ASSERT_EQ(m_reactor.NotifyHandler(&last, NX_MASK_READ), NX_OK);
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(reads.m_inputs, 30);
    EXPECT_EQ(writes.m_inputs + writes.m_outputs, 0);
}

TEST_F(ReactorEpoll, FullPipeStrandsNeitherEventsNorTheStop) {
    End end;
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    int notified = 0;
    while (m_reactor.NotifyHandler(&end, NX_MASK_READ) == NX_OK) {
        ++notified;
    }
    EXPECT_EQ(m_reactor.NotifyHandler(&end, NX_MASK_READ), NX_ERROR_UNEXPECTED);
    EXPECT_GT(notified, 10);
    // Neither the post nor its wake-up finds room in the pipe.
    int seenByEvent = -1;
    m_reactor.PostEvent(new CountedEvent(m_counts,
                                         [&] {
                                             seenByEvent = end.m_inputs;
                                             return NX_OK;
                                         }),
                        c_normal);
    Timer stop([&] {
        if (end.m_inputs == notified) {
            m_reactor.StopEventLoop();
        }
    });
    m_reactor.ScheduleTimer(&stop, nullptr, CNxTimeValue(0, 1000), 0);
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, notified);
    EXPECT_EQ(seenByEvent, 1);
}

TEST(ReactorEpollLife, EventsPostedBeforeOpenFireOnceTheLoopRuns) {
    CNxReactorEpoll reactor;
    EventCounts counts;
    EXPECT_EQ(reactor.PostEvent(new CountedEvent(counts, [&] { return reactor.StopEventLoop(); }),
                                c_normal),
              NX_OK);
    EXPECT_EQ(reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE), NX_ERROR_NOT_INITIALIZED);
    ASSERT_EQ(reactor.Open(), NX_OK);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(counts.m_fired, 1);
    reactor.Close();
}

TEST(ReactorEpollLife, ReopeningLeaksNothingAndForgetsOldRegistrations) {
    const int before = CountDescriptors();
    {
        CNxReactorEpoll reactor;
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

TEST_F(ReactorEpoll, EndlessShortTimerStarvesNeitherInputNorEvents) {
    Timer timer([] {});
    ASSERT_EQ(m_reactor.ScheduleTimer(&timer, nullptr, CNxTimeValue(0, 1), 0), NX_OK);
    End end([&](End& /*self*/) {
        StopSoon();
        return 0;
    });
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    end.Send();
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, 1);
    EXPECT_GT(timer.m_fired, 0);
}

TEST_F(ReactorEpoll, TimersFireWhileAnotherIsAlmostForEverAway) {
    Timer never([] {});
    Timer soon([&] { m_reactor.StopEventLoop(); });
    ASSERT_EQ(m_reactor.ScheduleTimer(&never, nullptr, CNxTimeValue(1L << 40, 0), 1), NX_OK);
    std::thread later([&] {
        m_reactor.PostEvent(
            new CountedEvent(
                m_counts,
                [&] { return m_reactor.ScheduleTimer(&soon, nullptr, CNxTimeValue(0, 1500), 1); }),
            c_normal);
    });
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    later.join();
    EXPECT_EQ(soon.m_fired, 1);
    EXPECT_EQ(never.m_fired, 0);
}

// Two handlers ready in one batch; the first closes the second's descriptor and another handler
// gets its number.
TEST_F(ReactorEpoll, ReadinessOfARemovedHandlerIsNotGivenToTheNextOfItsNumber) {
    std::vector<std::unique_ptr<End>> ends;
    std::unique_ptr<End> newcomer;
    const auto replaceOther = [&](End& self) {
        std::unique_ptr<End>& other = ends[&self == ends[0].get() ? 1 : 0];
        const int number = other->GetHandle();
        m_reactor.RemoveHandler(other.get(), NX_MASK_ALL_EVENTS);
        other.reset();
        newcomer = std::make_unique<End>();
        EXPECT_EQ(newcomer->GetHandle(), number);
        m_reactor.RegisterHandler(newcomer.get(), NX_MASK_READ);
        StopSoon();
        return 0;
    };
    ends.push_back(std::make_unique<End>(replaceOther));
    ends.push_back(std::make_unique<End>(replaceOther));
    for (const auto& end : ends) {
        end->Send();
        ASSERT_EQ(m_reactor.RegisterHandler(end.get(), NX_MASK_READ), NX_OK);
    }
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    ASSERT_NE(newcomer, nullptr);
    EXPECT_EQ(newcomer->m_inputs, 0);
}

// Posts, sends, notifications and the stop against the end and the closing of the loop, on the same
// reactor opened again and again.
TEST(ReactorEpollRaces, NothingIsLostOrWrittenElsewhereWhileTheReactorClosesAndReopens) {
    CNxReactorEpoll reactor;
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
        std::thread stopper([&] { reactor.StopEventLoop(); });
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

}  // namespace
