#include <nx/foundation/CNxSemaphore.h>

#include <algorithm>
#include <climits>

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
