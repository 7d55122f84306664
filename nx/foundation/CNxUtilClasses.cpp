#include <nx/foundation/CNxUtilClasses.h>

#ifdef NXBASE_CHECK_THREADS

#include <nx/foundation/standard_streams.h>

#include <cstdlib>

void CNxEnsureSingleThread::EnsureSingleThread(const char* what) const {
    const unsigned long owner = m_threadId.load(std::memory_order_relaxed);
    const unsigned long caller = pthread_self();
    if (owner == caller || m_isLetGo.load(std::memory_order_relaxed)) {
        return;
    }
    PrintToStderr("nxbase: %s belongs to thread %lx but was used from thread %lx\n", what, owner,
                  caller);
    std::abort();
}

#endif
