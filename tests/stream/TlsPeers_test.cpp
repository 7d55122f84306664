// Connections with TLS whose peers do what no library does by itself.
#include <fcntl.h>
#include <nx/foundation/CNoSigPipe.h>
#include <nx/reactor/CNxReactorEpoll.h>

#include "StreamSupport.h"
#include "TlsPair.h"

namespace {

constexpr int c_version = TLS1_3_VERSION;

// Whose tickets take several records.
std::shared_ptr<CTlsSetup> MakeServerOfLongTickets() {
    auto server = MakeServerSetup(c_version);
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
    // The connection is a client, with a new sink.
    void ConnectClient(CNxTimeValue handshakeTimeout = {10, 0}) {
        CNxConnectionOptions options;
        options.handshakeTimeout = handshakeTimeout;
        options.tls = MakeTls(false, MakeTlsOptions("", ""));
        m_sink = {};
        Connect(m_sink, options);
    }
    // Up to its tickets, which are still to be sent.
    void Handshake(const std::shared_ptr<CTlsSetup>& setup) {
        m_server = {};
        m_server.filter = TlsPair::MakeFilter(setup, "");
        m_server.state = m_server.filter->Start(m_server.toSocket);
        while (m_server.state == CStreamFilter::EState::HANDSHAKING) {
            SendToIt(m_server.TakeToSocket());
            Receive();
        }
    }
    void Receive() {
        const std::string bytes = ReceiveFromIt(16384, 0);
        ASSERT_FALSE(bytes.empty());
        m_server.state =
            m_server.filter->Open(CNxMessageChain(bytes), m_server.received, m_server.toSocket);
    }

    Sink m_sink;
    TlsSide m_server;
};

TEST_F(TlsPeers, HowAConnectionWasCutOffIsTold) {
    ConnectClient({0, 30000});
    WaitUntilClosed(m_sink, ENxClosed::HANDSHAKE);
    ConnectClient();
    Handshake(MakeServerSetup(c_version));
    shutdown(m_peer.GetHandle(), SHUT_WR);
    WaitUntilClosed(m_sink, ENxClosed::TLS);
    EXPECT_EQ(m_sink.m_reason.text, "the peer ended without close_notify");
    ConnectClient();
    Handshake(MakeServerSetup(c_version));
    m_server.Send("spoilt");
    std::string bytes = m_server.TakeToSocket();
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    SendToIt(bytes);
    WaitUntilClosed(m_sink, ENxClosed::TLS);
    EXPECT_EQ(m_sink.m_reason.text, "decryption failed or bad record mac");
    Receive();
    EXPECT_NE(m_server.filter->GetError().find("bad record mac"), std::string::npos);
    EXPECT_EQ(m_sink.m_received, "");
}

TEST_F(TlsPeers, AFileThatIsShorterThanItsRangeEndsTheConnection) {
    ConnectClient();
    Handshake(MakeServerSetup(c_version));
    CNxSocketBase file;
    file.SetHandle(open(Certificates().Key("server").c_str(), O_RDONLY | O_CLOEXEC));
    m_loop.Run([&] { EXPECT_EQ(m_connection->SendFile(std::move(file), 1, 20000), NX_OK); });
    WaitUntilClosed(m_sink, ENxClosed::FAILED);
    EXPECT_EQ(m_sink.m_reason.error, ENODATA);
}

// OpenSSL takes nothing to be sent while a message of its own has come in part.
TEST_F(TlsPeers, ATicketThatHasBegunHoldsBackWhatIsSent) {
    ConnectClient();
    Handshake(MakeServerOfLongTickets());
    ASSERT_GT(m_server.toSocket.GetSize(), 2000U);
    const std::uint64_t before = m_connection->GetBytesReceived();
    SendToIt(m_server.toSocket.Split(600).ToString());
    m_loop.WaitUntil([&] { return m_connection->GetBytesReceived() == before + 600; });
    m_loop.Run([&] {
        EXPECT_EQ(m_connection->Send("hello"), NX_OK);
        m_connection->CloseWhenSent();
    });
    m_loop.WaitUntil([&] { return m_connection->GetState() == CNxConnection::EState::ENDING; });
    EXPECT_EQ(m_connection->GetUnsent(), 5U);
    SendToIt(m_server.TakeToSocket());
    while (m_server.state != CStreamFilter::EState::ENDED) {
        Receive();
    }
    EXPECT_EQ(m_server.TakeReceived(), "hello");
    m_peer.Close();
    WaitUntilClosed(m_sink, ENxClosed::BY_US);
}

// Each update of the keys that a peer asks for is answered: the answers are bounded as well.
TEST_F(TlsPeers, WhoAsksForUpdatesAndReadsNothingIsDropped) {
    CNxConnectionOptions options;
    options.maxUnsent = 10000;
    options.tls = MakeTls(true, MakeTlsOptions("server"));
    Connect(m_sink, options);
    const auto setup = MakeTlsSetup(false, c_version, MakeTlsOptions(""));
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
