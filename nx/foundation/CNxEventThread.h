// A wait object: threads wait until another thread signals it.
#pragma once

#include <nx/foundation/CNxConditionVariableThread.h>

// Manual reset: once signalled, every wait passes until a Pulse clears it.
// Automatic reset: one signal lets exactly one wait pass. A signal that finds a waiter belongs to a
// waiter also when its time runs out at that moment, and no wake-up without a signal counts as
// one. A signal that finds nobody waiting is kept for the next wait; it does not add up.
// Any thread may call any operation; a thread that has returned from Wait may destroy the object
// even while the signalling call is still on its way out.
class CNxEventThread {
public:
    // The name is ignored.
    explicit CNxEventThread(int manualReset = 0, int initialState = 0, const char* name = nullptr);

    CNxEventThread(const CNxEventThread&) = delete;
    CNxEventThread& operator=(const CNxEventThread&) = delete;

    // `timeout` is relative; null or s_tvMax() waits without limit.
    // NX_OK when the object was or became signalled, NX_ERROR_TIMEOUT when the time ran out,
    // NX_ERROR_FAILURE when a lock or wait failed.
    [[nodiscard]] NxResult Wait(CNxTimeValue* timeout = nullptr);

    // NX_OK or NX_ERROR_FAILURE.
    NxResult Signal();

    // Lets the threads waiting now pass (manual: all, automatic: one) and leaves the object
    // unsignalled; with nobody waiting it is lost. NX_OK or NX_ERROR_FAILURE.
    NxResult Pulse();

private:
    NxResult WakeWaiters() NX_REQUIRES(m_mutex);
    bool IsReleased(unsigned long broadcastsBefore) const NX_REQUIRES(m_mutex);

    CNxMutexThread m_mutex;
    CNxConditionVariableThread m_condition;
    const int m_manualReset;
    int m_signalled NX_GUARDED_BY(m_mutex);
    unsigned long m_waiting NX_GUARDED_BY(m_mutex) = 0;
    // Automatic: wake-ups handed out and not yet taken, never more than m_waiting.
    unsigned long m_wakeups NX_GUARDED_BY(m_mutex) = 0;
    // Manual: how often all waiters were let go.
    unsigned long m_broadcasts NX_GUARDED_BY(m_mutex) = 0;
};
