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

class TlsPeers : public ConnectionTest<CNxReactorEpoll> {
protected:
    void ReceiveBy(TlsSide& side) {
        const std::string bytes = ReceiveFromIt(16384, 0);
        ASSERT_FALSE(bytes.empty());
        side.state = side.filter->Open(CNxMessageChain(bytes), side.received, side.toSocket);
    }

    Sink m_sink;
};

// OpenSSL takes nothing to be sent while a message of its own has come in part.
TEST_F(TlsPeers, ATicketThatHasBegunHoldsBackWhatIsSent) {
    const auto setup = MakeServerOfLongTickets();
    auto filter = std::make_unique<CTlsFilter>(setup, "");
    ASSERT_TRUE(filter->Init());
    TlsSide server;
    server.filter = std::move(filter);
    server.state = server.filter->Start(server.toSocket);
    CNxConnectionOptions options;
    std::string error;
    Must(CNxTlsContext::CreateClient(options.tls, NotVerifying(), error));
    Connect(m_sink, options);
    while (server.state == CStreamFilter::EState::HANDSHAKING) {
        ReceiveBy(server);
        if (server.state == CStreamFilter::EState::HANDSHAKING) {
            SendToIt(server.TakeToSocket());
        }
    }
    ASSERT_GT(server.toSocket.GetSize(), 2000U);
    const std::uint64_t before = m_connection->GetBytesReceived();
    SendToIt(server.toSocket.Split(600).ToString());
    m_loop.WaitUntil([&] { return m_connection->GetBytesReceived() == before + 600; });
    m_loop.Run([&] {
        EXPECT_EQ(m_connection->Send("hello"), NX_OK);
        m_connection->CloseWhenSent();
    });
    m_loop.WaitUntil([&] { return m_connection->GetState() == CNxConnection::EState::ENDING; });
    EXPECT_EQ(m_connection->GetUnsent(), 5U);
    SendToIt(server.TakeToSocket());
    while (server.state != CStreamFilter::EState::ENDED) {
        ReceiveBy(server);
    }
    EXPECT_EQ(server.TakeReceived(), "hello");
    m_peer.Close();
    WaitUntilClosed(m_sink, ENxClosed::BY_US);
}

// Each update of the keys that a peer asks for is answered: the answers are bounded as well.
TEST_F(TlsPeers, WhoAsksForUpdatesAndReadsNothingIsDropped) {
    CNxConnectionOptions options;
    options.maxUnsent = 10000;
    std::string error;
    Must(CNxTlsContext::CreateServer(options.tls, MakeTlsOptions("server"), error));
    Connect(m_sink, options);
    const auto setup = MakeTlsSetup(false, c_version, NotVerifying());
    const CSslPtr ssl(SSL_new(setup->GetContext()));
    SSL_set_fd(ssl.get(), m_peer.GetHandle());
    ASSERT_EQ(SSL_connect(ssl.get()), 1);
    const CNoSigPipe noSigPipe;
    while (SSL_key_update(ssl.get(), SSL_KEY_UPDATE_REQUESTED) == 1 &&
           SSL_do_handshake(ssl.get()) == 1) {
    }
    WaitUntilClosed(m_sink, ENxClosed::LIMIT);
}

}  // namespace
