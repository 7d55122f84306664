// A stream connection (TCP, unix, TLS over either) on a reactor: what is sent waits for room by
// itself, what comes is cut into frames, and the end comes exactly once and says why.
//
//     class Echo : public INxConnectionSink {
//         void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
//             connection.Send(std::move(received));
//         }
//     };
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include <nx/buffer/CNxMessageChain.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>
#include <nx/stream/CNxConnectedSocket.h>
#include <nx/stream/CNxConnectionOptions.h>
#include <nx/stream/INxConnectionSink.h>

class INxReactor;
struct CNxTlsInfo;

// Belongs to one reactor, whose thread calls the sink. Counted: it holds a reference to itself
// until it has ended, so whoever only sends and receives need not keep it. Whoever does keep one,
// on any thread, holds a CNxAutoPtr; after the end it answers queries and refuses the rest.
//
// Any thread may call Send, SendShared, SendFile, CloseWhenSent, CloseNow, GetState, GetUnsent and
// the queries that never change (addresses, reactor); everything else belongs to the reactor's
// thread. What one thread sends arrives in its order.
//
// One state:
//
//     HANDSHAKING --> OPEN --> ENDING --> LINGERING --> CLOSED     and from each to CLOSED
//
// ENDING: nothing is read any more, what waits is sent. LINGERING: our side has ended, the peer's
// is waited for.
//
// HANDSHAKING: OnOpen has not come yet, without TLS too; what is sent meanwhile waits for it.
//
// A reactor that is closed or destroyed ends its connections as LOOP_ENDED, with the calls of
// OnClosed, on the thread that closes it; a reactor's thread (CNxThreadReactor) does that as its
// last step. After it all operations are harmless on any thread, with the reactor or without.
//
// Descriptors that come through a unix socket are closed unseen. Urgent data of TCP is passed over,
// and what comes behind it may wait until more comes.
class CNxConnection : public CNxReferenceControlT<CNxMutexThread> {
public:
    enum class EState : unsigned char { HANDSHAKING, OPEN, ENDING, LINGERING, CLOSED };
    using Options = std::shared_ptr<const CNxConnectionOptions>;

    // Makes a connection of a connected socket on the reactor's thread. Takes the socket over also
    // when it fails. The sink is not owned and must be there until OnClosed, or until it is taken
    // off by Abandon; the second form owns it and destroys it after OnClosed. Calls nothing before
    // it returns: OnOpen comes from the loop.
    // NX_OK with the connection in `out`. NX_ERROR_INVALID_ARG without a socket or options;
    // NX_ERROR_FAILURE without memory, when the reactor cannot watch the socket, when TLS cannot be
    // begun, or for a reactor that does not derive from CNxReactorBase; NX_ERROR_NOT_INITIALIZED
    // when the reactor is not open or being closed. An owned sink is destroyed without a call then.
    [[nodiscard]] static NxResult Create(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                                         CNxConnectedSocket socket, INxConnectionSink& sink,
                                         const Options& options);
    [[nodiscard]] static NxResult Create(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                                         CNxConnectedSocket socket,
                                         std::unique_ptr<INxConnectionSink> sink,
                                         const Options& options);

    // Leaves the bytes with the connection, to be sent after what was sent before. Everything that
    // is sent within one turn of the loop goes out in one system call, as far as it takes it.
    // NX_OK: it is sent unless the connection ends before. NX_ERROR_NOT_INITIALIZED when the
    // connection is ENDING or further; NX_ERROR_NOT_AVAILABLE when more than maxUnsent would wait:
    // the connection is then dropped, from the loop. NX_ERROR_FAILURE without memory, with nothing
    // sent. A chain is taken over in all cases. Within calls of the sink, and from wherever on the
    // reactor's thread, it only collects: no call of the sink comes before it returns.
    virtual NxResult Send(CNxMessageChain&& chain) = 0;
    virtual NxResult Send(std::string_view bytes) = 0;

    // Sends what the chain holds without copying or changing it: one payload to many connections,
    // in any number and on any threads.
    virtual NxResult SendShared(const CNxMessageChain& chain) = 0;

    // Sends a frame as the framing of the options puts it on the wire. As Send;
    // NX_ERROR_INVALID_ARG for one that is too long. On the reactor's thread.
    virtual NxResult SendFrame(CNxMessageChain&& payload) = 0;
    virtual NxResult SendFrame(std::string_view payload) = 0;

