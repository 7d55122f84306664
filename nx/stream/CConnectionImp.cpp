#include <netinet/tcp.h>
#include <nx/foundation/CCallOut.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CConnectionImp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

namespace {

// What comes in so large pieces is received where it stays.
constexpr size_t c_bulk = 16384;

// Of a file, and of what is sealed ahead of what the socket takes.
constexpr size_t c_pieceOfFile = 65536;

// After so long the system may have buffers again.
constexpr std::int64_t c_starvedMs = 100;

// The coarse clock's step at most: a timer is that much late, and finds the time over.
constexpr std::int64_t c_clockStepMs = 10;

std::int64_t NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Never, without a time-out.
std::int64_t After(std::int64_t since, const CNxTimeValue& timeout) {
    const long ms = timeout.GetTotalInMsec();
    constexpr std::int64_t c_never = std::numeric_limits<std::int64_t>::max();
    return ms > 0 && ms < c_never - since ? since + ms : c_never;
}

constexpr const char* c_tooMuchUnsent = "more waits to be sent than may wait";

bool WouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

// The system is short of buffers: no readiness will tell when that is over.
bool LacksBuffers(int error) {
    return error == ENOBUFS || error == ENOMEM;
}

// TLS, when that is built.
std::unique_ptr<CStreamFilter> MakeFilter(const CNxConnectionOptions& options, std::string& error) {
    return options.tls->MakeFilter(options.tlsName, error);
}

std::string Within(const char* what, const CNxTimeValue& time) {
    char text[96];
    std::snprintf(text, sizeof(text), "%s %.6g s", what,
                  static_cast<double>(time.GetTotalInMsec()) / 1000);
    return text;
}

}  // namespace

CConnectionImp::CConnectionImp(CStreamLoop& loop, CNxConnectedSocket socket,
                               INxConnectionSink& sink,
                               std::unique_ptr<INxConnectionSink> ownedSink, Options options)
    : CStreamMember(loop),
      m_options(std::move(options)),
      m_sink(&sink),
      m_ownedSink(std::move(ownedSink)),
      m_socket(std::move(socket.socket)),
      m_attached(std::move(socket.attached)),
      m_createdAt(NowMs()),
      m_activeAt(m_createdAt) {}

CConnectionImp::~CConnectionImp() {
    assert(!m_isRegistered && m_timerAt == 0);
}

