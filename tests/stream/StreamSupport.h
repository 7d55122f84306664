// What the tests of connections have in common.
#pragma once

#include <gtest/gtest.h>
#include <nx/event/NxCall.h>
#include <nx/stream/CNxConnection.h>
#include <sys/socket.h>
#include <tests/support/Must.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// A reactor on a thread of its own, which the test reaches by Run.
template <class Reactor>
class LoopThread {
public:
    LoopThread() {
        std::promise<void> opened;
        m_thread = std::thread([&] {
            Must(m_reactor.Open());
            opened.set_value();
            EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
            m_reactor.Close();
        });
        opened.get_future().wait();
    }
    ~LoopThread() { Stop(); }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    void Stop() {
        if (m_thread.joinable()) {
            m_reactor.StopEventLoop();
            m_thread.join();
        }
    }

    // On the loop's thread; returns when it has run.
    void Run(const std::function<void()>& action) {
        ASSERT_EQ(NxSendCall(m_reactor, action), NX_OK);
    }

    // Until it is so, as the loop's thread sees it.
    template <class Condition>
    void WaitUntil(const Condition& condition) {
        bool is = false;
        do {
            Run([&] { is = condition(); });
            std::this_thread::yield();
        } while (!is);
    }

    Reactor& GetReactor() { return m_reactor; }

private:
    Reactor m_reactor;
    std::thread m_thread;
};

// Does what it is told to, and keeps what it was told.
struct Sink : INxConnectionSink {
    void OnOpen(CNxConnection& connection) override { Call(m_onOpen, connection); }
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        EXPECT_FALSE(m_isClosed);
        ++m_calls;
        if (m_onReceive) {
            m_onReceive(connection, received);
        } else {
            m_received += received.ToString();
            received.Clear();
        }
    }
    void OnHighWater(CNxConnection& connection) override { Call(m_onHighWater, connection); }
    void OnLowWater(CNxConnection& connection) override { Call(m_onLowWater, connection); }
    void OnEnd(CNxConnection& connection) override {
        if (m_onEnd) {
            Call(m_onEnd, connection);
        } else {
            INxConnectionSink::OnEnd(connection);
        }
    }
    void OnStop(CNxConnection& connection) override {
        ++m_stops;
        INxConnectionSink::OnStop(connection);
    }
    void OnClosed(CNxConnection& connection, const CNxCloseReason& reason) override {
        EXPECT_FALSE(m_isClosed);
        EXPECT_EQ(connection.GetState(), CNxConnection::EState::CLOSED);
        m_isClosed = true;
        m_reason = reason;
        if (m_onClosed) {
            m_onClosed(connection);
        }
    }

    using Callback = std::function<void(CNxConnection&)>;
    void Call(const Callback& callback, CNxConnection& connection) {
        EXPECT_FALSE(m_isClosed);
        if (callback) {
            callback(connection);
        }
    }

    Callback m_onOpen;
    Callback m_onHighWater;
    Callback m_onLowWater;
    Callback m_onEnd;
    Callback m_onClosed;
    std::function<void(CNxConnection&, CNxMessageChain&)> m_onReceive;

    std::string m_received;
    int m_calls = 0;
    int m_stops = 0;
    bool m_isClosed = false;
    CNxCloseReason m_reason;
};
