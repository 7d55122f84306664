// Nothing is lost when a call fails, a peer resets or there is no memory, on any of the reactors.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "../support/FailingCalls.h"
#include "../support/FailingNew.h"
#include "ReactorSupport.h"

namespace {

template <class Reactor>
class ReactorFaults : public ::testing::Test {
protected:
    Reactor m_reactor;
    EventCounts m_counts;
    FailingCalls m_calls;
};

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

// The others that post rely on the wake-up.
TYPED_TEST(ReactorFaults, CancelledThreadIsNotTornFromItsWakeUp) {
    ASSERT_EQ(this->m_reactor.Open(), NX_OK);
    bool hasReturned = false;
    std::thread poster([&] {
        pthread_cancel(pthread_self());
        this->m_reactor.PostEvent(new CountedEvent(this->m_counts), c_normal);
        hasReturned = true;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    poster.join();
    EXPECT_TRUE(hasReturned);
    EXPECT_EQ(this->m_reactor.Close(), NX_OK);
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

// A socket with a port of its own on the loopback, and its address.
int OpenLoopback(int type, sockaddr_in& address) {
    address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, generic, size), 0);
    EXPECT_EQ(getsockname(fd, generic, &size), 0);
    return fd;
}

int Connect(int fd, const sockaddr_in& address) {
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

// A connection over the loopback whose peer has sent 10,000 bytes and then reset it.
class ResetConnection : public INxEventHandler {
public:
    explicit ResetConnection(INxReactor& reactor, size_t chunk)
        : m_reactor(reactor), m_chunk(chunk) {
        sockaddr_in address;
        const int listener = OpenLoopback(SOCK_STREAM, address);
        EXPECT_EQ(listen(listener, 1), 0);
        m_peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(Connect(m_peer, address), 0);
        m_fd = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~ResetConnection() override { close(m_fd); }

    void SendAndReset() {
        const std::vector<char> data(c_size, 'x');
        EXPECT_EQ(send(m_peer, data.data(), data.size(), MSG_NOSIGNAL), c_size);
        const linger none{1, 0};
        setsockopt(m_peer, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
        close(m_peer);
    }
    int GetHandle() const override { return m_fd; }
    // Reads one chunk and, like one that shares the loop, asks to be called again for the rest.
    int OnInput(int fd) override {
        std::vector<char> buffer(m_chunk);
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        m_got += got > 0 ? got : 0;
        if (got > 0) {
            EXPECT_EQ(m_reactor.NotifyHandler(this, NX_MASK_READ), NX_OK);
        }
        return got > 0 || (got == -1 && errno == EAGAIN) ? 0 : -1;
    }
    int OnOutput(int /*fd*/) override { return 0; }
    int OnClose(int /*fd*/, long /*mask*/) override {
        return static_cast<int>(m_reactor.StopEventLoop());
    }

    static constexpr ssize_t c_size = 10000;
    ssize_t m_got = 0;

private:
    INxReactor& m_reactor;
    const size_t m_chunk;
    int m_peer = -1;
    int m_fd = -1;
};

TYPED_TEST(ReactorFaults, WhatArrivedBeforeAResetIsDeliveredBeforeTheClose) {
    for (const size_t chunk : {size_t{20000}, size_t{10000}, size_t{1000}}) {
        ASSERT_EQ(this->m_reactor.Open(), NX_OK);
        ResetConnection connection(this->m_reactor, chunk);
        ASSERT_EQ(this->m_reactor.RegisterHandler(&connection, c_readWrite), NX_OK);
        connection.SendAndReset();
        EXPECT_EQ(this->m_reactor.RunEventLoop(), NX_OK);
        EXPECT_EQ(connection.m_got, ResetConnection::c_size);
        this->m_reactor.Close();
    }
}

// Before the registration or after it.
TYPED_TEST(ReactorFaults, PeerThatWroteAndClosedIsRead) {
    for (const bool isEarly : {true, false}) {
        ASSERT_EQ(this->m_reactor.Open(), NX_OK);
        int got = 0;
        End end([&](End& self) {
            got += self.Drain();
            StopSoon(this->m_reactor, this->m_counts);
            return -1;
        });
        const auto watch = [&] {
            ASSERT_EQ(this->m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
        };
        isEarly ? void() : watch();
        end.Send();
        end.HangUp();
        isEarly ? watch() : void();
        EXPECT_EQ(this->m_reactor.RunEventLoop(), NX_OK);
        EXPECT_EQ(got, 1);
        EXPECT_EQ(end.m_closedWith, std::vector<long>{NX_MASK_READ});
        this->m_reactor.Close();
    }
}

int FillUp(int fd) {
    const std::vector<char> data(4096, 'x');
    int sent = 0;
    while (send(fd, data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        ++sent;
    }
    return sent;
}

void Read(int fd, int blocks) {
    std::vector<char> buffer(4096);
    for (; blocks > 0; --blocks) {
        EXPECT_GT(recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT), 0);
    }
}

// The peer reads nothing, a little or nearly enough before the registration and the rest after it.
TYPED_TEST(ReactorFaults, RoomIsToldWhenTheSendThatFailedCameBeforeTheRegistration) {
    for (const int early : {0, 1, 2}) {
        ASSERT_EQ(this->m_reactor.Open(), NX_OK);
        struct Writer : End {
            explicit Writer(INxReactor& reactor) : m_reactor(reactor) {}
            int OnOutput(int /*fd*/) override {
                m_hasRoom = true;
                return static_cast<int>(m_reactor.StopEventLoop());
            }
            INxReactor& m_reactor;
            bool m_hasRoom = false;
        } writer(this->m_reactor);
        const int blocks = FillUp(writer.GetHandle());
        Read(writer.Peer(), blocks * early / 4);
        ASSERT_EQ(this->m_reactor.RegisterHandler(&writer, NX_MASK_WRITE), NX_OK);
        Timer read([&] { Read(writer.Peer(), blocks - blocks * early / 4); });
        Timer giveUp([&] { this->m_reactor.StopEventLoop(); });
        ASSERT_EQ(this->m_reactor.ScheduleTimer(&read, nullptr, CNxTimeValue(0, 20000), 1), NX_OK);
        ASSERT_EQ(this->m_reactor.ScheduleTimer(&giveUp, nullptr, CNxTimeValue(0, 500000), 1),
                  NX_OK);
        EXPECT_EQ(this->m_reactor.RunEventLoop(), NX_OK);
        EXPECT_TRUE(writer.m_hasRoom) << early;
        this->m_reactor.Close();
    }
}

TYPED_TEST(ReactorFaults, NumberThatWasClosedWithoutARemovalIsWatchedForItsNextHandler) {
    ASSERT_EQ(this->m_reactor.Open(), NX_OK);
    auto stale = std::make_unique<End>();
    ASSERT_EQ(this->m_reactor.RegisterHandler(stale.get(), NX_MASK_READ), NX_OK);
    const int number = stale->GetHandle();
    stale.reset();
    End next([&](End& self) {
        StopSoon(this->m_reactor, this->m_counts);
        return self.Drain() == 1 ? 0 : -1;
    });
    ASSERT_EQ(next.GetHandle(), number);
    EXPECT_EQ(this->m_reactor.RegisterHandler(&next, NX_MASK_READ), NX_ERROR_FOUND);
    next.Send();
    EXPECT_EQ(this->m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(next.m_inputs, 1);
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

// Refuses what it is called for or reads nothing at present, and keeps the reason of its end.
class ReasonHandler : public INxEventHandler {
public:
    ReasonHandler(INxReactor& reactor, int fd, int answer)
        : m_reactor(reactor), m_fd(fd), m_answer(answer) {}
    ~ReasonHandler() override { close(m_fd); }
    int GetHandle() const override { return m_fd; }
    int OnInput(int /*fd*/) override { return m_answer; }
    int OnOutput(int /*fd*/) override { return m_answer; }
    int OnClose(int /*fd*/, long /*mask*/) override {
        m_reason = m_reactor.GetCloseReason();
        return static_cast<int>(m_reactor.StopEventLoop());
    }
    int m_reason = -1;

private:
    INxReactor& m_reactor;
    const int m_fd;
    const int m_answer;
};

TEST(ReactorEpoll, ErrorOfADatagramSocketReachesAHandlerThatDoesNotRead) {
    CNxReactorEpoll reactor;
    EventCounts counts;
    ASSERT_EQ(reactor.Open(), NX_OK);
    sockaddr_in address;
    sockaddr_in peerAddress;
    ReasonHandler handler(reactor, OpenLoopback(SOCK_DGRAM, address), 0);
    const int peer = OpenLoopback(SOCK_DGRAM, peerAddress);
    ASSERT_EQ(Connect(handler.GetHandle(), peerAddress), 0);
    ASSERT_EQ(Connect(peer, address), 0);
    ASSERT_EQ(send(peer, "x", 1, 0), 1);
    close(peer);
    ASSERT_EQ(send(handler.GetHandle(), "x", 1, 0), 1);
    ASSERT_EQ(reactor.RegisterHandler(&handler, c_readWrite), NX_OK);
    StopSoon(reactor, counts);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(handler.m_reason, ECONNREFUSED);
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

// A process may be started without its standard streams: what it prints must not go into a pipe of
// the library.
template <class Reactor>
void ExitWithoutStandardStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        close(fd);
    }
    Reactor reactor;
    bool ok = reactor.Open() == NX_OK;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ok = ok && fcntl(fd, F_GETFD) == -1;
    }
    _exit(ok ? 0 : 1);
}

TYPED_TEST(ReactorFaults, DescriptorsAreAboveTheStandardStreams) {
    EXPECT_EXIT(ExitWithoutStandardStreams<TypeParam>(), testing::ExitedWithCode(0), "");
}

TYPED_TEST(ReactorFaults, FailedConnectTellsWhy) {
    ASSERT_EQ(this->m_reactor.Open(), NX_OK);
    sockaddr_in address;
    const int closed = OpenLoopback(SOCK_STREAM, address);
    ReasonHandler connects(this->m_reactor,
                           socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), -1);
    EXPECT_EQ(Connect(connects.GetHandle(), address), -1);
    ASSERT_EQ(this->m_reactor.RegisterHandler(&connects, NX_MASK_CONNECT), NX_OK);
    EXPECT_EQ(this->m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(connects.m_reason, ECONNREFUSED);
    EXPECT_EQ(this->m_reactor.GetCloseReason(), 0);
    close(closed);
}

// Each allocation of Open and of a registration fails once.
TYPED_TEST(ReactorFaults, WantOfMemoryIsAnAnswer) {
    auto& reactor = this->m_reactor;
    End end;
    end.Send();
    const auto openAndRegister = [&] {
        const NxResult opened = reactor.Open();
        return opened == NX_OK ? reactor.RegisterHandler(&end, c_readWrite) : opened;
    };
    for (int skipped = 0;; ++skipped) {
        const FailingNew memory(skipped, FailingNew::ONCE);
        const NxResult result = openAndRegister();
        if (FailingNew::CountFailed() == 0) {
            ASSERT_EQ(result, NX_OK);
            break;
        }
        EXPECT_EQ(result, NX_ERROR_FAILURE) << skipped;
        reactor.Close();
    }
    StopSoon(reactor, this->m_counts);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, 1);
}

// What a child does with the copies that it has must not be seen by its parent.
TYPED_TEST(ReactorFaults, ForkedChildTakesNothingFromItsParent) {
    auto reactor = std::make_unique<TypeParam>();
    ASSERT_EQ(reactor->Open(), NX_OK);
    End end([&](End& self) {
        EXPECT_EQ(self.Drain(), 1);
        StopSoon(*reactor, this->m_counts);
        return 0;
    });
    End stays;
    ASSERT_EQ(reactor->RegisterHandler(&end, NX_MASK_READ), NX_OK);
    ASSERT_EQ(reactor->RegisterHandler(&stays, NX_MASK_READ), NX_OK);
    const pid_t child = fork();
    if (child == 0) {
        reactor->RemoveHandler(&end, NX_MASK_ALL_EVENTS);
        End other;
        const bool refused = reactor->RegisterHandler(&other, NX_MASK_READ) != NX_OK &&
                             reactor->NotifyHandler(&stays, NX_MASK_READ) != NX_OK &&
                             reactor->RunEventLoop() != NX_OK;
        reactor->StopEventLoop();
        reactor->PostEvent(new CountedEvent(this->m_counts), c_normal);
        reactor->Close();
        reactor.reset();
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    stays.Send();
    end.Send();
    EXPECT_EQ(reactor->RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, 1);
    EXPECT_EQ(stays.m_inputs, 1);
}

}  // namespace
