// A whole run: the connections, and what they achieved.
#pragma once

#include <kv_load/LatencyHistogram.h>
#include <nx/nx.h>

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
    CNxTlsOptions tls;
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
    LoadClient(const Options& options, const CNxAutoPtr<CNxTlsContext>& tls, CNxServer& server);
    ~LoadClient();
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    // Ends the run where it stands.
    void Close();

    // Once closed: prints what was achieved. Returns the status to exit with, `signal` being the
    // one that has ended the run: 0 if every request got its right reply, 1 if a connection was
    // given up, else 128 plus the signal.
    int Report(int signal) const;

private:
    class Connection;

    void Proceed();

    const Options m_options;
    CNxServer& m_server;
    const std::string m_target;
    const CNxConnectorOptions m_connectorOptions;
    // A short run shall keep all connections busy, too.
    const std::size_t m_pipeline;
    std::vector<std::unique_ptr<Connection>> m_connections;
    CNxTimedCall m_progress;

    // How many were told to open; of these, how many have still to connect or fail, and how many
    // are connected and have something left to do.
    std::size_t m_opened = 0;
    std::size_t m_connecting = 0;
    std::size_t m_connected = 0;
    std::uint64_t m_failed = 0;

    // Requests that no connection has asked yet; the connections take from here.
    std::uint64_t m_toAsk;
    // In nanoseconds, of every request that got its right reply.
    LatencyHistogram m_latency;
    // Of NowNs(); 0 before.
    std::int64_t m_startedAt = 0;
    std::int64_t m_endedAt = 0;
};

}  // namespace kv_load
