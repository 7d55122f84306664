#include <nx/event/NxCall.h>
#include <nx/resolve/CNxDnsManager.h>
#include <nx/stream/CNxConnector.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxThreadReactor.h>
#include <tests/resolve/DnsServer.h>
#include <tests/support/FailingNew.h>
#include <tests/support/TempFolder.h>

#include <deque>

#include "Endpoints.h"
#include "SteppedReactor.h"
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

    std::string Port() const { return ":" + std::to_string(m_where.GetPort()); }

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
class Connectors : public SteppedReactor<Reactor> {
protected:
    // Of Connect.
    CNxConnector::OnFailed KeepReason() {
        return [this](const CNxCloseReason& reason) { m_reasons.push_back(reason); };
    }
    bool HasFailed() const { return !m_reasons.empty(); }

    CTempFolder m_folder;
    Sink m_sink;
    std::vector<CNxCloseReason> m_reasons;
};
TYPED_TEST_SUITE(Connectors, AllReactors, ReactorNames);

TYPED_TEST(Connectors, ConnectToEveryKindOfPlaceAndConnectAnewWhenItsPeerHasGone) {
    CNxConnector connector(this->m_reactor);
    std::vector<typename TestFixture::Step> steps;
    std::deque<Listener> listeners;
    std::vector<CNxSocketBase> accepted(5);
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
        const Listener& listener = listeners.emplace_back(place);
        CNxSocketBase& peer = accepted[listeners.size()];
        const auto greets = [&] {
            char bytes[8];
            return (peer.GetHandle() != -1 || listener.Accept(peer)) &&
                   recv(peer.GetHandle(), bytes, 8, MSG_DONTWAIT) == 5;
        };
        steps.push_back({[&] {
                             EXPECT_EQ(connector.Connect(listener.m_where.GetText().c_str(),
                                                         Quick(1), this->m_sink),
                                       NX_OK);
                         },
                         greets});
        steps.push_back({[&] { peer.Close(); }, greets});
    }
    this->RunSteps(steps);
}

TYPED_TEST(Connectors, FailedTriesAreToldAndRepeatedWithGrowingDelays) {
    Listener closed("127.0.0.1:0");
    closed.m_socket.Close();
    CNxConnector connector(this->m_reactor);
    std::vector<double> delays;
    CNxConnectorOptions options = Quick(6);
    options.onRetry = [&](const CNxCloseReason& reason, const CNxTimeValue& delay) {
        EXPECT_EQ(reason.error, ECONNREFUSED);
        delays.push_back(static_cast<double>(delay.GetUsec()) / 1000);
    };
    const std::string target = closed.m_where.GetText();
    this->RunSteps({{[&] {
                         EXPECT_EQ(connector.Connect(target.c_str(), options, this->m_sink,
                                                     this->KeepReason()),
                                   NX_OK);
                     },
                     [&] { return this->HasFailed(); }}});
    ASSERT_EQ(delays.size(), 5U);
    for (size_t i = 0; i < delays.size(); ++i) {
        const double whole = std::min(10.0 * static_cast<double>(1U << i), 40.0);
        EXPECT_LE(delays[i], whole);
        EXPECT_GE(delays[i], whole / 2 - 0.01);
    }
    ASSERT_EQ(this->m_reasons.size(), 1U);
    EXPECT_EQ(this->m_reasons[0].text, target + ": Connection refused");
    EXPECT_EQ(this->m_reasons[0].kind, ENxClosed::FAILED);
}

