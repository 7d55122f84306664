#include <fcntl.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace {

constexpr int c_eventsPerWait = 1024;
constexpr int c_forgotten = -1;
constexpr long c_millisecondsPerSecond = 1000;

// What epoll_wait takes: -1 for no limit, and never more than an int holds.
int ToTimeoutMs(const CNxTimeValue& remaining) {
    if (remaining == CNxTimeValue::s_tvMax()) {
        return -1;
    }
    if (remaining.GetSec() >= INT_MAX / c_millisecondsPerSecond) {
        return INT_MAX;
    }
    return static_cast<int>(remaining.GetTotalInMsec());
}

bool MakeNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

}  // namespace

CNxReactorEpoll::~CNxReactorEpoll() {
    // Whoever destroys a reactor has it for himself.
    Reset2CurrentThread();
    // Here, because the removal calls hooks of this class.
    m_NotifyPipe.Close();
    CloseEpoll();
}

NxResult CNxReactorEpoll::Open() {
    return FinishOpen(OpenParts());
}

NxResult CNxReactorEpoll::OpenParts() {
    if (m_EhRepository.IsOpen()) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    // Before the first step that can fail: the Close behind it belongs to the opening thread.
    Reset2CurrentThread();
    const NxResult epoll = OpenEpoll();
    if (epoll != NX_OK) {
        return epoll;
    }
    const NxResult base = CNxReactorBase::Open();
    return base == NX_OK ? m_NotifyPipe.Open(this) : base;
}

NxResult CNxReactorEpoll::OpenEpoll() {
    // One from before a Close still watches descriptors of that time.
    CloseEpoll();
    m_epollHandle = epoll_create1(EPOLL_CLOEXEC);
    if (m_epollHandle == -1) {
        return NX_ERROR_FAILURE;
    }
    if (m_events == nullptr) {
        m_events.reset(
            static_cast<epoll_event*>(std::calloc(c_eventsPerWait, sizeof(epoll_event))));
    }
    return m_events != nullptr ? NX_OK : NX_ERROR_FAILURE;
}

void CNxReactorEpoll::CloseEpoll() {
    if (m_epollHandle != -1) {
        close(m_epollHandle);
        m_epollHandle = -1;
    }
}

NxResult CNxReactorEpoll::Close() {
    m_NotifyPipe.Close();
    return CNxReactorBase::Close();
}

NxResult CNxReactorEpoll::NotifyHandler(INxEventHandler* handler, long mask) {
    return m_NotifyPipe.Notify(handler, mask);
}

NxResult CNxReactorEpoll::StopEventLoop() {
    SetStopFlag();
    m_NotifyPipe.Notify(&m_NotifyPipe, 0);
    return NX_OK;
}

NxResult CNxReactorEpoll::RunEventLoop() {
    m_Est.EnsureSingleThread("an epoll reactor");
    while (!IsStopped()) {
        CNxTimeValue remaining;
        const int fired = FireTimers(remaining);
        const int timeoutMs = ToTimeoutMs(remaining);
        if (timeoutMs == 0 && fired == 0) {
            continue;
        }
        if (WaitAndDispatch(timeoutMs) != NX_OK) {
            return NX_ERROR_FAILURE;
        }
    }
    RunLastEvents();
    return NX_OK;
}

NxResult CNxReactorEpoll::WaitAndDispatch(int timeoutMs) {
    const int count = epoll_wait(m_epollHandle, m_events.get(), c_eventsPerWait, timeoutMs);
    if (count == -1) {
        return errno == EINTR ? NX_OK : NX_ERROR_FAILURE;
    }
    if (count > 0) {
        DispatchReady(count);
        RearmNotifyPipe();
        ProcessHandleEvent(-1, NX_MASK_EVENT_QUEUE, 0, 0, 0);
    }
    return NX_OK;
}

void CNxReactorEpoll::DispatchReady(int count) {
    m_eventCount = count;
    for (m_nextEvent = 0; m_nextEvent < m_eventCount;) {
        const epoll_event& event = m_events[static_cast<size_t>(m_nextEvent)];
        ++m_nextEvent;
        const int fd = event.data.fd;
        if (fd == c_forgotten) {
            continue;
        }
        const long mask = ToMask(fd, event.events);
        const long reason = (mask & NX_MASK_CLOSE) != 0 ? static_cast<long>(NX_ERROR_FAILURE) : 0;
        ProcessHandleEvent(fd, mask, reason, 0, 0);
    }
    m_eventCount = 0;
}

long CNxReactorEpoll::ToMask(int fd, unsigned int events) const {
    long mask = 0;
    if ((events & EPOLLIN) != 0) {
        mask |= NX_MASK_INPUT | NX_MASK_CONNECT;
    }
    if ((events & EPOLLOUT) != 0) {
        mask |= NX_MASK_OUTPUT;
        if (!IsConnected(fd)) {
            mask |= NX_MASK_CLOSE;
        }
    }
    return mask;
}

bool CNxReactorEpoll::IsConnected(int fd) const {
    int error = 0;
    socklen_t length = sizeof(error);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

// The pipe gives up one record per readiness, and the edge of the others has gone by.
void CNxReactorEpoll::RearmNotifyPipe() {
    if (!m_NotifyPipe.HasRecords()) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.fd = m_NotifyPipe.GetHandle();
    epoll_ctl(m_epollHandle, EPOLL_CTL_MOD, event.data.fd, &event);
}

NxResult CNxReactorEpoll::OnHandleRegister(int fd, long mask, INxEventHandler* handler) {
    if (handler == nullptr || !MakeNonBlocking(fd)) {
        return NX_ERROR_FAILURE;
    }
    epoll_event event{};
    event.data.fd = fd;
    if ((mask & NX_MASK_INPUT) != 0) {
        event.events |= EPOLLIN | EPOLLET;
    }
    if ((mask & NX_MASK_OUTPUT) != 0) {
        event.events |= EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLET;
    }
    OnHandleRemoved(fd);
    return epoll_ctl(m_epollHandle, EPOLL_CTL_ADD, fd, &event) < 0 ? NX_ERROR_FAILURE : NX_OK;
}

void CNxReactorEpoll::OnHandleRemoved(int fd) {
    epoll_event event{};
    event.data.fd = fd;
    epoll_ctl(m_epollHandle, EPOLL_CTL_DEL, fd, &event);
    // What this turn has still to say about the descriptor is not meant for a later one of its
    // number.
    for (int i = m_nextEvent; i < m_eventCount; ++i) {
        epoll_event& pending = m_events[static_cast<size_t>(i)];
        if (pending.data.fd == fd) {
            pending.data.fd = c_forgotten;
        }
    }
}
