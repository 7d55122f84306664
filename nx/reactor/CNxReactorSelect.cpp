#include <nx/foundation/CNxTimeUtils.h>
#include <nx/reactor/CNxReactorSelect.h>

#include <cassert>
#include <cerrno>

namespace {

// The system may have memory again after this time.
constexpr unsigned long c_noMemoryMs = 10;

}  // namespace

NxResult CNxReactorSelect::WaitAndDispatch(const CNxTimeValue& remaining, bool /*hasWork*/) {
    fd_set exceptionSet;
    FD_ZERO(&m_readSet);
    FD_ZERO(&m_writeSet);
    FD_ZERO(&exceptionSet);
    const int maxFd = m_EhRepository.FillFdSets(m_readSet, m_writeSet, exceptionSet);
    timeval timeout{remaining.GetSec(), remaining.GetUsec()};
    int count = select(maxFd + 1, &m_readSet, &m_writeSet, &exceptionSet, &timeout);
    m_NotifyPipe.EndWait();
    if (count == -1 && errno == ENOMEM) {
        cnx_sleep_ms(c_noMemoryMs);
    } else if (count == -1 && errno != EINTR) {
        return NX_ERROR_FAILURE;
    }
    if (count > 0) {
        ProcessFdSets_i(m_readSet, NX_MASK_INPUT | NX_MASK_CONNECT, count, maxFd);
        ProcessFdSets_i(m_writeSet, NX_MASK_OUTPUT, count, maxFd);
    }
    RunPosted();
    return NX_OK;
}

// `count` is how many descriptors of both sets are left: none means that the rest need not be
// looked at.
void CNxReactorSelect::ProcessFdSets_i(fd_set& ready, long mask, int& count, int maxFd) {
    assert(count >= 0 && maxFd < FD_SETSIZE);
    for (int fd = 0; fd <= maxFd && count > 0; ++fd) {
        if (m_EhRepository.IsRegistered(fd) && FD_ISSET(fd, &ready)) {
            --count;
            ProcessHandleEvent(fd, mask, 0, 0, 0);
        }
    }
}

NxResult CNxReactorSelect::OnHandleRegister(int fd, long /*mask*/, INxEventHandler* handler) {
    if (handler == nullptr || fd >= FD_SETSIZE) {
        return NX_ERROR_INVALID_ARG;
    }
    OnHandleRemoved(fd);
    return NX_OK;
}

// What this turn has still to say about the descriptor is not meant for a later one of its number.
void CNxReactorSelect::OnHandleRemoved(int fd) {
    if (fd >= 0 && fd < FD_SETSIZE) {
        FD_CLR(fd, &m_readSet);
        FD_CLR(fd, &m_writeSet);
    }
}
