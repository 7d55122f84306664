#include <common/Clock.h>
#include <kv_load/Conversation.h>
#include <kv_load/LoadClient.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdio>
#include <utility>

namespace kv_load {

namespace {

using examples::NowNs;

constexpr CNxTimeValue c_tick(1, 0);
// Below the usual backlog of a listening socket.
constexpr std::size_t c_connectsAtOnce = 100;
constexpr std::uint64_t c_failuresShown = 5;
// Bytes of requests that wait for the socket: beyond, a deep pipeline is asked in several.
constexpr std::size_t c_outputAim = 65536;

// "load:" and what no other run has.
std::string MakeKeyPrefix() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    auto id = static_cast<std::uint64_t>(sinceEpoch.count()) ^
              (static_cast<std::uint64_t>(getpid()) << 32);
    std::string prefix = "load:";
    for (int i = 0; i < 8; ++i, id /= 36) {
        prefix += "0123456789abcdefghijklmnopqrstuvwxyz"[id % 36];
    }
    return prefix + ":";
}

std::string GetTarget(const Options& options) {
    const bool isV6 = options.host.find(':') != std::string::npos;
    return (isV6 ? "[" + options.host + "]" : options.host) + ":" + std::to_string(options.port);
}

CNxConnectorOptions GetConnectorOptions(const Options& options, CNxAutoPtr<CNxTlsContext> tls) {
    CNxConnectionOptions connection;
    connection.highWater = c_outputAim - 1;
    connection.lowWater = c_outputAim / 4;
    // Whoever is asked has to answer, so that nothing else is silence.
    connection.idleTimeout = CNxTimeValue(static_cast<long>(options.stallTimeout));
    connection.stallTimeout = CNxTimeValue::s_tvZero();
    connection.tls = std::move(tls);
    CNxConnectorOptions connector;
    connector.timeout = CNxTimeValue(static_cast<long>(options.connectTimeout));
    connection.handshakeTimeout = connector.timeout;
    connector.tries = 1;
    connector.connection = std::make_shared<const CNxConnectionOptions>(connection);
    return connector;
}

}  // namespace

// Keeps its pipeline full: what the replies of one turn have made room for is asked in one go.
class LoadClient::Connection : private INxConnectionSink {
public:
    Connection(LoadClient& client, std::uint64_t number, Conversation conversation)
        : m_client(client),
          m_number(number),
          m_conversation(std::move(conversation)),
          m_connector(*client.m_server.GetReactor()) {}

    // For messages.
    std::uint64_t GetNumber() const { return m_number; }
    bool IsOpen() const { return m_isOpen; }

    // False, with the failure reported, when it fails at once.
    [[nodiscard]] bool Open();
    // Begins to ask. Does nothing unless connected.
    void Start();
    // Tells nobody.
    void Close() { m_connector.Cancel(); }

private:
    void OnOpen(CNxConnection& connection) override;
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override;
    void OnLowWater(CNxConnection& connection) override { Ask(connection); }
    void OnEnd(CNxConnection& /*connection*/) override { FailLost("closed by the server"); }
    void OnClosed(CNxConnection& connection, const CNxCloseReason& reason) override;

    void Ask(CNxConnection& connection);
    void Fail(const std::string& why);
    void FailLost(const std::string& why);

    LoadClient& m_client;
    const std::uint64_t m_number;
    Conversation m_conversation;
    bool m_isOpen = false;
    CNxConnector m_connector;
};

bool LoadClient::Connection::Open() {
    const NxResult result =
        m_connector.Connect(m_client.m_target.c_str(), m_client.m_connectorOptions, *this,
                            [this](const CNxCloseReason& reason) { Fail(reason.text); });
    if (result != NX_OK) {
        m_client.Report(*this,
                        "cannot connect to " + m_client.m_target + ": " + NxResultName(result));
    }
    return result == NX_OK;
}

void LoadClient::Connection::OnOpen(CNxConnection& connection) {
    m_isOpen = true;
    // No silence counts until the server is asked.
    connection.PauseReading();
    m_client.OnConnected();
}

void LoadClient::Connection::Start() {
    CNxConnection* const connection = m_connector.GetConnection();
    if (connection != nullptr) {
        connection->ResumeReading();
        Ask(*connection);
    }
}

void LoadClient::Connection::OnReceive(CNxConnection& connection, CNxMessageChain& received) {
    const std::int64_t now = NowNs();
    while (!received.IsEmpty()) {
        const std::string_view front = received.GetFront();
        const std::string wrong = m_conversation.Check(front, now, m_client.m_latency);
        if (!wrong.empty()) {
            Fail(wrong);
            return;
        }
        received.Consume(front.size());
    }
    Ask(connection);
}

