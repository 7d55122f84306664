#include <nx/resolve/CNxDnsManager.h>
#include <nx/stream/CListeningSocket.h>
#include <nx/stream/CNxConnector.h>
#include <nx/stream/CNxReactorGroup.h>
#include <nx/thread/CNxThreadManager.h>
#include <tests/resolve/DnsServer.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingNew.h>

#include <deque>

#include "RunUntil.h"
#include "StreamSupport.h"
#include "TlsSupport.h"

namespace {

// Listens, and accepts when a test says so.
class Listener {
public:
    explicit Listener(const std::string& at, int backlog = 16) {
        CNxAcceptorOptions options;
        options.backlog = backlog;
        Must(m_socket.Open(Parse(at), options));
    }

    const CNxEndpoint& Where() const { return m_socket.GetEndpoint(); }
    std::string Text() const { return Where().GetText(); }

    // From here on nobody is answered, until some are accepted.
    void Fill() {
        pollfd last{-1, POLLOUT, 0};
        do {
            CNxSocketBase& one = m_waiting.emplace_back();
            EXPECT_EQ(one.Open(Where().GetFamily(), SOCK_STREAM | SOCK_NONBLOCK, 0, 0), 0);
            last.fd = one.GetHandle();
        } while (connect(last.fd, Where().GetAddress(), Where().GetSize()) == 0 ||
                 (errno == EINPROGRESS && poll(&last, 1, 100) == 1));
    }

    bool Accept(CNxSocketBase& socket) const {
        socket.Close();
        socket.SetHandle(accept4(m_socket.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC));
        return socket.GetHandle() != -1;
    }

private:
    CListeningSocket m_socket;
    std::deque<CNxSocketBase> m_waiting;
};

CNxConnectorOptions Quick(unsigned tries) {
    CNxConnectorOptions options;
    options.tries = tries;
    options.firstDelay = {0, 10000};
    options.maxDelay = {0, 40000};
    return options;
}

template <class Reactor>
class Connectors : public UntilReactor<Reactor> {
protected:
    const std::string m_nobody = Listener("127.0.0.1:0").Text();
    Sink m_sink;
};
TYPED_TEST_SUITE(Connectors, AllReactors, ReactorNames);

TYPED_TEST(Connectors, ConnectAndDoSoAnewWhenThePeerHasGone) {
    CNxConnector connector(this->m_reactor);
    this->m_sink.m_onOpen = [&](CNxConnection& connection) {
        EXPECT_EQ(connector.GetConnection(), &connection);
        connection.Send("hello");
    };
    this->m_sink.m_onClosed = [&](CNxConnection& /*connection*/) {
        this->m_sink.m_isClosed = false;
        EXPECT_EQ(connector.GetConnection(), nullptr);
        EXPECT_EQ(connector.Reconnect(), NX_OK);
    };
    for (const std::string& place : {std::string("127.0.0.1:0"), std::string("unix:")}) {
        this->Reopen();
        const Listener listener(place);
        Must(connector.Connect(listener.Text().c_str(), Quick(1), this->m_sink));
        this->RunUntil([&, peer = CNxSocketBase(), greetings = 0]() mutable {
            char bytes[8];
            if ((peer.GetHandle() != -1 || listener.Accept(peer)) &&
                recv(peer.GetHandle(), bytes, sizeof bytes, MSG_DONTWAIT) == 5) {
                ++greetings;
                peer.Close();
            }
            return greetings == 2;
        });
        connector.Cancel();
    }
}

TYPED_TEST(Connectors, MayBeDestroyedWithinTheirCalls) {
    const Listener listener("127.0.0.1:0");
    std::unique_ptr<CNxConnector> connectors[3];
    int calls = 0;
    const auto destroyIn = [&](size_t index) {
        return [&, index](const auto&...) {
            connectors[index].reset();
            ++calls;
        };
    };
    for (auto& connector : connectors) {
        connector = std::make_unique<CNxConnector>(this->m_reactor);
    }
    CNxConnectorOptions endless = Quick(0);
    endless.onRetry = destroyIn(0);
    this->m_sink.m_onOpen = destroyIn(2);
    Must(connectors[0]->Connect(this->m_nobody.c_str(), endless, this->m_sink));
    Must(connectors[1]->Connect(this->m_nobody.c_str(), Quick(1), this->m_sink, destroyIn(1)));
    Must(connectors[2]->Connect(listener.Text().c_str(), Quick(1), this->m_sink));
    this->RunUntil([&] { return calls == 3; });
    EXPECT_FALSE(this->m_sink.m_isClosed);
}

// Names need a thread that the manager knows.
class ConnectorTries : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Must(CNxThreadManager::Instance()->InitMainThread(0, nullptr)); }

    ConnectorTries() {
        CNxReactorGroupOptions options;
        options.loops = 1;
        Must(m_group.Start(options));
        Must(Dns().SetServers(m_server.GetText()));
        Must(Dns().SetTimeout({0, 20000}, 2));
    }

    static CNxDnsManager& Dns() { return *CNxDnsManager::Instance(); }

    // An errno, -1 when the connection does not open, or 0. That allocation fails in it.
    int Try(const std::string& target, const CNxConnectorOptions& options = Quick(1),
            long failing = -1) {
        std::promise<int> ended;
        bool isTold = false;
        const auto tell = [&](int result) {
            std::exchange(isTold, true) ? void() : ended.set_value(result);
        };
        Sink sink;
        sink.m_onOpen = [&](CNxConnection& connection) {
            m_peer = connection.GetPeerEndpoint().GetHost();
            tell(0);
        };
        sink.m_onClosed = [&](CNxConnection& /*connection*/) { tell(-1); };
        std::unique_ptr<CNxConnector> connector;
        Must(m_group.RunOnEach([&](size_t loop) {
            connector = std::make_unique<CNxConnector>(*m_group.GetReactor(loop));
            failing_new::Fail(failing, failing < 0 ? 0 : 1);
            const auto keep = [&](const CNxCloseReason& reason) {
                m_reason = reason;
                tell(reason.error);
            };
            const NxResult asked = connector->Connect(target.c_str(), options, sink, keep);
            if (asked != NX_OK) {
                tell(asked == NX_ERROR_FAILURE ? ENOMEM : EINVAL);
            }
        }));
        const int result = ended.get_future().get();
        m_failed = failing_new::GetFailed();
        failing_new::Stop();
        Must(m_group.RunOnEach([&](size_t) { connector.reset(); }));
        return result;
    }

    DnsServer m_server;
    CNxReactorGroup m_group;
    std::string m_peer;
    CNxCloseReason m_reason;
    long m_failed = 0;
};

