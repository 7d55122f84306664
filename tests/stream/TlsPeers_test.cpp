// Connections with TLS whose peers do what no library does by itself.
#include <nx/foundation/CNoSigPipe.h>
#include <nx/reactor/CNxReactorEpoll.h>

#include "StreamSupport.h"
#include "TlsPair.h"

namespace {

constexpr int c_version = TLS1_3_VERSION;

CNxTlsOptions NotVerifying() {
    CNxTlsOptions options;
    options.verifyPeer = false;
    return options;
}

// Whose tickets take several records.
std::shared_ptr<CTlsSetup> MakeServerOfLongTickets() {
    auto server = MakeTlsSetup(true, c_version, MakeTlsOptions("server"));
    SSL_CTX_set_max_send_fragment(server->GetContext(), 512);
    const auto lengthen = +[](SSL* ssl, void* /*unused*/) {
        const std::string data(2000, 't');
        return SSL_SESSION_set1_ticket_appdata(SSL_get_session(ssl), data.data(), data.size());
    };
    SSL_CTX_set_session_ticket_cb(server->GetContext(), lengthen, nullptr, nullptr);
    return server;
}

// A connection on a loop, the peer being a blocking socket.
class TlsPeers : public testing::Test {
protected:
    void Connect(CNxConnectionOptions options, bool isServer) {
        std::string error;
        ASSERT_EQ(isServer
                      ? CNxTlsContext::CreateServer(options.tls, MakeTlsOptions("server"), error)
                      : CNxTlsContext::CreateClient(options.tls, NotVerifying(), error),
                  NX_OK)
            << error;
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        m_peer.SetHandle(ends[1]);
        m_loop.Run([&] {
            CNxConnectedSocket socket;
            socket.socket.SetHandle(ends[0]);
            Must(CNxConnection::Create(m_connection, m_loop.GetReactor(), std::move(socket), m_sink,
                                       std::make_shared<const CNxConnectionOptions>(options)));
        });
    }
    void WaitUntilClosed(ENxClosed kind) {
        m_loop.WaitUntil([&] { return m_sink.m_isClosed; });
        EXPECT_EQ(m_sink.m_reason.kind, kind) << m_sink.m_reason.text;
    }
    void SendTo(CNxMessageChain bytes) {
        const std::string text = bytes.ToString();
        ASSERT_EQ(send(m_peer.GetHandle(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    void ReceiveBy(TlsSide& side) {
        char bytes[16384];
        const ssize_t got = recv(m_peer.GetHandle(), bytes, sizeof(bytes), 0);
        ASSERT_GT(got, 0);
        CNxMessageChain sealed(std::string_view(bytes, static_cast<size_t>(got)));
        side.state = side.filter->Open(std::move(sealed), side.received, side.toSocket);
    }

    LoopThread<CNxReactorEpoll> m_loop;
    CNxSocketBase m_peer;
    Sink m_sink;
    CNxAutoPtr<CNxConnection> m_connection;
};

// OpenSSL takes nothing to be sent while a message of its own has come in part.
TEST_F(TlsPeers, ATicketThatHasBegunHoldsBackWhatIsSent) {
    const auto setup = MakeServerOfLongTickets();
    auto filter = std::make_unique<CTlsFilter>(setup, "");
    ASSERT_TRUE(filter->Init());
    TlsSide server;
    server.filter = std::move(filter);
    server.state = server.filter->Start(server.toSocket);
    Connect({}, false);
    while (server.state == CStreamFilter::EState::HANDSHAKING) {
        ReceiveBy(server);
        if (server.state == CStreamFilter::EState::HANDSHAKING) {
            SendTo(std::move(server.toSocket));
        }
    }
    ASSERT_GT(server.toSocket.GetSize(), 2000U);
    const std::uint64_t before = m_connection->GetBytesReceived();
    SendTo(server.toSocket.Split(600));
    m_loop.WaitUntil([&] { return m_connection->GetBytesReceived() == before + 600; });
    m_loop.Run([&] {
        EXPECT_EQ(m_connection->Send("hello"), NX_OK);
        m_connection->CloseWhenSent();
    });
    m_loop.WaitUntil([&] { return m_connection->GetState() == CNxConnection::EState::ENDING; });
    EXPECT_EQ(m_connection->GetUnsent(), 5U);
    SendTo(std::move(server.toSocket));
    while (server.state != CStreamFilter::EState::ENDED) {
        ReceiveBy(server);
    }
    EXPECT_EQ(server.TakeReceived(), "hello");
    m_peer.Close();
    WaitUntilClosed(ENxClosed::BY_US);
}

// Each update of the keys that a peer asks for is answered: the answers are bounded as well.
TEST_F(TlsPeers, WhoAsksForUpdatesAndReadsNothingIsDropped) {
    CNxConnectionOptions options;
    options.maxUnsent = 10000;
    Connect(options, true);
    const auto setup = MakeTlsSetup(false, c_version, NotVerifying());
    const CSslPtr ssl(SSL_new(setup->GetContext()));
    SSL_set_fd(ssl.get(), m_peer.GetHandle());
    ASSERT_EQ(SSL_connect(ssl.get()), 1);
    const CNoSigPipe noSigPipe;
    while (SSL_key_update(ssl.get(), SSL_KEY_UPDATE_REQUESTED) == 1 &&
           SSL_do_handshake(ssl.get()) == 1) {
    }
    WaitUntilClosed(ENxClosed::LIMIT);
}

}  // namespace
