#include <common/Clock.h>
#include <kv_load/LoadClient.h>
#include <nx/foundation/CNxTimeValue.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdio>
#include <utility>

namespace kv_load {

namespace {

constexpr CNxTimeValue c_tick(0, 200000);
// Below the usual backlog of a listening socket.
constexpr std::size_t c_connectsAtOnce = 100;
constexpr std::uint64_t c_failuresShown = 5;

// "load:" and eight characters that no other run has.
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

// A short run shall keep all connections busy, too.
std::size_t GetPipelineDepth(const Options& options) {
    const std::uint64_t share = (options.requests - 1) / options.connections + 1;
    return std::min(options.pipeline, share);
}

std::string GetTarget(const Options& options) {
    const bool isV6 = options.host.find(':') != std::string::npos;
    return (isV6 ? "[" + options.host + "]" : options.host) + ":" + std::to_string(options.port);
}

// Silence is watched for by the connections: the server may be silent until it is asked.
CNxConnectorOptions GetConnectorOptions(const Options& options, CNxAutoPtr<CNxTlsContext> tls) {
    CNxConnectionOptions connection;
    connection.highWater = c_outputAim - 1;
    connection.lowWater = c_outputAim / 4;
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

LoadClient::LoadClient(const Options& options, CNxAutoPtr<CNxTlsContext> tls, INxReactor& reactor,
                       std::function<void()> onEnd)
    : m_options(options),
      m_reactor(reactor),
      m_onEnd(std::move(onEnd)),
      m_printer(options.requests),
      m_setup{GetTarget(options),
              GetConnectorOptions(options, std::move(tls)),
              GetPipelineDepth(options),
              static_cast<std::int64_t>(options.stallTimeout) * examples::c_nsPerSecond,
              reactor,
              m_progress,
              *this} {
    m_progress.toIssue = options.requests;
    const std::string prefix = MakeKeyPrefix();
    for (std::uint64_t i = 0; i < options.connections; ++i) {
        const std::uint64_t firstKey = options.keys * i / options.connections;
        const std::uint64_t endKey = options.keys * (i + 1) / options.connections;
        Workload workload(prefix, static_cast<std::uint32_t>(firstKey),
                          static_cast<std::uint32_t>(endKey - firstKey), options.valueSize);
        m_connections.push_back(std::make_unique<Connection>(i, m_setup, std::move(workload)));
    }
}

bool LoadClient::Start() {
    OpenMore();
    return m_tick.RunEvery(m_reactor, c_tick, [this] { OnTick(); }) == NX_OK;
}

void LoadClient::Close() {
    m_printer.Clear();
    m_tick.Cancel();
    for (const auto& connection : m_connections) {
        connection->Close();
    }
    if (m_progress.endedAt == 0) {
        m_progress.endedAt = examples::NowNs();
    }
}

void LoadClient::OpenMore() {
    if (m_opening) {
        return;
    }
    m_opening = true;
    while (m_connecting < c_connectsAtOnce && m_opened < m_connections.size()) {
        ++m_connecting;
        m_connections[m_opened++]->Open();
    }
    m_opening = false;
    if (m_connecting == 0) {
        StartLoad();
    }
}

void LoadClient::StartLoad() {
    m_started = true;
    m_progress.startedAt = examples::NowNs();
    m_printer.StartRunning(m_progress.startedAt);
    // Held while they start, so that one that is done at once does not end the run.
    ++m_connected;
    for (const auto& connection : m_connections) {
        connection->Start();
    }
    --m_connected;
    EndIfNobodyIsLeft();
}

void LoadClient::OnConnected() {
    assert(m_connecting > 0 && !m_started);
    ++m_connected;
    --m_connecting;
    OpenMore();
}

void LoadClient::OnDone() {
    assert(m_connected > 0 && m_started);
    --m_connected;
    EndIfNobodyIsLeft();
}

void LoadClient::OnFailed(const Connection& connection, bool wasConnected, const std::string& why) {
    if (++m_progress.failed <= c_failuresShown) {
        m_printer.Clear();
        std::fprintf(stderr, "kv_load: connection %llu: %s\n",
                     static_cast<unsigned long long>(connection.GetNumber()), why.c_str());
    }
    assert(wasConnected ? m_connected > 0 : m_connecting > 0);
    if (wasConnected) {
        --m_connected;
        EndIfNobodyIsLeft();
    } else {
        --m_connecting;
        OpenMore();
    }
}

void LoadClient::EndIfNobodyIsLeft() {
    if (m_started && m_connected == 0 && m_progress.endedAt == 0) {
        m_progress.endedAt = examples::NowNs();
        m_onEnd();
    }
}

void LoadClient::OnTick() {
    const std::int64_t now = examples::NowNs();
    for (const auto& connection : m_connections) {
        connection->CheckTimeout(now);
    }
    if (m_progress.endedAt != 0) {
        return;
    }
    if (m_started) {
        m_printer.ShowRunning(m_progress.latency.GetCount(), now);
    } else {
        m_printer.ShowConnecting(m_connected, m_connections.size(), now);
    }
}

}  // namespace kv_load
