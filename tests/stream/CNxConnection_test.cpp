#include <fcntl.h>
#include <nx/stream/CNxConnection.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>
#include <tests/support/SimulatedClock.h>
#include <tests/support/TempFolder.h>

#include <cerrno>

#include "StreamSupport.h"

namespace {

using Options = CNxConnectionOptions;

// What does not depend on the reactor; the model has them all.
using ConnectionEnds = ConnectionTest<CNxReactorEpoll>;

TEST_F(ConnectionEnds, EndsByTheTimeOutThatIsOver) {
    const struct {
        CNxTimeValue Options::*timeout;
        ENxClosed kind;
        std::string text;
    } rows[] = {{&Options::idleTimeout, ENxClosed::IDLE, "nothing came or went for 0.03 s"},
                {&Options::stallTimeout, ENxClosed::STALLED, "the peer took nothing for 0.03 s"},
                {&Options::lingerTimeout, ENxClosed::LINGERING,
                 "the peer did not end its side within 0.03 s"}};
    for (const auto& row : rows) {
        Sink sink;
        Options options;
        options.*row.timeout = {0, 30000};
        sink.m_onOpen = [&](CNxConnection& connection) {
            if (row.kind == ENxClosed::STALLED) {
                connection.Send(std::string(8 << 20, 'x'));
            } else if (row.kind == ENxClosed::LINGERING) {
                connection.CloseWhenSent();
            }
        };
        Connect(sink, options);
        if (row.kind == ENxClosed::LINGERING) {
            EXPECT_EQ(ReceiveFromIt(1), "");
        }
        WaitUntilClosed(sink, row.kind);
        EXPECT_EQ(sink.m_reason.text, row.text);
    }
}

TEST_F(ConnectionEnds, AClockThatIsSetBackHoldsUpNoneThatComesAfterIt) {
    Sink before;
    Sink after;
    Options options;
    options.idleTimeout = {0, 30000};
    {
        SimulatedClock future;
        future.Advance(4000000000000000);
        Connect(before, options);
        m_loop.WaitUntil([&] { return m_connection->GetState() == CNxConnection::EState::OPEN; });
    }
    const CNxSocketBase peerOfBefore = std::move(m_peer);
    Connect(after, options);
    m_loop.WaitUntil([&] { return before.m_isClosed && after.m_isClosed; });
    EXPECT_EQ(after.m_reason.kind, ENxClosed::IDLE);
}

TEST_F(ConnectionEnds, IsDroppedBeyondALimit) {
    Sink sender;
    sender.m_onOpen = [](CNxConnection& connection) {
        EXPECT_EQ(connection.Send("12345"), NX_ERROR_NOT_AVAILABLE);
        EXPECT_EQ(connection.GetState(), CNxConnection::EState::OPEN);
    };
    Options options;
    options.maxUnsent = 4;
    Connect(sender, options);
    WaitUntilClosed(sender, ENxClosed::LIMIT);
    for (const CNxFraming& framing : {CNxFraming(), CNxFraming::Lines(10)}) {
        Sink sink;
        options.framing = framing;
        options.maxUnread = 100;
        sink.m_onReceive = [](CNxConnection&, const CNxMessageChain& received) {
            EXPECT_EQ(received.ToString().substr(0, 5), "short");
        };
        Connect(sink, options);
        SendToIt("short\n" + std::string(150, 'x'));
        WaitUntilClosed(sink, ENxClosed::LIMIT);
        EXPECT_EQ(sink.m_calls, 1);
        EXPECT_EQ(m_connection->GetBytesReceived(), 100U);
    }
    Sink answers;
    answers.m_onTooLong = [](CNxConnection& connection) {
        connection.SendFrame("too long");
        connection.CloseWhenSent();
    };
    options.maxUnsent = 0;
    Connect(answers, options);
    SendToIt(std::string(150, 'x'));
    EXPECT_EQ(ReceiveFromIt(100), "too long\n");
    m_peer.Close();
    WaitUntilClosed(answers, ENxClosed::BY_US);
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
        sink.m_onReceive = [&, call](CNxConnection& connection, CNxMessageChain& received) {
            if (call == 2) {
                connection.Send(std::string(8 << 20, 'x'));
            } else if (call == 4) {
                destroy(connection);
            }
            EXPECT_EQ(received.ToString(), "x");
        };
        if (call != 4) {
            Sink::Callback* const calls[] = {&sink.m_onOpen, &sink.m_onEnd, &sink.m_onHighWater,
                                             &sink.m_onClosed};
            *calls[call] = destroy;
        }
        Connect(sink, {}, &owner->holder);
        static_cast<void>(send(m_peer.GetHandle(), "x", 1, MSG_NOSIGNAL));
        if (call % 2 == 1) {
            shutdown(m_peer.GetHandle(), SHUT_WR);
        }
        m_loop.WaitUntil([&] { return owner == nullptr; });
        EXPECT_EQ(m_connection->GetState(), CNxConnection::EState::CLOSED);
    }
}

