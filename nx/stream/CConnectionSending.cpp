// The sending side of CConnectionImp: what is sent waits, passes the filter, and leaves.
#include <nx/stream/CConnectionImp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>
#include <utility>

namespace {

// Of a file, and of what is sealed ahead of what the socket takes.
constexpr size_t c_pieceOfFile = 65536;

}  // namespace

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

// What CStreamOutput takes.
template <class Bytes>
NxResult CConnectionImp::SendAny(size_t size, Bytes&& bytes) {
    const NxResult checked = CheckSend(size);
    if (checked != NX_OK) {
        return checked;
    }
    if (!GetLoop().IsOnThread()) {
        CStreamOutput output;
        output.Append(std::forward<Bytes>(bytes));
        return Leave(std::move(output), EAsked::NOTHING);
    }
    GetPlain().Append(std::forward<Bytes>(bytes));
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
    CNxMessageChain taken(std::move(chain));
    return SendAny(taken.GetSize(), std::move(taken));
}

NxResult CConnectionImp::Send(std::string_view bytes) {
    try {
        return SendAny(bytes.size(), bytes);
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
        return SendAny(output.GetSize(), std::move(output));
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
            CallFailed(errno, m_isWritable);
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

// All bytes in memory at once; of files no more than the socket takes soon.
void CConnectionImp::SealWaiting() {
    if (IsHandshaking() || !m_isWritable) {
        return;
    }
    CStreamOutput& plain = m_filtered->plain;
    CNxMessageChain& held = m_filtered->held;
    while (m_output.GetSize() < c_pieceOfFile && !IsEnded() && (IsHeldBack() || !plain.IsEmpty())) {
        if (held.IsEmpty() && !plain.Take(held, c_pieceOfFile)) {
            CallFailed(errno, m_isWritable);
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
