#include <nx/event/NxCall.h>
#include <nx/resolve/CNxDnsManager.h>
#include <nx/stream/CNxConnector.h>
#include <nx/stream/CNxReactorGroup.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxThreadReactor.h>
#include <tests/resolve/DnsServer.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingNew.h>
#include <tests/support/TempFolder.h>
#include <tests/support/TestCertificates.h>

#include <deque>

#include "RunUntil.h"
#include "StreamSupport.h"

namespace {

// Listens, and accepts when a test says so.
class Listener {
public:
    explicit Listener(const std::string& at, int backlog = 16) {
        const CNxEndpoint endpoint = Parse(at);
        EXPECT_EQ(m_socket.Open(endpoint.GetFamily(), SOCK_STREAM | SOCK_NONBLOCK, 0, 1), 0);
        const int on = 1;
        setsockopt(m_socket.GetHandle(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        EXPECT_EQ(bind(m_socket.GetHandle(), endpoint.GetAddress(), endpoint.GetSize()), 0) << at;
        EXPECT_EQ(listen(m_socket.GetHandle(), backlog), 0);
        EXPECT_EQ(m_where.SetLocalOf(m_socket.GetHandle()), NX_OK);
    }

    // From here on nobody is answered, until some are accepted.
    void Fill() {
        for (int error = 0; error == 0 || error == EINPROGRESS;) {
            CNxSocketBase& one = m_waiting.emplace_back();
            EXPECT_EQ(one.Open(m_where.GetFamily(), SOCK_STREAM | SOCK_NONBLOCK, 0, 0), 0);
            error =
                connect(one.GetHandle(), m_where.GetAddress(), m_where.GetSize()) == 0 ? 0 : errno;
            pollfd isThere{one.GetHandle(), POLLOUT, 0};
            if (error == EINPROGRESS && poll(&isThere, 1, 100) == 0) {
                return;
            }
        }
    }

    bool Accept(CNxSocketBase& socket) const {
        socket.Close();
        socket.SetHandle(accept4(m_socket.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC));
        return socket.GetHandle() != -1;
    }

    CNxSocketBase m_socket;
    CNxEndpoint m_where;
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
    Connectors() {
        Listener closed("127.0.0.1:0");
        m_nobody = closed.m_where.GetText();
        m_keepReason = [this](const CNxCloseReason& reason) { m_reasons.push_back(reason); };
    }

    const CTempFolder m_folder;
    Sink m_sink;
    // Where nobody listens.
    std::string m_nobody;
    CNxConnector::OnFailed m_keepReason;
    std::vector<CNxCloseReason> m_reasons;
};
TYPED_TEST_SUITE(Connectors, AllReactors, ReactorNames);

TYPED_TEST(Connectors, ConnectToEveryKindOfPlaceAndAnewWhenThePeerHasGone) {
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
    for (const std::string& place :
         {std::string("127.0.0.1:0"), std::string("[::1]:0"), "unix:" + this->m_folder.Path("path"),
          "unix:@nx-connector" + std::to_string(getpid())}) {
        this->Reopen();
        const Listener listener(place);
        Must(connector.Connect(listener.m_where.GetText().c_str(), Quick(1), this->m_sink));
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

TYPED_TEST(Connectors, FailedTriesAreToldAndRepeatedWithGrowingDelays) {
    CNxConnector connector(this->m_reactor);
    std::vector<double> delays;
    CNxConnectorOptions options = Quick(6);
    options.onRetry = [&](const CNxCloseReason& reason, const CNxTimeValue& delay) {
        EXPECT_EQ(reason.error, ECONNREFUSED);
        delays.push_back(static_cast<double>(delay.GetUsec()) / 1000);
    };
    Must(connector.Connect(this->m_nobody.c_str(), options, this->m_sink, this->m_keepReason));
    this->RunUntil([&] { return !this->m_reasons.empty(); });
    ASSERT_EQ(delays.size(), 5U);
    for (size_t i = 0; i < delays.size(); ++i) {
        const double whole = std::min(10.0 * static_cast<double>(1U << i), 40.0);
        EXPECT_LE(delays[i], whole);
        EXPECT_GE(delays[i], whole / 2 - 0.01);
    }
    EXPECT_EQ(this->m_reasons[0].text, this->m_nobody + ": Connection refused");
    EXPECT_EQ(this->m_reasons[0].kind, ENxClosed::FAILED);

    options.firstDelay = options.maxDelay = CNxTimeValue(3600);
    Must(connector.Connect(this->m_nobody.c_str(), options, this->m_sink));
    Must(connector.Reconnect());
    EXPECT_GE(connector.GetDelay().GetSec(), 1200) << "1800 less the time that has gone";
    connector.Cancel();
    EXPECT_EQ(connector.GetDelay(), CNxTimeValue());
}

// Which the system says at once of a unix socket, and never of TCP.
TYPED_TEST(Connectors, AFullPeerIsGivenUpOrWaitedFor) {
    Listener full("unix:" + this->m_folder.Path("full"), 0);
    full.Fill();
    const std::string target = full.m_where.GetText();
    CNxConnectorOptions options = Quick(1);
    options.timeout = {0, 50000};
    CNxConnector impatient(this->m_reactor);
    CNxConnector patient(this->m_reactor);
    Must(impatient.Connect(target.c_str(), options, this->m_sink, this->m_keepReason));
    bool isOpen = false;
    this->m_sink.m_onOpen = [&](CNxConnection& /*connection*/) { isOpen = true; };
    Must(patient.Connect(target.c_str(), Quick(1), this->m_sink, this->m_keepReason));
    std::deque<CNxSocketBase> accepted;
    this->RunUntil([&] {
        return !this->m_reasons.empty() && (full.Accept(accepted.emplace_back()) || isOpen) &&
               isOpen;
    });
    ASSERT_EQ(this->m_reasons.size(), 1U);
    EXPECT_EQ(this->m_reasons[0].error, ETIMEDOUT);
}

// Each by one of its calls; the functions that run are the connector's own.
TYPED_TEST(Connectors, MayBeDestroyedAndUsedWithinTheirCalls) {
    const Listener listener("127.0.0.1:0");
    const std::string somebody = listener.m_where.GetText();
    std::vector<std::unique_ptr<CNxConnector>> connectors(5);
    int calls = 0;
    const auto destroyIn = [&](size_t index) {
        return [&connectors, &calls, index](const auto&...) {
            connectors[index].reset();
            ++calls;
        };
    };
    CNxConnectorOptions endless = Quick(0);
    endless.onRetry = destroyIn(0);
    Sink none;
    none.m_onOpen = [](CNxConnection& /*connection*/) { ADD_FAILURE(); };
    Sink again;
    again.m_onOpen = [&](CNxConnection& /*connection*/) {
        EXPECT_EQ(connectors[3]->Connect(somebody.c_str(), Quick(1), this->m_sink), NX_OK);
    };
    this->m_sink.m_onOpen = destroyIn(3);
    Sink opened;
    opened.m_onOpen = destroyIn(2);
    for (auto& connector : connectors) {
        connector = std::make_unique<CNxConnector>(this->m_reactor);
    }
    Must(connectors[0]->Connect(this->m_nobody.c_str(), endless, none));
    Must(connectors[1]->Connect(this->m_nobody.c_str(), Quick(1), none, destroyIn(1)));
    Must(connectors[2]->Connect(somebody.c_str(), Quick(1), opened));
    Must(connectors[3]->Connect(somebody.c_str(), Quick(1), again));
    Must(connectors[4]->Connect(somebody.c_str(), Quick(1), none));
    connectors[4]->Cancel();
    this->RunUntil([&] { return calls == 4; });
    EXPECT_FALSE(this->m_sink.m_isClosed || again.m_isClosed || opened.m_isClosed);
}

TYPED_TEST(Connectors, RefuseWhatIsNoTarget) {
    CNxConnector connector(this->m_reactor);
    for (const char* target : {"", "host", ":80", "host:0", "host:65536", "host:80x", "*:80",
                               "a:b:80", "unix:", "127.0.0.1:0", "[::1]"}) {
        EXPECT_EQ(connector.Connect(target, {}, this->m_sink), NX_ERROR_INVALID_ARG) << target;
    }
}

// Each allocation fails once, until the connection is there.
TYPED_TEST(Connectors, WantOfMemoryIsAnAnswer) {
    const Listener listener("127.0.0.1:0");
    const std::string target = listener.m_where.GetText();
    bool isOver = false;
    this->m_sink.m_onOpen =
        this->m_sink.m_onClosed = [&](CNxConnection& /*connection*/) { isOver = true; };
    const CNxConnector::OnFailed failed = [&](const CNxCloseReason& reason) {
        EXPECT_EQ(reason.error, ENOMEM);
        isOver = true;
    };
    for (long skipped = 0, missed = 1; missed != 0; ++skipped) {
        CNxConnector connector(this->m_reactor);
        const CNxConnectorOptions options = Quick(1);
        this->m_sink.m_isClosed = isOver = false;
        this->Reopen();
        Timer poll([&] { isOver ? this->Stop() : 0; });
        Must(this->m_reactor.ScheduleTimer(&poll, nullptr, {0, 1000}, 0));
        const FailingNew memory(skipped, FailingNew::ONCE);
        const NxResult asked = connector.Connect(target.c_str(), options, this->m_sink, failed);
        if (asked == NX_OK) {
            this->Run();
        }
        missed = FailingNew::CountFailed();
        EXPECT_TRUE(isOver || asked == NX_ERROR_FAILURE) << skipped;
    }
}

// Names need a thread that the manager knows.
class ConnectorNames : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Must(CNxThreadManager::Instance()->InitMainThread(0, nullptr)); }

    ConnectorNames() {
        Must(Dns().SetServers(m_server.GetText()));
        Must(Dns().SetTimeout({0, 20000}, 2));
        Must(m_thread->Init(new CNxReactorEpoll));
        Must(m_thread->Create(CNxThreadManager::Instance()->GetAndIncreamUserType(),
                              CNxThreadManager::FLAG_JOINABLE));
    }
    ~ConnectorNames() override {
        m_thread->Stop(nullptr);
        m_thread->Join();
        m_thread->Destory(0);
    }

    static CNxDnsManager& Dns() { return *CNxDnsManager::Instance(); }

    // Of the one try: an errno, -1 when the connection does not open, or 0.
    int Try(const std::string& target, const CNxConnectorOptions& options = Quick(1)) {
        std::promise<int> ended;
        Sink sink;
        sink.m_onOpen = [&](CNxConnection& connection) {
            m_peer = connection.GetPeerEndpoint().GetHost();
            ended.set_value(0);
        };
        sink.m_onClosed = [&](CNxConnection& /*connection*/) { ended.set_value(-1); };
        std::unique_ptr<CNxConnector> connector;
        const auto connect = [&] {
            connector = std::make_unique<CNxConnector>(*m_thread->GetReactor());
            return connector->Connect(
                target.c_str(), options, sink,
                [&](const CNxCloseReason& reason) { ended.set_value(reason.error); });
        };
        EXPECT_EQ(NxSendCall(*m_thread->GetReactor(), connect), NX_OK);
        const int result = ended.get_future().get();
        NxSendCall(*m_thread->GetReactor(), [&] { connector.reset(); });
        return result;
    }

    DnsServer m_server;
    CNxThreadReactor* const m_thread = new CNxThreadReactor;
    std::string m_peer;
};

TEST_F(ConnectorNames, ThatFailAreToldAndSlowOnesEndWithTheTimeOut) {
    m_server.Put("broken.test", {{}, 0, DnsAnswer::SERVER_FAILS});
    m_server.Put("silent.test", {{}, 0, DnsAnswer::SILENCE});
    m_server.Put("never.test", {{}, 0, DnsAnswer::SILENCE});
    EXPECT_EQ(Try("nobody.example:80"), ENOENT);
    EXPECT_EQ(Try("no_host!:80"), ENOENT);
    EXPECT_EQ(Try("broken.test:80"), EIO);
    EXPECT_EQ(Try("silent.test:80"), ETIMEDOUT);
    Must(Dns().SetTimeout(CNxTimeValue(60), 1));
    CNxConnectorOptions options = Quick(1);
    options.timeout = {0, 20000};
    EXPECT_EQ(Try("never.test:80", options), ETIMEDOUT);
}

// Both have the port; the first address answers, does not, or refuses.
TEST_F(ConnectorNames, OfBothFamiliesLeadToTheFirstAddressThatAnswers) {
    m_server.Put("both.test", {{"127.0.0.1", "::1"}});
    auto v6 = std::make_unique<Listener>("[::1]:0", 0);
    const std::string target = "both.test:" + std::to_string(v6->m_where.GetPort());
    const Listener v4("127.0.0.1:" + std::to_string(v6->m_where.GetPort()));
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
TEST_F(ConnectorNames, AreWhatTheCertificateHasToHave) {
    const CTestCertificates certificates;
    CNxTlsOptions files;
    files.caFile = certificates.Certificate("ca");
    CNxConnectionOptions client;
    std::string error;
    if (CNxTlsContext::CreateClient(client.tls, files, error) == NX_ERROR_NOT_IMPLEMENTED) {
        GTEST_SKIP() << "no TLS";
    }
    files.certificateFile = certificates.Certificate("server");
    files.keyFile = certificates.Key("server");
    CNxListenOptions server;
    Must(CNxTlsContext::CreateServer(server.connection.tls, files, error));
    CNxReactorGroup group;
    Must(group.Start({}));
    Must(group.Listen(
        Parse("127.0.0.1:0"), [] { return std::make_unique<Sink>(); }, server));
    CNxConnectorOptions options = Quick(1);
    options.connection = std::make_shared<const CNxConnectionOptions>(client);
    const std::string port = ":" + std::to_string(group.GetEndpoint().GetPort());
    for (const char* name : {"example.test", "other.test"}) {
        m_server.Put(name, {{"127.0.0.1"}});
    }
    EXPECT_EQ(Try("example.test" + port, options), 0);
    EXPECT_EQ(Try("127.0.0.1" + port, options), 0);
    EXPECT_EQ(Try("other.test" + port, options), -1);
}

}  // namespace
