#include <nx/thread/CNxThreadHeartBeat.h>

#include <limits>

void CNxThreadHeartBeat::OnThreadInit() {
    m_timerQueue = std::make_unique<CNxTimerQueueOrderedList>(nullptr);
    m_eventQueue.SetOwnerThreadId(CNxThreadManager::GetThreadSelfId());
}

NxResult CNxThreadHeartBeat::DoHeartBeat() {
    if (m_timerQueue != nullptr) {
        m_timerQueue->CheckExpire(nullptr);
    }
    std::list<INxEvent*> events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_eventQueue.GetMutex());
        m_eventQueue.PopPendingEvents(events, std::numeric_limits<size_t>::max(), nullptr);
    }
    return m_eventQueue.ProcessEvents(events);
}
