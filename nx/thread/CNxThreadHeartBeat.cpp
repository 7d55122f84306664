#include <nx/thread/CNxThreadHeartBeat.h>

#include <limits>

namespace {

constexpr size_t c_noLimit = std::numeric_limits<size_t>::max();

}  // namespace

void CNxThreadHeartBeat::OnThreadInit() {
    m_timerQueue = std::make_unique<CNxTimerPriorityQueue>(nullptr);
    BindToCallingThread();
}

NxResult CNxThreadHeartBeat::DoHeartBeat() {
    if (m_timerQueue != nullptr) {
        m_timerQueue->CheckExpire(nullptr);
    }
    CNxEventQueueBase::Batch events;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_eventQueue.GetMutex());
        if (m_eventQueue.PopPendingEvents(events, c_noLimit, nullptr) != NX_OK) {
            return NX_OK;
        }
    }
    return m_eventQueue.ProcessEvents(events);
}
