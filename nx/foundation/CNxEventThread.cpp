#include <nx/foundation/CNxEventThread.h>

#include <cassert>

CNxEventThread::CNxEventThread(int manualReset, int initialState, const char* /*name*/)
    : m_condition(m_mutex),
      m_manualReset(manualReset != 0 ? 1 : 0),
      m_signalled(initialState != 0 ? 1 : 0) {}

NxResult CNxEventThread::Wait(CNxTimeValue* timeout) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (guard.GetLockResult() != NX_OK) {
        return guard.GetLockResult();
    }
    if (m_signalled != 0) {
        m_signalled = m_manualReset;
        return NX_OK;
    }
    const CNxTimeValue deadline = CNxConditionVariableThread::GetDeadline(timeout);
    const unsigned long broadcastsBefore = m_broadcasts;
    NxResult result = NX_OK;
    ++m_waiting;
    // Waits before it looks, so that a newcomer does not take the wake-up of a thread before it.
    do {
        result = m_condition.WaitUntil(deadline);
    } while (result == NX_OK && !IsReleased(broadcastsBefore));
    assert(m_waiting != 0 && m_wakeups <= m_waiting);
    --m_waiting;
    if (!IsReleased(broadcastsBefore)) {
        return result;
    }
    if (m_manualReset == 0) {
        assert(m_wakeups != 0);
        --m_wakeups;
    }
    return NX_OK;
}

NxResult CNxEventThread::Signal() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (guard.GetLockResult() != NX_OK) {
        return guard.GetLockResult();
    }
    if (m_manualReset != 0 || m_waiting == m_wakeups) {
        m_signalled = 1;
    }
    return WakeWaiters();
}

NxResult CNxEventThread::Pulse() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (guard.GetLockResult() != NX_OK) {
        return guard.GetLockResult();
    }
    m_signalled = 0;
    return WakeWaiters();
}

NxResult CNxEventThread::WakeWaiters() {
    if (m_manualReset != 0) {
        ++m_broadcasts;
        return m_condition.Broadcast();
    }
    if (m_waiting == m_wakeups) {
        return NX_OK;
    }
    assert(m_wakeups < m_waiting);
    ++m_wakeups;
    return m_condition.Signal();
}

bool CNxEventThread::IsReleased(unsigned long broadcastsBefore) const {
    return m_manualReset != 0 ? m_broadcasts != broadcastsBefore : m_wakeups != 0;
}
