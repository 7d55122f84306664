#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/net/CNxIPCBase.h>
#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <initializer_list>
#include <new>
#include <utility>

namespace {

constexpr unsigned long c_pipeSize = 65535;
constexpr int c_postedEvents = -1;

}  // namespace

CNxReactorNotifyPipe::~CNxReactorNotifyPipe() {
    Close();
}

NxResult CNxReactorNotifyPipe::Open(CNxReactorBase* reactor) {
    if (reactor == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    NxResult result = OpenPipe(reactor);
    if (result == NX_OK) {
        result = reactor->RegisterHandler(this, NX_MASK_READ);
    }
    if (result != NX_OK) {
        const CKeptErrno keptErrno;
        Close();
    }
    return result;
}

NxResult CNxReactorNotifyPipe::Close() {
    CNxReactorBase* const reactor = Forget();
    if (reactor != nullptr) {
        reactor->RemoveHandler(this, NX_MASK_ALL_EVENTS);
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    const int counter = std::exchange(m_counter, -1);
    if (counter != -1) {
        return close(counter) == 0 ? NX_OK : NX_ERROR_FAILURE;
    }
    return m_PipeNotify.Close();
}

NxResult CNxReactorNotifyPipe::OpenPipe(CNxReactorBase* reactor) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    assert(m_notifications.empty() && !m_eventsAsked && m_counter == -1);
    m_state.store(STATE_WAITS);
    m_pReactor.store(reactor);
    return reactor->GetReactorType() == INxReactor::TYPE_EPOLL ? OpenCounter_i() : OpenPair_i();
}

NxResult CNxReactorNotifyPipe::OpenCounter_i() {
    m_counter = ToHighDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return m_counter != -1 ? NX_OK : NX_ERROR_NOT_AVAILABLE;
}

NxResult CNxReactorNotifyPipe::OpenPair_i() {
    const NxResult opened = m_PipeNotify.Open(c_pipeSize);
    if (opened != NX_OK) {
        return opened;
    }
    for (const int handle : {m_PipeNotify.GetReadHandle(), m_PipeNotify.GetWriteHandle()}) {
        if (CNxIPCBase(handle).Enable(CNxIPCBase::NON_BLOCK) != 0) {
            return NX_ERROR_FAILURE;
        }
    }
    return NX_OK;
}

// Refuses and forgets all notifications; returns the reactor that there was.
CNxReactorBase* CNxReactorNotifyPipe::Forget() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    CNxReactorBase* const reactor = m_pReactor.exchange(nullptr);
    m_notifications.clear();
    m_eventsAsked = false;
    Count_i();
    return reactor;
}

NxResult CNxReactorNotifyPipe::Notify(INxEventHandler* handler, long mask) {
    CNxReactorBase* const reactor = m_pReactor.load();
    if (reactor == nullptr || reactor->IsCopyOfParent()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (handler == nullptr && m_state.load() != STATE_WAITS) {
        return NX_OK;
    }
    const bool isNotified = handler != nullptr && handler != this;
    const CNotification notification{isNotified ? handler->GetHandle() : c_postedEvents, mask};
    const bool afterEvents = isNotified && reactor->GetPendingEventsCount() != 0;
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_pReactor.load() == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const NxResult added = isNotified ? Add_i(notification, afterEvents) : NX_OK;
    if (added != NX_OK || reactor->GetOwnerThreadId() == pthread_self() ||
        Wake_i(handler == this)) {
        return added;
    }
    if (isNotified) {
        m_notifications.pop_back();
        Count_i();
    }
    return NX_ERROR_UNEXPECTED;
}

NxResult CNxReactorNotifyPipe::Add_i(const CNotification& notification, bool afterEvents) {
    try {
        m_notifications.push_back(notification);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    // One pass fires all that was posted before it.
    if (afterEvents && !m_eventsAsked) {
        m_eventsAsked = true;
        m_beforeEvents = m_notifications.size() - 1;
    }
    Count_i();
    return NX_OK;
}

void CNxReactorNotifyPipe::Count_i() {
    m_count.store(m_notifications.size() + (m_eventsAsked ? 1 : 0));
}

// `always`: for what the loop does not look for between BeginWait and its wait.
bool CNxReactorNotifyPipe::Wake_i(bool always) {
    EState state = STATE_WAITS;
    const bool isMine = m_state.compare_exchange_strong(state, STATE_IS_TOLD);
    if ((!isMine && !always) || Write_i()) {
        return true;
    }
    state = STATE_IS_TOLD;
    // Unless the loop has come round meanwhile.
    m_state.compare_exchange_strong(state, STATE_WAITS);
    return false;
}

bool CNxReactorNotifyPipe::Write_i() {
    // Others rely on a wake-up of which the state says that it is on its way.
    const CCancelOff cancelOff;
    if (m_counter != -1) {
        return eventfd_write(m_counter, 1) == 0;
    }
    const char byte = 0;
    ssize_t sent = -1;
    do {
        sent = send(m_PipeNotify.GetWriteHandle(), &byte, sizeof(byte), MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    return sent == 1;
}

bool CNxReactorNotifyPipe::IsCertain() const {
    CNxReactorBase* const reactor = m_pReactor.load();
    return reactor != nullptr && reactor->GetReactorType() == INxReactor::TYPE_EPOLL;
}

int CNxReactorNotifyPipe::GetHandle() const {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return m_counter != -1 ? m_counter : m_PipeNotify.GetReadHandle();
}

int CNxReactorNotifyPipe::OnInput(int fd) {
    CNxReactorBase* const reactor = m_pReactor.load();
    if (reactor == nullptr) {
        return 0;
    }
    if (reactor->GetReactorType() != INxReactor::TYPE_EPOLL) {
        char bytes[16];
        // What it fails to take does no harm there, and the next wake-up is sent anew.
        static_cast<void>(recv(fd, bytes, sizeof(bytes), 0));
    }
    // For a loop that says nothing of its waits.
    EState state = STATE_IS_TOLD;
    m_state.compare_exchange_strong(state, STATE_WAITS);
    if (GetCount() != 0) {
        DispatchFirst();
    } else {
        reactor->ProcessHandleEvent(c_postedEvents, NX_MASK_EVENT_QUEUE, 0, 1, 0);
    }
    return 0;
}

void CNxReactorNotifyPipe::DispatchFirst() {
    CNotification first{c_postedEvents, NX_MASK_EVENT_QUEUE};
    CNxReactorBase* reactor = nullptr;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        assert(!m_eventsAsked || m_beforeEvents <= m_notifications.size());
        if (m_eventsAsked && m_beforeEvents == 0) {
            m_eventsAsked = false;
        } else if (!m_notifications.empty()) {
            first = m_notifications.front();
            m_notifications.pop_front();
            m_beforeEvents -= m_eventsAsked ? 1 : 0;
        } else {
            return;
        }
        Count_i();
        reactor = m_pReactor.load();
    }
    if (reactor != nullptr) {
        reactor->ProcessHandleEvent(first.m_fd, first.m_mask, 0, 1, 0);
    }
}
