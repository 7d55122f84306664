// Nothing is lost when a call fails, a peer resets or there is no memory, on any of the reactors.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>

#include "../support/FailingCalls.h"
#include "../support/FailingNew.h"
#include "ReactorSupport.h"

namespace {

template <class Reactor>
class ReactorFaults : public OpenReactor<Reactor> {};
TYPED_TEST_SUITE(ReactorFaults, AllReactors, ReactorNames);

TYPED_TEST(ReactorFaults, LoopThatSleepsHearsOfEventsWhoseWakeUpWasLost) {
    this->m_reactor.Close();
    TypeParam reactor;
    std::promise<void> opened;
    std::thread loop([&] {
        EXPECT_EQ(reactor.Open(), NX_OK);
        opened.set_value();
        EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    });
    opened.get_future().wait();
    FailingCalls calls;
    const auto failWakeUpsOfSleeper = [&](int count) {
        EXPECT_EQ(reactor.SendEvent(new CountedEvent(this->m_counts)), NX_OK);
        // Longer than from the event to the wait.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        calls.Fail(FailingCalls::SEND, ENOBUFS, count);
        calls.Fail(FailingCalls::SIGQUEUE, EAGAIN, count);
    };
    failWakeUpsOfSleeper(2);
    std::promise<void> fired;
    const auto tell = [&] {
        fired.set_value();
        return NX_OK;
    };
    // The third makes up for the other two.
    for (const CountedEvent::Action& action : {CountedEvent::Action(), {}, {tell}}) {
        EXPECT_EQ(reactor.PostEvent(new CountedEvent(this->m_counts, action)), NX_OK);
    }
    EXPECT_EQ(fired.get_future().wait_for(std::chrono::milliseconds(500)),
              std::future_status::ready);
    // Without any it looks by itself.
    failWakeUpsOfSleeper(1000);
    EXPECT_EQ(reactor.SendEvent(new CountedEvent(this->m_counts)), NX_OK);
    EXPECT_EQ(this->m_counts.m_fired, 6);
    while (reactor.StopEventLoop() != NX_OK) {
        std::this_thread::yield();
    }
    loop.join();
}

// The others that post rely on the wake-up.
TYPED_TEST(ReactorFaults, CancelledThreadIsNotTornFromItsWakeUp) {
    bool hasReturned = false;
    std::thread poster([&] {
        pthread_cancel(pthread_self());
        this->m_reactor.PostEvent(new CountedEvent(this->m_counts));
        hasReturned = true;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    poster.join();
    EXPECT_TRUE(hasReturned);
}

TYPED_TEST(ReactorFaults, NotificationsAreNotRefusedForWantOfRoom) {
    constexpr int count = 10000;
    End end;
    this->Watch(end, NX_MASK_READ);
    const FailingCalls calls;
    const auto notify = [&] {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(this->m_reactor.NotifyHandler(&end, NX_MASK_READ), NX_OK);
        }
    };
    notify();
    EXPECT_EQ(calls.Count(FailingCalls::SEND), 0);
    std::thread(notify).join();
    Timer stop([&] { end.m_inputs == 2 * count ? this->Stop() : 0; });
    EXPECT_EQ(this->m_reactor.ScheduleTimer(&stop, nullptr, CNxTimeValue(0, 1000), 0), NX_OK);
    this->Run();
    EXPECT_EQ(end.m_inputs, 2 * count);
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

void OpenPair(int domain, int (&fds)[2]) {
    if (domain == AF_UNIX) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        return;
    }
    sockaddr_in address;
    const int listener = OpenLoopback(SOCK_STREAM, address);
    EXPECT_EQ(listen(listener, 1), 0);
    fds[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(Connect(fds[1], address), 0);
    fds[0] = accept(listener, nullptr, nullptr);
    close(listener);
}

// A local peer ends with a close, one over the network with a reset.
TYPED_TEST(ReactorFaults, WhatArrivedBeforeAPeersEndIsDeliveredBeforeTheClose) {
    const struct {
        int m_domain;
        size_t m_chunk;
        bool m_isEarly;  // ended before the registration
    } rows[] = {{AF_INET, 20000, false}, {AF_INET, 10000, false}, {AF_INET, 1000, false},
                {AF_INET, 1000, true},   {AF_UNIX, 1000, false},  {AF_UNIX, 1000, true}};
    for (const auto& row : rows) {
        std::vector<char> data(20000, 'x');
        int fds[2];
        OpenPair(row.m_domain, fds);
        Handler handler(fds[0]);
        ssize_t sum = 0;
        // Reads one chunk and, like one that shares the loop, asks to be called again for the rest.
        handler.m_onInput = [&] {
            const ssize_t got = recv(fds[0], data.data(), row.m_chunk, MSG_DONTWAIT);
            const bool isEmpty = got == -1 && errno == EAGAIN;
            if (got > 0) {
                sum += got;
                EXPECT_EQ(this->m_reactor.NotifyHandler(&handler, NX_MASK_READ), NX_OK);
            }
            return got > 0 || isEmpty ? 0 : -1;
        };
        handler.m_onClose = [&] { return this->Stop(); };
        row.m_isEarly ? void() : this->Watch(handler, c_readWrite);
        EXPECT_EQ(send(fds[1], data.data(), 10000, MSG_NOSIGNAL), 10000);
        const linger none{1, 0};
        setsockopt(fds[1], SOL_SOCKET, SO_LINGER, &none, sizeof(none));
        close(fds[1]);
        row.m_isEarly ? this->Watch(handler, c_readWrite) : void();
        this->Run();
        EXPECT_EQ(sum, 10000);
        EXPECT_EQ(handler.m_closedWith, std::vector<long>{c_readWrite});
        this->Reopen();
        close(fds[0]);
    }
}

// The peer reads nothing, a little or nearly enough before the registration and the rest after it.
TYPED_TEST(ReactorFaults, RoomIsToldWhenTheSendThatFailedCameBeforeTheRegistration) {
    char block[4096] = {};
    for (const int early : {0, 1, 2}) {
        End writer;
        writer.m_onOutput = [&] { return this->Stop(); };
        int blocks = 0;
        while (send(writer.m_fd, block, sizeof(block), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
            ++blocks;
        }
        const auto readUntil = [&](int left) {
            for (; blocks > left; --blocks) {
                EXPECT_GT(recv(writer.Peer(), block, sizeof(block), MSG_DONTWAIT), 0);
            }
        };
        readUntil(blocks - blocks * early / 4);
        this->Watch(writer, NX_MASK_WRITE);
        Timer rest([&] { readUntil(0); });
        Timer giveUp([&] { this->Stop(); });
        EXPECT_EQ(this->m_reactor.ScheduleTimer(&rest, nullptr, CNxTimeValue(0, 20000), 1), NX_OK);
        EXPECT_EQ(this->m_reactor.ScheduleTimer(&giveUp, nullptr, CNxTimeValue(0, 500000), 1),
                  NX_OK);
        this->Run();
        EXPECT_GT(writer.m_outputs, 0) << early;
        this->Reopen();
    }
}

TYPED_TEST(ReactorFaults, NumberThatWasClosedWithoutARemovalIsWatchedForItsNextHandler) {
    auto stale = std::make_unique<End>();
    this->Watch(*stale, NX_MASK_READ);
    const int number = stale->m_fd;
    stale.reset();
    End next([&](End& self) {
        this->StopSoon();
        return self.Drain() == 1 ? 0 : -1;
    });
    ASSERT_EQ(next.m_fd, number);
    EXPECT_EQ(this->m_reactor.RegisterHandler(&next, NX_MASK_READ), NX_ERROR_FOUND);
    next.Send();
    this->Run();
    EXPECT_EQ(next.m_inputs, 1);
}

using ReactorEpoll = OpenReactor<CNxReactorEpoll>;

TEST_F(ReactorEpoll, FailedReRegistrationIsReturnedAndKeepsTheWatch) {
    FailingCalls calls;
    End end([&](End& self) {
        EXPECT_EQ(self.Drain(), 1);
        // One call for a changed mask.
        const int before = calls.Count(FailingCalls::EPOLL_CTL);
        EXPECT_EQ(m_reactor.RegisterHandler(&self, c_readWrite), NX_ERROR_FOUND);
        EXPECT_EQ(calls.Count(FailingCalls::EPOLL_CTL), before + 1);
        return 0;
    });
    end.m_onOutput = [&] { return Stop(); };
    Watch(end, NX_MASK_READ);
    calls.Fail(FailingCalls::EPOLL_CTL, ENOMEM, 2);
    EXPECT_EQ(m_reactor.RegisterHandler(&end, c_readWrite), NX_ERROR_FAILURE);
    calls.Fail(FailingCalls::EPOLL_CTL, ENOMEM, 0);
    end.Send();
    Run();
    EXPECT_EQ(end.m_inputs, 1);
    EXPECT_EQ(end.m_outputs, 1);
    // No writer is asked for its error at every event.
    EXPECT_EQ(calls.Count(FailingCalls::GETSOCKOPT), 0);
}

TEST_F(ReactorEpoll, SaysWhetherAShortReadMayHaveHiddenTheEnd) {
    std::string record;
    End end([&](End& self) {
        char bytes[8];
        const ssize_t got = recv(self.m_fd, bytes, sizeof(bytes), 0);
        record += (m_reactor.MayHaveEnded() ? " end? " : " ") + std::to_string(got);
        if (self.m_inputs == 1) {
            EXPECT_EQ(m_reactor.NotifyHandler(&self, NX_MASK_READ), NX_OK);
        } else if (self.m_inputs == 2) {
            self.Send();
            shutdown(self.Peer(), SHUT_WR);
        }
        return self.m_inputs < 3 ? 0 : Stop();
    });
    Watch(end, NX_MASK_READ);
    end.Send();
    Run();
    EXPECT_EQ(record, " 1 end? -1 end? 1");
}

// Also to a handler that does not read.
TEST_F(ReactorEpoll, ErrorOfADatagramSocketIsTheReasonOfItsClose) {
    sockaddr_in address;
    sockaddr_in peerAddress;
    Handler handler(OpenLoopback(SOCK_DGRAM, address));
    const int peer = OpenLoopback(SOCK_DGRAM, peerAddress);
    ASSERT_EQ(Connect(handler.m_fd, peerAddress), 0);
    ASSERT_EQ(Connect(peer, address), 0);
    ASSERT_EQ(send(peer, "x", 1, 0), 1);
    close(peer);
    ASSERT_EQ(send(handler.m_fd, "x", 1, 0), 1);
    StopSoon();
    EXPECT_EQ(RunUntilClosed(handler, c_readWrite), ECONNREFUSED);
    close(handler.m_fd);
}

TYPED_TEST(ReactorFaults, FailedConnectTellsWhy) {
    sockaddr_in address;
    const int closed = OpenLoopback(SOCK_STREAM, address);
    Handler handler(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    handler.m_onInput = handler.m_onOutput = [] { return -1; };
    EXPECT_EQ(Connect(handler.m_fd, address), -1);
    EXPECT_EQ(this->RunUntilClosed(handler, NX_MASK_CONNECT), ECONNREFUSED);
    EXPECT_EQ(this->m_reactor.GetCloseReason(), 0);
    close(handler.m_fd);
    close(closed);
}

// In a child, so that the limits of the tests stay, and without the right to raise the hard one.
void ExitWithLimits(rlim_t hard, int wanted, rlim_t softAfter) {
    rlimit limit{1024, hard};
    int actual = 0;
    const bool ok = setrlimit(RLIMIT_NOFILE, &limit) == 0 && seteuid(65534) == 0 &&
                    CNxEventHandlerRepository::SetRlimit(RLIMIT_NOFILE, wanted, actual) == NX_OK &&
                    getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur == softAfter &&
                    limit.rlim_max == hard && actual == static_cast<int>(softAfter);
    _exit(ok ? 0 : 1);
}

TEST(ReactorLimits, HardLimitOfDescriptorsIsNeverLowered) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (geteuid() != 0 || limit.rlim_max < 10000) {
        GTEST_SKIP() << "may not change the limits as it wants";
    }
    const auto exited = testing::ExitedWithCode(0);
    EXPECT_EXIT(ExitWithLimits(10000, 8192, 8192), exited, "");
    EXPECT_EXIT(ExitWithLimits(3000, 8192, 3000), exited, "");
}

// A process may be started without its standard streams: what it prints must not go into a pipe of
// the library.
template <class Reactor>
void ExitWithoutStandardStreams() {
    close_range(STDIN_FILENO, STDERR_FILENO, 0);
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

// Each allocation of Open and of a registration fails once.
TYPED_TEST(ReactorFaults, WantOfMemoryIsAnAnswer) {
    auto& reactor = this->m_reactor;
    End end;
    end.Send();
    NxResult result = NX_ERROR_FAILURE;
    for (int skipped = 0; result != NX_OK; ++skipped) {
        reactor.Close();
        const FailingNew memory(skipped, FailingNew::ONCE);
        result = reactor.Open();
        if (result == NX_OK) {
            result = reactor.RegisterHandler(&end, c_readWrite);
        }
        EXPECT_EQ(result, FailingNew::CountFailed() == 0 ? NX_OK : NX_ERROR_FAILURE) << skipped;
    }
    this->StopSoon();
    this->Run();
    EXPECT_EQ(end.m_inputs, 1);
}

// What a child does with the copies that it has must not be seen by its parent.
TYPED_TEST(ReactorFaults, ForkedChildTakesNothingFromItsParent) {
    auto& reactor = this->m_reactor;
    End end([&](End& self) {
        EXPECT_EQ(self.Drain(), 1);
        this->StopSoon();
        return 0;
    });
    End stays;
    this->Watch(end, NX_MASK_READ);
    this->Watch(stays, NX_MASK_READ);
    const pid_t child = fork();
    if (child == 0) {
        reactor.RemoveHandler(&end, NX_MASK_ALL_EVENTS);
        End other;
        const bool refused = reactor.RegisterHandler(&other, NX_MASK_READ) != NX_OK &&
                             reactor.NotifyHandler(&stays, NX_MASK_READ) != NX_OK &&
                             reactor.RunEventLoop() != NX_OK;
        reactor.StopEventLoop();
        this->StopSoon();
        reactor.Close();
        std::destroy_at(&reactor);
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    stays.Send();
    end.Send();
    this->Run();
    EXPECT_EQ(end.m_inputs, 1);
    EXPECT_EQ(stays.m_inputs, 1);
}

// Also when a reactor opens on its own thread, and when what is closed after it fails as well.
TEST(ReactorErrno, IsThatOfTheCallThatFailed) {
    const std::pair<FailingCalls::ECall, int> failures[] = {{FailingCalls::EPOLL_CREATE, EMFILE},
                                                            {FailingCalls::EVENTFD, ENFILE},
                                                            {FailingCalls::EPOLL_CTL, ENOSPC},
                                                            {FailingCalls::MMAP, EAGAIN},
                                                            {FailingCalls::PTHREAD_CREATE, EPERM}};
    for (const auto& [call, error] : failures) {
        FailingCalls calls;
        calls.Fail(call, error, 1);
        calls.Fail(FailingCalls::CLOSE, EIO, 100);
        CNxThread* thread = nullptr;
        CNxThreadManager* const threads = CNxThreadManager::Instance();
        EXPECT_NE(threads->CreateNetworkThread(2, new CNxReactorEpoll, thread), NX_OK);
        EXPECT_EQ(errno, error);
        CNxReactorEpoll reactor;
        calls.Fail(call, error, 1);
        errno = error;  // for the last one
        EXPECT_EQ(reactor.Open() == NX_OK, call == FailingCalls::PTHREAD_CREATE);
        EXPECT_EQ(errno, error);
        reactor.Close();
    }
}

}  // namespace
