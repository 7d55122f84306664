#include <nx/event/CNxEventSynchronous.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxProcessWide.h>

#include <cassert>
#include <utility>

// Marks the wrapper as the one whose event the calling thread is in, to the end of the scope.
class CNxEventSynchronous::CUnderWay {
public:
    explicit CUnderWay(CNxEventSynchronous& wrapper) : m_wrapper(wrapper) {
        m_wrapper.m_outer = std::exchange(s_innermost, &wrapper);
        m_wrapper.m_forks = CNxProcessWide::CountForks();
    }
    ~CUnderWay() {
        assert(s_innermost == &m_wrapper);
        s_innermost = m_wrapper.m_outer;
    }

    CUnderWay(const CUnderWay&) = delete;
    CUnderWay& operator=(const CUnderWay&) = delete;

    static thread_local CNxEventSynchronous* s_innermost;

private:
    CNxEventSynchronous& m_wrapper;
};
thread_local CNxEventSynchronous* CNxEventSynchronous::CUnderWay::s_innermost = nullptr;

CNxEventSynchronous::CNxEventSynchronous(INxEvent* event, CNxEventQueueBase* /*queue*/)
    : m_event(event) {}

CNxEventSynchronous::~CNxEventSynchronous() {
    DestroyWrappedEvent();
}

NxResult CNxEventSynchronous::OnEventFire() {
    const CUnderWay underWay(*this);
    m_result = m_event != nullptr ? m_event->OnEventFire() : NX_ERROR_NULL_POINTER;
    return m_result;
}

void CNxEventSynchronous::OnDestorySelf() {
    {
        const CUnderWay underWay(*this);
        DestroyWrappedEvent();
    }
    m_done.UnLock();
}

NxResult CNxEventSynchronous::WaitResult() {
    // A cancelled sender would take the wrapper away from under the queue.
    const CCancelOff cancelOff;
    while (m_done.Lock() != NX_OK) {
    }
    return m_result;
}

NxResult CNxEventSynchronous::WaitResultAndDeleteThis() {
    const NxResult result = WaitResult();
    delete this;
    return result;
}

void CNxEventSynchronous::AbandonUnderWay() {
    const unsigned int forks = CNxProcessWide::CountForks();
    CNxEventSynchronous* wrapper = std::exchange(CUnderWay::s_innermost, nullptr);
    while (wrapper != nullptr && wrapper->m_forks == forks) {
        CNxEventSynchronous* const outer = wrapper->m_outer;
        // The thread is still in it.
        wrapper->m_event = nullptr;
        wrapper->m_done.UnLock();
        wrapper = outer;
    }
}

void CNxEventSynchronous::DestroyWrappedEvent() {
    INxEvent* const event = std::exchange(m_event, nullptr);
    if (event != nullptr) {
        event->OnDestorySelf();
    }
}
