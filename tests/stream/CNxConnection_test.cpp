#include <fcntl.h>
#include <nx/stream/CNxConnection.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>

#include <cerrno>
#include <cstdlib>

#include "StreamSupport.h"

namespace {

using Options = CNxConnectionOptions;

template <class Reactor>
class ConnectionTest : public ::testing::Test {
protected:
    // A connection with the sink, the peer being a blocking socket.
    void Connect(Sink& sink, const Options& options = {}, CNxConnectionHolder* holder = nullptr) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        m_peer.Close();
        m_peer.SetHandle(ends[1]);
        const timeval limit{20, 0};
        setsockopt(ends[1], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        m_loop.Run([&] {
            CNxConnectedSocket socket;
            socket.socket.SetHandle(ends[0]);
            const auto shared = std::make_shared<const Options>(options);
            ASSERT_EQ(CNxConnection::Create(m_connection, m_loop.GetReactor(), std::move(socket),
                                            sink, shared),
                      NX_OK);
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
    std::string ReceiveFromIt(size_t size) {
        std::string bytes(size, '\0');
        const ssize_t got = recv(m_peer.GetHandle(), bytes.data(), size, MSG_WAITALL);
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
TYPED_TEST_SUITE(ConnectionTest, AllReactors, ReactorNames);

TYPED_TEST(ConnectionTest, EchoesUntilThePeerEnds) {
    Sink sink;
    sink.m_onReceive = [](CNxConnection& connection, CNxMessageChain& received) {
        EXPECT_EQ(connection.Send(std::move(received)), NX_OK);
    };
    this->Connect(sink);
    for (const size_t size : {1UL, 64UL, 5000UL, 100000UL}) {
        const std::string bytes(size, static_cast<char>('a' + size % 26));
        this->SendToIt(bytes);
        EXPECT_EQ(this->ReceiveFromIt(size), bytes);
    }
    shutdown(this->m_peer.GetHandle(), SHUT_WR);
    EXPECT_EQ(this->ReceiveFromIt(1), "");
    this->WaitUntilClosed(sink, ENxClosed::BY_PEER);
    EXPECT_EQ(this->m_connection->GetBytesReceived(), 105065U);
    EXPECT_EQ(this->m_connection->GetBytesSent(), 105065U);
}

// What does not depend on the reactor.
using ConnectionEnds = ConnectionTest<CNxReactorEpoll>;

const CNxTimeValue c_soon{0, 30000};

Options WithTls(Options options = {}) {
    std::string error;
    Must(CNxTlsContext::CreateClient(options.tls, {}, error));
    return options;
}

TYPED_TEST(ConnectionTest, EndsByTheTimeOutThatIsOver) {
    const std::string large(8 << 20, 'x');
    const auto connect = [this](Sink& sink, auto change) {
        Options options;
        change(options);
        this->Connect(sink, options);
    };
    Sink idle;
    connect(idle, [](Options& options) { options.idleTimeout = c_soon; });
    this->WaitUntilClosed(idle, ENxClosed::IDLE);
    EXPECT_EQ(idle.m_reason.text, "nothing came or went for 0.03 s");
    Sink stalled;
    stalled.m_onOpen = [&](CNxConnection& connection) { connection.Send(large); };
    connect(stalled, [](Options& options) { options.stallTimeout = c_soon; });
    this->WaitUntilClosed(stalled, ENxClosed::STALLED);
    Sink lingering;
    lingering.m_onOpen = [](CNxConnection& connection) { connection.CloseWhenSent(); };
    connect(lingering, [](Options& options) { options.lingerTimeout = c_soon; });
    EXPECT_EQ(this->ReceiveFromIt(1), "");
    this->WaitUntilClosed(lingering, ENxClosed::LINGERING);
    Sink silent;
    connect(silent, [](Options& options) {
        options = WithTls();
        options.handshakeTimeout = c_soon;
    });
    this->WaitUntilClosed(silent, ENxClosed::HANDSHAKE);
}

TYPED_TEST(ConnectionTest, IsDroppedBeyondALimit) {
    Sink unsent;
    NxResult sent = NX_OK;
    unsent.m_onOpen = [&](CNxConnection& connection) {
        sent = connection.Send("12345");
        EXPECT_EQ(connection.GetState(), CNxConnection::EState::OPEN);
    };
    Options options;
    options.maxUnsent = 4;
    this->Connect(unsent, options);
    this->WaitUntilClosed(unsent, ENxClosed::LIMIT);
    EXPECT_EQ(sent, NX_ERROR_NOT_AVAILABLE);

    Sink takesNone;
    takesNone.m_onReceive = [](CNxConnection&, CNxMessageChain&) {};
    options.maxUnread = 100;
    this->Connect(takesNone, options);
    this->SendToIt(std::string(150, 'x'));
    this->WaitUntilClosed(takesNone, ENxClosed::LIMIT);
    EXPECT_EQ(this->m_connection->GetBytesReceived(), 100U);

    Sink lines;
    options.framing = CNxFraming::Lines(10);
    this->Connect(lines, options);
    this->SendToIt("short\n" + std::string(150, 'x'));
    this->WaitUntilClosed(lines, ENxClosed::LIMIT);
    EXPECT_EQ(lines.m_received, "short");
}

TYPED_TEST(ConnectionTest, NoFrameComesWhilePausedOrAfterTheEnd) {
    Sink sink;
    const auto take = [&](CNxConnection& connection, CNxMessageChain& frame) {
        sink.m_received += frame.ToString();
        if (sink.m_received == "ab") {
            connection.PauseReading();
        } else if (sink.m_received == "abc") {
            connection.CloseNow();
            EXPECT_FALSE(sink.m_isClosed);
        }
    };
    sink.m_onReceive = take;
    Options options;
    options.framing = CNxFraming::Lines();
    this->Connect(sink, options);
    this->SendToIt("a\nb\r\nc\nd\n");
    this->m_loop.WaitUntil([&] { return sink.m_received.size() == 2; });
    this->m_loop.Run([&] { this->m_connection->ResumeReading(); });
    this->WaitUntilClosed(sink, ENxClosed::BY_US);
    EXPECT_EQ(sink.m_received, "abc");
}

// Each of them is destroyed, with its connection's holder, in another of its calls.
TEST_F(ConnectionEnds, TheHolderMayGoInAnyCall) {
    struct Owner {
        Sink sink;
        CNxConnectionHolder holder;
    };
    for (int call = 0; call < 5; ++call) {
        auto* owner = new Owner;
        const auto destroy = [&owner](CNxConnection&) { delete std::exchange(owner, nullptr); };
        Sink& sink = owner->sink;
        (call == 0   ? sink.m_onOpen
         : call == 1 ? sink.m_onEnd
         : call == 2 ? sink.m_onHighWater
                     : sink.m_onClosed) = destroy;
        sink.m_onReceive = [&](CNxConnection& connection, CNxMessageChain& received) {
            if (call == 4) {
                destroy(connection);
                EXPECT_EQ(received.ToString(), "x");
            } else if (call == 2) {
                connection.Send(std::string(8 << 20, 'x'));
            }
        };
        Connect(sink, {}, &owner->holder);
        static_cast<void>(send(m_peer.GetHandle(), "x", 1, MSG_NOSIGNAL));
        if (call % 2 == 1) {
            shutdown(m_peer.GetHandle(), SHUT_WR);
        }
        m_loop.WaitUntil([&] { return owner == nullptr; });
        EXPECT_EQ(m_connection->GetState(), CNxConnection::EState::CLOSED);
    }
}

TEST_F(ConnectionEnds, TheLoopsEndIsToldOnceAndEverythingAfterItIsHarmless) {
    Sink sink;
    Connect(sink);
    const CNxAutoPtr<CNxConnection> first(m_connection);
    Sink stopped;
    Connect(stopped);
    m_loop.Run([&] { CNxConnection::StopAll(m_loop.GetReactor()); });
    EXPECT_EQ(ReceiveFromIt(1), "");
    m_peer.Close();
    WaitUntilClosed(stopped, ENxClosed::BY_US);
    EXPECT_EQ(stopped.m_stops, 1);
    Sink last;
    Connect(last);
    m_loop.Stop();
    EXPECT_TRUE(last.m_isClosed);
    EXPECT_EQ(last.m_reason.kind, ENxClosed::LOOP_ENDED);
    EXPECT_EQ(m_connection->Send("x"), NX_ERROR_NOT_INITIALIZED);
    m_connection->CloseNow();
    m_connection->CloseWhenSent();
    CNxConnection::CloseAll(m_loop.GetReactor());
    const CNxConnectionHolder holder(m_connection);
}

TEST_F(ConnectionEnds, AFilterIsEndedInItsOwnWayOrTheReasonIsTls) {
    // The wire's view: hello is 81, the end mark 82, an alert 83; a letter is XORed with 2A.
    Sink good;
    good.m_onOpen = [](CNxConnection& connection) {
        connection.Send("a");
        connection.Send("b");
        connection.CloseWhenSent();
    };
    Connect(good, WithTls());
    SendToIt("\x81");
    EXPECT_EQ(ReceiveFromIt(5), "\x81KH\x82");
    m_peer.Close();
    WaitUntilClosed(good, ENxClosed::BY_US);
    for (const char* bytes : {"", "\x81", "\x81K\x90"}) {
        Sink sink;
        Connect(sink, WithTls());
        SendToIt(bytes);
        shutdown(m_peer.GetHandle(), SHUT_WR);
        WaitUntilClosed(sink, ENxClosed::TLS);
        EXPECT_EQ(ReceiveFromIt(3), std::string(bytes).size() == 3 ? "\x81\x83" : "\x81");
        EXPECT_EQ(sink.m_reason.text, *bytes == '\0' ? "the peer ended during the TLS handshake"
                                      : std::string(bytes).size() == 3
                                          ? "bad record"
                                          : "the peer ended without close_notify");
    }
}

TEST_F(ConnectionEnds, WhatCameBeforeAResetIsReceived) {
    Sink sink;
    Connect(sink);
    // A unix socket that is closed over unread bytes resets.
    m_loop.Run([&] { m_connection->Send("unread"); });
    m_loop.WaitUntil([&] { return m_connection->GetBytesSent() == 6; });
    SendToIt("last words");
    m_peer.Close();
    WaitUntilClosed(sink, ENxClosed::FAILED);
    EXPECT_EQ(sink.m_received, "last words");
    EXPECT_EQ(sink.m_reason.error, ECONNRESET);
}

TEST_F(ConnectionEnds, RangesOfFilesComeBetweenBytes) {
    const std::string content(100000, 'f');
    char name[] = "/tmp/nx_rangeXXXXXX";
    CNxSocketBase made;
    made.SetHandle(mkstemp(name));
    ASSERT_EQ(write(made.GetHandle(), content.data(), content.size()), 100000);
    const auto open = [&] {
        CNxSocketBase file;
        file.SetHandle(::open(name, O_RDONLY | O_CLOEXEC));
        return file;
    };
    for (const bool isSealed : {false, true}) {
        Sink sink;
        Connect(sink, isSealed ? WithTls() : Options());
        SendToIt(isSealed ? "\x81" : "");
        m_loop.Run([&] {
            m_connection->Send("<");
            EXPECT_EQ(m_connection->SendFile(open(), 1, 99999), NX_OK);
            m_connection->Send("|");
            EXPECT_EQ(m_connection->SendFile(open(), 0, 2), NX_OK);
            m_connection->Send(">");
            EXPECT_EQ(m_connection->SendFile(CNxSocketBase(), 0, 2), NX_ERROR_INVALID_ARG);
        });
        std::string expected = "<" + content.substr(1) + "|ff>";
        std::string got = ReceiveFromIt(expected.size() + (isSealed ? 1 : 0)).substr(isSealed);
        for (char& byte : got) {
            byte = static_cast<char>(byte ^ (isSealed ? 0x2A : 0));
        }
        EXPECT_EQ(got, expected);
        m_loop.Run([&] { m_connection->SendFile(open(), 99999, 20000); });
        WaitUntilClosed(sink, ENxClosed::FAILED);
        EXPECT_EQ(sink.m_reason.error, ENODATA);
    }
    unlink(name);
}

TEST_F(ConnectionEnds, ATurnIsOneCallAndLackOfBuffersIsWaitedFor) {
    Sink sink;
    Connect(sink);
    m_loop.WaitUntil([&] { return m_connection->GetState() == CNxConnection::EState::OPEN; });
    FailingCalls calls;
    calls.Fail(FailingCalls::SEND, ENOBUFS, 1);
    m_loop.Run([&] {
        for (const char* part : {"one ", "turn ", "of the loop"}) {
            m_connection->Send(part);
        }
    });
    EXPECT_EQ(ReceiveFromIt(20), "one turn of the loop");
    EXPECT_EQ(calls.Count(FailingCalls::SEND), 2);
    m_loop.Run([&] { CNxConnection::CloseAll(m_loop.GetReactor()); });
    m_loop.Stop();
}

TEST_F(ConnectionEnds, OneThatIsFloodedLeavesTurnsToOthers) {
    Options options;
    options.bytesPerTurn = 1000;
    Sink flooded;
    Sink other;
    int callsBefore = -1;
    other.m_onOpen = [](CNxConnection& connection) { connection.Send("x"); };
    other.m_onReceive = [&](CNxConnection&, CNxMessageChain&) { callsBefore = flooded.m_calls; };
    Connect(other, options);
    const CNxSocketBase otherPeer = std::move(m_peer);
    flooded.m_onReceive = [&](CNxConnection&, CNxMessageChain& received) {
        received.Clear();
        if (flooded.m_calls == 1) {
            EXPECT_EQ(send(otherPeer.GetHandle(), "y", 1, MSG_NOSIGNAL), 1);
        }
    };
    Connect(flooded, options);
    SendToIt(std::string(100000, 'x'));
    m_loop.WaitUntil([&] { return flooded.m_calls >= 100 && callsBefore >= 0; });
    m_loop.Stop();
    EXPECT_LT(callsBefore, 100);
}

TEST_F(ConnectionEnds, SaysWhyThereIsNone) {
    Sink sink;
    const auto options = std::make_shared<const Options>();
    const auto create = [&](INxReactor& reactor, int fd, const CNxConnection::Options& with) {
        CNxConnectedSocket socket;
        socket.socket.SetHandle(fd);
        return CNxConnection::Create(m_connection, reactor, std::move(socket), sink, with);
    };
    CNxReactorEpoll closed;
    m_loop.Run([&] {
        EXPECT_EQ(create(m_loop.GetReactor(), -1, options), NX_ERROR_INVALID_ARG);
        EXPECT_EQ(create(m_loop.GetReactor(), dup(0), nullptr), NX_ERROR_INVALID_ARG);
        EXPECT_EQ(create(m_loop.GetReactor(), open("/proc/self/exe", O_RDONLY), options),
                  NX_ERROR_FAILURE);
    });
    EXPECT_EQ(create(closed, dup(0), options), NX_ERROR_NOT_INITIALIZED);
    EXPECT_FALSE(m_connection);
}

// For each N the N-th allocation of a conversation fails, on whichever thread.
TEST_F(ConnectionEnds, NoMemoryEndsAConnectionAtMost) {
    int refused = 0;
    int ended = 0;
    for (long n = 0; n < 60; ++n) {
        Sink sink;
        sink.m_onReceive = [](CNxConnection& connection, CNxMessageChain& received) {
            static_cast<void>(connection.SendShared(received));
        };
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const auto options = std::make_shared<const Options>(WithTls());
        NxResult created = NX_OK;
        m_loop.Run([&] {
            CNxConnectedSocket socket;
            socket.socket.SetHandle(ends[0]);
            const FailingNew failing(n / 2, n % 2 == 0 ? FailingNew::ONCE : FailingNew::ONWARDS);
            created = CNxConnection::Create(m_connection, m_loop.GetReactor(), std::move(socket),
                                            sink, options);
        });
        m_peer.SetHandle(ends[1]);
        if (created == NX_OK) {
            const FailingNew failing(n / 2, FailingNew::ONCE);
            static_cast<void>(send(ends[1], "\x81KLM", 4, MSG_NOSIGNAL));
            m_connection->Send(std::string_view("from outside"));
            shutdown(ends[1], SHUT_WR);
        }
        ++(created == NX_OK ? ended : refused);
        m_loop.WaitUntil([&] { return created != NX_OK || sink.m_isClosed; });
        m_peer.Close();
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(ended, 0);
}

// What comes in several turns, each of which has to be posted.
TEST_F(ConnectionEnds, NoMemoryForATurnLosesNone) {
    const std::string bytes(50000, 'x');
    Options options;
    options.bytesPerTurn = 1000;
    for (long n = 0; n < 60; ++n) {
        std::atomic<size_t> received{0};
        Sink sink;
        sink.m_onOpen = [](CNxConnection& connection) { connection.PauseReading(); };
        sink.m_onReceive = [&](CNxConnection& /*connection*/, CNxMessageChain& chain) {
            received += chain.GetSize();
            chain.Clear();
        };
        Connect(sink, options);
        SendToIt(bytes);
        m_loop.WaitUntil([&] { return m_connection->GetState() == CNxConnection::EState::OPEN; });
        m_loop.Run([&] {
            m_connection->ResumeReading();
            failing_new::Fail(n, 1);
        });
        while (received < bytes.size() &&
               m_connection->GetState() != CNxConnection::EState::CLOSED) {
            std::this_thread::yield();
        }
        failing_new::Stop();
        m_loop.Run([&] { m_connection->CloseNow(); });
    }
}

TEST_F(ConnectionEnds, OnClosedComesWithoutMemoryForItsText) {
    Sink sink;
    Connect(sink);
    m_loop.Run([&] {
        const FailingNew failing(0, FailingNew::ONWARDS);
        CNxConnection::CloseAll(m_loop.GetReactor());
    });
    WaitUntilClosed(sink, ENxClosed::LOOP_ENDED);
}

// What another thread has left is dropped with no lock held: who is told may end other connections.
TEST_F(ConnectionEnds, MemoryThatIsReleasedAtTheEndMayEndOthers) {
    Sink one;
    Sink other;
    Connect(one);
    const CNxAutoPtr<CNxConnection> first = m_connection;
    const CNxSocketBase peerOfFirst = std::move(m_peer);
    Connect(other);
    m_loop.Run([&] {
        std::thread([&, this] {
            CNxMessageChain chain;
            const auto end = [](void* ended) { static_cast<CNxConnection*>(ended)->CloseNow(); };
            chain.AppendAdopted("x", 1, end, m_connection.Get());
            EXPECT_EQ(first->Send(std::move(chain)), NX_OK);
        }).join();
        first->CloseNow();
    });
    WaitUntilClosed(other, ENxClosed::BY_US);
    EXPECT_TRUE(one.m_isClosed);
}

}  // namespace
