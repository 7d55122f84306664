#include <nx/event/CNxEventQueueBase.h>
#include <nx/event/CNxEventSynchronous.h>
#include <nx/foundation/CCallOut.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxProcessWide.h>
#include <pthread.h>

#include <algorithm>
#include <cassert>
#include <iterator>
#include <new>

namespace {

constexpr size_t c_leastRoom = 64;
// 128 KiB.
constexpr size_t c_mostRoomKept = 16384;

// What a ProcessEvents of the thread has under way, and the one in whose event it was called.
class CUnderWay {
public:
    CUnderWay() { s_innermost = this; }
    CUnderWay(const CUnderWay&) = delete;
    CUnderWay& operator=(const CUnderWay&) = delete;

    // Destroys, unfired, the events after the current one.
    virtual void DestroyRest() const = 0;

    static thread_local CUnderWay* s_innermost;

    CUnderWay* const m_outer = s_innermost;
    const unsigned int m_forks = CNxProcessWide::CountForks();

protected:
    ~CUnderWay() {
        assert(s_innermost == this);
        s_innermost = m_outer;
    }
};
thread_local CUnderWay* CUnderWay::s_innermost = nullptr;

template <class Events>
class CUnderWayT : public CUnderWay {
public:
    explicit CUnderWayT(const Events& events) : m_current(events.begin()), m_end(events.end()) {}

    void DestroyRest() const override {
        for (auto next = std::next(m_current); next != m_end; ++next) {
            if (*next != nullptr) {
                (*next)->OnDestorySelf();
            }
        }
    }

    typename Events::const_iterator m_current;
    const typename Events::const_iterator m_end;
};

}  // namespace

CNxEventQueueBase::CNxEventQueueBase() : m_reportTime(CNxTimeValue::GetTimeOfDay()) {
    m_lastPlace.reserve(1);
}

CNxEventQueueBase::~CNxEventQueueBase() {
    // Qualified: the derived queue and its mutex are gone by now.
    CNxEventQueueBase::StopAndDestoryPendingEvents();
}

NxResult CNxEventQueueBase::PostEvent(INxEvent* event, EPriority /*priority*/) {
    return FinishPost(event, Append_i(event, EAfter::OPEN));
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
    const NxResult posted = PostEvent(&wrapper);
    return posted == NX_OK ? wrapper.WaitResult() : posted;
}

size_t CNxEventQueueBase::GetPendingEventsCount() {
    return GetCount_i();
}

void CNxEventQueueBase::DestoryPendingEvents() {
    Batch events;
    TakeAll_i(events);
    DestroyAll(events);
}

void CNxEventQueueBase::StopAndDestoryPendingEvents() {
    SetStopped_i(true);
    CNxEventQueueBase::DestoryPendingEvents();
}

NxResult CNxEventQueueBase::PopPendingEvents(Batch& out, size_t max, size_t* remaining) {
    const size_t count = GetCount_i();
    if (count == 0) {
        return NX_ERROR_NOT_FOUND;
    }
    if (count <= max) {
        TakeAll_i(out);
    } else {
        const size_t copied = CopyFirst_i(out, max);
        if (copied == 0 && max != 0) {
            return NX_ERROR_FAILURE;
        }
        DropFirst_i(copied);
    }
    if (remaining != nullptr) {
        *remaining = GetCount_i();
    }
    return NX_OK;
}

NxResult CNxEventQueueBase::PopPendingEvents(std::list<INxEvent*>& out, size_t max,
                                             size_t* remaining) {
    const size_t count = std::min(GetCount_i(), max);
    const auto first = m_pendingEvents.begin() + static_cast<std::ptrdiff_t>(m_first);
    if (GetCount_i() == 0) {
        return NX_ERROR_NOT_FOUND;
    }
    try {
        out.assign(first, first + static_cast<std::ptrdiff_t>(count));
    } catch (const std::bad_alloc&) {
        out.clear();
        return NX_ERROR_FAILURE;
    }
    DropFirst_i(count);
    if (remaining != nullptr) {
        *remaining = GetCount_i();
    }
    return NX_OK;
}

