#include <nx/event/CNxEventQueueBase.h>
#include <nx/event/CNxEventSynchronous.h>
#include <nx/foundation/CCallOut.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxProcessWide.h>
#include <pthread.h>

#include <cassert>
#include <iterator>
#include <new>

namespace {

// What a ProcessEvents of the thread has under way, and the one in whose event it was called.
struct CBatch {
    explicit CBatch(const std::list<INxEvent*>& events)
        : m_current(events.begin()), m_end(events.end()) {
        s_innermost = this;
    }
    ~CBatch() {
        assert(s_innermost == this);
        s_innermost = m_outer;
    }

    static thread_local CBatch* s_innermost;

    CBatch* const m_outer = s_innermost;
    const unsigned int m_forks = CNxProcessWide::CountForks();
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
    Node node;
    return FinishPost(event, MakeNode(node, event) ? Append_i(node) : NX_ERROR_FAILURE);
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
        const NxResult result = Fire(event);
        event->OnDestorySelf();
        return result;
    }
    // To the end of the scope: a post may be a cancellation point, and then the queue has it.
    const CCancelOff cancelOff;
    CNxEventSynchronous wrapper(event, this);
    const NxResult posted = PostEvent(&wrapper, PRIORITY_NORMAL);
    return posted == NX_OK ? wrapper.WaitResult() : posted;
}

size_t CNxEventQueueBase::GetPendingEventsCount() {
    return GetCount_i();
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
    if (m_pendingEvents.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    if (m_pendingEvents.size() <= max) {
        TakeAll_i(out);
    } else {
        const auto end = std::next(m_pendingEvents.begin(), static_cast<std::ptrdiff_t>(max));
        out.splice(out.end(), m_pendingEvents, m_pendingEvents.begin(), end);
    }
    if (remaining != nullptr) {
        *remaining = m_pendingEvents.size();
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
    CNxEventSynchronous::AbandonUnderWay();
    const unsigned int forks = CNxProcessWide::CountForks();
    // Those of a parent, in whose event the process was forked, are the outermost.
    for (CBatch* batch = CBatch::s_innermost; batch != nullptr && batch->m_forks == forks;
         batch = batch->m_outer) {
        for (auto next = std::next(batch->m_current); next != batch->m_end; ++next) {
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
    // A sent event's wrapper keeps the result for its sender; that of a posted one is nobody's.
    static_cast<void>(Fire(event));
    event->OnDestorySelf();
    return NX_OK;
}

bool CNxEventQueueBase::MakeNode(Node& node, INxEvent* event) {
    assert(node.empty());
    try {
        node.push_back(event);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

NxResult CNxEventQueueBase::Fire(INxEvent* event) {
    return CallOut("OnEventFire", [event] { return event->OnEventFire(); });
}

NxResult CNxEventQueueBase::Append_i(Node& node) {
    assert(node.size() == 1);
    if (node.front() == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (IsQueueStopped()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    m_pendingEvents.splice(m_pendingEvents.end(), node);
    return NX_OK;
}

NxResult CNxEventQueueBase::FinishPost(INxEvent* event, NxResult result) {
    if (event != nullptr && result != NX_OK) {
        event->OnDestorySelf();
    }
    return result;
}

void CNxEventQueueBase::TakeAll_i(std::list<INxEvent*>& out) {
    out.swap(m_pendingEvents);
}

void CNxEventQueueBase::DestroyAll(const std::list<INxEvent*>& events) {
    for (INxEvent* event : events) {
        event->OnDestorySelf();
    }
}