NxResult CConnectionImp::Open() {
    try {
        StoreEndpoints();
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    SetSocketOptions();
    const NxResult started = m_options->tls ? StartFilter() : NX_OK;
    const NxResult registered = started == NX_OK ? Register() : started;
    if (registered == NX_OK) {
        AddReference();
        GetLoop().Add(*this);
    }
    return registered;
}

// Where the system does not tell, they stay of no family.
void CConnectionImp::StoreEndpoints() {
    CNxEndpoint endpoint;
    if (endpoint.SetLocalOf(GetHandle()) == NX_OK) {
        m_local.Set(endpoint);
        m_isUnix = endpoint.GetFamily() == AF_UNIX;
    }
    if (endpoint.SetPeerOf(GetHandle()) == NX_OK) {
        m_peer.Set(endpoint);
    }
}

// Without one of them a connection is slower, not wrong.
void CConnectionImp::SetSocketOptions() {
    const int on = 1;
    if (m_isUnix) {
        return;
    }
    if (m_options->noDelay) {
        setsockopt(GetHandle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    if (m_options->keepAlive) {
        setsockopt(GetHandle(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    }
}

NxResult CConnectionImp::StartFilter() {
    try {
        std::string error;
        m_filtered = std::make_unique<CFiltered>();
        m_filtered->filter = MakeFilter(*m_options, error);
        if (m_filtered->filter == nullptr) {
            return NX_ERROR_FAILURE;
        }
        CNxMessageChain toSocket;
        m_filtered->state = m_filtered->filter->Start(toSocket);
        m_output.Append(std::move(toSocket));
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    CountUnsent();
    return m_filtered->state != CStreamFilter::EState::FAILED ? NX_OK : NX_ERROR_FAILURE;
}

// Where changes are reported it is for good: no message costs a change of the registration.
NxResult CConnectionImp::Register() {
    INxReactor& reactor = GetReactor();
    if (GetLoop().IsClosing()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const bool isState = GetLoop().ReportsStates();
    if (isState && m_socket.Enable(CNxIPCBase::NON_BLOCK) != 0) {
        return NX_ERROR_FAILURE;
    }
    const long mask = isState ? NX_MASK_WRITE : NX_MASK_READ | NX_MASK_WRITE;
    const NxResult result = reactor.RegisterHandler(this, mask);
    if (result == NX_OK || result == NX_ERROR_FOUND) {
        m_isRegistered = true;
        m_watched = mask;
        return NX_OK;
    }
    return reactor.NotifyHandler(this, 0) == NX_ERROR_NOT_INITIALIZED ? NX_ERROR_NOT_INITIALIZED
                                                                      : NX_ERROR_FAILURE;
}

int CConnectionImp::OnInput(int /*fd*/) {
    m_isReadable = true;
    // Descriptors that come through a unix socket make reads short.
    m_mayHaveEnded = m_isUnix || GetReactor().MayHaveEnded();
    Proceed();
    return 0;
}

int CConnectionImp::OnOutput(int /*fd*/) {
    const bool wasWritable = std::exchange(m_isWritable, true);
    // What was writable before has nothing waiting, or its turn comes.
    if (!wasWritable || m_state.load(std::memory_order_relaxed) != EState::OPEN) {
        Proceed();
    }
    return 0;
}

int CConnectionImp::OnClose(int /*fd*/, long /*mask*/) {
    const CStreamLoop::CEntry entry(GetLoop());
    m_isRegistered = false;
    const int error = GetReactor().GetCloseReason();
    if (error != 0) {
        Fail(error);
    } else {
        // Its end, and perhaps something before it, is still to be read.
        m_isReadable = m_isWritable = true;
        Proceed();
    }
    return 0;
}

void CConnectionImp::Proceed() {
    const CStreamLoop::CEntry entry(GetLoop());
    if (IsEnded() || std::exchange(m_isProceeding, true)) {
        return;
    }
    try {
        Advance();
    } catch (const std::bad_alloc&) {
        End(ENxClosed::OUT_OF_MEMORY);
    }
    m_isProceeding = false;
    m_mayHaveEnded = true;
}

void CConnectionImp::Advance() {
    ServeAsked();
    if (!m_filtered) {
        TellOpen();
    }
    Receive();
    Flush();
    EndSendingSide();
    if (GetState() == EState::LINGERING) {
        Discard();
    }
    Watch();
    ArmTimer();
}

void CConnectionImp::ServeAsked() {
    switch (m_asked) {
        case EAsked::NOTHING:
        case EAsked::NO_MORE:
            break;
        case EAsked::END_WHEN_SENT:
            EndWhenSent();
            break;
        case EAsked::DROP:
            End(ENxClosed::LIMIT, 0, c_tooMuchUnsent);
            break;
        case EAsked::END_NOW:
            End(ENxClosed::BY_US);
            break;
    }
}

template <class Call>
void CConnectionImp::CallSink(const char* name, const Call& call) {
    if (m_sink == nullptr || IsEnded()) {
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

void CConnectionImp::TellOpen() {
    if (GetState() != EState::HANDSHAKING) {
        return;
    }
    SetState(EState::OPEN);
    CallSink("OnOpen", [this](INxConnectionSink& sink) { sink.OnOpen(*this); });
    if (m_stop == EStop::DUE) {
        TellStop();
    }
}

void CConnectionImp::TellStop() {
    if (m_stop == EStop::TOLD || GetState() >= EState::ENDING) {
        return;
    }
    if (GetState() == EState::HANDSHAKING) {
        m_stop = EStop::DUE;
        return;
    }
    m_stop = EStop::TOLD;
    CallSink("OnStop", [this](INxConnectionSink& sink) { sink.OnStop(*this); });
}

const CNxFraming& CConnectionImp::GetFraming() const {
    return m_framing ? *m_framing : m_options->framing;
}

// Bytes that may still be received while the sink takes none.
size_t CConnectionImp::GetRoom() const {
    const CNxFraming& framing = GetFraming();
    const size_t frame = framing.HasFrames() ? framing.GetMaxSize() : 1;
    const size_t limit = std::max(m_options->maxUnread, frame);
    return limit - std::min(limit, m_received.GetSize());
}

bool CConnectionImp::WantsInput() const {
    if (m_isStarved || m_hasPeerEnded) {
        return false;
    }
    switch (GetState()) {
        case EState::HANDSHAKING:
        case EState::ENDING:
            return IsHandshaking() || IsHeldBack();
        case EState::OPEN:
            return IsHeldBack() || (!m_isPaused && GetRoom() != 0);
        case EState::LINGERING:
            return true;
        case EState::CLOSED:
            break;
    }
    return false;
}

void CConnectionImp::Receive() {
    size_t left = GetTurnSize();
    Offer();
    while (m_isReadable && GetState() != EState::LINGERING && WantsInput()) {
        if (left == 0) {
            GetLoop().Enlist(*this);
            break;
        }
        ReceiveOnce(left);
        Offer();
    }
    TellEnd();
}

void CConnectionImp::ReceiveOnce(size_t& left) {
    CNxMessageChain sealed;
    const size_t room = m_filtered ? left : std::min(left, GetRoom());
    const size_t asked = std::min<size_t>(room, GetReactor().GetBufferSize());
    const long got = ReceiveInto(m_filtered ? sealed : m_received, asked);
    if (got <= 0) {
        ReceivedNothing(got);
        return;
    }
    left -= static_cast<size_t>(got);
    OnReceived(static_cast<size_t>(got), asked);
    if (m_filtered) {
        OpenFilter(std::move(sealed));
    }
    m_isFresh = true;
}

long CConnectionImp::ReceiveInto(CNxMessageChain& chain, size_t size) {
    char* const buffer = m_isBulk ? chain.MakeSpace(size) : GetReactor().GetBufferPtr();
    const ssize_t got = recv(GetHandle(), buffer, size, MSG_DONTWAIT);
    const int error = errno;
    const size_t count = got > 0 ? static_cast<size_t>(got) : 0;
    if (m_isBulk) {
        chain.Commit(count);
    } else {
        chain.Append(std::string_view(buffer, count));
    }
    m_isBulk = count >= c_bulk;
    errno = error;
    return got;
}

void CConnectionImp::ReceivedNothing(long result) {
    const int error = errno;
    if (result == 0) {
        OnPeerEnded();
    } else if (LacksBuffers(error)) {
        m_isStarved = true;
    } else if (WouldBlock(error)) {
        m_isReadable = false;
    } else if (error != EINTR) {
        Fail(error);
    }
}

void CConnectionImp::OnReceived(size_t size, size_t asked) {
    m_bytesReceived += size;
    NoteActivity();
    // The socket is empty: what comes next is reported.
    if (size < asked && (!m_mayHaveEnded || GetLoop().ReportsStates())) {
        m_isReadable = false;
    }
}

void CConnectionImp::OnPeerEnded() {
    if (!m_filtered || m_filtered->filter->MayEnd()) {
        m_hasPeerEnded = true;
    } else {
        End(ENxClosed::TLS, 0,
            IsHandshaking() ? "the peer ended during the TLS handshake"
                            : "the peer ended without close_notify");
    }
}

void CConnectionImp::OpenFilter(CNxMessageChain&& sealed) {
    CNxMessageChain toSocket;
    m_filtered->state = m_filtered->filter->Open(std::move(sealed), m_received, toSocket);
    const size_t most = m_options->maxUnsent;
    if (most != 0 && !toSocket.IsEmpty() && toSocket.GetSize() + m_output.GetSize() > most) {
        // What the peer has the filter answer, and does not read.
        End(ENxClosed::LIMIT, 0, c_tooMuchUnsent);
        return;
    }
    m_output.Append(std::move(toSocket));
    switch (m_filtered->state) {
        case CStreamFilter::EState::HANDSHAKING:
            break;
        case CStreamFilter::EState::OPEN:
            TellOpen();
            break;
        case CStreamFilter::EState::ENDED:
            TellOpen();
            m_hasPeerEnded = true;
            break;
        case CStreamFilter::EState::FAILED:
            EndFiltered();
            break;
    }
}

// What waits in the socket, closed over it, would have the system throw the alert away.
void CConnectionImp::EndFiltered() {
    size_t left = GetTurnSize();
    SendWaiting(left);
    while (left > 0 && recv(GetHandle(), GetReactor().GetBufferPtr(), GetReactor().GetBufferSize(),
                            MSG_DONTWAIT) > 0) {
        left -= std::min<size_t>(left, GetReactor().GetBufferSize());
    }
    End(ENxClosed::TLS);
}

void CConnectionImp::Offer() {
    while (m_isFresh && !m_isPaused && !m_isEndTold && GetState() == EState::OPEN) {
        if (GetFraming().HasFrames()) {
            OfferFrame();
        } else {
            OfferAll();
        }
    }
}

void CConnectionImp::OfferAll() {
    const size_t size = m_received.GetSize();
    m_isFresh = false;
    if (size == 0) {
        return;
    }
    CallSink("OnReceive", [this](INxConnectionSink& sink) { sink.OnReceive(*this, m_received); });
    if (IsEnded() || m_isPaused || GetRoom() != 0) {
        return;
    }
    // Nothing more comes before it has taken some: as long as it does it is offered the rest.
    m_isFresh = true;
    if (m_received.GetSize() >= size) {
        End(ENxClosed::LIMIT, 0, "more waits to be read than may wait");
    }
}

void CConnectionImp::OfferFrame() {
    CNxMessageChain frame;
    switch (GetFraming().Take(m_received, frame, m_searched)) {
        case CNxFraming::EResult::FRAME:
            m_searched = 0;
            CallSink("OnReceive", [&](INxConnectionSink& sink) { sink.OnReceive(*this, frame); });
            break;
        case CNxFraming::EResult::TOO_LONG:
            End(ENxClosed::LIMIT, 0, "a frame is longer than it may be");
            break;
        case CNxFraming::EResult::PARTIAL:
        case CNxFraming::EResult::NONE:
            m_isFresh = false;
            break;
    }
}

// All that is there was offered before.
void CConnectionImp::TellEnd() {
    if (!m_hasPeerEnded || m_isEndTold || m_isPaused || GetState() != EState::OPEN) {
        return;
    }
    m_isEndTold = true;
    CallSink("OnEnd", [this](INxConnectionSink& sink) { sink.OnEnd(*this); });
}

void CConnectionImp::PauseReading() {
    m_isPaused = true;
    if (!m_isProceeding && !IsEnded()) {
        Watch();
    }
}

void CConnectionImp::ResumeReading() {
    if (m_isPaused && !IsEnded()) {
        m_isPaused = false;
        m_isFresh = true;
        NoteActivity();
        GetLoop().Enlist(*this);
    }
}

void CConnectionImp::SetFraming(const CNxFraming& framing) {
    if (IsEnded()) {
        return;
    }
    const bool changes = framing.HasFrames() || GetFraming().HasFrames();
    m_framing = std::make_unique<CNxFraming>(framing);
    m_searched = 0;
    if (changes && !m_received.IsEmpty()) {
        m_isFresh = true;
        GetLoop().Enlist(*this);
    }
}

void CConnectionImp::Discard() {
    size_t left = GetTurnSize();
    while (m_isReadable && WantsInput()) {
        if (left == 0) {
            GetLoop().Enlist(*this);
            return;
        }
        const ssize_t got =
            recv(GetHandle(), GetReactor().GetBufferPtr(),
                 std::min<size_t>(left, GetReactor().GetBufferSize()), MSG_DONTWAIT);
        if (got > 0) {
            left -= static_cast<size_t>(got);
            m_bytesReceived += static_cast<size_t>(got);
        } else if (got == 0) {
            End(ENxClosed::BY_US);
        } else {
            ReceivedNothing(got);
        }
    }
}

size_t CConnectionImp::GetUnsent() const {
    return m_unsent.load(std::memory_order_relaxed) + GetLeftSize();
}

void CConnectionImp::CountUnsent() {
    const size_t plain = m_filtered ? m_filtered->plain.GetSize() + m_filtered->held.GetSize() : 0;
    m_unsent.store(m_output.GetSize() + plain, std::memory_order_relaxed);
}

// Whether so many bytes more may wait.
NxResult CConnectionImp::CheckSend(size_t size) {
    if (GetState() >= EState::ENDING || (GetLoop().IsOnThread() && m_sending != ESending::OPEN)) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const size_t most = m_options->maxUnsent;
    const size_t unsent = GetUnsent();
    if (most == 0 || (unsent <= most && size <= most - unsent)) {
        return NX_OK;
    }
    // Refused when it is to end anyway.
    static_cast<void>(Leave({}, EAsked::DROP));
    return NX_ERROR_NOT_AVAILABLE;
}

NxResult CConnectionImp::SendOutput(CStreamOutput&& output) {
    const NxResult checked = CheckSend(output.GetSize());
    if (checked != NX_OK) {
        return checked;
    }
    if (!GetLoop().IsOnThread()) {
        return Leave(std::move(output), EAsked::NOTHING);
    }
    GetPlain().Append(std::move(output));
    OnSendAsked();
    return NX_OK;
}

void CConnectionImp::OnSendAsked() {
    CountUnsent();
    // A socket that is full and has been told of needs nothing.
    if (!m_isProceeding && (m_isWritable || !m_isHigh)) {
        GetLoop().Enlist(*this);
    }
}

NxResult CConnectionImp::Send(CNxMessageChain&& chain) {
    CStreamOutput output;
    output.Append(std::move(chain));
    return SendOutput(std::move(output));
}

NxResult CConnectionImp::Send(std::string_view bytes) {
    try {
        if (!GetLoop().IsOnThread()) {
            return Send(CNxMessageChain(bytes));
        }
        const NxResult checked = CheckSend(bytes.size());
        if (checked == NX_OK) {
            GetPlain().Append(bytes);
            OnSendAsked();
        }
        return checked;
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CConnectionImp::SendShared(const CNxMessageChain& chain) {
    try {
        return Send(chain.Share());
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CConnectionImp::SendFrame(CNxMessageChain&& payload) {
    CNxMessageChain taken(std::move(payload));
    try {
        CNxMessageChain wire;
        const NxResult framed = GetFraming().Append(wire, std::move(taken));
        return framed == NX_OK ? Send(std::move(wire)) : framed;
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CConnectionImp::SendFrame(std::string_view payload) {
    try {
        return SendFrame(CNxMessageChain(payload));
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CConnectionImp::SendFile(CNxSocketBase file, std::uint64_t offset, std::uint64_t size) {
    if (file.GetHandle() == -1) {
        return NX_ERROR_INVALID_ARG;
    }
    try {
        CStreamOutput output;
        output.AppendFile(std::move(file), offset, size);
        return SendOutput(std::move(output));
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

void CConnectionImp::OnLeft(CStreamOutput&& output, EAsked asked) noexcept {
    if (!IsEnded()) {
        GetPlain().Append(std::move(output));
        m_asked = asked;
        CountUnsent();
    }
}

void CConnectionImp::Flush() {
    size_t left = GetTurnSize();
    do {
        SendWaiting(left);
    } while (TellWater());
}

// As far as the socket takes it.
void CConnectionImp::SendWaiting(size_t& left) {
    bool hasMoved = false;
    Seal();
    while (!m_output.IsEmpty() && m_isWritable && !m_isStarved && left > 0) {
        bool isFull = false;
        const long sent = m_output.SendTo(GetHandle(), left, isFull);
        if (sent < 0) {
            SendFailed(errno);
        } else {
            hasMoved = true;
            m_isWritable = !isFull;
            m_bytesSent += static_cast<size_t>(sent);
            left -= std::min(left, static_cast<size_t>(sent));
            Seal();
        }
    }
    if (IsEnded()) {
        return;
    }
    if (left == 0 && !m_output.IsEmpty()) {
        GetLoop().Enlist(*this);
    }
    CountUnsent();
    NoteSent(hasMoved);
}

void CConnectionImp::SendFailed(int error) {
    if (LacksBuffers(error)) {
        m_isStarved = true;
    } else if (WouldBlock(error)) {
        m_isWritable = false;
    } else if (error != EINTR) {
        Fail(error);
    }
}

// All bytes in memory at once; of files no more than the socket takes soon.
void CConnectionImp::Seal() {
    if (!m_filtered || IsHandshaking() || !m_isWritable) {
        return;
    }
    CStreamOutput& plain = m_filtered->plain;
    CNxMessageChain& held = m_filtered->held;
    while (m_output.GetSize() < c_pieceOfFile && !IsEnded() && (IsHeldBack() || !plain.IsEmpty())) {
        if (held.IsEmpty() && !plain.Take(held, c_pieceOfFile)) {
            SendFailed(errno);
            return;
        }
        CNxMessageChain toSocket;
        const auto state = m_filtered->filter->Seal(held, toSocket);
        m_output.Append(std::move(toSocket));
        if (state == CStreamFilter::EState::FAILED) {
            End(ENxClosed::TLS);
        }
        if (IsHeldBack()) {
            return;
        }
    }
}

// Whether the sink was called, and may have sent.
bool CConnectionImp::TellWater() {
    if (GetState() != EState::OPEN || m_sending != ESending::OPEN) {
        return false;
    }
    const size_t unsent = GetUnsent();
    const size_t high = m_options->highWater;
    if (m_isHigh ? unsent > std::min(high, m_options->lowWater) : unsent <= high) {
        return false;
    }
    m_isHigh = !m_isHigh;
    if (m_isHigh) {
        CallSink("OnHighWater", [this](INxConnectionSink& sink) { sink.OnHighWater(*this); });
    } else {
        CallSink("OnLowWater", [this](INxConnectionSink& sink) { sink.OnLowWater(*this); });
    }
    return !IsEnded();
}

// When all is sent that is to be: our side's end, and perhaps the connection's.
void CConnectionImp::EndSendingSide() {
    if (IsEnded() || m_sending == ESending::OPEN || IsHandshaking()) {
        return;
    }
    if (m_sending == ESending::ENDING && IsAllSent()) {
        m_sending = ESending::SEALED;
        if (m_filtered) {
            CNxMessageChain last;
            m_filtered->filter->End(last);
            m_output.Append(std::move(last));
            size_t left = GetTurnSize();
            SendWaiting(left);
        }
    }
    if (m_sending == ESending::SEALED && IsAllSent() && !IsEnded()) {
        m_sending = ESending::ENDED;
        // Fails when the peer is gone already, which reading finds.
        static_cast<void>(shutdown(GetHandle(), SHUT_WR));
    }
    if (m_sending == ESending::ENDED) {
        EndWithSending();
    }
}

void CConnectionImp::EndWithSending() {
    const bool lingers = m_options->lingerTimeout > CNxTimeValue::s_tvZero();
    if (GetState() == EState::OPEN) {
        if (m_isEndTold) {
            End(ENxClosed::BY_PEER);
        }
    } else if (GetState() == EState::ENDING && lingers && !m_hasPeerEnded) {
        SetState(EState::LINGERING);
        m_activeAt = NowMs();
        m_isReadable = true;
    } else if (GetState() == EState::ENDING) {
        End(m_isByPeer ? ENxClosed::BY_PEER : ENxClosed::BY_US);
    }
}

bool CConnectionImp::IsAllSent() const {
    return m_output.IsEmpty() && !IsHeldBack() && (!m_filtered || m_filtered->plain.IsEmpty());
}

void CConnectionImp::EndSending() {
    if (GetState() <= EState::OPEN && m_sending == ESending::OPEN) {
        CloseInbox(EAsked::NO_MORE);
        m_sending = ESending::ENDING;
        GetLoop().Enlist(*this);
    }
}

void CConnectionImp::SetState(EState next) {
    assert(next > GetState());
    m_state.store(next, std::memory_order_release);
}

void CConnectionImp::CloseWhenSent() {
    if (!GetLoop().IsOnThread()) {
        // Refused when it is to end anyway.
        static_cast<void>(Leave({}, EAsked::END_WHEN_SENT));
        return;
    }
    EndWhenSent();
    if (!IsEnded()) {
        GetLoop().Enlist(*this);
    }
}

void CConnectionImp::EndWhenSent() {
    if (GetState() >= EState::ENDING) {
        return;
    }
    CloseInbox(EAsked::END_WHEN_SENT);
    m_isByPeer = m_isEndTold;
    m_sending = std::max(m_sending, ESending::ENDING);
    SetState(EState::ENDING);
}

void CConnectionImp::CloseNow() {
    if (!GetLoop().IsOnThread()) {
        static_cast<void>(Leave({}, EAsked::END_NOW));
        return;
    }
    const CStreamLoop::CEntry entry(GetLoop());
    End(ENxClosed::BY_US);
}

void CConnectionImp::Abandon() {
    if (IsEnded() && m_sink == nullptr) {
        return;
    }
    const CStreamLoop::CEntry entry(GetLoop());
    m_sink = nullptr;
    End(ENxClosed::BY_US);
}

void CConnectionImp::EndWithLoop() {
    End(ENxClosed::LOOP_ENDED);
}

// What the sink may be looking at stays until its calls have returned.
void CConnectionImp::End(ENxClosed kind, int error, const char* text) {
    if (IsEnded()) {
        return;
    }
    m_closed = kind;
    m_error = error;
    m_text = text;
    SetState(EState::CLOSED);
    GetLoop().Remove(*this);
    CloseInbox(EAsked::END_NOW);
    if (std::exchange(m_isRegistered, false)) {
        GetReactor().RemoveHandler(this, NX_MASK_ALL_EVENTS);
    }
    if (std::exchange(m_timerAt, 0) != 0) {
        GetReactor().CancelTimer(this);
    }
    m_socket.Close();
    m_attached.reset();
    m_output.Clear();
    m_unsent.store(0, std::memory_order_relaxed);
}

void CConnectionImp::TellClosed() {
    INxConnectionSink* const sink = std::exchange(m_sink, nullptr);
    if (sink == nullptr) {
        return;
    }
    CNxCloseReason reason{m_closed, m_error, {}};
    try {
        reason.text = Describe();
    } catch (const std::bad_alloc&) {
        // The kind says enough.
    }
    CallOut("OnClosed", [&] {
        try {
            sink->OnClosed(*this, reason);
        } catch (const std::bad_alloc&) {
            // It has ended already.
        }
    });
}

void CConnectionImp::Release() {
    m_received.Clear();
    m_filtered.reset();
    m_framing.reset();
    m_ownedSink.reset();
    ReleaseReference();
}

std::string CConnectionImp::Describe() const {
    if (m_text != nullptr) {
        return m_text;
    }
    switch (m_closed) {
        case ENxClosed::BY_US:
            return "closed by us";
        case ENxClosed::BY_PEER:
            return "closed by the peer";
        case ENxClosed::IDLE:
            return Within("nothing came or went for", m_options->idleTimeout);
        case ENxClosed::STALLED:
            return Within("the peer took nothing for", m_options->stallTimeout);
        case ENxClosed::HANDSHAKE:
            return Within("no TLS handshake within", m_options->handshakeTimeout);
        case ENxClosed::LINGERING:
            return Within("the peer did not end its side within", m_options->lingerTimeout);
        case ENxClosed::LIMIT:
            return "a limit was exceeded";
        case ENxClosed::OUT_OF_MEMORY:
            return "out of memory";
        case ENxClosed::FAILED:
            return std::system_category().message(m_error);
        case ENxClosed::TLS:
            return m_filtered->filter->GetError();
        case ENxClosed::LOOP_ENDED:
            return "the loop has ended";
    }
    return {};
}

void CConnectionImp::NoteActivity() {
    if (m_options->idleTimeout > CNxTimeValue::s_tvZero()) {
        m_activeAt = NowMs();
    }
}

void CConnectionImp::NoteSent(bool hasMoved) {
    if (hasMoved) {
        NoteActivity();
    }
    const bool waits = (!m_isWritable && !m_output.IsEmpty()) || IsHeldBack();
    if (waits && (hasMoved || !m_isWaiting)) {
        m_takenAt = NowMs();
    }
    m_isWaiting = waits;
}

// Those that run, c_never for the others.
CConnectionImp::CDues CConnectionImp::GetDues() const {
    const EState state = GetState();
    CDues dues;
    if (state == EState::LINGERING) {
        dues.lingering = After(m_activeAt, m_options->lingerTimeout);
        return dues;
    }
    if (IsHandshaking()) {
        dues.handshake = After(m_createdAt, m_options->handshakeTimeout);
    } else if (!m_isPaused) {
        dues.idle = After(m_activeAt, m_options->idleTimeout);
    }
    if (m_isWaiting) {
        dues.stall = After(m_takenAt, m_options->stallTimeout);
    }
    return dues;
}

void CConnectionImp::ArmTimer() {
    if (IsEnded()) {
        return;
    }
    const CDues dues = GetDues();
    std::int64_t due = std::min({dues.handshake, dues.lingering, dues.stall, dues.idle});
    if (due == CDues::c_never && !m_isStarved) {
        return;
    }
    if (m_isStarved) {
        due = std::min(due, NowMs() + c_starvedMs);
    }
    if (m_timerAt != 0 && m_timerAt <= due) {
        return;
    }
    CNxTimeValue interval;
    interval.SetByTotalMsec(std::max<std::int64_t>(due - NowMs(), 0) + c_clockStepMs);
    const NxResult armed = GetReactor().ScheduleTimer(this, nullptr, interval, 1);
    if (armed == NX_OK || armed == NX_ERROR_FOUND) {
        m_timerAt = due;
    } else {
        End(ENxClosed::OUT_OF_MEMORY);
    }
}

// A process that was paused finds all time-outs over, and much to read: who is to be dropped for
// silence is looked at once more.
void CConnectionImp::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    const CStreamLoop::CEntry entry(GetLoop());
    m_timerAt = 0;
    m_isStarved = false;
    m_isReadable = m_isWritable = true;
    Proceed();
    if (!IsEnded()) {
        EndIfExpired();
    }
}

void CConnectionImp::EndIfExpired() {
    const CDues dues = GetDues();
    const std::int64_t now = NowMs();
    if (dues.handshake <= now) {
        End(ENxClosed::HANDSHAKE);
    } else if (dues.lingering <= now) {
        End(ENxClosed::LINGERING);
    } else if (dues.stall <= now) {
        End(ENxClosed::STALLED);
    } else if (dues.idle <= now) {
        End(ENxClosed::IDLE);
    }
}

// What reports states must be asked only for what is wanted now.
void CConnectionImp::Watch() {
    if (IsEnded() || !GetLoop().ReportsStates()) {
        return;
    }
    const bool wantsRoom = !m_isWritable && !m_isStarved && !m_output.IsEmpty();
    const long wanted = (WantsInput() ? NX_MASK_READ : 0) | (wantsRoom ? NX_MASK_WRITE : 0);
    if (wanted == m_watched) {
        return;
    }
    m_watched = wanted;
    if (wanted == 0) {
        m_isRegistered = false;
        GetReactor().RemoveHandler(this, NX_MASK_ALL_EVENTS);
        return;
    }
    const NxResult result = GetReactor().RegisterHandler(this, wanted);
    m_isRegistered = result == NX_OK || result == NX_ERROR_FOUND;
    if (!m_isRegistered) {
        Fail(ENOMEM);
    }
}

CNxTimeValue CConnectionImp::GetAge() const {
    CNxTimeValue age;
    age.SetByTotalMsec(NowMs() - m_createdAt);
    return age;
}

const CNxTlsInfo* CConnectionImp::GetTlsInfo() const {
    return m_filtered ? m_filtered->filter->GetInfo() : nullptr;
}

NxResult CConnectionImp::Make(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                              CNxConnectedSocket socket, INxConnectionSink& sink,
                              std::unique_ptr<INxConnectionSink> ownedSink,
                              const Options& options) {
    if (socket.socket.GetHandle() == -1 || options == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    CStreamLoop* const loop = CStreamLoop::Of(reactor);
    if (loop == nullptr) {
        return NX_ERROR_FAILURE;
    }
    const CNxAutoPtr<CConnectionImp> made(new (std::nothrow) CConnectionImp(
        *loop, std::move(socket), sink, std::move(ownedSink), options));
    const NxResult opened = made ? made->Open() : NX_ERROR_FAILURE;
    if (opened == NX_OK) {
        out = made.Get();
    }
    return opened;
}

NxResult CNxConnection::Create(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                               CNxConnectedSocket socket, INxConnectionSink& sink,
                               const Options& options) {
    return CConnectionImp::Make(out, reactor, std::move(socket), sink, nullptr, options);
}

NxResult CNxConnection::Create(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                               CNxConnectedSocket socket, std::unique_ptr<INxConnectionSink> sink,
                               const Options& options) {
    if (sink == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    INxConnectionSink& owned = *sink;
    return CConnectionImp::Make(out, reactor, std::move(socket), owned, std::move(sink), options);
}

size_t CNxConnection::GetCount(INxReactor& reactor) {
    const CStreamLoop* const loop = CStreamLoop::Find(reactor);
    return loop != nullptr ? loop->GetCount() : 0;
}

void CNxConnection::StopAll(INxReactor& reactor) {
    CStreamLoop* const loop = CStreamLoop::Find(reactor);
    if (loop != nullptr) {
        loop->StopAll();
    }
}

void CNxConnection::CloseAll(INxReactor& reactor) {
    CStreamLoop* const loop = CStreamLoop::Find(reactor);
    if (loop != nullptr) {
        loop->EndAll();
    }
}
