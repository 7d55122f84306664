#include <nx/foundation/high_descriptor.h>
#include <nx/net/CNxIPCBase.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

namespace {

constexpr int c_readyPerWait = 1024;
constexpr int c_forgotten = -1;
// What says that the peer has ended its sending, or the connection is over.
constexpr unsigned int c_ends = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

}  // namespace

CNxReactorEpoll::~CNxReactorEpoll() {
    CloseEpoll();
}

NxResult CNxReactorEpoll::OpenDemultiplexer() {
    // One from before a Close still watches descriptors of that time.
    CloseEpoll();
    m_epollHandle = ToHighDescriptor(epoll_create1(EPOLL_CLOEXEC));
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
    const bool isEndless = remaining == CNxTimeValue::s_tvMax();
    const int timeoutMs = isEndless ? -1 : static_cast<int>(remaining.GetTotalInMsec());
    if (timeoutMs == 0 && !hasWork) {
        return NX_OK;
    }
    const int count = epoll_wait(m_epollHandle, m_ready.get(), c_readyPerWait, timeoutMs);
    m_NotifyPipe.EndWait();
    if (count == -1) {
        return errno == EINTR ? NX_OK : NX_ERROR_FAILURE;
    }
    DispatchReady(count);
    RunPosted();
    return NX_OK;
}

void CNxReactorEpoll::DispatchReady(int count) {
    m_readyCount = count;
    for (m_nextReady = 0; m_nextReady < m_readyCount; ++m_nextReady) {
        const epoll_event& ready = m_ready[static_cast<size_t>(m_nextReady)];
        if (ready.data.fd != c_forgotten) {
            DispatchOne(ready.data.fd, ready.events);
        }
    }
    m_nextReady = 0;
    m_readyCount = 0;
}

void CNxReactorEpoll::DispatchOne(int fd, unsigned int readiness) {
    const bool hasError = (readiness & EPOLLERR) != 0 && (readiness & EPOLLOUT) != 0;
    const bool hasHungUp = (readiness & EPOLLHUP) != 0;
    // Read only where the connection may live on: else the handler's own calls find it first.
    const int error = hasError && !hasHungUp ? TakeError(fd) : 0;
    if (error != 0 || (hasError && hasHungUp)) {
        DispatchFailure(fd, error);
        return;
    }
    long mask = 0;
    if ((readiness & (EPOLLIN | EPOLLRDHUP)) != 0) {
        mask |= NX_MASK_INPUT | NX_MASK_CONNECT;
    }
    if ((readiness & EPOLLOUT) != 0) {
        mask |= NX_MASK_OUTPUT;
    }
    // Only who waits for input is watched for its end.
    m_mayHaveEnded = (readiness & EPOLLIN) == 0 || (readiness & c_ends) != 0;
    ProcessHandleEvent(fd, mask, 0, 0, 0);
    m_mayHaveEnded = true;
}

bool CNxReactorEpoll::IsConnected(int fd) const {
    return TakeError(fd) == 0;
}

NxResult CNxReactorEpoll::OnHandleRegister(int fd, long mask, INxEventHandler* handler) {
    if (handler == nullptr) {
        return NX_ERROR_FAILURE;
    }
    epoll_event interest{};
    interest.data.fd = fd;
    if ((mask & NX_MASK_INPUT) != 0) {
        interest.events |= EPOLLIN | EPOLLRDHUP | EPOLLET;
    }
    if ((mask & NX_MASK_OUTPUT) != 0) {
        interest.events |= EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLET;
    }
    if (!Watch(fd, interest)) {
        return NX_ERROR_FAILURE;
    }
    // What is the case now is reported anew.
    ForgetReady(fd);
    return NX_OK;
}

bool CNxReactorEpoll::Watch(int fd, epoll_event interest) {
    if (m_EhRepository.IsRegistered(fd)) {
        if (epoll_ctl(m_epollHandle, EPOLL_CTL_MOD, fd, &interest) == 0) {
            return true;
        }
        // Else it was closed since then, and this is another one of its number.
        if (errno != ENOENT) {
            return false;
        }
    }
    if (CNxIPCBase(fd).Enable(CNxIPCBase::NON_BLOCK) != 0) {
        return false;
    }
    // It exists when its removal has failed.
    return epoll_ctl(m_epollHandle, EPOLL_CTL_ADD, fd, &interest) == 0 ||
           (errno == EEXIST && epoll_ctl(m_epollHandle, EPOLL_CTL_MOD, fd, &interest) == 0);
}

void CNxReactorEpoll::OnHandleRemoved(int fd) {
    epoll_event unused{};
    unused.data.fd = fd;
    // Fails when it was not watched, or is closed already: then there is nothing to do.
    epoll_ctl(m_epollHandle, EPOLL_CTL_DEL, fd, &unused);
    ForgetReady(fd);
}

// What this turn has still to say about the descriptor is not meant for a later registration of its
// number.
void CNxReactorEpoll::ForgetReady(int fd) {
    assert(0 <= m_nextReady && m_nextReady <= m_readyCount && m_readyCount <= c_readyPerWait);
    for (int i = m_nextReady; i < m_readyCount; ++i) {
        epoll_event& pending = m_ready[static_cast<size_t>(i)];
        if (pending.data.fd == fd) {
            pending.data.fd = c_forgotten;
        }
    }
}