TEST_F(ConnectionEnds, TheLoopsEndIsToldAndEverythingAfterItIsHarmless) {
    Sink withoutMemory;
    Connect(withoutMemory);
    m_loop.Run([&] {
        const FailingNew failing(0, FailingNew::ONWARDS);
        CNxConnection::CloseAll(m_loop.GetReactor());
    });
    WaitUntilClosed(withoutMemory, ENxClosed::LOOP_ENDED);
    Sink sink;
    Connect(sink);
    m_loop.Stop();
    EXPECT_TRUE(sink.m_isClosed);
    EXPECT_EQ(sink.m_reason.kind, ENxClosed::LOOP_ENDED);
    EXPECT_EQ(m_connection->Send("x"), NX_ERROR_NOT_INITIALIZED);
    m_connection->CloseNow();
    m_connection->CloseWhenSent();
    CNxConnection::CloseAll(m_loop.GetReactor());
    const CNxConnectionHolder holder(m_connection);
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

// One that is sent by the system, and one that is read.
TEST_F(ConnectionEnds, AFileThatIsShorterThanItsRangeEndsTheConnection) {
    const CTempFolder folder;
    const std::string path = folder.Put("file", "last byte");
    for (const size_t size : {20000U, 2U}) {
        Sink sink;
        Connect(sink);
        CNxSocketBase file;
        file.SetHandle(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        m_loop.Run([&] { EXPECT_EQ(m_connection->SendFile(std::move(file), 8, size), NX_OK); });
        WaitUntilClosed(sink, ENxClosed::FAILED);
        EXPECT_EQ(sink.m_reason.error, ENODATA);
    }
}

TEST_F(ConnectionEnds, ATurnIsOneCallAndLackOfBuffersIsWaitedFor) {
    FailingCalls calls;
    calls.Fail(FailingCalls::SEND, ENOBUFS, 1);
    Sink sink;
    sink.m_onOpen = [](CNxConnection& connection) {
        for (const char* part : {"one ", "turn ", "of the loop"}) {
            connection.Send(part);
        }
        connection.CloseWhenSent();
    };
    Connect(sink);
    EXPECT_EQ(ReceiveFromIt(21), "one turn of the loop");
    EXPECT_EQ(calls.Count(FailingCalls::SEND), 2);
    m_peer.Close();
    WaitUntilClosed(sink, ENxClosed::BY_US);
}

TEST_F(ConnectionEnds, OneThatIsFloodedLeavesTurnsToOthers) {
    Options options;
    options.bytesPerTurn = 1000;
    Sink flooded;
    Sink other;
    int callsBefore = -1;
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

// What comes in several turns, each of which has to be posted.
TEST_F(ConnectionEnds, NoMemoryForATurnLosesNone) {
    const std::string bytes(50000, 'x');
    Options options;
    options.bytesPerTurn = 1000;
    for (long n = 0; n < 60; ++n) {
        Sink sink;
        std::atomic<size_t> received{0};
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

// The one that has its turn before it has another thread ask for the end at once.
TEST_F(ConnectionEnds, AnEndThatIsAskedForWhileAnotherIsServedIsNotLost) {
    Sink one;
    Sink other;
    CNxAutoPtr<CNxConnection> first;
    one.m_onHighWater = [&](CNxConnection&) {
        std::thread([&] { m_connection->CloseNow(); }).join();
    };
    Options options;
    options.stallTimeout = {};
    Connect(one, options);
    first = m_connection;
    const CNxSocketBase peerOfFirst = std::move(m_peer);
    Connect(other, options);
    const std::string bytes(8 << 20, 'x');
    m_loop.Run([&] {
        m_connection->Send(bytes);
        std::thread([&] {
            first->Send(bytes);
            m_connection->CloseWhenSent();
        }).join();
    });
    m_loop.WaitUntil([&] { return other.m_isClosed; });
    EXPECT_EQ(other.m_reason.kind, ENxClosed::BY_US);
    m_loop.Run([&] { first->Abandon(); });
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

TEST(Framing, WhatMakesNoFramesSaysSo) {
    CNxMessageChain received("abc");
    CNxMessageChain frame;
    size_t searched = 0;
    for (const CNxFraming& framing :
         {CNxFraming(), CNxFraming::Delimited(""), CNxFraming::Prefixed(3)}) {
        EXPECT_FALSE(framing.HasFrames());
        EXPECT_EQ(framing.Take(received, frame, searched), CNxFraming::EResult::NONE);
        EXPECT_EQ(framing.Append(frame, CNxMessageChain("x")), NX_OK);
    }
    EXPECT_EQ(received.ToString(), "abc");
    EXPECT_EQ(frame.ToString(), "xxx");
    EXPECT_EQ(CNxFraming::Lines(SIZE_MAX).GetMaxSize(), SIZE_MAX);
}

}  // namespace