TYPED_TEST(Connectors, PeersThatDoNotAnswerAreGivenUpOrWaitedFor) {
    Listener silent("127.0.0.1:0", 0);
    Listener full("unix:" + this->m_folder.Path("full"), 0);
    silent.Fill();
    full.Fill();
    CNxConnectorOptions options = Quick(1);
    options.timeout = {0, 50000};
    CNxConnector first(this->m_reactor);
    CNxConnector second(this->m_reactor);
    CNxConnector third(this->m_reactor);
    Sink none;
    bool isOpen = false;
    this->m_sink.m_onOpen = [&](CNxConnection& /*connection*/) { isOpen = true; };
    const auto fullPlace = full.m_where.GetText();
    this->RunSteps(
        {{[&] {
              const auto failed = this->KeepReason();
              Must(first.Connect(silent.m_where.GetText().c_str(), options, none, failed));
              Must(second.Connect(fullPlace.c_str(), options, none, failed));
              Must(third.Connect(fullPlace.c_str(), Quick(1), this->m_sink, failed));
          },
          [&] { return this->m_reasons.size() == 2; }},
         {[] {},
          [&] {
              CNxSocketBase accepted;
              full.Accept(accepted);
              return isOpen;
          }}});
    ASSERT_EQ(this->m_reasons.size(), 2U);
    EXPECT_EQ(this->m_reasons[0].error, ETIMEDOUT);
    EXPECT_EQ(this->m_reasons[1].error, ETIMEDOUT);
}

TYPED_TEST(Connectors, MayBeDestroyedCancelledAndUsedWithinTheirCalls) {
    Listener closed("127.0.0.1:0");
    closed.m_socket.Close();
    const Listener open("127.0.0.1:0");
    const std::string nobody = closed.m_where.GetText();
    const std::string somebody = open.m_where.GetText();
    std::vector<std::unique_ptr<CNxConnector>> connectors;
    Sink none;
    none.m_onOpen = [](CNxConnection& /*connection*/) { ADD_FAILURE(); };
    int calls = 0;
    const auto add = [&](const std::string& target, Sink& sink) -> CNxConnector& {
        const size_t index = connectors.size();
        CNxConnectorOptions options = Quick(index == 1 ? 1 : 0);
        // The functions that run belong to the connector.
        const auto destroy = [&connectors, &calls, index] {
            ++calls;
            connectors[index].reset();
            ++calls;
        };
        options.onRetry = [destroy](const CNxCloseReason& /*reason*/, const CNxTimeValue& /*d*/) {
            destroy();
        };
        connectors.push_back(std::make_unique<CNxConnector>(this->m_reactor));
        Must(
            connectors.back()->Connect(target.c_str(), options, sink,
                                       [destroy](const CNxCloseReason& /*reason*/) { destroy(); }));
        return *connectors.back();
    };
    Sink again;
    again.m_onOpen = [&](CNxConnection& /*connection*/) {
        ++calls;
        EXPECT_EQ(connectors[3]->Connect(nobody.c_str(), Quick(0), none), NX_OK);
    };
    this->m_sink.m_onOpen = [&](CNxConnection& /*connection*/) {
        connectors[2].reset();
        ++calls;
    };
    this->RunSteps({{[&] {
                         add(nobody, none);
                         add(nobody, none);
                         add(somebody, this->m_sink);
                         add(somebody, again);
                         add(somebody, none).Cancel();
                         connectors.push_back(nullptr);
                     },
                     [&] { return calls == 6; }}});
    EXPECT_FALSE(this->m_sink.m_isClosed || again.m_isClosed || none.m_isClosed);
}

