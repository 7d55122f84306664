// The receiving side of CConnectionImp: from the socket through the filter to the sink.
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CConnectionImp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <utility>

namespace {

// What comes in so large pieces is received where it stays.
constexpr size_t c_bulk = 16384;

}  // namespace

const CNxFraming& CConnectionImp::GetFraming() const {
    return m_framing ? *m_framing : m_options->framing;
}

// Bytes that may still be received while the sink takes none; some, when none wait.
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
            return IsHeldBack() || (!m_isPaused && HasRoom());
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
    } else {
        CallFailed(error, m_isReadable);
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
        End(ENxClosed::TLS, IsHandshaking() ? EText::CUT_HANDSHAKE : EText::CUT_STREAM);
    }
}

void CConnectionImp::OpenFilter(CNxMessageChain&& sealed) {
    CNxMessageChain toSocket;
    m_filtered->state = m_filtered->filter->Open(std::move(sealed), m_received, toSocket);
    const size_t most = m_options->maxUnsent;
    if (most != 0 && !toSocket.IsEmpty() && toSocket.GetSize() + m_output.GetSize() > most) {
        // What the peer has the filter answer, and does not read.
        End(ENxClosed::LIMIT, EText::TOO_MUCH_UNSENT);
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
    if (IsEnded() || m_isPaused || HasRoom()) {
        return;
    }
    // Nothing more comes before it has taken some: as long as it does it is offered the rest.
    m_isFresh = true;
    if (m_received.GetSize() >= size) {
        End(ENxClosed::LIMIT, EText::TOO_MUCH_UNREAD);
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
            CallSink("OnTooLong", [this](INxConnectionSink& sink) { sink.OnTooLong(*this); });
            if (GetState() == EState::OPEN) {
                End(ENxClosed::LIMIT, EText::LONG_FRAME);
            }
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
