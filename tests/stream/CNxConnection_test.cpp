#include <nx/stream/CNxConnection.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/Connection.h>

#include "StreamSupport.h"

namespace {

using Options = CNxConnectionOptions;

template <class Reactor>
class ConnectionTest : public ::testing::Test {
protected:
    // A connection with the sink, the peer being a blocking socket.
    void Connect(Sink& sink, const Options& options = {}) {
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
    for (const size_t size : {1, 64, 5000, 100000}) {
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

}  // namespace
