#include <nx/reactor/CNxReactorBase.h>
#include <nx/timer/CNxTimerQueueOrderedList.h>
#include <pthread.h>

#include <cassert>
#include <utility>

namespace {

using CElement = CNxEventHandlerRepository::CElement;

constexpr const char* c_name = "a reactor";
constexpr size_t c_eventsPerTurn = 100000;
constexpr long c_allAndCall = NX_MASK_ALL_EVENTS | NX_MASK_SHOULD_CALL;

}  // namespace

CNxReactorBase::CNxReactorBase(std::unique_ptr<CNxTimerQueueBase> timerQueue)
    : m_pTimerQueue(std::move(timerQueue)) {}

CNxReactorBase::~CNxReactorBase() = default;

NxResult CNxReactorBase::Open() {
    Reset2CurrentThread();
    if (m_pTimerQueue == nullptr) {
        m_pTimerQueue = std::make_unique<CNxTimerQueueOrderedList>(nullptr);
    }
    const NxResult opened = m_EhRepository.Open();
    if (opened == NX_OK) {
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        SetStopped_i(false);
    }
    return opened;
}

NxResult CNxReactorBase::Close() {
    m_Est.EnsureSingleThread(c_name);
    m_pTimerQueue.reset();
    m_EhRepository.Close();
    StopAndDestoryPendingEvents();
    return NX_OK;
}

void CNxReactorBase::Reset2CurrentThread() {
    m_Est.Reset2CurrentThreadId();
    CNxStopFlag::Reset2CurrentThreadId();
    SetOwnerThreadId(pthread_self());
    if (m_pTimerQueue != nullptr) {
        m_pTimerQueue->Reset2CurrentThread();
    }
}

NxResult CNxReactorBase::RegisterHandler(INxEventHandler* handler, long mask) {
    m_Est.EnsureSingleThread(c_name);
    mask &= NX_MASK_ALL_EVENTS;
    if (handler == nullptr || mask == 0) {
        return NX_ERROR_INVALID_ARG;
    }
    const int fd = handler->GetHandle();
    if (!m_EhRepository.IsRegistered(fd)) {
        return RegisterInFreePlace(fd, mask, handler);
    }
    CElement& element = m_EhRepository.At(fd);
    if (element.m_handler == handler && element.m_mask == mask) {
        return NX_OK;
    }
    OnHandleRemoved(fd);
    // Whatever it returns: the handler of before is not to be called any more.
    static_cast<void>(OnHandleRegister(fd, mask, handler));
    element = {handler, mask};
    return NX_ERROR_FOUND;
}

// The demultiplexer is asked first, about descriptors without a place too: what it refuses is not
// looked up.
NxResult CNxReactorBase::RegisterInFreePlace(int fd, long mask, INxEventHandler* handler) {
    const NxResult watched = OnHandleRegister(fd, mask, handler);
    if (watched != NX_OK) {
        return watched;
    }
    if (m_EhRepository.HasPlace(fd)) {
        m_EhRepository.At(fd) = {handler, mask};
        return NX_OK;
    }
    if (fd >= 0) {
        OnHandleRemoved(fd);
    }
    return NX_ERROR_INVALID_ARG;
}

NxResult CNxReactorBase::RemoveHandler(INxEventHandler* handler, long mask) {
    m_Est.EnsureSingleThread(c_name);
    mask &= NX_MASK_ALL_EVENTS;
    if (handler == nullptr || mask == 0) {
        return NX_ERROR_INVALID_ARG;
    }
    const int fd = handler->GetHandle();
    if (!m_EhRepository.IsRegistered(fd)) {
        return NX_OK;
    }
    const CElement element = m_EhRepository.At(fd);
    return RemoveHandleWithoutFinding_i(fd, element, mask);
}

NxResult CNxReactorBase::RemoveHandleWithoutFinding_i(int fd, const CElement& element, long mask) {
    const long remaining = element.m_mask & ~(mask & NX_MASK_ALL_EVENTS);
    if (remaining == element.m_mask) {
        return NX_OK;
    }
    if (remaining != 0) {
        if (!m_EhRepository.HasPlace(fd) || element.m_handler == nullptr) {
            return NX_ERROR_INVALID_ARG;
        }
        // The demultiplexer goes on watching for all of them; the dispatch filters.
        CElement& place = m_EhRepository.At(fd);
        const bool occupied = place.m_handler != nullptr;
        place = {element.m_handler, remaining};
        return occupied ? NX_ERROR_FOUND : NX_OK;
    }
    if (m_EhRepository.HasPlace(fd)) {
        m_EhRepository.At(fd) = {};
    }
    OnHandleRemoved(fd);
    if ((mask & NX_MASK_SHOULD_CALL) != 0) {
        assert(element.m_handler != nullptr);
        element.m_handler->OnClose(fd, element.m_mask);
    }
    return NX_OK;
}

