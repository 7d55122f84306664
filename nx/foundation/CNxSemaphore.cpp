#include <nx/foundation/CNxSemaphore.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

namespace {

constexpr long c_nanosecondsPerMicrosecond = 1000;

}  // namespace

CNxSemaphore::CNxSemaphore(long initialCount, const char* /*name*/, long /*maximum*/) {
    const long count = std::clamp<long>(initialCount, 0, SEM_VALUE_MAX);
    sem_init(&m_semaphore, 0, static_cast<unsigned int>(count));
}

CNxSemaphore::~CNxSemaphore() {
    sem_destroy(&m_semaphore);
}

NxResult CNxSemaphore::Lock() {
    return sem_wait(&m_semaphore) == -1 ? NX_ERROR_FAILURE : NX_OK;
}

NxResult CNxSemaphore::LockUntil(const CNxTimeValue& deadline) {
    if (deadline == CNxTimeValue::s_tvMax()) {
        return Lock();
    }
    const timespec until{deadline.GetSec(), deadline.GetUsec() * c_nanosecondsPerMicrosecond};
    if (sem_clockwait(&m_semaphore, CLOCK_MONOTONIC, &until) == 0) {
        return NX_OK;
    }
    return errno == ETIMEDOUT ? NX_ERROR_TIMEOUT : NX_ERROR_FAILURE;
}

NxResult CNxSemaphore::UnLock() {
    return sem_post(&m_semaphore) == -1 ? NX_ERROR_FAILURE : NX_OK;
}

NxResult CNxSemaphore::PostN(long n) {
    for (; n > 0; --n) {
        if (UnLock() != NX_OK) {
            return NX_ERROR_FAILURE;
        }
    }
    return NX_OK;
}
