#include <nx/foundation/CNxUtilClasses.h>

#ifdef NXBASE_CHECK_THREADS

#include <cstdio>
#include <cstdlib>

void CNxEnsureSingleThread::EnsureSingleThread(const char* what) const {
    const unsigned long owner = m_threadId.load(std::memory_order_relaxed);
    const unsigned long caller = pthread_self();
    if (owner == caller) {
        return;
    }
    std::fprintf(stderr, "nxbase: %s belongs to thread %lx but was used from thread %lx\n", what,
                 owner, caller);
    std::abort();
}

#endif
