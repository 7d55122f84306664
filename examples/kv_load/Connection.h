// One connection to the server.
#pragma once

#include <kv_load/LatencyHistogram.h>
#include <kv_load/Pipeline.h>
#include <kv_load/Workload.h>
#include <nx/stream/CNxConnector.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv_load {

// How far a run is. Belongs to the loop's thread while it runs; the main thread reads it
// afterwards.
struct LoadProgress {
    // Requests that no connection has made up yet; the connections take from here.
    std::uint64_t toIssue = 0;
    // Of NowNs(); 0 before the first request.
    std::int64_t startedAt = 0;
    std::int64_t endedAt = 0;
    // Connections that were given up.
    std::uint64_t failed = 0;
    // Of every request that got its right reply.
    LatencyHistogram latency;
};

class Connection;

// Hears of each connection OnConnected and then OnDone or OnFailed, or only OnFailed. Must not
// destroy the connection.
class IConnectionOwner {
public:
    virtual void OnConnected() = 0;
    // All its replies have come and there is nothing left to ask. It is closed.
    virtual void OnDone() = 0;
    // It is closed. `wasConnected`: whether OnConnected has come before.
    virtual void OnFailed(const Connection& connection, bool wasConnected,
                          const std::string& why) = 0;

protected:
    ~IConnectionOwner() = default;
};

// What all connections have in common; outlives them.
struct ConnectionSetup {
    std::string target;
    CNxConnectorOptions options;
    std::size_t pipeline;
    std::int64_t stallTimeoutNs;
    INxReactor& reactor;
    LoadProgress& progress;
    IConnectionOwner& owner;
};

// Bytes of requests that wait for the socket: beyond, a deep pipeline is asked in several.
constexpr std::size_t c_outputAim = 65536;

// Life: constructed -> Open -> OnConnected -> Start -> OnDone or OnFailed, or Close at any time.
// Keeps its pipeline full: what the replies of one turn have made room for is asked in one go.
// Made on any thread, used on the reactor's thread, destroyed closed.
class Connection : private INxConnectionSink {
public:
    // `number` is for messages.
    Connection(std::uint64_t number, const ConnectionSetup& setup, Workload workload);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Open();
    // Begins to ask. Does nothing unless connected.
    void Start();
    // Tells nobody.
    void Close();

    // Fails the connection if it has waited too long for the server. To be called a few times a
    // second.
    void CheckTimeout(std::int64_t now);

    std::uint64_t GetNumber() const { return m_number; }

private:
    enum class EState { IDLE, CONNECTING, CONNECTED, RUNNING, CLOSED };

    void OnOpen(CNxConnection& connection) override;
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override;
    void OnLowWater(CNxConnection& connection) override { Ask(connection); }
    void OnEnd(CNxConnection& connection) override;
    void OnStop(CNxConnection& /*connection*/) override {}
    void OnClosed(CNxConnection& connection, const CNxCloseReason& reason) override;

    void Ask(CNxConnection& connection);
    void FinishIfAllAnswered();
    void Fail(const std::string& why);
    void FailLost(const std::string& why);

    const std::uint64_t m_number;
    const ConnectionSetup& m_setup;
    Workload m_workload;
    Pipeline m_pipeline;
    EState m_state = EState::IDLE;
    CNxConnector m_connector;

    // When the server last took or sent something, as seen by CheckTimeout.
    std::int64_t m_activeAt = 0;
    std::uint64_t m_bytesBefore = 0;
};

}  // namespace kv_load
