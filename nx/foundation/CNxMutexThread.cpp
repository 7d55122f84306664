#include <nx/foundation/CNxMutexThread.h>

namespace {

NxResult ToResult(int error) {
    return error == 0 ? NX_OK : NX_ERROR_FAILURE;
}

}  // namespace

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
    return ToResult(pthread_mutex_lock(&m_mutex));
}

NxResult CNxMutexThreadBase::UnLock() NX_NO_THREAD_SAFETY_ANALYSIS {
    return ToResult(pthread_mutex_unlock(&m_mutex));
}

NxResult CNxMutexThreadBase::TryLock() NX_NO_THREAD_SAFETY_ANALYSIS {
    return ToResult(pthread_mutex_trylock(&m_mutex));
}
