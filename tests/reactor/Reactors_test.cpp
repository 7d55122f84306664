// What users of any reactor rely on, proved over each of them, also when a call fails or a peer
// resets.
#include <nx/net/CNxSocket.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>

#include "../support/FailingCalls.h"
#include "ReactorSupport.h"

namespace {

template <class Reactor>
class Reactors : public OpenReactor<Reactor> {};
TYPED_TEST_SUITE(Reactors, AllReactors, ReactorNames);

long CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TYPED_TEST(Reactors, ReopeningLeaksNothingAndForgetsOldRegistrations) {
    auto& reactor = this->m_reactor;
    End stale;
    const long before = CountDescriptors();
    for (int round = 0; round < 20; ++round) {
        this->Watch(stale, NX_MASK_READ);
        this->Reopen();
    }
    EXPECT_EQ(CountDescriptors(), before);
    stale.Send();
    this->StopSoon();
    this->Run();
    EXPECT_EQ(stale.m_inputs, 0);
    // The loop has ended: nobody would fire it.
    EXPECT_EQ(reactor.PostEvent(new CountedEvent(this->m_counts)), NX_ERROR_NOT_INITIALIZED);
    EXPECT_TRUE(this->m_counts.AllDestroyed());
    this->Reopen();
    EXPECT_EQ(reactor.Open(), NX_ERROR_ALREADY_INITIALIZED);
    // That has closed it.
    this->Run();
    EXPECT_NE(reactor.NotifyHandler(&stale, NX_MASK_READ), NX_OK);
}

// Two handlers ready in one batch; the first closes the second's descriptor and another handler
// gets its number.
TYPED_TEST(Reactors, ReadinessOfARemovedHandlerIsNotGivenToTheNextOfItsNumber) {
    std::optional<End> ends[2];
    std::optional<End> newcomer;
    const auto replaceOther = [&](End& self) {
        self.Drain();
        std::optional<End>& other = ends[&self == &*ends[0] ? 1 : 0];
        const int number = other->m_fd;
        this->m_reactor.RemoveHandler(&*other, NX_MASK_ALL_EVENTS);
        other.reset();
        EXPECT_EQ(newcomer.emplace().m_fd, number);
        this->Watch(*newcomer, NX_MASK_READ);
        this->StopSoon();
        return 0;
    };
    for (auto& end : ends) {
        end.emplace(replaceOther).Send();
        this->Watch(*end, NX_MASK_READ);
    }
    this->Run();
    EXPECT_EQ(newcomer.value().m_inputs, 0);
}

// Posts, sends, notifications and the stop against the end and the closing of the loop, on the same
// reactor opened again and again.
TYPED_TEST(Reactors, NothingIsLostOrWrittenElsewhereWhileTheReactorClosesAndReopens) {
    auto& reactor = this->m_reactor;
    EventCounts& counts = this->m_counts;
    std::atomic<bool> finished{false};
    const auto use = [&] {
        for (int turn = 1; !finished; ++turn) {
            reactor.PostEvent(new CountedEvent(counts));
            // Has no room, or nobody to wake, from time to time.
            static_cast<void>(reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
            const NxResult result =
                reactor.SendEvent(new CountedEvent(counts, [] { return NX_ERROR_FOUND; }));
            EXPECT_TRUE(result == NX_ERROR_FOUND || result == NX_ERROR_NOT_INITIALIZED ||
                        result == NX_ERROR_NOT_AVAILABLE)
                << result;
            turn % 10 == 0 ? this->Stop() : 0;
            std::this_thread::yield();
        }
    };
    std::thread others[] = {std::thread(use), std::thread(use), std::thread(use)};
    for (int round = 0; round < 100; ++round) {
        this->Run();
        EXPECT_EQ(reactor.Close(), NX_OK);
        // A descriptor that takes the pipe's number must see nothing of the wake-ups.
        End bystander;
        std::this_thread::yield();
        EXPECT_EQ(bystander.Drain(), 0);
        EXPECT_EQ(reactor.Open(), NX_OK);
    }
    reactor.Close();
    finished = true;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_GT(counts.m_fired, 0);
    EXPECT_TRUE(counts.AllDestroyed());
}

// An event that posts its own successor, until a handler has had its turn.
TYPED_TEST(Reactors, FloodOfPostedEventsDoesNotStarveInput) {
    End end;
    std::function<NxResult()> repost = [&] {
        return end.m_inputs > 0
                   ? this->m_reactor.StopEventLoop()
                   : this->m_reactor.PostEvent(new CountedEvent(this->m_counts, repost));
    };
    this->Watch(end, NX_MASK_READ);
    repost();
    end.Send();
    this->Run();
    EXPECT_GT(end.m_inputs, 0);
}

using ReactorSelect = OpenReactor<CNxReactorSelect>;

TEST_F(ReactorSelect, DescriptorThatNoSetHoldsIsRefused) {
    End end;
    CNxSocketBase last;
    CNxSocketBase tooLarge;
    last.SetHandle(fcntl(end.m_fd, F_DUPFD_CLOEXEC, FD_SETSIZE - 1));
    tooLarge.SetHandle(fcntl(end.m_fd, F_DUPFD_CLOEXEC, FD_SETSIZE));
    Handler handler(last.GetHandle());
    Handler refused(tooLarge.GetHandle());
    Watch(handler, NX_MASK_READ);
    EXPECT_EQ(m_reactor.RegisterHandler(&refused, NX_MASK_READ), NX_ERROR_INVALID_ARG);
    StopSoon();
    Run();
}

TYPED_TEST(Reactors, LoopThatSleepsHearsOfEventsWhoseWakeUpWasLost) {
    auto& reactor = this->m_reactor;
    FailingCalls calls;
    const auto failWakeUpsOfSleeper = [&](int count) {
        EXPECT_EQ(reactor.SendEvent(new CountedEvent(this->m_counts)), NX_OK);
        // Longer than from the event to the wait.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        calls.Fail(FailingCalls::SEND, ENOBUFS, count);
        calls.Fail(FailingCalls::SIGQUEUE, EAGAIN, count);
    };
    std::thread other([&] {
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
        while (reactor.StopEventLoop() != NX_OK) {
            std::this_thread::yield();
        }
    });
    this->Run();
    other.join();
    EXPECT_EQ(this->m_counts.m_fired, 6);
}

// The others that post rely on the wake-up.
TYPED_TEST(Reactors, CancelledThreadIsNotTornFromItsWakeUp) {
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

TYPED_TEST(Reactors, NotificationsAreNotRefusedForWantOfRoom) {
    constexpr int count = 10000;
    End end([&](End& self) { return self.m_inputs == 2 * count ? this->Stop() : 0; });
    this->Watch(end, NX_MASK_READ);
    const auto notify = [&] {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(this->m_reactor.NotifyHandler(&end, NX_MASK_READ), NX_OK);
        }
    };
    notify();
    std::thread(notify).join();
    this->Run();
    EXPECT_EQ(end.m_inputs, 2 * count);
}

const CNxInetAddr c_loopback("127.0.0.1:0");

int Connect(int fd, const CNxInetAddr& to) {
    return connect(fd, to.GetPtr(), static_cast<socklen_t>(to.GetSize()));
}

void OpenPair(int domain, int (&fds)[2]) {
    if (domain == AF_UNIX) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        return;
    }
    CNxSocketTcp listener;
    CNxInetAddr address;
    EXPECT_EQ(listener.Open(0, c_loopback) + listener.GetLocalAddr(address), 0);
    EXPECT_EQ(listen(listener.GetHandle(), 1), 0);
    fds[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(Connect(fds[1], address), 0);
    fds[0] = accept(listener.GetHandle(), nullptr, nullptr);
}

// A local peer ends with a close, one over the network with a reset.
TYPED_TEST(Reactors, WhatArrivedBeforeAPeersEndIsDeliveredBeforeTheClose) {
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
TYPED_TEST(Reactors, RoomIsToldWhenTheSendThatFailedCameBeforeTheRegistration) {
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
        EXPECT_EQ(this->m_reactor.ScheduleTimer(&rest, nullptr, CNxTimeValue(0, 20000), 1), NX_OK);
        this->Run();
        EXPECT_GT(writer.m_outputs, 0) << early;
        this->Reopen();
    }
}

TYPED_TEST(Reactors, NumberThatWasClosedWithoutARemovalIsWatchedForItsNextHandler) {
    std::optional<End> stale(std::in_place);
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
        EXPECT_EQ(m_reactor.RegisterHandler(&self, c_readWrite), NX_ERROR_FOUND);
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
}

TEST_F(ReactorEpoll, SaysWhetherAShortReadMayHaveHiddenTheEnd) {
    std::string record;
    End end([&](End& self) {
        record += (m_reactor.MayHaveEnded() ? " end? " : " ") + std::to_string(self.Drain());
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
    EXPECT_EQ(record, " 1 end? 0 end? 1");
}

// Also to a handler that does not read.
TEST_F(ReactorEpoll, ErrorOfADatagramSocketIsTheReasonOfItsClose) {
    CNxSocketUdp watched;
    CNxSocketUdp peer;
    CNxInetAddr where;
    CNxInetAddr wherePeer;
    ASSERT_EQ(watched.Open(c_loopback) + watched.GetLocalAddr(where), 0);
    ASSERT_EQ(peer.Open(c_loopback) + peer.GetLocalAddr(wherePeer), 0);
    ASSERT_EQ(Connect(watched.GetHandle(), wherePeer) + Connect(peer.GetHandle(), where), 0);
    ASSERT_EQ(send(peer.GetHandle(), "x", 1, 0), 1);
    peer.Close();
    ASSERT_EQ(send(watched.GetHandle(), "x", 1, 0), 1);
    int reason = -1;
    Handler handler(watched.GetHandle());
    handler.m_onClose = [&] {
        reason = m_reactor.GetCloseReason();
        return Stop();
    };
    Watch(handler, c_readWrite);
    Run();
    EXPECT_EQ(reason, ECONNREFUSED);
}

// In a child, so that the limits of the tests stay, and without the right to raise the hard one.
template <class Reactor>
void OpenAndExit(rlim_t hard) {
    // What it prints must not go into a pipe of the library.
    close_range(STDIN_FILENO, STDERR_FILENO, 0);
    rlimit limit{1024, hard};
    bool ok = setrlimit(RLIMIT_NOFILE, &limit) == 0 && (geteuid() != 0 || seteuid(65534) == 0);
    Reactor reactor;
    ok = ok && reactor.Open() == NX_OK && getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
         limit.rlim_cur == std::min<rlim_t>(hard, 8192) && limit.rlim_max == hard;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ok = ok && fcntl(fd, F_GETFD) == -1;
    }
    _exit(ok ? 0 : 1);
}

TYPED_TEST(Reactors, OpenLowersNoLimitAndTakesNoStandardStream) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 10000) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    EXPECT_EXIT(OpenAndExit<TypeParam>(10000), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(OpenAndExit<TypeParam>(3000), testing::ExitedWithCode(0), "");
}

// What a child does with the copies that it has must not be seen by its parent.
TYPED_TEST(Reactors, ForkedChildTakesNothingFromItsParent) {
    auto& reactor = this->m_reactor;
    End end([&](End& self) {
        this->StopSoon();
        return self.Drain() == 1 ? 0 : -1;
    });
    this->Watch(end, NX_MASK_READ);
    const pid_t child = fork();
    if (child == 0) {
        End other;
        const bool refused = reactor.RegisterHandler(&other, NX_MASK_READ) != NX_OK &&
                             reactor.NotifyHandler(&end, NX_MASK_READ) != NX_OK &&
                             reactor.RunEventLoop() != NX_OK;
        reactor.RemoveHandler(&end, NX_MASK_ALL_EVENTS);
        reactor.StopEventLoop();
        this->StopSoon();
        reactor.Close();
        std::destroy_at(&reactor);
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    end.Send();
    this->Run();
    EXPECT_EQ(end.m_inputs, 1);
}

// Also when what is closed after it fails as well.
TEST(ReactorErrno, IsThatOfTheCallThatFailed) {
    const std::pair<FailingCalls::ECall, int> failures[] = {{FailingCalls::EPOLL_CREATE, EMFILE},
                                                            {FailingCalls::EPOLL_CTL, ENOSPC},
                                                            {FailingCalls::PTHREAD_CREATE, EPERM}};
    for (const auto& [call, error] : failures) {
        FailingCalls calls;
        calls.Fail(call, error, 1);
        calls.Fail(FailingCalls::CLOSE, EIO, 100);
        CNxThread* thread = nullptr;
        auto* const reactor = new CNxReactorEpoll;
        EXPECT_NE(CNxThreadManager::Instance()->CreateNetworkThread(2, reactor, thread), NX_OK);
        EXPECT_EQ(errno, error);
    }
}

}  // namespace
