#include <nx/foundation/CCallOut.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/own_lines.h>
#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CReactorCompanion.h>
#include <nx/timer/CNxTimerPriorityQueue.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <new>
#include <utility>

namespace {

using CElement = CNxEventHandlerRepository::CElement;

constexpr const char* c_name = "a reactor";
constexpr size_t c_eventsPerTurn = 100000;
constexpr long c_allAndCall = NX_MASK_ALL_EVENTS | NX_MASK_SHOULD_CALL;
constexpr int c_none = -1;

// Null without memory.
std::unique_ptr<CNxTimerQueueBase> MakeTimerQueue() {
    try {
        return std::make_unique<CNxTimerPriorityQueue>(nullptr);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// The bytes that wait to be read; 0 where there is no such number.
int CountUnread(int fd) {
    int count = 0;
    return ioctl(fd, FIONREAD, &count) == 0 ? count : 0;
}

void WarnOfOtherHandler([[maybe_unused]] int fd, [[maybe_unused]] const INxEventHandler* asked,
                        [[maybe_unused]] const INxEventHandler* registered) {
#ifdef NXBASE_CHECK_THREADS
    if (asked != registered) {
        SayOnStderr(
            "nxbase: RemoveHandler of handler %p takes away the registration of handler "
            "%p, which has descriptor %d now\n",
            static_cast<const void*>(asked), static_cast<const void*>(registered), fd);
    }
#endif
}

}  // namespace

CNxReactorBase::CNxReactorBase(std::unique_ptr<CNxTimerQueueBase> timerQueue)
    : m_pTimerQueue(std::move(timerQueue)) {}

CNxReactorBase::~CNxReactorBase() {
    CReactorCompanion* const companion = m_companion.exchange(nullptr);
    if (companion != nullptr) {
        companion->ReleaseReference();
    }
}

bool CNxReactorBase::SetCompanion(CReactorCompanion* companion) {
    assert(companion != nullptr && m_companion.load() == nullptr);
    companion->AddReference();
    m_companion.store(companion);
    return true;
}

void CNxReactorBase::TellCompanion() {
    CReactorCompanion* const companion = m_companion.load();
    if (companion != nullptr) {
        companion->OnReactorClosing();
    }
}

NxResult CNxReactorBase::Open() {
    Reset2CurrentThread();
    if (m_pTimerQueue == nullptr) {
        m_pTimerQueue = MakeTimerQueue();
    }
    const NxResult opened = m_pTimerQueue != nullptr ? m_EhRepository.Open() : NX_ERROR_FAILURE;
    if (opened == NX_OK) {
        m_forksAtOpen.store(CNxProcessWide::CountForks(), std::memory_order_relaxed);
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        SetStopped_i(false);
    }
    return opened;
}

NxResult CNxReactorBase::Close() {
    m_Est.EnsureSingleThread(c_name);
    TellCompanion();
    m_pTimerQueue.reset();
    m_EhRepository.Close();
    StopAndDestoryPendingEvents();
    m_Est.LetGo();
    return NX_OK;
}

void CNxReactorBase::TakeBack() {
    m_Est.TakeBack();
    m_Est.EnsureSingleThread("a reactor's loop");
    if (m_pTimerQueue != nullptr) {
        m_pTimerQueue->Reset2CurrentThread();
    }
}

void CNxReactorBase::LetGo() {
    m_Est.LetGo();
    if (m_pTimerQueue != nullptr) {
        m_pTimerQueue->LetGo();
    }
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
    if (IsCopyOfParent()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const int fd = handler->GetHandle();
    const bool isReplaced = m_EhRepository.IsRegistered(fd);
    if (isReplaced && m_EhRepository.At(fd).m_handler == handler &&
        m_EhRepository.At(fd).m_mask == mask) {
        return NX_OK;
    }
    // The demultiplexer is asked about descriptors without a place too: what it refuses is not
    // looked up.
    const NxResult watched = OnHandleRegister(fd, mask, handler);
    if (watched != NX_OK) {
        return watched;
    }
    if (!m_EhRepository.HasPlace(fd)) {
        if (fd >= 0) {
            OnHandleRemoved(fd);
        }
        return NX_ERROR_INVALID_ARG;
    }
    m_EhRepository.At(fd) = {handler, mask};
    ForgetFailing(fd);
    return isReplaced ? NX_ERROR_FOUND : NX_OK;
}

// What is said of its failure is not meant for the next registration of its number.
void CNxReactorBase::ForgetFailing(int fd) {
    if (m_failingFd == fd) {
        m_failingFd = c_none;
    }
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
    WarnOfOtherHandler(fd, handler, element.m_handler);
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
    ForgetFailing(fd);
    if (!IsCopyOfParent()) {
        OnHandleRemoved(fd);
    }
    if ((mask & NX_MASK_SHOULD_CALL) != 0) {
        assert(element.m_handler != nullptr);
        CallOut("OnClose", [&] { element.m_handler->OnClose(fd, element.m_mask); });
    }
    return NX_OK;
}

NxResult CNxReactorBase::PostEvent(INxEvent* event, INxEventQueue::EPriority priority) {
    if (event != nullptr && IsCopyOfParent()) {
        event->OnDestorySelf();
        return NX_ERROR_NOT_INITIALIZED;
    }
    size_t oldSize = 0;
    const NxResult posted = PostEventWithOldSize(event, priority, &oldSize);
    if (posted != NX_OK || (oldSize != 0 && !IsWakeUpOwed())) {
        return posted;
    }
    if (NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE) != NX_OK) {
        m_wakeUpOwed.store(true);
    }
    return NX_OK;
}

// The caller pays for it.
bool CNxReactorBase::IsWakeUpOwed() {
    return m_wakeUpOwed.load(std::memory_order_relaxed) && m_wakeUpOwed.exchange(false);
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

NxResult CNxReactorBase::ProcessHandleEvent(int fd, long mask, long reason, int /*fromNotify*/,
                                            int dropConnect) {
    m_Est.EnsureSingleThread(c_name);
    const bool isCopy = IsCopyOfParent();
    if (fd == -1 && !isCopy) {
        return ProcessPostedEvents();
    }
    if (!m_EhRepository.IsOpen() || isCopy) {
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
        return CloseHandler(fd, element, static_cast<int>(reason));
    }
    const long active = mask & element.m_mask;
    if (dropConnect != 0 && (active & NX_MASK_CONNECT) != 0) {
        return DropHandler(fd, element.m_handler);
    }
    return CallHandler(fd, active, element.m_handler);
}

NxResult CNxReactorBase::CallHandler(int fd, long active, INxEventHandler* handler) {
    if ((active & NX_MASK_INPUT) != 0) {
        if (CallOut("OnInput", [&] { return handler->OnInput(fd); }) != 0) {
            return DropHandler(fd, handler);
        }
        // The callback may have changed the registration; an old one gets nothing more.
        if (!m_EhRepository.HasPlace(fd) || m_EhRepository.At(fd).m_handler != handler) {
            return NX_OK;
        }
        active &= m_EhRepository.At(fd).m_mask;
    }
    if ((active & NX_MASK_OUTPUT) != 0 &&
        CallOut("OnOutput", [&] { return handler->OnOutput(fd); }) != 0) {
        return DropHandler(fd, handler);
    }
    return NX_OK;
}

NxResult CNxReactorBase::DropHandler(int fd, const INxEventHandler* handler) {
    if (!m_EhRepository.HasPlace(fd) || m_EhRepository.At(fd).m_handler != handler) {
        return NX_OK;
    }
    const CElement element = m_EhRepository.At(fd);
    // A handler that found its connect failed need not have asked why.
    const bool connects = (element.m_mask & NX_MASK_CONNECT) != 0;
    return CloseHandler(fd, element, connects ? TakeError(fd) : 0);
}

NxResult CNxReactorBase::CloseHandler(int fd, const CElement& element, int reason) {
    m_closeReason = reason;
    const NxResult removed = RemoveHandleWithoutFinding_i(fd, element, c_allAndCall);
    m_closeReason = 0;
    return removed;
}

void CNxReactorBase::DispatchFailure(int fd, int error) {
    if (!m_EhRepository.IsRegistered(fd)) {
        return;
    }
    m_failingFd = fd;
    const bool isRead = DispatchUnread(fd);
    if (m_failingFd != fd) {
        return;
    }
    m_failingFd = c_none;
    // An error that was taken from the socket is told nowhere else.
    if (isRead || error != 0) {
        ProcessHandleEvent(fd, NX_MASK_CLOSE, error != 0 ? error : TakeError(fd), 0, 0);
    } else {
        // What it tries to write tells it of the failure, and so does the rest when it reads again.
        ProcessHandleEvent(fd, NX_MASK_OUTPUT, 0, 0, 0);
    }
}

// Whether nothing that its handler wants is left of what had arrived; false when it does not read
// at present.
bool CNxReactorBase::DispatchUnread(int fd) {
    int unread = CountUnread(fd);
    while (unread > 0 && m_failingFd == fd && (m_EhRepository.At(fd).m_mask & NX_MASK_INPUT) != 0) {
        ProcessHandleEvent(fd, NX_MASK_INPUT, 0, 0, 0);
        const int left = m_failingFd == fd ? CountUnread(fd) : 0;
        if (left >= unread) {
            return false;
        }
        unread = left;
    }
    return true;
}

int CNxReactorBase::TakeError(int fd) {
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0) {
        return error;
    }
    return errno == ENOTSOCK ? EPIPE : errno;
}

bool CNxReactorBase::IsCopyOfParent() const {
    const long forks = m_forksAtOpen.load(std::memory_order_relaxed);
    return forks != c_none && forks != static_cast<long>(CNxProcessWide::CountForks());
}

NxResult CNxReactorBase::ProcessPostedEvents() {
    Batch events;
    // A pass within one of its events finds none.
    events.swap(m_batch);
    size_t remaining = 0;
    NxResult popped = NX_OK;
    {
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        popped = PopPendingEvents(events, c_eventsPerTurn, &remaining);
    }
    if (popped != NX_OK) {
        m_batch.swap(events);
        return popped;
    }
    assert(!events.empty() && events.size() <= c_eventsPerTurn);
    const NxResult processed = ProcessEvents(events);
    Clear(events);
    m_batch.swap(events);
    if (remaining != 0) {
        // A loop that looks at the queue in every turn comes back here without it.
        static_cast<void>(NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
    }
    return processed;
}