// As much as the pipeline has room for, but no more than the socket takes soon: for the rest
// OnLowWater or the next reply comes.
void LoadClient::Connection::Ask(CNxConnection& connection) {
    CNxMessageChain requests;
    const std::size_t unsent = connection.GetUnsent();
    const std::int64_t now = NowNs();
    while (m_client.m_toAsk > 0 && m_conversation.GetOpen() < m_client.m_pipeline &&
           unsent + requests.GetSize() < c_outputAim) {
        --m_client.m_toAsk;
        m_conversation.Ask(requests, now);
    }
    // Whoever has ended is told so by OnClosed.
    connection.Send(std::move(requests));
    if (m_client.m_toAsk == 0 && m_conversation.GetOpen() == 0) {
        Close();
        m_client.OnNothingLeft();
    }
}

void LoadClient::Connection::OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) {
    if (!m_isOpen) {
        Fail("cannot connect to " + m_client.m_target + ": " + reason.text);
    } else if (reason.kind == ENxClosed::IDLE) {
        FailLost("stalled, no sign of life for " + std::to_string(m_client.m_options.stallTimeout) +
                 " s");
    } else {
        FailLost(reason.text);
    }
}

void LoadClient::Connection::Fail(const std::string& why) {
    Close();
    m_client.OnFailed(*this, why);
}

void LoadClient::Connection::FailLost(const std::string& why) {
    Fail("lost: " + why + "; the server owes " + m_conversation.DescribeDebt());
}

LoadClient::LoadClient(const Options& options, CNxAutoPtr<CNxTlsContext> tls, CNxServer& server)
    : m_options(options),
      m_server(server),
      m_target(GetTarget(options)),
      m_connectorOptions(GetConnectorOptions(options, std::move(tls))),
      m_pipeline(std::min(options.pipeline, (options.requests - 1) / options.connections + 1)),
      m_toAsk(options.requests) {
    const std::string prefix = MakeKeyPrefix();
    for (std::uint64_t i = 0; i < options.connections; ++i) {
        const auto firstKey = static_cast<std::uint32_t>(options.keys * i / options.connections);
        const auto endKey =
            static_cast<std::uint32_t>(options.keys * (i + 1) / options.connections);
        // Each has a counter, too.
        const auto counters = static_cast<std::uint32_t>(i);
        m_connections.push_back(std::make_unique<Connection>(
            *this, i,
            Conversation(prefix, firstKey + counters, endKey - firstKey, options.valueSize)));
    }
    if (m_tick.RunEvery(*server.GetReactor(), c_tick, [this] { ShowProgress(); }) != NX_OK) {
        server.Fail("cannot watch its connections");
    }
    Proceed();
}

LoadClient::~LoadClient() = default;

void LoadClient::Close() {
    m_tick.Cancel();
    for (const auto& connection : m_connections) {
        connection->Close();
    }
    m_endedAt = m_endedAt != 0 ? m_endedAt : NowNs();
}

double LoadClient::GetSeconds() const {
    const std::int64_t duration = m_startedAt != 0 ? m_endedAt - m_startedAt : 0;
    return static_cast<double>(duration) / static_cast<double>(examples::c_nsPerSecond);
}

// Opens more; has all begin when none is left to wait for; ends when nobody has anything to do.
void LoadClient::Proceed() {
    while (m_connecting < c_connectsAtOnce && m_opened < m_connections.size()) {
        m_connecting += m_connections[m_opened++]->Open() ? 1 : 0;
    }
    if (m_connecting == 0 && m_startedAt == 0) {
        m_startedAt = m_shownAt = NowNs();
        for (const auto& connection : m_connections) {
            connection->Start();
        }
    }
    if (m_startedAt != 0 && m_connected == 0 && m_endedAt == 0) {
        m_endedAt = NowNs();
        m_server.Stop();
    }
}

void LoadClient::OnConnected() {
    assert(m_connecting > 0 && m_startedAt == 0);
    --m_connecting;
    ++m_connected;
    Proceed();
}

void LoadClient::OnNothingLeft() {
    assert(m_connected > 0 && m_startedAt != 0);
    --m_connected;
    Proceed();
}

void LoadClient::OnFailed(const Connection& connection, const std::string& why) {
    Report(connection, why);
    std::size_t& count = connection.IsOpen() ? m_connected : m_connecting;
    assert(count > 0);
    --count;
    Proceed();
}

void LoadClient::Report(const Connection& connection, const std::string& why) {
    if (++m_failed <= c_failuresShown) {
        std::fprintf(stderr, "kv_load: connection %lu: %s\n", connection.GetNumber(), why.c_str());
    }
}

void LoadClient::ShowProgress() {
    if (m_startedAt == 0) {
        std::printf("connected %zu of %zu\n", m_connected, m_connections.size());
    } else {
        const std::int64_t now = NowNs();
        const std::uint64_t count = m_latency.GetCount();
        const auto passed = static_cast<double>(now - std::exchange(m_shownAt, now));
        const auto came = static_cast<double>(count - std::exchange(m_shownCount, count));
        std::printf("%lu of %lu requests, %.0f/s\n", count, m_options.requests,
                    came / passed * static_cast<double>(examples::c_nsPerSecond));
    }
    std::fflush(stdout);
}

}  // namespace kv_load
