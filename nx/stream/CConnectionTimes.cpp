// The time-outs of CConnectionImp.
#include <nx/stream/CConnectionImp.h>

#include <algorithm>

namespace {

// After so long the system may have buffers again.
constexpr std::int64_t c_starvedMs = 100;

// Never, without a time-out.
std::int64_t After(std::int64_t since, const CNxTimeValue& timeout) {
    const long ms = timeout.GetTotalInMsec();
    constexpr std::int64_t never = CDueMember::c_never;
    return ms > 0 && ms < never - since ? since + ms : never;
}

}  // namespace

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

bool CConnectionImp::IsTimed() const {
    return m_isWaiting || m_isStarved || GetState() != EState::OPEN ||
           m_options->idleTimeout > CNxTimeValue::s_tvZero();
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

void CConnectionImp::AskForCall() {
    if (IsEnded() || !IsTimed()) {
        return;
    }
    const CDues dues = GetDues();
    std::int64_t due = std::min({dues.handshake, dues.lingering, dues.stall, dues.idle});
    if (m_isStarved) {
        due = std::min(due, NowMs() + c_starvedMs);
    }
    if (due != c_never && GetLoop().CallBy(*this, due) != NX_OK) {
        End(ENxClosed::OUT_OF_MEMORY);
    }
}

// A process that was paused finds all time-outs over, and much to read: who is to be dropped for
// silence is looked at once more.
void CConnectionImp::OnDue() {
    const CStreamLoop::CEntry entry(GetLoop());
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
