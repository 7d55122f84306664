#include <nx/event/CNxEventQueueUsingConditionVariable.h>

// Under the mutex: without it the owner may have taken the event and destroyed the queue by now.
void CNxEventQueueUsingConditionVariable::OnAppended_l() {
    m_mutex.AssertHeld();
    m_condition.Signal();
}

NxResult CNxEventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<INxEvent*>& out,
                                                                     CNxTimeValue* timeout,
                                                                     size_t max) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (GetCount_i() == 0) {
        // However it ends, what counts is whether an event is there now.
        static_cast<void>(m_condition.Wait(timeout));
    }
    return PopPendingEvents(out, max, nullptr);
}
