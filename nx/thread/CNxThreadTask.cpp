#include <nx/event/CNxEventStop.h>
#include <nx/thread/CNxThreadTask.h>

#include <limits>

namespace {

constexpr size_t c_noLimit = std::numeric_limits<size_t>::max();
constexpr size_t c_eventsPerTurn = 100000;

}  // namespace

NxResult CNxThreadTaskWithEventQueueOnly::Stop(CNxTimeValue* /*timeout*/) {
    return m_eventQueue.PostLastEvent(new CNxEventStopT<CNxThreadTaskWithEventQueueOnly>(this));
}

void CNxThreadTaskWithEventQueueOnly::OnThreadInit() {
    m_eventQueue.SetOwnerThreadId(CNxThreadManager::GetThreadSelfId());
    Reset2CurrentThreadId();
    SetStartFlag();
}

void CNxThreadTaskWithEventQueueOnly::OnThreadRun() {
    EnsureLoopThread();
    std::list<INxEvent*> events;
    while (!IsStopped()) {
        if (m_eventQueue.PopOrWaitPendingEvents(events, nullptr, c_noLimit) == NX_OK) {
            m_eventQueue.ProcessEvents(events);
            events.clear();
        }
    }
    m_eventQueue.StopAndDestoryPendingEvents();
}

void CNxThreadTask::OnThreadInit() {
    m_timerQueue = std::make_unique<CNxTimerQueueOrderedList>(nullptr);
    CNxThreadTaskWithEventQueueOnly::OnThreadInit();
}

void CNxThreadTask::OnThreadRun() {
    EnsureLoopThread();
    std::list<INxEvent*> events;
    while (!IsStopped()) {
        CNxTimeValue wait = CNxTimeValue::s_tvMax();
        if (m_timerQueue != nullptr) {
            m_timerQueue->CheckExpire(&wait);
        }
        if (m_eventQueue.PopOrWaitPendingEvents(events, &wait, c_eventsPerTurn) == NX_OK) {
            m_eventQueue.ProcessEvents(events);
            events.clear();
        }
    }
    m_eventQueue.StopAndDestoryPendingEvents();
}
