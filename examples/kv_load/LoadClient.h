// A whole run: the connections, and what they achieved.
#pragma once

#include <kv_load/LatencyHistogram.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/stream/CNxConnector.h>
#include <nx/stream/CNxServer.h>
#include <nx/timer/CNxTimedCall.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv_load {

struct Options {
    // A name, or an IPv4 or IPv6 address.
    std::string host = "127.0.0.1";
    std::uint64_t port = 0;
    std::uint64_t connections = 50;
    // Requests that a connection has under way.
    std::uint64_t pipeline = 16;
    // Bytes.
    std::uint64_t valueSize = 32;
    // Of all connections together.
    std::uint64_t requests = 100000;
    std::uint64_t keys = 10000;
    // Seconds.
    std::uint64_t connectTimeout = 10;
    std::uint64_t stallTimeout = 30;
    bool isTls = false;
    // Whom to trust; "" for what the system trusts.
    std::string caFile;
};

// Opens all connections first, a limited number at a time, and has them begin together once none
// is left to wait for. What is to be asked is not dealt out beforehand: a connection takes as much
// as it can, so that a slow or lost one does not hold up the end.
//
// On the main thread and its loop.
class LoadClient {
public:
    // Begins to connect, and stops the server when no connection has anything left to do. `tls` is
    // null for none. The server has started and outlives the client.
    LoadClient(const Options& options, CNxAutoPtr<CNxTlsContext> tls, CNxServer& server);
    ~LoadClient();
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    // Ends the run where it stands.
    void Close();

    // Once closed. From the first request to the last reply; 0 without a request.
    double GetSeconds() const;
    // Connections that were given up.
    std::uint64_t GetFailed() const { return m_failed; }
    // In nanoseconds, of every request that got its right reply.
    const LatencyHistogram& GetLatency() const { return m_latency; }

private:
    class Connection;

    void Proceed();
    void OnConnected();
    void OnNothingLeft();
    void OnFailed(const Connection& connection, const std::string& why);
    void Report(const Connection& connection, const std::string& why);
    void ShowProgress();

    const Options m_options;
    CNxServer& m_server;
    const std::string m_target;
    const CNxConnectorOptions m_connectorOptions;
    // A short run shall keep all connections busy, too.
    const std::size_t m_pipeline;
    std::vector<std::unique_ptr<Connection>> m_connections;
    CNxTimedCall m_tick;

    // How many were told to open; of these, how many have still to connect or fail, and how many
    // are connected and have something left to do.
    std::size_t m_opened = 0;
    std::size_t m_connecting = 0;
    std::size_t m_connected = 0;
    std::uint64_t m_failed = 0;

    // Requests that no connection has asked yet; the connections take from here.
    std::uint64_t m_toAsk;
    LatencyHistogram m_latency;
    // Of NowNs(); 0 before.
    std::int64_t m_startedAt = 0;
    std::int64_t m_endedAt = 0;
    // What the next rate is measured from.
    std::int64_t m_shownAt = 0;
    std::uint64_t m_shownCount = 0;
};

}  // namespace kv_load
