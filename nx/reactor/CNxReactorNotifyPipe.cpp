#include <nx/net/CNxIPCBase.h>
#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <initializer_list>
#include <new>

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
    return m_PipeNotify.Close();
}

NxResult CNxReactorNotifyPipe::OpenPipe(CNxReactorBase* reactor) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    assert(m_notifications.empty() && !m_eventsAsked && !m_isWoken);
    m_pReactor = reactor;
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
    CNxReactorBase* const reactor = m_pReactor;
    m_pReactor = nullptr;
    m_notifications.clear();
    m_eventsAsked = false;
    m_isWoken = false;
    return reactor;
}

NxResult CNxReactorNotifyPipe::Notify(INxEventHandler* handler, long mask) {
    const int fd = handler != nullptr && handler != this ? handler->GetHandle() : c_postedEvents;
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_pReactor == nullptr || m_pReactor->IsCopyOfParent()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (handler != this) {
        const NxResult added = Add_i(fd, mask);
        if (added != NX_OK) {
            return added;
        }
    }
    if (m_pReactor->GetOwnerThreadId() == pthread_self() || Wake_i()) {
        return NX_OK;
    }
    if (fd != c_postedEvents) {
        m_notifications.pop_back();
    }
    return NX_ERROR_UNEXPECTED;
}

NxResult CNxReactorNotifyPipe::Add_i(int fd, long mask) {
    if (fd == c_postedEvents) {
        // One pass fires all that was posted before it.
        if (!m_eventsAsked) {
            m_eventsAsked = true;
            m_beforeEvents = m_notifications.size();
        }
        return NX_OK;
    }
    try {
        m_notifications.push_back({fd, mask});
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    return NX_OK;
}

bool CNxReactorNotifyPipe::Wake_i() {
    const char byte = 0;
    while (!m_isWoken) {
        m_isWoken = send(m_PipeNotify.GetWriteHandle(), &byte, sizeof(byte), MSG_NOSIGNAL) == 1;
        if (!m_isWoken && errno != EINTR) {
            return false;
        }
    }
    return true;
}

size_t CNxReactorNotifyPipe::GetCount() const {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return m_notifications.size() + (m_eventsAsked ? 1 : 0);
}

int CNxReactorNotifyPipe::GetHandle() const {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return m_PipeNotify.GetReadHandle();
}

int CNxReactorNotifyPipe::OnInput(int fd) {
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        char bytes[16];
        // What it fails to take does no harm there, and the next wake-up is sent anew.
        static_cast<void>(recv(fd, bytes, sizeof(bytes), 0));
        m_isWoken = false;
    }
    DispatchFirst();
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
        reactor = m_pReactor;
    }
    if (reactor != nullptr) {
        reactor->ProcessHandleEvent(first.m_fd, first.m_mask, 0, 1, 0);
    }
}
