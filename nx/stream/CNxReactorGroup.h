// Some loops on threads of their own, and listening sockets whose connections they share.
//
//     CNxReactorGroup group;
//     group.Start({});
//     group.Listen(endpoint, echo, {});
//     ...
//     group.Stop({10, 0});
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/stream/CNxAcceptorOptions.h>
#include <nx/stream/CNxConnectionOptions.h>
#include <nx/stream/INxConnectionSink.h>

class CNxThread;
class INxReactor;

struct CNxReactorGroupOptions {
    // 0: one for each processor that the process may use. At most 1024.
    unsigned loops = 1;

    // Each loop stays on one of those processors, in turn.
    bool onePerCpu = false;

    // The threads are named after it: "loop-0", "loop-1" and so on, cut to 15 bytes.
    std::string name = "loop";
};

// Which loop gets a connection.
enum class ENxDistribution {
    ROUND_ROBIN,      // the next one
    FEWEST,           // the one that has the fewest connections
    SOCKET_FOR_EACH,  // each accepts its own, from a socket of its own that shares the address
                      // (SO_REUSEPORT, socket(7)); TCP only. The system hands out by the
                      // addresses of both ends, so few clients may all meet on one loop
};

struct CNxListenOptions {
    CNxConnectionOptions connection;

    // With SOCKET_FOR_EACH the limits hold for each socket.
    CNxAcceptorOptions acceptor;

    ENxDistribution distribution = ENxDistribution::ROUND_ROBIN;
};

// What serves the connections of a listening socket.
class CNxSinkSource {
public:
    // One sink for all of them. WITH MORE THAN ONE LOOP IT IS CALLED ON SEVERAL THREADS AT A TIME.
    // Not owned; there until the group has stopped.
    CNxSinkSource(INxConnectionSink& sink) : m_sink(&sink) {}

    // A function that makes a std::unique_ptr of a sink for each connection, which owns it. Called
    // on the loop of the connection, so on several threads at a time. For null the connection is
    // hung up on.
    template <class Make, class = std::enable_if_t<std::is_invocable_v<Make&>>>
    CNxSinkSource(Make make) : m_make(std::move(make)) {}

private:
    friend class CNxReactorGroup;

    INxConnectionSink* m_sink = nullptr;
    std::function<std::unique_ptr<INxConnectionSink>()> m_make;
};

// Owns its loops, their threads and the listening sockets. Belongs to the thread that made it,
// which is none of the loops; GetCount, GetReactor, GetConnections, GetRefused and PostToEach are
// for any thread once it has started. The thread manager must be there (InitMainThread) before
// Start; the group is destroyed before the process exits.
//
// What uses a loop (sinks, timers, connectors) may be destroyed on its thread, or once Stop has
// returned NX_OK on the group's, as long as the group is there.
class CNxReactorGroup {
public:
    CNxReactorGroup();
    // Stop without waiting for what is under way. A LOOP THAT IS BLOCKED IN A CALLBACK KEEPS IT
    // WAITING: it uses what would be destroyed.
    ~CNxReactorGroup();
    CNxReactorGroup(const CNxReactorGroup&) = delete;
    CNxReactorGroup& operator=(const CNxReactorGroup&) = delete;

    // Starts the loops: epoll, with user types of the thread manager.
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when started or stopped before; NX_ERROR_INVALID_ARG for
    // too many loops; else the result of CNxThreadReactor::Create that failed, with no loop left.
    [[nodiscard]] NxResult Start(const CNxReactorGroupOptions& options);

    size_t GetCount() const { return m_loops.size(); }
    // Null beyond the last.
    INxReactor* GetReactor(size_t loop) const;

    // Calls the function with the number of each loop, on that loop. RunOnEach waits for each call
    // before the next; on none of the loops. PostToEach does not wait, and copies the function for
    // each.
    // NX_OK, or, with the others called all the same, the first failure: that of
    // INxEventQueue::SendEvent or PostEvent.
    NxResult RunOnEach(const std::function<void(size_t loop)>& function);
    NxResult PostToEach(const std::function<void(size_t loop)>& function);

    // Accepts connections, at once, and hands them to the loops. A connection that its loop cannot
    // take is hung up on and counted (GetRefused). Any number of times: TCP, unix sockets, TLS.
    // NX_OK; NX_ERROR_NOT_INITIALIZED before Start and after Stop; NX_ERROR_INVALID_ARG for a
    // function that is empty, or SOCKET_FOR_EACH on a unix socket; else the result of
    // CNxAcceptor::Open, with errno, and nothing listens on the endpoint.
    [[nodiscard]] NxResult Listen(const CNxEndpoint& endpoint, CNxSinkSource sinks,
                                  const CNxListenOptions& options);

    // How often Listen was called; where the first, second call and so on listens, with the port
    // that the system has chosen for 0: of no family when that has failed, and beyond the last.
    size_t GetListeners() const { return m_listeners.size(); }
    CNxEndpoint GetEndpoint(size_t listener = 0) const;

    // Has the certificates of all listeners read anew (CNxTlsContext::Reload). NX_OK, also without
    // any; else, with the others reloaded all the same, the first failure and its text in `error`.
    [[nodiscard]] NxResult ReloadTls(std::string& error);

    // Of all loops that run, at present.
    size_t GetConnections() const;
    // Accepted connections that were hung up on because their loop could not take them.
    std::uint64_t GetRefused() const { return m_refused.load(std::memory_order_relaxed); }

    // Tells the loops to end what they do, and does not wait: they stop listening (who waits in the
    // backlog is refused by the system, who was accepted and has no connection yet is hung up on),
    // then every connection is told (INxConnectionSink::OnStop). Once; later calls do nothing.
    void BeginStop();

    // BeginStop, then waits until no connection is left, at most for `limit`; then ends those that
    // are left (LOOP_ENDED), stops the loops and joins their threads. What was posted to a loop
    // fires before it ends; later posts are refused. The reactors stay until the group goes.
    // NX_OK; NX_ERROR_TIMEOUT when a loop has not come back from a callback c_blockedLimit after
    // that: it goes on as soon as it comes back, and all that it uses must stay. Stop may be called
    // again; a process that cannot wait ends by _exit(2).
    [[nodiscard]] NxResult Stop(const CNxTimeValue& limit);
    static constexpr CNxTimeValue c_blockedLimit{5, 0};

private:
    struct CLoop;
    class CListener;

    [[nodiscard]] NxResult StartLoop(const std::string& cpu, const std::string& name);
    [[nodiscard]] NxResult JoinUntil(const CNxTimeValue& deadline);
    void StopLoops();

    std::vector<std::unique_ptr<CLoop>> m_loops;
    std::vector<std::unique_ptr<CListener>> m_listeners;
    std::atomic<std::uint64_t> m_refused{0};
    std::atomic<bool> m_isStopping{false};
};
