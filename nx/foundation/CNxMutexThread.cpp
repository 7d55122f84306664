#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/standard_streams.h>

#ifdef NXBASE_CHECK_THREADS
#include <cstdlib>
#endif

CNxMutexThreadBase::CNxMutexThreadBase(int pthreadType) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, pthreadType);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

CNxMutexThreadBase::~CNxMutexThreadBase() {
    pthread_mutex_destroy(&m_mutex);
}

// The bodies hand over to pthread, where the analysis does not look.
NxResult CNxMutexThreadBase::Lock() NX_NO_THREAD_SAFETY_ANALYSIS {
    const NxResult locked = ResultOfError(pthread_mutex_lock(&m_mutex));
    if (locked == NX_OK) {
        NoteLocked();
    }
    return locked;
}

NxResult CNxMutexThreadBase::UnLock() NX_NO_THREAD_SAFETY_ANALYSIS {
    NoteUnLocked();
    return ResultOfError(pthread_mutex_unlock(&m_mutex));
}

NxResult CNxMutexThreadBase::TryLock() NX_NO_THREAD_SAFETY_ANALYSIS {
    const NxResult locked = ResultOfError(pthread_mutex_trylock(&m_mutex));
    if (locked == NX_OK) {
        NoteLocked();
    }
    return locked;
}

#ifdef NXBASE_CHECK_THREADS
void CNxMutexThreadBase::AssertHeld() const NX_NO_THREAD_SAFETY_ANALYSIS {
    if (m_holder.load(std::memory_order_relaxed) != pthread_self()) {
        PrintToStderr("nxbase: a mutex is not held by the thread that relies on it\n");
        std::abort();
    }
}

void CNxMutexThreadBase::NoteLocked() {
    const unsigned long self = pthread_self();
    m_depth = m_holder.exchange(self, std::memory_order_relaxed) == self ? m_depth + 1 : 1;
}

// An UnLock by another thread than the holder fails, and takes nothing from the holder.
void CNxMutexThreadBase::NoteUnLocked() {
    if (m_holder.load(std::memory_order_relaxed) == pthread_self() && --m_depth == 0) {
        m_holder.store(0, std::memory_order_relaxed);
    }
}
#endif