NxResult CNxReactorBase::PostEvent(INxEvent* event, INxEventQueue::EPriority priority) {
    size_t oldSize = 0;
    const NxResult posted = PostEventWithOldSize(event, priority, &oldSize);
    if (posted == NX_OK && oldSize == 0) {
        // A reactor that is full of wake-ups wakes without this one, and Open looks for itself.
        static_cast<void>(NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
    }
    return posted;
}

NxResult CNxReactorBase::SendEvent(INxEvent* event) {
    return CNxEventQueueUsingMutex::SendEvent(event);
}

size_t CNxReactorBase::GetPendingEventsCount() {
    return CNxEventQueueUsingMutex::GetPendingEventsCount();
}

void CNxReactorBase::StopAndDestoryPendingEvents() {
    CNxEventQueueUsingMutex::StopAndDestoryPendingEvents();
}

NxResult CNxReactorBase::ScheduleTimer(INxTimerHandler* handler, void* token,
                                       const CNxTimeValue& interval, unsigned long count) {
    m_Est.EnsureSingleThread(c_name);
    return m_pTimerQueue != nullptr ? m_pTimerQueue->ScheduleTimer(handler, token, interval, count)
                                    : NX_ERROR_NOT_INITIALIZED;
}

NxResult CNxReactorBase::CancelTimer(INxTimerHandler* handler) {
    m_Est.EnsureSingleThread(c_name);
    return m_pTimerQueue != nullptr ? m_pTimerQueue->CancelTimer(handler)
                                    : NX_ERROR_NOT_INITIALIZED;
}

NxResult CNxReactorBase::ProcessTimerTick() {
    m_Est.EnsureSingleThread(c_name);
    if (m_pTimerQueue == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    m_pTimerQueue->CheckExpire(nullptr);
    return NX_OK;
}

NxResult CNxReactorBase::ProcessHandleEvent(int fd, long mask, long /*reason*/, int /*fromNotify*/,
                                            int dropConnect) {
    m_Est.EnsureSingleThread(c_name);
    if (fd == -1) {
        return ProcessPostedEvents();
    }
    if (!m_EhRepository.IsOpen()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (!m_EhRepository.HasPlace(fd)) {
        return NX_ERROR_INVALID_ARG;
    }
    const CElement element = m_EhRepository.At(fd);
    // A place is free, or it has a handler and what that is registered for.
    assert((element.m_handler != nullptr) == (element.m_mask != 0));
    assert((element.m_mask & ~NX_MASK_ALL_EVENTS) == 0);
    if (element.m_handler == nullptr) {
        return NX_ERROR_NOT_FOUND;
    }
    if ((mask & NX_MASK_CLOSE) != 0) {
        return RemoveHandleWithoutFinding_i(fd, element, c_allAndCall);
    }
    const long active = mask & element.m_mask;
    if (dropConnect != 0 && (active & NX_MASK_CONNECT) != 0) {
        return DropHandler(fd, element.m_handler);
    }
    return CallHandler(fd, active, element.m_handler);
}

NxResult CNxReactorBase::CallHandler(int fd, long active, INxEventHandler* handler) {
    if ((active & NX_MASK_INPUT) != 0) {
        if (handler->OnInput(fd) != 0) {
            return DropHandler(fd, handler);
        }
        // The callback may have changed the registration; an old one gets nothing more.
        if (!m_EhRepository.HasPlace(fd) || m_EhRepository.At(fd).m_handler != handler) {
            return NX_OK;
        }
        active &= m_EhRepository.At(fd).m_mask;
    }
    if ((active & NX_MASK_OUTPUT) != 0 && handler->OnOutput(fd) != 0) {
        return DropHandler(fd, handler);
    }
    return NX_OK;
}

NxResult CNxReactorBase::DropHandler(int fd, const INxEventHandler* handler) {
    if (!m_EhRepository.HasPlace(fd) || m_EhRepository.At(fd).m_handler != handler) {
        return NX_OK;
    }
    const CElement element = m_EhRepository.At(fd);
    return RemoveHandleWithoutFinding_i(fd, element, c_allAndCall);
}

NxResult CNxReactorBase::ProcessPostedEvents() {
    std::list<INxEvent*> events;
    size_t remaining = 0;
    NxResult popped = NX_OK;
    {
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        popped = PopPendingEvents(events, c_eventsPerTurn, &remaining);
    }
    if (popped != NX_OK) {
        return popped;
    }
    assert(!events.empty() && events.size() <= c_eventsPerTurn);
    const NxResult processed = ProcessEvents(events);
    if (remaining != 0) {
        // A reactor that is full of wake-ups comes back here without this one.
        static_cast<void>(NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
    }
    return processed;
}
