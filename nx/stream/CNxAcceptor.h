// A listening stream socket that keeps accepting, also when the process runs out of descriptors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CNxConnectedSocket.h>

struct CNxAcceptorOptions {
    int backlog = 4096;

    // Several sockets, one on each reactor, share the address (SO_REUSEPORT, socket(7)).
    bool reusePort = false;

    // Connections are accepted when their first data has come, or after so many seconds
    // (TCP_DEFER_ACCEPT, tcp(7)); 0: at once.
    unsigned deferSeconds = 0;

    // 0 for no limit. What is beyond is accepted and closed at once, and counted as refused:
    // connections at a time, of one address (IPv4, or the first 64 bits of IPv6) at a time, and new
    // ones in a second.
    size_t maxConnections = 0;
    size_t maxPerAddress = 0;
    size_t maxPerSecond = 0;

    // Permissions of the path of a unix socket.
    unsigned unixMode = 0660;
};

// Belongs to its reactor's thread, where it calls; made on any thread. The reactor outlives it.
// Destroyed on that thread, also within its call, or on any once that thread was joined.
//
// Connections that the reactor has reported once may still wait: when the system refuses to hand
// one over the acceptor tries again by a timer. When the process is out of descriptors it gives up
// a spare one to take the connection and hang up on it, so that it neither spins nor stays deaf.
class CNxAcceptor : private INxEventHandler, private INxTimerHandler {
public:
    // Takes over the accepted socket, which is non-blocking and close-on-exec. It counts among the
    // connections until `attached` is destroyed, which any thread may do, also after the acceptor.
    using OnAccepted = std::function<void(CNxConnectedSocket socket, const CNxEndpoint& peer)>;

    CNxAcceptor(INxReactor& reactor, OnAccepted onAccepted);
    ~CNxAcceptor() override;
    CNxAcceptor(const CNxAcceptor&) = delete;
    CNxAcceptor& operator=(const CNxAcceptor&) = delete;

    // Listens. The path of a unix socket is taken over when nobody listens on it any more, and
    // removed by Close; a live one is left alone.
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when open; NX_ERROR_INVALID_ARG for an endpoint of no
    // family; NX_ERROR_FAILURE with errno (EADDRINUSE, EACCES and so on), or when the reactor
    // cannot watch the socket.
    [[nodiscard]] NxResult Open(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options);

    // Connections that wait are refused by the system. May be opened again.
    void Close();

    // Connections wait in the backlog until Resume.
    void Pause();
    void Resume();

    // Where it listens, with the port that the system has chosen for 0; of no family when closed.
    const CNxEndpoint& GetEndpoint() const { return m_endpoint; }

    // Since it was opened.
    std::uint64_t GetAccepted() const { return m_accepted; }
    std::uint64_t GetRefused() const { return m_refused; }
    // At present; any thread.
    size_t GetConnections() const;

private:
    CNxEndpoint m_endpoint;
    std::uint64_t m_accepted = 0;
    std::uint64_t m_refused = 0;
};
