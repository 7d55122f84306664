// Inside the library only: the connection.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>

#include <nx/foundation/CCallOut.h>
#include <nx/reactor/INxEventHandler.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CStoredEndpoint.h>
#include <nx/stream/CStreamFilter.h>
#include <nx/stream/CStreamLoop.h>
#include <nx/stream/CStreamOutput.h>

// Since a reactor may report changes only, it remembers what can be done, and Proceed does all of
// it that can be done now: receive and offer, send, end. What the sink sends meanwhile goes out
// when its calls have returned.
//
// The loop calls when the earliest of its time-outs could be over, and again for the rest: traffic
// only notes the time.
//
// There may be 10,000 of them that wait: small things are kept together.
class CConnectionImp final : public CStreamMember, private INxEventHandler {
public:
    // As CNxConnection::Create.
    [[nodiscard]] static NxResult Make(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                                       CNxConnectedSocket socket, INxConnectionSink& sink,
                                       std::unique_ptr<INxConnectionSink> ownedSink,
                                       const Options& options);
    ~CConnectionImp() override;

    NxResult Send(CNxMessageChain&& chain) override;
    NxResult Send(std::string_view bytes) override;
    NxResult SendShared(const CNxMessageChain& chain) override;
    NxResult SendFrame(CNxMessageChain&& payload) override;
    NxResult SendFrame(std::string_view payload) override;
    NxResult SendFile(CNxSocketBase file, std::uint64_t offset, std::uint64_t size) override;
    void PauseReading() override;
    void ResumeReading() override;
    void SetFraming(const CNxFraming& framing) override;
    void CloseWhenSent() override;
    void CloseNow() override;
    void EndSending() override;
    void Abandon() override;
    EState GetState() const override { return m_state.load(std::memory_order_acquire); }
    size_t GetUnsent() const override;
    INxReactor& GetReactor() const override { return GetLoop().GetReactor(); }
    CNxEndpoint GetLocalEndpoint() const override { return m_local.Get(); }
    CNxEndpoint GetPeerEndpoint() const override { return m_peer.Get(); }
    std::uint64_t GetBytesReceived() const override { return m_bytesReceived; }
    std::uint64_t GetBytesSent() const override { return m_bytesSent; }
    CNxTimeValue GetAge() const override;
    const CNxTlsInfo* GetTlsInfo() const override;
    void* GetCookie() const override { return m_cookie; }
    void SetCookie(void* cookie) override { m_cookie = cookie; }

private:
    // Of our side, beside the state.
    enum class ESending : unsigned char {
        OPEN,
        ENDING,  // no more is taken; what waits is sent
        SEALED,  // and the filter has said its last word
        ENDED,   // the socket's side is shut down
    };

    // What says more than the kind of the end.
    enum class EText : unsigned char {
        NONE,
        TOO_MUCH_UNSENT,
        TOO_MUCH_UNREAD,
        LONG_FRAME,
        CUT_HANDSHAKE,
        CUT_STREAM,
    };

    enum class EStop : unsigned char { NOT_ASKED, DUE, TOLD };  // due: when it is open

    // What stands between, and what has still to pass it.
    struct CFiltered {
        std::unique_ptr<CStreamFilter> filter;
        CStreamFilter::EState state = CStreamFilter::EState::HANDSHAKING;
        CStreamOutput plain;
        CNxMessageChain held;  // before that: until the peer has said more
    };

    // When the time-outs are over, in milliseconds of the monotonic clock.
    struct CDues {
        std::int64_t handshake = CDueMember::c_never;
        std::int64_t lingering = CDueMember::c_never;
        std::int64_t stall = CDueMember::c_never;
        std::int64_t idle = CDueMember::c_never;
    };

    CConnectionImp(CStreamLoop& loop, CNxConnectedSocket socket, INxConnectionSink& sink,
                   std::unique_ptr<INxConnectionSink> ownedSink, Options options);
    [[nodiscard]] NxResult Open();

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;
    int OnOutput(int fd) override;
    int OnClose(int fd, long mask) override;

    void Proceed() override;
    void OnDue() override;
    void OnLeft(CStreamOutput&& output, EAsked asked) noexcept override;
    void TellStop() override;
    void EndWithLoop() override;
    void TellClosed() override;
    void Release() override;

    void StoreEndpoints();
    void SetSocketOptions();
    [[nodiscard]] NxResult StartFilter();
    [[nodiscard]] NxResult Register();

    void Advance();
    void ServeAsked();
    void TellOpen();
    template <class Call>
    void CallSink(const char* name, const Call& call);