TEST_F(ConnectorTries, ThatFailAreRepeatedWithGrowingDelays) {
    const std::string nobody = Listener("127.0.0.1:0").Text();
    CNxConnectorOptions options = Quick(6);
    size_t retries = 0;
    options.onRetry = [&](const CNxCloseReason& reason, const CNxTimeValue& delay) {
        EXPECT_EQ(reason.error, ECONNREFUSED);
        const long whole = std::min(10000L << retries++, 40000L);
        EXPECT_LE(delay.GetUsec(), whole);
        EXPECT_GE(delay.GetUsec(), whole / 2 - 10);
    };
    EXPECT_EQ(Try(nobody, options), ECONNREFUSED);
    EXPECT_EQ(retries, 5U);
    EXPECT_EQ(m_reason.text, nobody + ": Connection refused");
    EXPECT_EQ(m_reason.kind, ENxClosed::FAILED);

    options.firstDelay = options.maxDelay = CNxTimeValue(3600);
    Must(m_group.RunOnEach([&](size_t loop) {
        Sink sink;
        CNxConnector connector(*m_group.GetReactor(loop));
        Must(connector.Connect(nobody.c_str(), options, sink));
        Must(connector.Reconnect());
        EXPECT_GE(connector.GetDelay().GetSec(), 1200) << "1800 less the time that has gone";
        connector.Cancel();
        EXPECT_EQ(connector.GetDelay(), CNxTimeValue());
    }));
}

