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
    void OnTooLong(CNxConnection& connection) override { Call(m_onTooLong, connection); }
    void OnHighWater(CNxConnection& connection) override { Call(m_onHighWater, connection); }
    void OnEnd(CNxConnection& connection) override { Call(m_onEnd, connection); }
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
    Callback m_onTooLong;
    Callback m_onHighWater;
    Callback m_onEnd = [this](CNxConnection& connection) { INxConnectionSink::OnEnd(connection); };
    Callback m_onClosed;
    std::function<void(CNxConnection&, CNxMessageChain&)> m_onReceive;

    std::string m_received;
    int m_calls = 0;
    bool m_isClosed = false;
    CNxCloseReason m_reason;
};

// A connection on a loop with the sink, the peer being a blocking socket.
template <class Reactor>
class ConnectionTest : public ::testing::Test {
protected:
    void Connect(Sink& sink, const CNxConnectionOptions& options = {},
                 CNxConnectionHolder* holder = nullptr) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        m_peer.Close();
        m_peer.SetHandle(ends[1]);
        const timeval limit{20, 0};
        setsockopt(ends[1], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        m_loop.Run([&] {
            CNxConnectedSocket socket;
            socket.socket.SetHandle(ends[0]);
            const auto shared = std::make_shared<const CNxConnectionOptions>(options);
            Must(CNxConnection::Create(m_connection, m_loop.GetReactor(), std::move(socket), sink,
                                       shared));
            if (holder != nullptr) {
                holder->Reset(m_connection);
            }
        });
    }
    void SendToIt(std::string_view bytes) {
        ASSERT_EQ(send(m_peer.GetHandle(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // So many bytes, fewer when it ends.
    std::string ReceiveFromIt(size_t size, int flags = MSG_WAITALL) {
        std::string bytes(size, '\0');
        const ssize_t got = recv(m_peer.GetHandle(), bytes.data(), size, flags);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    void WaitUntilClosed(const Sink& sink, ENxClosed kind) {
        m_loop.WaitUntil([&] { return sink.m_isClosed; });
        EXPECT_EQ(sink.m_reason.kind, kind) << sink.m_reason.text;
        EXPECT_EQ(CNxConnection::GetCount(m_loop.GetReactor()), 0U);
    }

    LoopThread<Reactor> m_loop;
    CNxSocketBase m_peer;
    CNxAutoPtr<CNxConnection> m_connection;
};
