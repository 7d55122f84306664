#include <nx/event/CNxEventQueueLocked.h>

NxResult CNxEventQueueLocked::PostEvent(INxEvent* event, EPriority /*priority*/) {
    return Post(event, EAfter::OPEN, nullptr);
}

NxResult CNxEventQueueLocked::Post(INxEvent* event, EAfter after, size_t* oldSize) {
    NxResult result = NX_OK;
    bool wakes = false;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        if (oldSize != nullptr) {
            *oldSize = GetCount_i();
        }
        result = Append_i(event, after);
        if (result == NX_OK && m_sleepers != 0) {
            --m_sleepers;
            wakes = true;
        }
    }
    // Not under the mutex, where the sleeper would run into it.
    if (wakes) {
        WakeSleeper();
    }
    return FinishPost(event, result);
}

size_t CNxEventQueueLocked::GetPendingEventsCount() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return GetCount_i();
}

void CNxEventQueueLocked::DestoryPendingEvents() {
    Batch events;
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
