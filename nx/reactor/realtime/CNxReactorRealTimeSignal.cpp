#include <fcntl.h>
#include <nx/foundation/own_lines.h>
#include <nx/reactor/realtime/CNxReactorRealTimeSignal.h>
#include <nx/reactor/realtime/CPollBand.h>
#include <nx/reactor/realtime/CReactorSignals.h>
#include <nx/reactor/realtime/CSignalledThread.h>
#include <nx/reactor/realtime/CUntoldReadiness.h>
#include <poll.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <utility>

namespace {

constexpr int c_wantedSignals = 81920;
constexpr int c_signalsPerTurn = 1024;

}  // namespace

CNxReactorRealTimeSignal::CNxReactorRealTimeSignal(std::unique_ptr<CNxTimerQueueBase> timerQueue)
    : CNxReactorLoop(std::move(timerQueue)),
      m_thread(std::make_unique<CSignalledThread>()),
      m_untold(std::make_unique<CUntoldReadiness>()) {
    // Open does it again, and tells.
    static_cast<void>(init());
}

CNxReactorRealTimeSignal::~CNxReactorRealTimeSignal() {
    LeaveThread();
}

NxResult CNxReactorRealTimeSignal::init() {
    return CReactorSignals::Block();
}

// In a process with threads sigprocmask(2) is pthread_sigmask(3) under another name: one call does
// both.
NxResult CNxReactorRealTimeSignal::init2() {
    return CReactorSignals::Block();
}

NxResult CNxReactorRealTimeSignal::OpenDemultiplexer() {
    if (CReactorSignals::Block() != NX_OK) {
        return NX_ERROR_UNEXPECTED;
    }
    CReactorSignals::ReplaceDefaultActions();
    CReactorSignals::SetProcRtsigMax_i(c_wantedSignals);
    // Those of an earlier opening, and what is left of its registrations.
    CReactorSignals::TakeAll();
    m_untold->ForgetAll();
    m_signalsTaken = 0;
    m_bSignalOverFlowing = 0;
    m_pid = getpid();
    m_thread->Enter();
    return NX_OK;
}

NxResult CNxReactorRealTimeSignal::Close() {
    m_Est.EnsureSingleThread("a real-time-signal reactor");
    LeaveThread();
    return CNxReactorLoop::Close();
}

// From here on nobody sends signals to the thread, and no descriptor to the process.
void CNxReactorRealTimeSignal::LeaveThread() {
    m_thread->Leave();
    if (IsCopyOfParent()) {
        return;
    }
    for (int fd = 0; fd < m_EhRepository.GetMaxHandler(); ++fd) {
        const int flags = m_EhRepository.IsRegistered(fd) ? fcntl(fd, F_GETFL) : -1;
        if (flags != -1 && (flags & O_ASYNC) != 0) {
            fcntl(fd, F_SETFL, flags & ~O_ASYNC);
        }
    }
}

NxResult CNxReactorRealTimeSignal::NotifyHandler(INxEventHandler* handler, long mask) {
    if (handler != nullptr) {
        return CNxReactorLoop::NotifyHandler(handler, mask);
    }
    if (IsCopyOfParent()) {
        return NX_ERROR_FAILURE;
    }
    const NxResult woken = m_thread->Wake();
    if (woken != NX_OK) {
        // The signal of its byte finds no room either, and an overflow has the loop look.
        static_cast<void>(m_NotifyPipe.Notify(nullptr, NX_MASK_EVENT_QUEUE));
    }
    return woken;
}

NxResult CNxReactorRealTimeSignal::StopEventLoop() {
    return IsCopyOfParent() ? NX_ERROR_FAILURE : m_thread->Stop(*this);
}

NxResult CNxReactorRealTimeSignal::OnHandleRegister(int fd, long mask, INxEventHandler* handler) {
    const int flags = handler != nullptr ? fcntl(fd, F_GETFL) : -1;
    const bool isSetUp = flags != -1 && fcntl(fd, F_SETFL, O_RDWR | O_NONBLOCK | O_ASYNC) != -1 &&
                         fcntl(fd, F_SETSIG, CReactorSignals::GetNumber()) != -1 &&
                         fcntl(fd, F_SETOWN, m_pid) != -1;
    const NxResult result = isSetUp ? m_untold->Check(fd, mask) : NX_ERROR_UNEXPECTED;
    if (result != NX_OK && flags != -1) {
        fcntl(fd, F_SETFL, flags);
    }
    return result;
}

