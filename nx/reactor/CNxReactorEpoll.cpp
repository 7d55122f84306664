#include <nx/net/CNxIPCBase.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

namespace {

constexpr int c_readyPerWait = 1024;
constexpr int c_forgotten = -1;

}  // namespace

CNxReactorEpoll::~CNxReactorEpoll() {
    CloseEpoll();
}

NxResult CNxReactorEpoll::OpenDemultiplexer() {
    // One from before a Close still watches descriptors of that time.
    CloseEpoll();
    m_epollHandle = epoll_create1(EPOLL_CLOEXEC);
    if (m_epollHandle == -1) {
        return NX_ERROR_FAILURE;
    }
    if (m_ready == nullptr) {
        m_ready.reset(static_cast<epoll_event*>(std::calloc(c_readyPerWait, sizeof(epoll_event))));
    }
    return m_ready != nullptr ? NX_OK : NX_ERROR_FAILURE;
}

void CNxReactorEpoll::CloseEpoll() {
    if (m_epollHandle != -1) {
        close(m_epollHandle);
        m_epollHandle = -1;
    }
}

NxResult CNxReactorEpoll::WaitAndDispatch(const CNxTimeValue& remaining, bool hasWork) {
    const int timeoutMs = static_cast<int>(remaining.GetTotalInMsec());
    if (timeoutMs == 0 && !hasWork) {
        return NX_OK;
    }
    const int count = epoll_wait(m_epollHandle, m_ready.get(), c_readyPerWait, timeoutMs);
    if (count == -1) {
        return errno == EINTR ? NX_OK : NX_ERROR_FAILURE;
    }
    DispatchReady(count);
    RunPosted();
    return NX_OK;
}

void CNxReactorEpoll::DispatchReady(int count) {
    m_readyCount = count;
    for (m_nextReady = 0; m_nextReady < m_readyCount;) {
        const epoll_event& ready = m_ready[static_cast<size_t>(m_nextReady)];
        ++m_nextReady;
        const int fd = ready.data.fd;
        if (fd == c_forgotten) {
            continue;
        }
        const long mask = ToMask(fd, ready.events);
        const long reason = (mask & NX_MASK_CLOSE) != 0 ? static_cast<long>(NX_ERROR_FAILURE) : 0;
        ProcessHandleEvent(fd, mask, reason, 0, 0);
    }
    m_nextReady = 0;
    m_readyCount = 0;
}

long CNxReactorEpoll::ToMask(int fd, unsigned int readiness) const {
    long mask = 0;
    if ((readiness & EPOLLIN) != 0) {
        mask |= NX_MASK_INPUT | NX_MASK_CONNECT;
    }
    if ((readiness & EPOLLOUT) != 0) {
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

NxResult CNxReactorEpoll::OnHandleRegister(int fd, long mask, INxEventHandler* handler) {
    if (handler == nullptr || CNxIPCBase(fd).Enable(CNxIPCBase::NON_BLOCK) != 0) {
        return NX_ERROR_FAILURE;
    }
    epoll_event interest{};
    interest.data.fd = fd;
    if ((mask & NX_MASK_INPUT) != 0) {
        interest.events |= EPOLLIN | EPOLLET;
    }
    if ((mask & NX_MASK_OUTPUT) != 0) {
        interest.events |= EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLET;
    }
    OnHandleRemoved(fd);
    return epoll_ctl(m_epollHandle, EPOLL_CTL_ADD, fd, &interest) == 0 ? NX_OK : NX_ERROR_FAILURE;
}

void CNxReactorEpoll::OnHandleRemoved(int fd) {
    epoll_event unused{};
    unused.data.fd = fd;
    // Fails when it was not watched, or is closed already: then there is nothing to do.
    epoll_ctl(m_epollHandle, EPOLL_CTL_DEL, fd, &unused);
    // What this turn has still to say about the descriptor is not meant for a later one of its
    // number.
    assert(0 <= m_nextReady && m_nextReady <= m_readyCount && m_readyCount <= c_readyPerWait);
    for (int i = m_nextReady; i < m_readyCount; ++i) {
        epoll_event& pending = m_ready[static_cast<size_t>(i)];
        if (pending.data.fd == fd) {
            pending.data.fd = c_forgotten;
        }
    }
}
