#include <nx/event/CNxEventQueueLocked.h>

NxResult CNxEventQueueLocked::PostEvent(INxEvent* event, EPriority /*priority*/) {
    return Post(event, EAfter::OPEN, nullptr);
}

NxResult CNxEventQueueLocked::Post(INxEvent* event, EAfter after, size_t* oldSize) {
    Node made;
    const bool isLast = after == EAfter::STOPPED;
    if (!isLast && !MakeNode(made, event)) {
        return FinishPost(event, NX_ERROR_FAILURE);
    }
    NxResult result = NX_ERROR_NOT_INITIALIZED;
    bool wakes = false;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        if (oldSize != nullptr) {
            *oldSize = GetCount_i();
        }
        Node& node = isLast ? m_lastNode : made;
        if (!node.empty()) {
            node.front() = event;
            result = Append_i(node);
        }
        if (result == NX_OK) {
            if (isLast) {
                SetStopped_i(true);
            }
            wakes = m_sleepers != 0;
            m_sleepers -= wakes ? 1 : 0;
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
