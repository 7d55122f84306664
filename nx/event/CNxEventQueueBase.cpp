#include <nx/event/CNxEventQueueBase.h>
#include <pthread.h>

namespace {

// What a ProcessEvents of the thread has under way, and the one in whose event it was called.
struct CBatch {
    explicit CBatch(const std::list<INxEvent*>& events)
        : m_current(events.begin()), m_end(events.end()) {
        s_innermost = this;
    }
    ~CBatch() { s_innermost = m_outer; }

    static thread_local CBatch* s_innermost;

    CBatch* const m_outer = s_innermost;
    std::list<INxEvent*>::const_iterator m_current;
    const std::list<INxEvent*>::const_iterator m_end;
};
thread_local CBatch* CBatch::s_innermost = nullptr;

}  // namespace

CNxEventQueueBase::CNxEventQueueBase() : m_reportTime(CNxTimeValue::GetTimeOfDay()) {}

CNxEventQueueBase::~CNxEventQueueBase() {
    // Qualified: the derived queue and its mutex are gone by now.
    CNxEventQueueBase::StopAndDestoryPendingEvents();
}

NxResult CNxEventQueueBase::PostEvent(INxEvent* event, EPriority /*priority*/) {
    Node node(1, event);
    return FinishPost(event, Append_i(node));
}

NxResult CNxEventQueueBase::SendEvent(INxEvent* event) {
    if (event == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (IsQueueStopped()) {
        event->OnDestorySelf();
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (GetOwnerThreadId() == pthread_self()) {
        const NxResult result = event->OnEventFire();
        event->OnDestorySelf();
        return result;
    }
    auto* const wrapper = new CNxEventSynchronous(event, this);
    const NxResult posted = PostEvent(wrapper, PRIORITY_NORMAL);
    if (posted != NX_OK) {
        // The refusal let go of it for the queue; this is the sender's part.
        wrapper->OnDestorySelf();
        return posted;
    }
    return wrapper->WaitResultAndDeleteThis();
}

size_t CNxEventQueueBase::GetPendingEventsCount() {
    return m_pendingCount;
}

void CNxEventQueueBase::DestoryPendingEvents() {
    std::list<INxEvent*> events;
    TakeAll_i(events);
    DestroyAll(events);
}

void CNxEventQueueBase::StopAndDestoryPendingEvents() {
    SetStopped_i(true);
    CNxEventQueueBase::DestoryPendingEvents();
}

NxResult CNxEventQueueBase::PopPendingEvents(std::list<INxEvent*>& out, size_t max,
                                             size_t* remaining) {
    if (m_pendingCount == 0) {
        return NX_ERROR_NOT_FOUND;
    }
    if (m_pendingCount <= max) {
        TakeAll_i(out);
    } else {
        for (size_t i = 0; i < max; ++i) {
            out.splice(out.end(), m_pendingEvents, m_pendingEvents.begin());
        }
        m_pendingCount -= max;
    }
    if (remaining != nullptr) {
        *remaining = m_pendingCount;
    }
    return NX_OK;
}

NxResult CNxEventQueueBase::PopOnePendingEvent(INxEvent*& out, size_t* remaining) {
    std::list<INxEvent*> oldest;
    const NxResult result = PopPendingEvents(oldest, 1, remaining);
    if (result == NX_OK) {
        out = oldest.front();
    }
    return result;
}

NxResult CNxEventQueueBase::ProcessEvents(const std::list<INxEvent*>& events) {
    for (CBatch batch(events); batch.m_current != batch.m_end; ++batch.m_current) {
        ProcessOneEvent(*batch.m_current);
    }
    return NX_OK;
}

void CNxEventQueueBase::AbandonBatches() {
    for (CBatch* batch = CBatch::s_innermost; batch != nullptr; batch = batch->m_outer) {
        auto next = batch->m_current;
        if (auto* const sent = dynamic_cast<CNxEventSynchronous*>(*next)) {
            sent->Abandon();
        }
        while (++next != batch->m_end) {
            if (*next != nullptr) {
                (*next)->OnDestorySelf();
            }
        }
    }
}

NxResult CNxEventQueueBase::ProcessOneEvent(INxEvent* event) {
    if (event == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    event->OnEventFire();
    event->OnDestorySelf();
    return NX_OK;
}

NxResult CNxEventQueueBase::Append_i(Node& node) {
    if (node.front() == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (IsQueueStopped()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    m_pendingEvents.splice(m_pendingEvents.end(), node);
    ++m_pendingCount;
    return NX_OK;
}

NxResult CNxEventQueueBase::FinishPost(INxEvent* event, NxResult result) {
    if (result == NX_ERROR_NOT_INITIALIZED) {
        event->OnDestorySelf();
    }
    return result;
}

void CNxEventQueueBase::TakeAll_i(std::list<INxEvent*>& out) {
    out.swap(m_pendingEvents);
    m_pendingCount = 0;
}

void CNxEventQueueBase::DestroyAll(const std::list<INxEvent*>& events) {
    for (INxEvent* event : events) {
        event->OnDestorySelf();
    }
}

CNxEventSynchronous::CNxEventSynchronous(INxEvent* event, CNxEventQueueBase* queue)
    : m_event(event), m_queue(queue) {}

CNxEventSynchronous::~CNxEventSynchronous() {
    DestroyWrappedEvent();
    if (m_firstDestructionDone.load() == 0) {
        m_done.Signal();
    }
}

NxResult CNxEventSynchronous::OnEventFire() {
    // A fired wrapper passes through the queue once more, only to be destroyed there.
    if (m_firstDestructionDone.load() != 0) {
        return NX_OK;
    }
    INxEvent* const event = m_event.load();
    const NxResult result = event != nullptr ? event->OnEventFire() : NX_ERROR_NULL_POINTER;
    m_result = result;
    m_fired = true;
    m_done.Signal();
    return result;
}

void CNxEventSynchronous::OnDestorySelf() {
    DestroyWrappedEvent();
    if (!m_fired) {
        m_done.Signal();
    }
    // Last, because from here on the other thread may delete the wrapper.
    if (m_firstDestructionDone.exchange(1) != 0) {
        delete this;
    }
}

void CNxEventSynchronous::Abandon() {
    m_event.store(nullptr);
    m_done.Signal();
}

NxResult CNxEventSynchronous::WaitResultAndDeleteThis() {
    const NxResult waited = m_done.Wait(nullptr);
    if (waited != NX_OK) {
        return waited;
    }
    const NxResult result = m_result;
    if (m_fired) {
        m_queue->PostEvent(this, INxEventQueue::PRIORITY_NORMAL);
    } else {
        OnDestorySelf();
    }
    return result;
}

void CNxEventSynchronous::DestroyWrappedEvent() {
    INxEvent* const event = m_event.exchange(nullptr);
    if (event != nullptr) {
        event->OnDestorySelf();
    }
}
