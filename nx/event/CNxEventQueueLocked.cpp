#include <nx/event/CNxEventQueueLocked.h>

NxResult CNxEventQueueLocked::PostEvent(INxEvent* event, EPriority /*priority*/) {
    return Post(event, EAfter::OPEN, nullptr);
}

NxResult CNxEventQueueLocked::Post(INxEvent* event, EAfter after, size_t* oldSize) {
    Node node(1, event);
    NxResult result = NX_OK;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        if (oldSize != nullptr) {
            *oldSize = CNxEventQueueBase::GetPendingEventsCount();
        }
        result = Append_i(node);
        if (result == NX_OK) {
            if (after == EAfter::STOPPED) {
                SetStopped_i(true);
            }
            OnAppended_l();
        }
    }
    return FinishPost(event, result);
}

size_t CNxEventQueueLocked::GetPendingEventsCount() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return CNxEventQueueBase::GetPendingEventsCount();
}

void CNxEventQueueLocked::DestoryPendingEvents() {
    std::list<INxEvent*> events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        TakeAll_i(events);
    }
    DestroyAll(events);
}

void CNxEventQueueLocked::StopAndDestoryPendingEvents() {
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        SetStopped_i(true);
    }
    CNxEventQueueLocked::DestoryPendingEvents();
}