// Which the system says at once of a unix socket, and never of TCP.
TEST_F(ConnectorTries, OfAFullPeerAreGivenUpOrWaitedFor) {
    Listener full("unix:", 0);
    full.Fill();
    CNxConnectorOptions options = Quick(1);
    options.timeout = {0, 50000};
    EXPECT_EQ(Try(full.Text(), options), ETIMEDOUT);
    auto patient = std::async(std::launch::async, [&] { return Try(full.Text()); });
    CNxSocketBase accepted;
    while (patient.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        full.Accept(accepted);
    }
    EXPECT_EQ(patient.get(), 0);
}

TEST_F(ConnectorTries, WantOfMemoryIsAnAnswer) {
    const Listener listener("127.0.0.1:0", 1000);
    for (long failing = 0; failing == 0 || m_failed != 0; ++failing) {
        const int result = Try(listener.Text(), Quick(1), failing);
        EXPECT_TRUE(result == 0 || (m_failed != 0 && (result == ENOMEM || result == -1))) << result;
    }
}

TEST_F(ConnectorTries, NeedATarget) {
    CNxConnector connector(*m_group.GetReactor(0));
    Sink sink;
    for (const char* target : {"", "host", ":80", "host:0", "host:65536", "host:80x", "*:80",
                               "a:b:80", "unix:", "127.0.0.1:0", "[::1]"}) {
        EXPECT_EQ(connector.Connect(target, {}, sink), NX_ERROR_INVALID_ARG) << target;
    }
}

TEST_F(ConnectorTries, OfNamesThatFailAreToldAndSlowOnesEndWithTheTimeOut) {
    m_server.Put("nobody.test", {{}, 0, DnsAnswer::NO_NAME});
    m_server.Put("broken.test", {{}, 0, DnsAnswer::SERVER_FAILS});
    m_server.Put("silent.test", {{}, 0, DnsAnswer::SILENCE});
    m_server.Put("never.test", {{}, 0, DnsAnswer::SILENCE});
    EXPECT_EQ(Try("nobody.test:80"), ENOENT);
    EXPECT_EQ(Try("no_host!:80"), ENOENT);
    EXPECT_EQ(Try("broken.test:80"), EIO);
    EXPECT_EQ(Try("silent.test:80"), ETIMEDOUT);
    Must(Dns().SetTimeout(CNxTimeValue(60), 1));
    CNxConnectorOptions options = Quick(1);
    options.timeout = {0, 20000};
    EXPECT_EQ(Try("never.test:80", options), ETIMEDOUT);
}

// Both have the port; the first address answers, does not, or refuses.
TEST_F(ConnectorTries, OfBothFamiliesLeadToTheFirstAddressThatAnswers) {
    m_server.Put("both.test", {{"127.0.0.1", "::1"}});
    auto v6 = std::make_unique<Listener>("[::1]:0", 0);
    const std::string port = ":" + std::to_string(v6->Where().GetPort());
    const std::string target = "both.test" + port;
    const Listener v4("127.0.0.1" + port);
    EXPECT_EQ(Try(target), 0);
    EXPECT_EQ(m_peer, "::1");
    v6->Fill();
    EXPECT_EQ(Try(target), 0);
    EXPECT_EQ(m_peer, "127.0.0.1");
    v6.reset();
    EXPECT_EQ(Try(target), 0);
    EXPECT_EQ(m_peer, "127.0.0.1");
}

// The certificate is for example.test and 127.0.0.1.
TEST_F(ConnectorTries, VerifyTheNameThatTheyAreFor) {
    CNxListenOptions server;
    server.connection.tls = MakeTls(true, MakeTlsOptions("server"));
    CNxConnectionOptions client;
    client.tls = MakeTls(false, MakeTlsOptions(""));
    if (!client.tls) {
        GTEST_SKIP() << "no TLS";
    }
    const auto makeSink = [] { return std::make_unique<Sink>(); };
    Must(m_group.Listen(Parse("127.0.0.1:0"), makeSink, server));
    CNxConnectorOptions options = Quick(1);
    options.connection = std::make_shared<const CNxConnectionOptions>(client);
    const std::string port = ":" + std::to_string(m_group.GetEndpoint().GetPort());
    for (const auto& [name, result] :
         {std::pair("example.test", 0), {"127.0.0.1", 0}, {"other.test", -1}}) {
        m_server.Put(name, {{"127.0.0.1"}});
        EXPECT_EQ(Try(name + port, options), result) << name;
    }
}

}  // namespace
