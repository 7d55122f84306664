#include <nx/reactor/CNxReactorSelect.h>

#include <cerrno>

CNxReactorSelect::~CNxReactorSelect() {
    // Whoever destroys a reactor has it for himself.
    Reset2CurrentThread();
    // Here, because the removal calls hooks of this class.
    m_NotifyPipe.Close();
}

NxResult CNxReactorSelect::Open() {
    return FinishOpen(OpenParts());
}

NxResult CNxReactorSelect::OpenParts() {
    const NxResult base = CNxReactorBase::Open();
    return base == NX_OK ? m_NotifyPipe.Open(this) : base;
}

NxResult CNxReactorSelect::Close() {
    m_NotifyPipe.Close();
    return CNxReactorBase::Close();
}

NxResult CNxReactorSelect::NotifyHandler(INxEventHandler* handler, long mask) {
    return m_NotifyPipe.Notify(handler, mask);
}

NxResult CNxReactorSelect::StopEventLoop() {
    SetStopFlag();
    m_NotifyPipe.Notify(&m_NotifyPipe, 0);
    return NX_OK;
}

NxResult CNxReactorSelect::RunEventLoop() {
    m_Est.EnsureSingleThread("a select reactor");
    while (!IsStopped()) {
        CNxTimeValue remaining;
        FireTimers(remaining);
        if (WaitAndDispatch(remaining) != NX_OK) {
            return NX_ERROR_FAILURE;
        }
    }
    RunLastEvents();
    return NX_OK;
}

NxResult CNxReactorSelect::WaitAndDispatch(const CNxTimeValue& remaining) {
    fd_set exceptionSet;
    FD_ZERO(&m_readSet);
    FD_ZERO(&m_writeSet);
    FD_ZERO(&exceptionSet);
    const int maxFd = m_EhRepository.FillFdSets(m_readSet, m_writeSet, exceptionSet);
    timeval timeout{remaining.GetSec(), remaining.GetUsec()};
    const bool endless = remaining == CNxTimeValue::s_tvMax();
    int count =
        select(maxFd + 1, &m_readSet, &m_writeSet, &exceptionSet, endless ? nullptr : &timeout);
    if (count == -1) {
        return errno == EINTR ? NX_OK : NX_ERROR_FAILURE;
    }
    ProcessFdSets_i(m_readSet, NX_MASK_INPUT | NX_MASK_CONNECT, count, maxFd);
    ProcessFdSets_i(m_writeSet, NX_MASK_OUTPUT, count, maxFd);
    return NX_OK;
}

// `count` is the number of readiness that is left: none means that the rest need not be looked at.
void CNxReactorSelect::ProcessFdSets_i(fd_set& ready, long mask, int& count, int maxFd) {
    for (int fd = 0; fd <= maxFd && count > 0; ++fd) {
        const bool occupied =
            m_EhRepository.HasPlace(fd) && m_EhRepository.At(fd).m_handler != nullptr;
        if (occupied && FD_ISSET(fd, &ready)) {
            --count;
            ProcessHandleEvent(fd, mask, 0, 0, 0);
        }
    }
}

NxResult CNxReactorSelect::OnHandleRegister(int fd, long /*mask*/, INxEventHandler* handler) {
    return handler != nullptr && fd < FD_SETSIZE ? NX_OK : NX_ERROR_INVALID_ARG;
}

// What this turn has still to say about the descriptor is not meant for a later one of its number.
void CNxReactorSelect::OnHandleRemoved(int fd) {
    if (fd >= 0 && fd < FD_SETSIZE) {
        FD_CLR(fd, &m_readSet);
        FD_CLR(fd, &m_writeSet);
    }
}