void CNxReactorRealTimeSignal::OnHandleRemoved(int fd) {
    // Fails when the descriptor is closed already: then there is nothing to set.
    fcntl(fd, F_SETFL, 0);
    m_untold->Forget(fd);
}

NxResult CNxReactorRealTimeSignal::RunEventLoop() {
    m_Est.EnsureSingleThread("a real-time-signal reactor");
    m_thread->TakeOver();
    return CNxReactorLoop::RunEventLoop();
}

NxResult CNxReactorRealTimeSignal::WaitAndDispatch(const CNxTimeValue& remaining,
                                                   bool /*hasWork*/) {
    // A timer may have stopped the loop, for which there is no signal.
    const bool mayWait = !IsStopped() && !HasDeferred();
    siginfo_t info{};
    const int signal = CReactorSignals::Take(info, mayWait ? remaining : CNxTimeValue::s_tvZero());
    const int error = signal == -1 ? errno : 0;
    if (error == EINTR) {
        return NX_OK;
    }
    if (error == EAGAIN) {
        RunDeferred();
        return NX_OK;
    }
    if (signal == -1 || signal == SIGIO) {
        HandleOverflow(signal, error);
    } else {
        HandleSignal(info);
    }
    if (++m_signalsTaken >= c_signalsPerTurn) {
        RunDeferred();
    }
    return NX_OK;
}

void CNxReactorRealTimeSignal::HandleSignal(const siginfo_t& info) {
    assert(info.si_signo == CReactorSignals::GetNumber());
    m_bSignalOverFlowing = 0;
    if (info.si_code > 0) {
        HandleReadiness(info.si_fd, info.si_band);
        return;
    }
    // Whatever else comes with such a code was sent by a program and carries no descriptor.
    if (info.si_code != SI_QUEUE) {
        return;
    }
    if (info.si_value.sival_int == CSignalledThread::VALUE_WAKE) {
        m_thread->SetWakeDue();
    } else if (info.si_value.sival_int == CSignalledThread::VALUE_STOP) {
        SetStopFlag();
    }
}

void CNxReactorRealTimeSignal::HandleReadiness(int fd, long band) {
    if (!m_EhRepository.IsRegistered(fd)) {
        return;
    }
    long mask = CPollBand::ToMask(band);
    // The signal may be one of an earlier opening of the descriptor.
    if ((m_EhRepository.At(fd).m_mask & NX_MASK_CONNECT) != 0) {
        mask = CPollBand::ToMaskOfConnecting(CPollBand::Now(fd, POLLIN | POLLOUT));
    } else if ((mask & NX_MASK_CLOSE) != 0) {
        mask = CPollBand::ToMask(CPollBand::Now(fd, POLLIN | POLLOUT));
    }
    Dispatch(fd, mask);
}

void CNxReactorRealTimeSignal::Dispatch(int fd, long mask) {
    if ((mask & NX_MASK_CLOSE) != 0) {
        DispatchFailure(fd, 0);
    } else {
        ProcessHandleEvent(fd, mask, 0, 0, 0);
    }
}

void CNxReactorRealTimeSignal::HandleOverflow(int signal, int error) {
    SayOnStdout(
        "CReactorRealTimeSignal::RunEventLoop. sigtimedwait() failed! sigRet=%d err=%d "
        "m_bSignalOverFlowing=%d\n",
        signal, error, m_bSignalOverFlowing);
    if (m_bSignalOverFlowing != 0) {
        m_untold->AskForPoll();
        return;
    }
    m_bSignalOverFlowing = 1;
    for (int fd = 0; fd < m_EhRepository.GetMaxHandler(); ++fd) {
        ProcessHandleEvent(fd, NX_MASK_INPUT | NX_MASK_OUTPUT, 0, 0, 1);
    }
    ProcessHandleEvent(-1, NX_MASK_EVENT_QUEUE, 0, 0, 0);
}

bool CNxReactorRealTimeSignal::HasDeferred() const {
    return m_thread->IsWakeDue() || !m_untold->IsEmpty();
}

void CNxReactorRealTimeSignal::RunDeferred() {
    m_signalsTaken = 0;
    m_untold->PollIfAsked(m_EhRepository);
    // Those that are added meanwhile wait for the next time.
    for (size_t left = m_untold->GetCount(); left > 0 && m_untold->GetCount() > 0; --left) {
        const CUntoldReadiness::CDispatch next = m_untold->TakeFirst();
        Dispatch(next.m_fd, next.m_mask);
    }
    m_thread->TakeWake();
    RunPosted();
}
