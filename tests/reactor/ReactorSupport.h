// What the tests of the reactors have in common.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/event/NxCall.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/reactor/CNxReactorSelect.h>
#include <nx/reactor/realtime/CNxReactorRealTimeSignal.h>
#include <nx/timer/CNxTimedCall.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../support/CountedEvent.h"

struct ReactorNames {
    template <class Reactor>
    static std::string GetName(int index) {
        return index == 0 ? "Epoll" : index == 1 ? "Select" : "RealTimeSignal";
    }
};

using AllReactors = ::testing::Types<CNxReactorEpoll, CNxReactorSelect, CNxReactorRealTimeSignal>;

inline constexpr long c_readWrite = NX_MASK_READ | NX_MASK_WRITE;

// Keeps a record of its calls, and does and answers what it is told to.
class Handler : public INxEventHandler {
public:
    using Callback = std::function<int()>;

    explicit Handler(int fd) : m_fd(fd) {}
    int GetHandle() const override { return m_fd; }
    int OnInput(int fd) override {
        EXPECT_EQ(fd, m_fd);
        ++m_inputs;
        return m_onInput ? m_onInput() : 0;
    }
    int OnOutput(int fd) override {
        EXPECT_EQ(fd, m_fd);
        ++m_outputs;
        return m_onOutput ? m_onOutput() : 0;
    }
    int OnClose(int fd, long mask) override {
        EXPECT_EQ(fd, m_fd);
        m_closedWith.push_back(mask);
        return m_onClose ? m_onClose() : 0;
    }

    const int m_fd;
    int m_inputs = 0;
    int m_outputs = 0;
    std::vector<long> m_closedWith;
    Callback m_onInput;
    Callback m_onOutput;
    Callback m_onClose;
};

struct SocketPair {
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_fds), 0); }

    int m_fds[2] = {-1, -1};
};

// One end of a socket pair with its handler; the other end is the peer.
class End : private SocketPair, public Handler {
public:
    explicit End(const std::function<int(End&)>& onInput = nullptr) : Handler(m_fds[0]) {
        if (onInput) {
            m_onInput = [this, onInput] { return onInput(*this); };
        }
    }
    ~End() override {
        close(m_fds[0]);
        HangUp();
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    int Peer() const { return m_fds[1]; }
    void Send() const { EXPECT_EQ(send(m_fds[1], "x", 1, MSG_NOSIGNAL), 1); }
    int Drain() const {
        char buffer[4096];
        const ssize_t got = recv(m_fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        return got > 0 ? static_cast<int>(got) : 0;
    }
    void HangUp() { close(std::exchange(m_fds[1], -1)); }
};

struct Timer : INxTimerHandler {
    explicit Timer(std::function<void()> action) : m_action(std::move(action)) {}
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { m_action(); }

    const std::function<void()> m_action;
};

// With one that is open, of whichever kind.
template <class Reactor>
class OpenReactor : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_reactor.Open(), NX_OK); }
    void TearDown() override { m_reactor.Close(); }

    void Reopen() {
        m_reactor.Close();
        ASSERT_EQ(m_reactor.Open(), NX_OK);
    }

    void Watch(Handler& handler, long mask) {
        ASSERT_EQ(m_reactor.RegisterHandler(&handler, mask), NX_OK);
    }

    int Stop() { return static_cast<int>(m_reactor.StopEventLoop()); }

    // Makes the loop end; what is posted or ready by then is still served.
    void StopSoon() {
        const auto stop = [this] { return m_reactor.StopEventLoop(); };
        m_reactor.PostEvent(new CountedEvent(m_counts, stop));
    }

    void Run() {
        // Nothing would end it without what a Watch has failed for.
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    }

    EventCounts m_counts;
    Reactor m_reactor;
};
