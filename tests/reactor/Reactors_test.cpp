// What users of any reactor rely on, proved over each of them, also when a call fails or a peer
// resets.
#include <nx/net/CNxSocket.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <filesystem>
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
    FailingCalls calls;
    std::thread other([&] {
        EXPECT_EQ(this->m_reactor.SendEvent(new CountedEvent(this->m_counts)), NX_OK);
        // Longer than from the event to the wait.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        calls.Fail(FailingCalls::SEND, ENOBUFS, 1000);
        calls.Fail(FailingCalls::SIGQUEUE, EAGAIN, 1000);
        EXPECT_EQ(this->m_reactor.SendEvent(new CountedEvent(this->m_counts)), NX_OK);
        while (this->Stop() != NX_OK) {
            std::this_thread::yield();
        }
    });
    this->Run();
    other.join();
    EXPECT_EQ(this->m_counts.m_fired, 2);
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

// A peer that leaves something unread resets; what is early has come before the registration.
TYPED_TEST(Reactors, WhatArrivedBeforeAPeersEndIsDeliveredBeforeTheClose) {
    char data[20000] = {};
    for (const size_t chunk : {size_t{20000}, size_t{10000}, size_t{1000}}) {
        for (const auto& [resets, isEarly] :
             {std::pair(true, false), {true, true}, {false, false}, {false, true}}) {
            ssize_t sum = 0;
            // Reads one chunk and, like one that shares the loop, asks to be called again.
            End end([&](End& self) {
                const ssize_t got = recv(self.m_fd, data, chunk, MSG_DONTWAIT);
                const bool isEmpty = got == -1 && errno == EAGAIN;
                if (got > 0) {
                    sum += got;
                    EXPECT_EQ(this->m_reactor.NotifyHandler(&self, NX_MASK_READ), NX_OK);
                }
                return got > 0 || isEmpty ? 0 : -1;
            });
            end.m_onClose = [&] { return this->Stop(); };
            isEarly ? void() : this->Watch(end, c_readWrite);
            EXPECT_EQ(resets ? send(end.m_fd, data, 1, MSG_NOSIGNAL) : 1, 1);
            EXPECT_EQ(send(end.Peer(), data, 10000, MSG_NOSIGNAL), 10000);
            end.HangUp();
            isEarly ? this->Watch(end, c_readWrite) : void();
            this->Run();
            EXPECT_EQ(sum, 10000);
            EXPECT_EQ(end.m_closedWith, std::vector<long>{c_readWrite});
            this->Reopen();
        }
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
        CNxTimedCall rest;
        EXPECT_EQ(rest.RunAfter(this->m_reactor, {0, 20000}, [&] { readUntil(0); }), NX_OK);
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

class ReactorEpoll : public OpenReactor<CNxReactorEpoll> {
protected:
    NxResult Dispatch(const Handler& handler) {
        return m_reactor.ProcessHandleEvent(handler.m_fd, c_readWrite, 0, 0, 0);
    }
};

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
    const CNxInetAddr any("127.0.0.1:0");
    const auto size = static_cast<socklen_t>(any.GetSize());
    CNxSocketUdp watched;
    CNxSocketUdp peer;
    CNxInetAddr where;
    CNxInetAddr wherePeer;
    ASSERT_EQ(watched.Open(any) + watched.GetLocalAddr(where), 0);
    ASSERT_EQ(peer.Open(any) + peer.GetLocalAddr(wherePeer), 0);
    ASSERT_EQ(sendto(peer.GetHandle(), "x", 1, 0, where.GetPtr(), size), 1);
    ASSERT_EQ(connect(watched.GetHandle(), wherePeer.GetPtr(), size), 0);
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

TEST_F(ReactorEpoll, CallbackThatChangesTheTableEndsItsOwnDispatch) {
    End end;
    Handler other(end.m_fd);
    const std::function<NxResult()> changes[] = {
        [&] { return m_reactor.RemoveHandler(&end, NX_MASK_ALL_EVENTS); },
        [&] { return m_reactor.RegisterHandler(&other, c_readWrite); },
        // It keeps its place but gives up writing.
        [&] { return m_reactor.RemoveHandler(&end, NX_MASK_WRITE); }};
    for (const auto& change : changes) {
        for (const int answer : {0, -1}) {
            EXPECT_EQ(m_reactor.RegisterHandler(&end, c_readWrite), NX_OK);
            end.m_onInput = [&] {
                EXPECT_EQ(change(), &change == changes ? NX_OK : NX_ERROR_FOUND);
                return answer;
            };
            EXPECT_EQ(Dispatch(end), NX_OK);
            m_reactor.RemoveHandler(&other, NX_MASK_ALL_EVENTS);
        }
    }
    EXPECT_EQ(end.m_outputs + other.m_outputs, 0);
    EXPECT_EQ(end.m_closedWith, std::vector<long>{NX_MASK_READ});
    EXPECT_TRUE(other.m_closedWith.empty());
    // What has been another's since is removed, and the process is told so.
    Watch(end, c_readWrite);
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_reactor.RemoveHandler(&other, NX_MASK_READ), NX_ERROR_FOUND);
    const std::string said = testing::internal::GetCapturedStderr();
#ifdef NXBASE_CHECK_THREADS
    EXPECT_NE(said.find("has descriptor " + std::to_string(end.m_fd) + " now"), said.npos) << said;
#endif
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
    for (const rlim_t hard : {std::min<rlim_t>(limit.rlim_max, 10000), rlim_t{3000}}) {
        EXPECT_EXIT(OpenAndExit<TypeParam>(hard), testing::ExitedWithCode(0), "");
    }
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
        std::deque<End> ends;
        const auto sendAll = [&] {
            std::for_each(ends.begin(), ends.end(), [](const End& end) { end.Send(); });
        };
        int received = 0;
        const auto receive = [&](const End& end) {
            const int got = end.Drain();
            received += got;
            if (got != 0 && received % 100 == 0) {
                received < 2000 ? sendAll() : this->StopSoon();
            }
            return 0;
        };
        for (int i = 0; i < 100; ++i) {
            Watch(ends.emplace_back(receive), NX_MASK_READ);
        }
        sendAll();
        Run();
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
