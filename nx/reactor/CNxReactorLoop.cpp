#include <nx/reactor/CNxReactorLoop.h>

#include <cassert>

CNxReactorLoop::~CNxReactorLoop() {
    // Whoever destroys a reactor has it for himself.
    Reset2CurrentThread();
    // First, because the pipe would else be removed from it with a hook of a class that is gone.
    m_EhRepository.Close();
    m_NotifyPipe.Close();
}

NxResult CNxReactorLoop::Open() {
    const NxResult opened = OpenParts();
    if (opened != NX_OK) {
        Close();
        return opened;
    }
    assert(m_EhRepository.IsRegistered(m_NotifyPipe.GetHandle()));
    SetStartFlag();
    // What was posted before there was anything to wake. The new pipe has room for it.
    if (GetPendingEventsCount() != 0) {
        static_cast<void>(NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
    }
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
    // A pipe that is full wakes the loop as well, and one that is closed has none to wake.
    static_cast<void>(m_NotifyPipe.Notify(&m_NotifyPipe, 0));
    return NX_OK;
}

NxResult CNxReactorLoop::RunEventLoop() {
    m_Est.EnsureSingleThread("a reactor's loop");
    while (!IsStopped()) {
        CNxTimeValue remaining;
        const int fired = FireTimers(remaining);
        const NxResult waited = WaitAndDispatch(remaining, fired);
        if (waited != NX_OK) {
            return waited;
        }
    }
    RunLastEvents();
    return NX_OK;
}

// Returns how many fired; `remaining` gets the time until the next one, s_tvMax() without any.
int CNxReactorLoop::FireTimers(CNxTimeValue& remaining) {
    remaining = CNxTimeValue::s_tvMax();
    const int fired = m_pTimerQueue != nullptr ? m_pTimerQueue->CheckExpire(&remaining) : 0;
    assert(remaining.GetSec() >= 0);
    return fired;
}

// Refuses further events and fires those posted until now, with no gap between the two.
void CNxReactorLoop::RunLastEvents() {
    std::list<INxEvent*> events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        SetStopped_i(true);
        TakeAll_i(events);
    }
    ProcessEvents(events);
}
