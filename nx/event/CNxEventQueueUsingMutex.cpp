#include <nx/event/CNxEventQueueUsingMutex.h>

NxResult CNxEventQueueUsingMutex::PostEvent(INxEvent* event, EPriority priority) {
    return PostEventWithOldSize(event, priority, nullptr);
}

NxResult CNxEventQueueUsingMutex::PostEventWithOldSize(INxEvent* event, EPriority /*priority*/,
                                                       size_t* oldSize) {
    Node node(1, event);
    NxResult result = NX_OK;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        if (oldSize != nullptr) {
            *oldSize = CNxEventQueueBase::GetPendingEventsCount();
        }
        result = Append_i(node);
    }
    return FinishPost(event, result);
}

size_t CNxEventQueueUsingMutex::GetPendingEventsCount() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return CNxEventQueueBase::GetPendingEventsCount();
}

void CNxEventQueueUsingMutex::DestoryPendingEvents() {
    std::list<INxEvent*> events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        TakeAll_i(events);
    }
    DestroyAll(events);
}

void CNxEventQueueUsingMutex::StopAndDestoryPendingEvents() {
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        SetStopped_i(true);
    }
    CNxEventQueueUsingMutex::DestoryPendingEvents();
}
