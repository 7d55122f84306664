#include <common/Clock.h>
#include <common/CommandLine.h>
#include <kv_load/Conversation.h>
#include <kv_load/LoadClient.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <new>
#include <random>
#include <utility>

namespace kv_load {

namespace {

using examples::NowNs;

// Below the usual backlog of a listening socket.
constexpr std::size_t c_connectsAtOnce = 100;
constexpr std::uint64_t c_failuresShown = 5;
// Bytes of requests that wait for the socket: beyond, a deep pipeline is asked in several.
constexpr std::size_t c_outputAim = 65536;

CNxConnectorOptions GetConnectorOptions(const Options& options,
                                        const CNxAutoPtr<CNxTlsContext>& tls) {
    CNxConnectionOptions connection;
    connection.highWater = c_outputAim - 1;
    connection.lowWater = c_outputAim / 4;
    // Whoever is asked has to answer, so that nothing else is silence.
    connection.idleTimeout = CNxTimeValue(static_cast<long>(options.stallTimeout));
    connection.stallTimeout = CNxTimeValue::s_tvZero();
    connection.tls = tls;
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
    // `number` is for messages.
    Connection(LoadClient& client, std::uint64_t number, Conversation conversation)
        : m_client(client),
          m_number(number),
          m_conversation(std::move(conversation)),
          m_connector(*client.m_server.GetReactor()) {}

    // False when it has failed at once.
    [[nodiscard]] bool Open() {
        const std::string& target = m_client.m_target;
        const NxResult result = m_connector.Connect(
            target.c_str(), m_client.m_connectorOptions, *this,
            [this](const CNxCloseReason& reason) { Fail([&] { return reason.text; }); });
        if (result != NX_OK) {
            Report([&] { return "cannot connect to " + target + ": " + NxResultName(result); });
        }
        return result == NX_OK;
    }

    // Begins to ask. Does nothing unless connected.
    void Start() {
        CNxConnection* const connection = m_connector.GetConnection();
        if (connection != nullptr) {
            connection->ResumeReading();
            try {
                Ask(*connection);
            } catch (const std::bad_alloc&) {
                Fail([] { return "out of memory"; });
            }
        }
    }

private:
    void OnOpen(CNxConnection& connection) override {
        m_isOpen = true;
        // No silence counts until the server is asked.
        connection.PauseReading();
        ++m_client.m_connected;
        --m_client.m_connecting;
        m_client.Proceed();
    }

    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        const std::string wrong = m_conversation.Check(received, NowNs(), m_client.m_latency);
        if (!wrong.empty()) {
            Fail([&]() -> const std::string& { return wrong; });
            return;
        }
        Ask(connection);
    }

    void OnLowWater(CNxConnection& connection) override { Ask(connection); }
    void OnEnd(CNxConnection& connection) override {
        OnClosed(connection, {ENxClosed::BY_PEER, 0, "closed by the server"});
    }

    void OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) override {
        Fail([&] {
            const std::string silence = std::to_string(m_client.m_options.stallTimeout) + " s";
            const std::string why = reason.kind == ENxClosed::IDLE
                                        ? "stalled, no sign of life for " + silence
                                        : reason.text;
            return m_isOpen ? "lost: " + why + "; the server owes " + m_conversation.DescribeDebt()
                            : "cannot connect to " + m_client.m_target + ": " + why;
        });
    }

    // As much as the pipeline has room for, but no more than the socket takes soon: for the rest
    // OnLowWater or the next reply comes.
    void Ask(CNxConnection& connection) {
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
            Leave(m_client.m_connected);
        }
    }

    // `describe()` says why.
    template <class Describe>
    void Fail(Describe describe) {
        Report(describe);
        Leave(m_isOpen ? m_client.m_connected : m_client.m_connecting);
    }

    // Who cannot be described for want of memory has failed all the same.
    template <class Describe>
    void Report(Describe describe) {
        if (++m_client.m_failed > c_failuresShown) {
            return;
        }
        try {
            const std::string& why = describe();
            std::fprintf(stderr, "kv_load: connection %lu: %s\n", m_number, why.c_str());
        } catch (const std::bad_alloc&) {
            std::fprintf(stderr, "kv_load: connection %lu: out of memory\n", m_number);
        }
    }

    // It is over, and one less of those counted there.
    void Leave(std::size_t& count) {
        assert(count > 0);
        --count;
        m_connector.Cancel();
        m_client.Proceed();
    }

    LoadClient& m_client;
    const std::uint64_t m_number;
    Conversation m_conversation;
    bool m_isOpen = false;
    CNxConnector m_connector;
};