    // Sends `size` bytes of a file from `offset` on, by sendfile(2) where there is no TLS; a short
    // range is read, and goes out with the bytes around it. The
    // descriptor is taken over in all cases. A file that has become shorter ends the connection as
    // FAILED with ENODATA. NX_OK, NX_ERROR_INVALID_ARG without a descriptor, else as Send.
    virtual NxResult SendFile(CNxSocketBase file, std::uint64_t offset, std::uint64_t size) = 0;

    // Nothing is read, so that the peer feels it in its own sends, until reading goes on. What is
    // there already is not offered meanwhile; ResumeReading has it offered again, from the loop.
    // The idle time-out does not run meanwhile, and the peer's end is not told.
    virtual void PauseReading() = 0;
    virtual void ResumeReading() = 0;

    // From the next frame on, within OnReceive too.
    virtual void SetFraming(const CNxFraming& framing) = 0;

    // No more is read; ends when all is sent, what other threads have sent before it too, and the
    // peer has ended its side as well. During a TLS handshake that is finished first.
    virtual void CloseWhenSent() = 0;

    // Ends without sending what waits; OnClosed comes from the loop, or at once when this is called
    // on the reactor's thread outside of the calls of any sink; within them it comes when all that
    // is under way for the connection that is called has returned.
    virtual void CloseNow() = 0;

    // Half close: ends our sending after what waits, and sends are refused as when ENDING; goes on
    // reading until the peer ends, and is over then as BY_PEER.
    virtual void EndSending() = 0;

    // CloseNow without a call: the sink is not called any more from here on, and need not be there.
    // Within a call of the sink too. A sink that the connection owns is destroyed.
    virtual void Abandon() = 0;

    virtual EState GetState() const = 0;

    // Bytes that wait to be sent, as the water marks count them.
    virtual size_t GetUnsent() const = 0;

    virtual INxReactor& GetReactor() const = 0;
    // Of no family where the system did not tell.
    virtual CNxEndpoint GetLocalEndpoint() const = 0;
    virtual CNxEndpoint GetPeerEndpoint() const = 0;

    // On the wire; with TLS that is ciphertext.
    virtual std::uint64_t GetBytesReceived() const = 0;
    virtual std::uint64_t GetBytesSent() const = 0;

    // Since it was made, by the monotonic clock, to some milliseconds.
    virtual CNxTimeValue GetAge() const = 0;

    // What TLS has agreed on; null without TLS, before OnOpen and after OnClosed.
    virtual const CNxTlsInfo* GetTlsInfo() const = 0;

    // A pointer that the connection keeps for its user.
    virtual void* GetCookie() const = 0;
    virtual void SetCookie(void* cookie) = 0;

    // Of all connections of a reactor, on its thread: how many there are; OnStop for each; CloseNow
    // for each as LOOP_ENDED, the calls of OnClosed coming before it returns, within calls of a
    // sink too. One that is not open yet hears OnStop after OnOpen. GetCount on any thread.
    static size_t GetCount(INxReactor& reactor);
    static void StopAll(INxReactor& reactor);
    static void CloseAll(INxReactor& reactor);

protected:
    CNxConnection() = default;
};

// Holds a connection whose sink is its holder, or is destroyed with it: letting go of it abandons
// the connection, so that nothing is called any more. Belongs to the reactor's thread, within calls
// of the sink too, or to any when that thread was joined.
class CNxConnectionHolder {
public:
    CNxConnectionHolder() = default;
    explicit CNxConnectionHolder(CNxAutoPtr<CNxConnection> connection)
        : m_connection(std::move(connection)) {}
    ~CNxConnectionHolder() { Reset(); }
    CNxConnectionHolder(const CNxConnectionHolder&) = delete;
    CNxConnectionHolder& operator=(const CNxConnectionHolder&) = delete;

    void Reset(CNxAutoPtr<CNxConnection> connection = {});

    CNxConnection* Get() const { return m_connection.Get(); }
    CNxConnection* operator->() const { return m_connection.Get(); }
    explicit operator bool() const { return static_cast<bool>(m_connection); }

private:
    CNxAutoPtr<CNxConnection> m_connection;
};
