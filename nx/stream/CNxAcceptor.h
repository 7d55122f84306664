// A listening stream socket that keeps accepting, also when the process runs out of descriptors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CNxAcceptorOptions.h>
#include <nx/stream/CNxConnectedSocket.h>

class CListeningSocket;
class CPlacesTaken;

// Belongs to its reactor's thread, where it calls; made on any thread. The reactor outlives it.
// Destroyed on that thread, also within its call, or on any once that thread was joined.
//
// A connection that cannot be handed over, because there is no memory for it or a limit is reached,
// is closed. When the process is out of descriptors, the acceptor gives up a spare one to take the
// connection and hang up on it, so that it neither spins nor stays deaf; whatever else the system
// refuses is tried again after a tenth of a second. After 128 connections others have their turn. A
// reactor that drops it, and has no memory for a timer to try it again either, leaves it paused.
class CNxAcceptor : private INxEventHandler, private INxTimerHandler {
public:
    // Takes over the accepted socket, which is non-blocking, close-on-exec and above 2. It counts
    // among the connections until `attached` is destroyed, which any thread may do, also after the
    // acceptor. A peer on a unix socket has mostly no name ("unix:"). Any operation may be called
    // in it. A std::bad_alloc that leaves it refuses the connection, another exception ends the
    // process.
    using OnAccepted = std::function<void(CNxConnectedSocket socket, const CNxEndpoint& peer)>;

    CNxAcceptor(INxReactor& reactor, OnAccepted onAccepted);
    ~CNxAcceptor() override;
    CNxAcceptor(const CNxAcceptor&) = delete;
    CNxAcceptor& operator=(const CNxAcceptor&) = delete;

    // Listens. "*:80" serves IPv4 alone where the system has no IPv6; "[::]:80" is IPv6 alone.
    // "unix:" gets an abstract name of the system's choice.
    //
    // The path of a unix socket is taken over when it was left by a process that has died, and
    // removed by Close if it is still this one's; a live one, and any other file, is left alone.
    // To find out it is connected to, and for a moment its folder locked (flock(2)), so that of two
    // servers that start at once one gets it; the folder must be readable. It has its permissions
    // before anyone can connect.
    //
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when open; NX_ERROR_INVALID_ARG for an endpoint of no
    // family or when there is nothing to call; NX_ERROR_FAILURE with errno: EADDRINUSE, EACCES and
    // so on, EWOULDBLOCK when the folder of the path stays locked for half a second, EINVAL when
    // the reactor is not open or has no place for the descriptor.
    [[nodiscard]] NxResult Open(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options);

    // Connections that wait are refused by the system. May be opened again; connections of before
    // still count among those that there may be.
    void Close();

    // Connections wait in the backlog until Resume. Nothing happens when closed. Without memory for
    // a registration and for a timer that tries it later, it stays paused.
    void Pause();
    void Resume();

    // Where it listens, with the port that the system has chosen for 0; of no family when closed.
    const CNxEndpoint& GetEndpoint() const;

    // Since it was opened: those that OnAccepted has taken over, and those that were closed.
    std::uint64_t GetAccepted() const { return m_accepted; }
    std::uint64_t GetRefused() const { return m_refused; }
    // At present; any thread.
    size_t GetConnections() const;

private:
    enum class EState {
        CLOSED,
        LISTENING,  // registered
        PAUSED,
        WAITING  // not registered, until the timer finds that it can be
    };
    enum class EOutcome { TAKEN, GONE, NONE_WAITS, SYSTEM_REFUSED };

    // What outlives the acceptor when it is destroyed within its call.
    struct Call {
        const OnAccepted function;
        bool isGone;
    };

    int GetHandle() const override;
    int OnInput(int fd) override;
    int OnClose(int fd, long mask) override;
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    EOutcome AcceptOne(Call& call);
    EOutcome OnRefusal(int error);
    EOutcome HangUpOnOne();
    void HandOver(Call& call, CNxConnectedSocket socket, const CNxEndpoint& peer);
    bool IsTooFast();
    void OpenSpare();
    void Listen();
    void ListenLater();

    INxReactor& m_reactor;
    const std::shared_ptr<Call> m_call;
    const CNxAutoPtr<CPlacesTaken> m_places;

    EState m_state = EState::CLOSED;
    CNxAcceptorOptions m_options;
    const std::unique_ptr<CListeningSocket> m_socket;
    CNxSocketBase m_spare;

    std::uint64_t m_accepted = 0;
    std::uint64_t m_refused = 0;
    // For maxPerSecond: the second that is running, by the monotonic clock.
    CNxTimeValue m_secondBegan;
    size_t m_inSecond = 0;
};