TYPED_TEST(Connectors, RefuseWhatIsNoTarget) {
    CNxConnector connector(this->m_reactor);
    EXPECT_EQ(connector.Reconnect(), NX_ERROR_NOT_INITIALIZED);
    for (const char* target : {"", "host", ":80", "host:", "host:0", "host:65536", "host:80x",
                               "*:80", "a:b:80", "unix:", "127.0.0.1:0", "[::1]", "ho/st:80"}) {
        EXPECT_EQ(connector.Connect(target, {}, this->m_sink), NX_ERROR_INVALID_ARG) << target;
    }
    using Change = std::function<void(CNxConnectorOptions&)>;
    for (const Change& change : {Change([](auto& o) { o.jitter = 1.1; }),
                                 Change([](auto& o) { o.firstDelay = {}; }), Change([](auto& o) {
                                     o.maxDelay = {0, 1};
                                 }),
                                 Change([](auto& o) { o.timeout = CNxTimeValue(-1); }),
                                 Change([](auto& o) { o.timeout = CNxTimeValue::s_tvMax(); })}) {
        CNxConnectorOptions options;
        change(options);
        EXPECT_EQ(connector.Connect("127.0.0.1:80", options, this->m_sink), NX_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(connector.Connect(nullptr, {}, this->m_sink), NX_ERROR_INVALID_ARG);
    this->m_reactor.Close();
    EXPECT_EQ(connector.Connect("127.0.0.1:80", {}, this->m_sink), NX_ERROR_NOT_INITIALIZED);
}

// Each allocation fails once, until the connection is there.
TYPED_TEST(Connectors, WantOfMemoryIsAnAnswer) {
    const Listener listener("127.0.0.1:0");
    const std::string target = listener.m_where.GetText();
    bool isDone = false;
    for (int skipped = 0; !isDone; ++skipped) {
        CNxConnector connector(this->m_reactor);
        bool isOver = false;
        NxResult connected = NX_OK;
        const CNxConnectorOptions options = Quick(1);
        this->m_sink.m_isClosed = false;
        this->m_sink.m_onOpen = [&](CNxConnection& /*connection*/) { isOver = true; };
        this->m_sink.m_onClosed = this->m_sink.m_onOpen;
        const CNxConnector::OnFailed failed = [&](const CNxCloseReason& reason) {
            EXPECT_EQ(reason.error, ENOMEM);
            isOver = true;
        };
        this->Reopen();
        Timer poll([&] {
            if (isOver) {
                this->Stop();
            }
        });
        Must(this->m_reactor.ScheduleTimer(&poll, nullptr, {0, 1000}, 0));
        {
            const FailingNew memory(skipped, FailingNew::ONCE);
            connected = connector.Connect(target.c_str(), options, this->m_sink, failed);
            if (connected == NX_OK) {
                this->Run();
            }
            isDone = FailingNew::CountFailed() == 0;
        }
        EXPECT_TRUE(connected == NX_ERROR_FAILURE || isOver) << skipped;
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

    // The errno of the one try, or 0 and the host of the peer. `whileWaiting` runs on the loop.
    int Try(const std::string& target, const CNxTimeValue& timeout = {10, 0}) {
        std::promise<int> ended;
        std::unique_ptr<CNxConnector> connector;
        Sink sink;
        sink.m_onOpen = [&](CNxConnection& connection) {
            m_peer = connection.GetPeerEndpoint().GetHost();
            ended.set_value(0);
        };
        CNxConnectorOptions options = Quick(1);
        options.timeout = timeout;
        EXPECT_EQ(NxSendCall(*m_thread->GetReactor(),
                             [&] {
                                 connector =
                                     std::make_unique<CNxConnector>(*m_thread->GetReactor());
                                 return connector->Connect(target.c_str(), options, sink,
                                                           [&](const CNxCloseReason& reason) {
                                                               ended.set_value(reason.error);
                                                           });
                             }),
                  NX_OK);
        const int error = ended.get_future().get();
        NxSendCall(*m_thread->GetReactor(), [&] { connector.reset(); });
        return error;
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
    EXPECT_EQ(Try("never.test:80", {0, 20000}), ETIMEDOUT);
}

// Both have the port; the first address does not answer, refuses, or is the one.
TEST_F(ConnectorNames, OfBothFamiliesLeadToTheFirstAddressThatAnswers) {
    m_server.Put("both.test", {{"127.0.0.1", "::1"}});
    auto v6 = std::make_unique<Listener>("[::1]:0", 0);
    const std::string port = v6->Port();
    const Listener v4("127.0.0.1" + port);
    EXPECT_EQ(Try("both.test" + port), 0);
    EXPECT_EQ(m_peer, "::1");
    v6->Fill();
    EXPECT_EQ(Try("both.test" + port), 0);
    EXPECT_EQ(m_peer, "127.0.0.1");
    v6.reset();
    EXPECT_EQ(Try("both.test" + port), 0);
    EXPECT_EQ(m_peer, "127.0.0.1");
}

}  // namespace