NxResult CNxEventQueueBase::PopOnePendingEvent(INxEvent*& out, size_t* remaining) {
    if (GetCount_i() == 0) {
        return NX_ERROR_NOT_FOUND;
    }
    out = m_pendingEvents[m_first];
    DropFirst_i(1);
    if (remaining != nullptr) {
        *remaining = GetCount_i();
    }
    return NX_OK;
}

// Copies as many of the first `most` as there is memory for, and returns how many.
size_t CNxEventQueueBase::CopyFirst_i(Batch& out, size_t most) const {
    const auto first = m_pendingEvents.begin() + static_cast<std::ptrdiff_t>(m_first);
    // A backlog that nobody takes would keep the memory that there is.
    for (; most != 0; most /= 2) {
        try {
            out.assign(first, first + static_cast<std::ptrdiff_t>(most));
            return most;
        } catch (const std::bad_alloc&) {
            assert(out.empty());
        }
    }
    return 0;
}

void CNxEventQueueBase::DropFirst_i(size_t count) {
    assert(count <= GetCount_i());
    m_first += count;
    // Each is moved at most once for one that goes.
    if (m_first >= GetCount_i()) {
        DropPopped_i();
    }
}

void CNxEventQueueBase::DropPopped_i() {
    const auto begin = m_pendingEvents.begin();
    m_pendingEvents.erase(begin, begin + static_cast<std::ptrdiff_t>(m_first));
    m_first = 0;
}

NxResult CNxEventQueueBase::ProcessEvents(const Batch& events) {
    for (CUnderWayT batch(events); batch.m_current != batch.m_end; ++batch.m_current) {
        ProcessOneEvent(*batch.m_current);
    }
    return NX_OK;
}

NxResult CNxEventQueueBase::ProcessEvents(const std::list<INxEvent*>& events) {
    for (CUnderWayT batch(events); batch.m_current != batch.m_end; ++batch.m_current) {
        ProcessOneEvent(*batch.m_current);
    }
    return NX_OK;
}

void CNxEventQueueBase::Clear(Batch& batch) {
    if (batch.capacity() > c_mostRoomKept) {
        Batch().swap(batch);
    }
    batch.clear();
}

void CNxEventQueueBase::AbandonBatches() {
    CNxEventSynchronous::AbandonUnderWay();
    const unsigned int forks = CNxProcessWide::CountForks();
    // Those of a parent, in whose event the process was forked, are the outermost.
    for (const CUnderWay* batch = CUnderWay::s_innermost;
         batch != nullptr && batch->m_forks == forks; batch = batch->m_outer) {
        batch->DestroyRest();
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

NxResult CNxEventQueueBase::Fire(INxEvent* event) {
    return CallOut("OnEventFire", [event] { return event->OnEventFire(); });
}

NxResult CNxEventQueueBase::Append_i(INxEvent* event, EAfter after) {
    if (event == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (IsQueueStopped()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const bool hasRoom = m_pendingEvents.size() + 1 < m_pendingEvents.capacity();
    if (!hasRoom && !MakeRoom_i(after)) {
        return NX_ERROR_FAILURE;
    }
    m_pendingEvents.push_back(event);
    if (after == EAfter::STOPPED) {
        SetStopped_i(true);
    }
    return NX_OK;
}

bool CNxEventQueueBase::MakeRoom_i(EAfter after) {
    const size_t room = m_pendingEvents.capacity();
    if (after == EAfter::STOPPED) {
        if (m_pendingEvents.size() == room) {
            assert(m_pendingEvents.empty());
            m_pendingEvents.swap(m_lastPlace);
        }
        return m_pendingEvents.size() < m_pendingEvents.capacity();
    }
    try {
        m_pendingEvents.reserve(std::max(c_leastRoom, 2 * room));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

NxResult CNxEventQueueBase::FinishPost(INxEvent* event, NxResult result) {
    if (event != nullptr && result != NX_OK) {
        event->OnDestorySelf();
    }
    return result;
}

void CNxEventQueueBase::TakeAll_i(Batch& out) {
    assert(out.empty());
    DropPopped_i();
    out.swap(m_pendingEvents);
}

void CNxEventQueueBase::DestroyAll(const Batch& events) {
    for (INxEvent* event : events) {
        event->OnDestorySelf();
    }
}
