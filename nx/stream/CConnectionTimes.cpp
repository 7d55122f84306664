// The time-outs of CConnectionImp.
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CConnectionImp.h>

#include <algorithm>
#include <ctime>
#include <limits>

namespace {

// After so long the system may have buffers again.
constexpr std::int64_t c_starvedMs = 100;

// The coarse clock's step at most: a timer is that much late, and finds the time over.
constexpr std::int64_t c_clockStepMs = 10;

// Never, without a time-out.
std::int64_t After(std::int64_t since, const CNxTimeValue& timeout) {
    const long ms = timeout.GetTotalInMsec();
    constexpr std::int64_t c_never = std::numeric_limits<std::int64_t>::max();
    return ms > 0 && ms < c_never - since ? since + ms : c_never;
}

}  // namespace

std::int64_t CConnectionImp::NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
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
    if (NxSucceeded(GetReactor().ScheduleTimer(this, nullptr, interval, 1))) {
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