    void Receive();
    bool WantsInput() const;
    size_t GetRoom() const;
    bool HasRoom() const { return m_received.IsEmpty() || GetRoom() != 0; }
    void ReceiveOnce(size_t& left);
    long ReceiveInto(CNxMessageChain& chain, size_t size);
    void ReceivedNothing(long result);
    void CallFailed(int error, bool& isReady);
    void OnReceived(size_t size, size_t asked);
    void OpenFilter(CNxMessageChain&& sealed);
    void EndFiltered();
    void OnPeerEnded();
    void Discard();
    void Offer();
    void OfferAll();
    void OfferFrame();
    void TellEnd();
    const CNxFraming& GetFraming() const;

    NxResult CheckSend(size_t size);
    template <class Bytes>
    NxResult SendAny(size_t size, Bytes&& bytes);
    CStreamOutput& GetPlain() { return m_filtered ? m_filtered->plain : m_output; }
    void OnSendAsked();
    void Flush();
    void SendWaiting(size_t& left);
    void Seal() {
        if (m_filtered) {
            SealWaiting();
        }
    }
    void SealWaiting();
    bool IsHeldBack() const { return m_filtered && !m_filtered->held.IsEmpty(); }
    bool TellWater();
    void CountUnsent();
    bool IsAllSent() const;
    void EndSendingSide();
    void EndWithSending();

    void LetGoOfSink();
    void SetState(EState next);
    void EndWhenSent();
    void End(ENxClosed kind, EText text = EText::NONE);
    void Fail(int error);
    std::string Describe() const;
    std::string DescribeKind() const;

    static std::int64_t NowMs() { return CStreamLoop::NowMs(); }
    void NoteActivity();
    void NoteSent(bool hasMoved);
    bool IsTimed() const;
    CDues GetDues() const;
    void AskForCall();
    void EndIfExpired();
    void Watch();

    size_t GetTurnSize() const { return std::max<size_t>(m_options->bytesPerTurn, 1); }
    bool IsUnix() const { return m_local.GetFamily() == AF_UNIX; }
    bool IsEnded() const { return m_state.load(std::memory_order_relaxed) == EState::CLOSED; }
    bool IsHandshaking() const {
        return m_filtered && m_filtered->state == CStreamFilter::EState::HANDSHAKING;
    }

    const Options m_options;
    std::unique_ptr<CNxFraming> m_framing;      // other than that of the options
    std::unique_ptr<INxConnectionSink> m_sink;  // perhaps not owned: see LetGoOfSink
    std::unique_ptr<CNxReleasedWithSocket> m_attached;
    CStoredEndpoint m_local;
    CStoredEndpoint m_peer;
    void* m_cookie = nullptr;

    CNxMessageChain m_received;  // what the sink has not taken
    size_t m_searched = 0;       // of it, for the framing
    CStreamOutput m_output;      // for the socket
    std::unique_ptr<CFiltered> m_filtered;
    std::uint64_t m_bytesReceived = 0;
    std::uint64_t m_bytesSent = 0;
    std::atomic<size_t> m_unsent{0};

    // See CStreamLoop::NowMs.
    const std::int64_t m_createdAt;
    std::int64_t m_activeAt;     // something came or went, or LINGERING began
    std::int64_t m_takenAt = 0;  // while bytes wait: the socket last took some

    int m_error = 0;
    CNxSocketBase m_socket;

    std::atomic<EState> m_state{EState::HANDSHAKING};
    ESending m_sending = ESending::OPEN;
    EAsked m_asked = EAsked::NOTHING;
    ENxClosed m_closed = ENxClosed::BY_US;
    EText m_text = EText::NONE;
    EStop m_stop = EStop::NOT_ASKED;

    bool m_ownsSink;
    bool m_isSilent = false;  // the sink is not called any more

    // What can be done, and what has been.
    bool m_isReadable = false;
    bool m_isWritable = true;
    bool m_isStarved = false;  // the system lacks buffers: again after a while
    bool m_isBulk = false;     // the last receive was large
    bool m_isPaused = false;
    bool m_isFresh = false;  // there is something to offer
    bool m_isProceeding = false;
    bool m_isWaiting = false;    // bytes wait for room in the socket
    bool m_isHigh = false;       // OnHighWater was called last
    bool m_mayHaveEnded = true;  // the peer may, after what is read now
    bool m_hasPeerEnded = false;
    bool m_isEndTold = false;
    bool m_isByPeer = false;  // the sink knew of the peer's end when ours began
    bool m_isRegistered = false;
    // Where states are reported.
    bool m_watchesInput = false;
    bool m_watchesRoom = true;
};

template <class Call>
void CConnectionImp::CallSink(const char* name, const Call& call) {
    if (m_isSilent || IsEnded()) {
        return;
    }
    CallOut(name, [&] {
        try {
            call(*m_sink);
        } catch (const std::bad_alloc&) {
            End(ENxClosed::OUT_OF_MEMORY);
        }
    });
}
