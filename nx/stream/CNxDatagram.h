// A datagram socket (UDP or unix) on a reactor: what is sent within a turn goes out in one system
// call, what comes is received many at a time, and nothing that others do to it ends it.
//
//     CNxDatagram echo(reactor, [&](const CNxReceivedDatagram& received) {
//         echo.Send(received.from, received.bytes);
//     });
//     const NxResult opened = echo.Open(endpoint, {});
#pragma once

#include <pthread.h>
#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <nx/buffer/CNxMessageChain.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CNxDatagramOptions.h>

class CDatagramQueue;
class CUnixPath;

// Good for the length of the call.
struct CNxReceivedDatagram {
    // Of no family when a unix sender has no name.
    const CNxEndpoint& from;
    std::string_view bytes;
    // It had more bytes than maxReceived.
    bool isTruncated;
};

// Since it was opened.
struct CNxDatagramCounts {
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    // Beyond maxUnsent, or refused by the system: too long, no way there, nobody there.
    std::uint64_t droppedSending = 0;
    // By the system, because the receive buffer was full; known with the next datagram after them
    // (SO_RXQ_OVFL, socket(7)). Unix sockets drop none.
    std::uint64_t droppedReceiving = 0;
};

// Belongs to its reactor's thread, where it calls; may be destroyed there, also within its call,
// and on any thread once that one was joined. The reactor outlives it. Any thread may call Send
// while it is open.
//
// A datagram that was accepted may still be lost, as datagrams are. What others say of those sent
// before (ICMP: nobody there, no way there) is taken notice of and changes nothing: no datagram is
// lost for it, and no receiver told.
//
// Datagrams leave in their order. WHILE ONE WAITS FOR A UNIX PEER THAT DOES NOT READ, those behind
// it wait too.
class CNxDatagram : private INxEventHandler, private INxTimerHandler {
public:
    using OnReceived = std::function<void(const CNxReceivedDatagram& received)>;

    CNxDatagram(INxReactor& reactor, OnReceived onReceived);
    ~CNxDatagram() override;
    CNxDatagram(const CNxDatagram&) = delete;
    CNxDatagram& operator=(const CNxDatagram&) = delete;

    // Binds the socket. Port 0 for any; "*:80" where the system has no IPv6 stands for IPv4 alone;
    // "unix:" for one that only sends, or whose peers need no name. The path of a unix socket is
    // taken over when nobody has it any more, and removed by Close; a live one is left alone.
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when open; NX_ERROR_INVALID_ARG for an endpoint of no
    // family, options out of their range, and an interface that there is not; NX_ERROR_FAILURE with
    // errno (EADDRINUSE, EACCES and so on), without memory, or when the reactor cannot watch it.
    [[nodiscard]] NxResult Open(const CNxEndpoint& endpoint, const CNxDatagramOptions& options);

    // Sends what waits, as far as the socket takes it, and drops the rest. May be opened again.
    void Close();

    // Leaves one datagram with the socket, to `to`, an empty one too. What is sent in a turn of the
    // loop goes out at its end; on the loop's thread earlier when there is enough for a call. The
    // bytes are copied; a chain is emptied in all cases.
    // NX_OK: it is sent, unless the system refuses it, which is counted. NX_ERROR_NOT_AVAILABLE:
    // dropped and counted, because maxUnsent wait. NX_ERROR_NOT_INITIALIZED when closed;
    // NX_ERROR_INVALID_ARG for more than 65,535 bytes, or pieces that are null;
    // NX_ERROR_FAILURE without memory.
    NxResult Send(const CNxEndpoint& to, std::string_view bytes);
    NxResult Send(const CNxEndpoint& to, CNxMessageChain&& chain);
    NxResult Send(const CNxEndpoint& to, const iovec* pieces, size_t count);

    // Sends what waits at once, as far as the socket takes it.
    void Flush();

    // Receives what is sent to the group (RFC 3678), or no longer, on the interface of that name;
    // "" leaves it to the system. The port of `group` counts for nothing. An IPv6 socket that
    // serves IPv4 as well takes groups of both.
    // NX_OK; NX_ERROR_NOT_INITIALIZED when closed; NX_ERROR_INVALID_ARG for what is no group, and
    // an interface that there is not; NX_ERROR_FAILURE with errno (EADDRINUSE: joined already,
    // EADDRNOTAVAIL: not a member, ENODEV: no interface for it).
    [[nodiscard]] NxResult Join(const CNxEndpoint& group, const std::string& interface = {});
    [[nodiscard]] NxResult Leave(const CNxEndpoint& group, const std::string& interface = {});

    // With the port that the system has chosen for 0; of no family when closed.
    const CNxEndpoint& GetEndpoint() const { return m_endpoint; }

    CNxDatagramCounts GetCounts() const;

private:
    enum class ESending { FREE, WAITS_FOR_ROOM, WAITS_FOR_TIME };

    struct CReceiver;
    class CInbox;

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;
    int OnOutput(int fd) override;
    int OnClose(int fd, long mask) override;
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    [[nodiscard]] bool OpenSocket(const CNxEndpoint& endpoint, const CNxDatagramOptions& options,
                                  unsigned interface);
    [[nodiscard]] bool OpenAt(const CNxEndpoint& endpoint, const CNxDatagramOptions& options,
                              unsigned interface);
    [[nodiscard]] bool Bind(const CNxEndpoint& endpoint, unsigned unixMode);
    void CloseSocket();
    [[nodiscard]] bool Watch(long mask);
    void TryLater();

    template <class Put>
    [[nodiscard]] NxResult SendWith(size_t size, const Put& put);
    template <class Put>
    [[nodiscard]] NxResult SendHere(const Put& put);
    template <class Put>
    [[nodiscard]] NxResult SendFromElsewhere(const Put& put);
    void OnFlushAsked();

    void Serve();
    [[nodiscard]] bool Receive();
    [[nodiscard]] bool HandOut(CReceiver& receiver, size_t count, const bool& isClosed);
    [[nodiscard]] bool MayReceiveAfter(int error);

    INxReactor& m_reactor;
    const std::shared_ptr<const OnReceived> m_onReceived;
    std::atomic<pthread_t> m_thread{};

    std::unique_ptr<CUnixPath> m_path;
    CNxSocketBase m_socket;
    CNxEndpoint m_endpoint;
    bool m_isWatched = false;
    size_t m_receivedPerTurn = 0;
    size_t m_maxUnsent = 0;
    CNxDatagramCounts m_counts;
    // As the system counts them.
    std::uint32_t m_lastDropped = 0;

    // Shared with the call that hands its datagrams out, in which this may be closed.
    std::shared_ptr<CReceiver> m_receiver;
    // Of that call.
    bool* m_isClosed = nullptr;

    const std::unique_ptr<CDatagramQueue> m_unsent;
    ESending m_sending = ESending::FREE;
    long m_retryMs = 0;
    bool m_isFlushAsked = false;

    // What other threads send, and whether there may be some.
    const CNxAutoPtr<CInbox> m_inbox;
    bool m_mustFetch = false;
};
