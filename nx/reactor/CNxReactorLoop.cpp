#include <nx/foundation/CKeptErrno.h>
#include <nx/reactor/CNxReactorLoop.h>

#include <cassert>

namespace {

// A wake-up that could not be sent to a loop that sleeps is made up for after this time, and a
// system clock that was set heeded.
CNxTimeValue LongestWait() {
    return {1, 0};
}

}  // namespace

CNxReactorLoop::~CNxReactorLoop() {
    // Whoever destroys a reactor has it for himself.
    Reset2CurrentThread();
    // First, because the pipe would else be removed from it with a hook of a class that is gone.
    m_EhRepository.Close();
    m_NotifyPipe.Close();
    TellCompanion();
}

NxResult CNxReactorLoop::Open() {
    const NxResult opened = OpenParts();
    if (opened != NX_OK) {
        const CKeptErrno keptErrno;
        Close();
        return opened;
    }
    assert(m_EhRepository.IsRegistered(m_NotifyPipe.GetHandle()));
    SetStartFlag();
    return NX_OK;
}

NxResult CNxReactorLoop::OpenParts() {
    if (m_EhRepository.IsOpen()) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    // Before the first step that can fail: the Close after it belongs to the opening thread.
    Reset2CurrentThread();
    NxResult result = OpenDemultiplexer();
    if (result == NX_OK) {
        result = CNxReactorBase::Open();
    }
    return result == NX_OK ? m_NotifyPipe.Open(this) : result;
}

NxResult CNxReactorLoop::Close() {
    // Nothing is left that could wake the loop.
    SetStopFlag();
    m_NotifyPipe.Close();
    return CNxReactorBase::Close();
}

NxResult CNxReactorLoop::NotifyHandler(INxEventHandler* handler, long mask) {
    return m_NotifyPipe.Notify(handler, mask);
}

NxResult CNxReactorLoop::StopEventLoop() {
    SetStopFlag();
    // One that is closed has no loop to wake, and a loop that hears nothing looks within a second.
    static_cast<void>(m_NotifyPipe.Notify(&m_NotifyPipe, 0));
    return NX_OK;
}

NxResult CNxReactorLoop::RunEventLoop() {
    TakeBack();
    const NxResult result = RunTurns();
    LetGo();
    return result;
}

NxResult CNxReactorLoop::RunTurns() {
    while (!IsStopped() && !IsCopyOfParent()) {
        CNxTimeValue remaining;
        const int fired = FireTimers(remaining);
        m_NotifyPipe.BeginWait();
        // A timer may have stopped the loop, for which no wake-up is sent.
        const bool mustNotWait = HasPosted() || IsStopped();
        const NxResult waited = WaitAndDispatch(mustNotWait ? CNxTimeValue::s_tvZero() : remaining,
                                                fired != 0 || mustNotWait);
        if (waited != NX_OK) {
            return waited;
        }
    }
    if (IsCopyOfParent()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    RunLastEvents();
    return NX_OK;
}

// Returns how many fired; `remaining` gets the time to wait, until the next one at most.
int CNxReactorLoop::FireTimers(CNxTimeValue& remaining) {
    remaining = CNxTimeValue::s_tvMax();
    const int fired = m_pTimerQueue != nullptr ? m_pTimerQueue->CheckExpire(&remaining) : 0;
    assert(remaining.GetSec() >= 0);
    const bool needsLimit = remaining != CNxTimeValue::s_tvMax() || !m_NotifyPipe.IsCertain();
    if (needsLimit && remaining > LongestWait()) {
        remaining = LongestWait();
    }
    return fired;
}

bool CNxReactorLoop::HasPosted() {
    return m_NotifyPipe.GetCount() != 0 || GetPendingEventsCount() != 0;
}

void CNxReactorLoop::RunPosted() {
    for (size_t left = m_NotifyPipe.GetCount(); left > 0; --left) {
        m_NotifyPipe.DispatchFirst();
    }
    ProcessHandleEvent(-1, NX_MASK_EVENT_QUEUE, 0, 0, 0);
}

// Refuses further events and fires those posted until now, with no gap between the two.
void CNxReactorLoop::RunLastEvents() {
    Batch events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        SetStopped_i(true);
        TakeAll_i(events);
    }
    ProcessEvents(events);
}
