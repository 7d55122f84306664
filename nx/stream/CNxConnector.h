// Makes an outgoing connection, whatever that takes: names, both families, time-outs, more tries.
//
//     struct Client : INxConnectionSink {
//         explicit Client(INxReactor& reactor) : m_connector(reactor) {}
//         NxResult Start() { return m_connector.Connect("db.example.org:5432", {}, *this); }
//         void OnOpen(CNxConnection& connection) override { connection.Send("hello\n"); }
//         void OnReceive(CNxConnection&, CNxMessageChain& received) override { ... }
//         void OnClosed(CNxConnection&, const CNxCloseReason&) override {
//             m_connector.Reconnect();
//         }
//         CNxConnector m_connector;
//     };
#pragma once

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/INxObserver.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxConnectorOptions.h>

class CNxDnsRecord;
struct CConnectPlan;

// OWNS THE CONNECTION IT HAS MADE: when it is destroyed, connects anew or cancels, the connection
// is abandoned with whatever is under way, and nothing is called any more. So a sink that has its
// connector as a member may be destroyed at any time.
//
// Belongs to its reactor's thread, where everything is called; any operation may be called within
// these calls, and it may be destroyed there too, and on any thread once that one was joined. The
// reactor outlives it. Host names need a thread that the thread manager knows (CNxThreadReactor).
//
// The addresses of a name are tried after RFC 8305: the families take turns, the first is that of
// the address which the resolver puts first; the next attempt begins 250 ms after the last one, or
// as soon as one fails. The first socket that connects wins, the others are closed. The resolver
// answers for both families together, so there is no delay of the resolution.
//
// How long anything takes is judged by the monotonic clock. A system clock that is set back holds
// the reactor's timers up all the same, unless the process has chosen otherwise
// (CNxTimeValue::UseMonotonicClock).
class CNxConnector : private INxTimerHandler, private INxObserver {
public:
    using OnFailed = std::function<void(const CNxCloseReason& reason)>;

    explicit CNxConnector(INxReactor& reactor);
    ~CNxConnector() override;
    CNxConnector(const CNxConnector&) = delete;
    CNxConnector& operator=(const CNxConnector&) = delete;

    // Connects to "db.example.org:5432", or to whatever CNxEndpoint::Set takes but "*:80" and
    // "unix:"; first cancels what it does. Calls nothing before it returns. Then either the sink
    // hears of the connection, or `onFailed` (may be empty) is called once, when all tries have
    // failed, with the reason of the last: kind FAILED, a text that names the target, and as
    // `error` that of connect(2), ETIMEDOUT, for names ENOENT when there is none such or it has no
    // address, ETIMEDOUT when no name server has answered, EIO when they failed, else EINVAL when
    // the calling thread cannot be told of names, and ENOMEM.
    // A connection whose TLS fails has ended: OnClosed of the sink, and no further try by itself.
    // The sink is not owned.
    // NX_OK; with the connector idle: NX_ERROR_INVALID_ARG for null or another text, port 0, and
    // options that are out of range; NX_ERROR_NOT_INITIALIZED when the reactor is not open;
    // NX_ERROR_FAILURE without memory.
    [[nodiscard]] NxResult Connect(const char* target, const CNxConnectorOptions& options,
                                   INxConnectionSink& sink, OnFailed onFailed = {});

    // The same once more, after the next delay, however the last connection has ended: to be called
    // in OnClosed. The delays go on from where they were, and begin anew when the last connection
    // was made maxDelay ago or longer. Tries are counted anew.
    // NX_OK; with the connector idle: NX_ERROR_NOT_INITIALIZED when there was no Connect, and when
    // the reactor is not open; NX_ERROR_FAILURE without memory.
    NxResult Reconnect();

    // Until the next try begins, after Reconnect or a try that has failed; zero when none waits.
    CNxTimeValue GetDelay() const;

    // Gives up all that is under way. Reconnect is possible afterwards.
    void Cancel();

    // Null while there is none, and once it has ended.
    CNxConnection* GetConnection() const;

private:
    enum class EState { IDLE, WAITING, RESOLVING, CONNECTING, CONNECTED };

    class CAttempt;

    void OnTimeout(const CNxTimeValue& curTime, void* token) override;
    void OnObserve(const char* topic, void* data) override;

    void Stop();
    void Wait(EState state, const CNxTimeValue& due);
    [[nodiscard]] NxResult ScheduleUntil(const CNxTimeValue& due);
    [[nodiscard]] NxResult WaitForTry(const CNxTimeValue& delay);
    CNxTimeValue NextDelay();

    void BeginTry();
    void Resolve();
    void UseRecord(const CNxDnsRecord& record);
    void StartAttempts();
    [[nodiscard]] int StartAttempt(const CNxEndpoint& endpoint);
    void OnAttemptEnded(CAttempt& attempt, int error);
    void Succeed(CNxSocketBase socket);
    void FailTry(int error, const char* what = nullptr);
    void GiveUp(const CNxCloseReason& reason);

    INxReactor& m_reactor;
    EState m_state = EState::IDLE;
    // Shared with a call into it, which may connect anew.
    std::shared_ptr<const CConnectPlan> m_plan;
    CNxAutoPtr<CNxConnection> m_connection;

    // Of the try that is under way.
    std::vector<CNxEndpoint> m_endpoints;
    size_t m_next = 0;
    std::vector<std::unique_ptr<CAttempt>> m_attempts;
    int m_lastError = 0;

    // By the monotonic clock.
    CNxTimeValue m_due;
    CNxTimeValue m_deadline;
    CNxTimeValue m_connectedAt;

    unsigned m_tried = 0;
    int m_delays = 0;
    std::minstd_rand m_random;
};
