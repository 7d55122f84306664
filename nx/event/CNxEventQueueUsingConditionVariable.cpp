#include <nx/event/CNxEventQueueUsingConditionVariable.h>

NxResult CNxEventQueueUsingConditionVariable::PostEvent(INxEvent* event, EPriority /*priority*/) {
    return Post_i(event, false);
}

NxResult CNxEventQueueUsingConditionVariable::PostLastEvent(INxEvent* event) {
    return Post_i(event, true);
}

NxResult CNxEventQueueUsingConditionVariable::Post_i(INxEvent* event, bool last) {
    Node node(1, event);
    NxResult result = NX_OK;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        result = Append_i(node);
        if (result == NX_OK) {
            SetStopped_i(last);
            // Under the lock: behind it the owner may have taken the event and destroyed the queue.
            m_condition.Signal();
        }
    }
    return FinishPost(event, result);
}

size_t CNxEventQueueUsingConditionVariable::GetPendingEventsCount() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return CNxEventQueueBase::GetPendingEventsCount();
}

void CNxEventQueueUsingConditionVariable::DestoryPendingEvents() {
    std::list<INxEvent*> events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        TakeAll_i(events);
    }
    DestroyAll(events);
}

void CNxEventQueueUsingConditionVariable::StopAndDestoryPendingEvents() {
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        SetStopped_i(true);
    }
    CNxEventQueueUsingConditionVariable::DestoryPendingEvents();
}

NxResult CNxEventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<INxEvent*>& out,
                                                                     CNxTimeValue* timeout,
                                                                     size_t max) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (CNxEventQueueBase::GetPendingEventsCount() == 0) {
        m_condition.Wait(timeout);
    }
    return PopPendingEvents(out, max, nullptr);
}
