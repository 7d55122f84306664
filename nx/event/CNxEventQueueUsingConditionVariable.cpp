#include <nx/event/CNxEventQueueUsingConditionVariable.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxConditionVariableThread.h>

#include <cassert>

namespace {

// Without the mutex to the end of the scope, also when the thread is cancelled in it.
class CReleased {
public:
    explicit CReleased(CNxMutexThread& mutex) NX_NO_THREAD_SAFETY_ANALYSIS : m_mutex(mutex) {
        m_mutex.UnLock();
    }
    ~CReleased() NX_NO_THREAD_SAFETY_ANALYSIS { m_mutex.Lock(); }

    CReleased(const CReleased&) = delete;
    CReleased& operator=(const CReleased&) = delete;

private:
    CNxMutexThread& m_mutex;
};

}  // namespace

void CNxEventQueueUsingConditionVariable::WakeSleeper() {
    [[maybe_unused]] const NxResult woken = m_wakeUps.UnLock();
    assert(woken == NX_OK);
}

NxResult CNxEventQueueUsingConditionVariable::PopOrWaitPendingEvents(Batch& out,
                                                                     CNxTimeValue* timeout,
                                                                     size_t max) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    WaitForEvent_l(timeout);
    return PopPendingEvents(out, max, nullptr);
}

NxResult CNxEventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<INxEvent*>& out,
                                                                     CNxTimeValue* timeout,
                                                                     size_t max) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    WaitForEvent_l(timeout);
    return PopPendingEvents(out, max, nullptr);
}

// Counted in m_sleepers to the end of the scope, also when the thread is cancelled in it.
class CNxEventQueueUsingConditionVariable::CSleeper {
public:
    explicit CSleeper(CNxEventQueueUsingConditionVariable& queue) NX_NO_THREAD_SAFETY_ANALYSIS
        : m_queue(queue) {
        ++m_queue.m_sleepers;
    }
    ~CSleeper() NX_NO_THREAD_SAFETY_ANALYSIS {
        if (!m_isWoken && m_queue.m_sleepers != 0) {
            --m_queue.m_sleepers;
        } else if (!m_isWoken) {
            // A post has promised the wake-up, and uses the queue until it has come.
            const CCancelOff cancelOff;
            [[maybe_unused]] const NxResult woken = m_queue.Sleep_l(CNxTimeValue::s_tvMax());
            assert(woken == NX_OK);
        }
    }

    CSleeper(const CSleeper&) = delete;
    CSleeper& operator=(const CSleeper&) = delete;

    bool m_isWoken = false;

private:
    CNxEventQueueUsingConditionVariable& m_queue;
};

// However it ends, what counts is whether an event is there afterwards.
void CNxEventQueueUsingConditionVariable::WaitForEvent_l(const CNxTimeValue* timeout) {
    const bool mayWait = timeout == nullptr || *timeout > CNxTimeValue::s_tvZero();
    if (GetCount_i() == 0 && mayWait) {
        CSleeper sleeper(*this);
        sleeper.m_isWoken = Sleep_l(CNxConditionVariableThread::GetDeadline(timeout)) == NX_OK;
    }
}

NxResult CNxEventQueueUsingConditionVariable::Sleep_l(const CNxTimeValue& deadline) {
    const CReleased released(m_mutex);
    NxResult woken = NX_ERROR_FAILURE;
    // A signal handler may interrupt it.
    while (woken == NX_ERROR_FAILURE) {
        woken = m_wakeUps.LockUntil(deadline);
    }
    return woken;
}