LoadClient::LoadClient(const Options& options, const CNxAutoPtr<CNxTlsContext>& tls,
                       CNxServer& server)
    : m_options(options),
      m_server(server),
      m_target(examples::ToEndpoint(options.host, options.port)),
      m_connectorOptions(GetConnectorOptions(options, tls)),
      m_pipeline(std::min(options.pipeline, (options.requests - 1) / options.connections + 1)),
      m_toAsk(options.requests) {
    // No other run has it.
    const std::string prefix = "load:" + std::to_string(std::random_device()()) + ":";
    // Each has a counter, too.
    const std::uint64_t numbers = options.keys + options.connections;
    for (std::uint64_t i = 0; i < options.connections; ++i) {
        const auto first = static_cast<std::uint32_t>(numbers * i / options.connections);
        const auto end = static_cast<std::uint32_t>(numbers * (i + 1) / options.connections);
        Conversation conversation(prefix, first, end - first - 1, options.valueSize);
        m_connections.push_back(std::make_unique<Connection>(*this, i, std::move(conversation)));
    }
    const auto showProgress = [this] {
        std::printf("%lu of %lu requests\n", m_latency.GetCount(), m_options.requests);
        std::fflush(stdout);
        // Again: there may have been no memory to end.
        Proceed();
    };
    if (m_progress.RunEvery(*server.GetReactor(), CNxTimeValue(1, 0), showProgress) != NX_OK) {
        server.Fail("cannot show its progress");
    }
    Proceed();
}

LoadClient::~LoadClient() = default;

void LoadClient::Close() {
    m_progress.Cancel();
    m_connections.clear();
    m_endedAt = m_endedAt != 0 ? m_endedAt : NowNs();
}

// Opens more; has all begin when none is left to wait for; ends when nobody has anything to do.
void LoadClient::Proceed() {
    while (m_connecting < c_connectsAtOnce && m_opened < m_connections.size()) {
        m_connecting += m_connections[m_opened++]->Open() ? 1 : 0;
    }
    if (m_connecting == 0 && m_startedAt == 0) {
        m_startedAt = NowNs();
        for (const auto& connection : m_connections) {
            connection->Start();
        }
    }
    const bool isOver = m_startedAt != 0 && m_connected == 0 && m_endedAt == 0;
    if (isOver && m_server.Stop() == NX_OK) {
        m_endedAt = NowNs();
    }
}

int LoadClient::Report(int signal) const {
    const auto count = static_cast<double>(m_latency.GetCount());
    const double seconds =
        m_startedAt != 0 ? static_cast<double>(m_endedAt - m_startedAt) / 1e9 : 0;
    const auto toMs = [this](unsigned perMille) {
        return static_cast<double>(m_latency.GetQuantile(perMille)) / 1e6;
    };
    std::printf("requests    %lu of %lu\n", m_latency.GetCount(), m_options.requests);
    std::printf("connections %lu, pipeline %lu, value size %lu\n", m_options.connections,
                m_options.pipeline, m_options.valueSize);
    std::printf("seconds     %.3f\n", seconds);
    std::printf("throughput  %.0f requests/s\n", seconds > 0 ? count / seconds : 0);
    std::printf("latency ms  p50 %.3f  p99 %.3f  p99.9 %.3f  max %.3f\n", toMs(500), toMs(990),
                toMs(999), toMs(1000));
    if (m_failed != 0) {
        std::printf("result      FAILED: %lu of %lu connections given up\n", m_failed,
                    m_options.connections);
        return examples::c_statusFailed;
    }
    const bool isComplete = m_latency.GetCount() == m_options.requests;
    std::printf("result      %s\n", isComplete ? "every reply was right"
                                               : "interrupted; every reply until then was right");
    return isComplete ? 0 : 128 + signal;
}

}  // namespace kv_load
