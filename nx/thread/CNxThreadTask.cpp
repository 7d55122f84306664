#include <nx/thread/CNxThreadTask.h>

#include <cassert>
#include <limits>

namespace {

constexpr size_t c_eventsPerTurn = 100000;
constexpr CNxTimeValue c_longestWait(1, 0);

}  // namespace

NxResult CNxThreadTaskWithEventQueueOnly::Stop(CNxTimeValue* /*timeout*/) {
    return m_eventQueue.PostLastEvent(&m_stopEvent);
}

void CNxThreadTaskWithEventQueueOnly::OnThreadInit() {
    CNxThreadTaskWithEventQueueOnly::BindToCallingThread();
    SetStartFlag();
}

void CNxThreadTaskWithEventQueueOnly::BindToCallingThread() {
    CNxThread::BindToCallingThread();
    Reset2CurrentThreadId();
}

void CNxThreadTaskWithEventQueueOnly::OnThreadRun() {
    EnsureLoopThread();
    CNxEventQueueBase::Batch events;
    while (!IsStopped()) {
        CNxTimeValue wait = CNxTimeValue::s_tvMax();
        const size_t most = BeginTurn(wait);
        assert(events.empty());
        if (m_eventQueue.PopOrWaitPendingEvents(events, &wait, most) == NX_OK) {
            m_eventQueue.ProcessEvents(events);
            CNxEventQueueBase::Clear(events);
        }
    }
    m_eventQueue.StopAndDestoryPendingEvents();
}

size_t CNxThreadTaskWithEventQueueOnly::BeginTurn(CNxTimeValue& /*wait*/) {
    return std::numeric_limits<size_t>::max();
}

void CNxThreadTask::OnThreadInit() {
    m_timerQueue = std::make_unique<CNxTimerPriorityQueue>(nullptr);
    CNxThreadTaskWithEventQueueOnly::OnThreadInit();
}

void CNxThreadTask::OnThreadRun() {
    CNxThreadTaskWithEventQueueOnly::OnThreadRun();
    if (m_timerQueue != nullptr) {
        m_timerQueue->LetGo();
    }
}

size_t CNxThreadTask::BeginTurn(CNxTimeValue& wait) {
    if (m_timerQueue != nullptr) {
        m_timerQueue->CheckExpire(&wait);
    }
    // A wait goes by the monotonic clock, and does not hear of a step of the timers' own.
    if (wait > c_longestWait && wait != CNxTimeValue::s_tvMax()) {
        wait = c_longestWait;
    }
    return c_eventsPerTurn;
}
