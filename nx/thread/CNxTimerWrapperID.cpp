#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxTimerWrapperID.h>

#include <cassert>

CNxTimerWrapperID::~CNxTimerWrapperID() {
    Cancel();
}

NxResult CNxTimerWrapperID::Schedule(CNxTimerWrapperIDSink* sink, const CNxTimeValue& interval,
                                     unsigned long count) {
    if (m_queue == nullptr) {
        m_queue = CNxThreadManager::Instance()->GetThreadTimerQueue(NX_THREAD_CALLING);
    }
    if (m_queue == nullptr) {
        return NX_ERROR_NULL_POINTER;
    }
    m_scheduled = 1;
    return m_queue->ScheduleTimer(this, sink, interval, count);
}

NxResult CNxTimerWrapperID::Cancel() {
    if (m_scheduled == 0) {
        return NX_OK;
    }
    m_scheduled = 0;
    assert(m_queue != nullptr);
    return m_queue->CancelTimer(this);
}

void CNxTimerWrapperID::OnTimeout(const CNxTimeValue& /*curTime*/, void* token) {
    if (token != nullptr) {
        static_cast<CNxTimerWrapperIDSink*>(token)->OnTimer(this);
    }
}
