// One connection to the server.
#pragma once

#include <kv_load/LatencyHistogram.h>
#include <kv_load/Pipeline.h>
#include <kv_load/Workload.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kv_load {

// How far a run is. Belongs to the network thread while it runs; the main thread reads it
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

// Hears of each connection OnConnected and then OnDone or OnFailed, or only OnFailed. May be called
// from within Open and Start; must not destroy the connection.
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
    CNxInetAddr server;
    std::size_t pipeline;
    std::int64_t connectTimeoutNs;
    std::int64_t stallTimeoutNs;
    INxReactor& reactor;
    LoadProgress& progress;
    IConnectionOwner& owner;
};

// Life: constructed -> Open -> OnConnected -> Start -> OnDone or OnFailed, or Close at any time.
// Keeps its pipeline full: what the replies read in one go have made room for is asked in one go.
// Made on any thread, used on the reactor's thread, destroyed closed.
class Connection : public INxEventHandler {
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

    // Fails the connection if it has waited too long for the server, or if that has hung up
    // together with its last bytes. To be called a few times a second.
    void CheckTimeouts(std::int64_t now);

    std::uint64_t GetNumber() const { return m_number; }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;
    int OnOutput(int fd) override;
    int OnClose(int fd, long mask) override;

private:
    enum class EState { IDLE, CONNECTING, CONNECTED, RUNNING, CLOSED };

    bool OpenSocket();
    void OnConnected();
    // False when the connection has failed, of which the owner has heard.
    bool Watch(long mask);
    bool Receive();
    bool ReceiveFailed(long result);
    void Send();
    bool CanAsk() const;
    void FillOutput();
    void WaitForRoom(bool wait);
    void FinishIfAllAnswered();
    void Fail(const std::string& why);
    void FailConnect(const std::string& why);
    void FailLost(const std::string& why);

    const std::uint64_t m_number;
    const ConnectionSetup& m_setup;
    Workload m_workload;
    Pipeline m_pipeline;
    CNxSocketBase m_socket;
    EState m_state = EState::IDLE;
    bool m_waitsForRoom = false;

    // Requests that are written out and not sent yet: [m_outputSent, m_outputEnd).
    std::unique_ptr<char[]> m_output;
    std::size_t m_outputSent = 0;
    std::size_t m_outputEnd = 0;

    // When the server last took or sent something.
    std::int64_t m_lastActivity = 0;
};

}  // namespace kv_load
