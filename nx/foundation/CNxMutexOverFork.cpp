#include <nx/foundation/CNxMutexOverFork.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <pthread.h>

#include <cassert>

namespace {

constexpr int c_mostWaitsMs = 100;

pthread_mutex_t s_listMutex = PTHREAD_MUTEX_INITIALIZER;
CNxMutexOverFork* s_first = nullptr;

// Handlers run in reverse order before a fork: those of the units above, whose mutexes are taken
// before these, come first. Without the memory for it a child may find mutexes locked.
[[maybe_unused]] const int s_forkNotice = pthread_atfork(
    &CNxMutexOverFork::LockAll, &CNxMutexOverFork::UnLockAll, &CNxMutexOverFork::UnLockAll);

}  // namespace

CNxMutexOverFork::CNxMutexOverFork() : m_self(&s_first) {
    pthread_mutex_lock(&s_listMutex);
    m_next = s_first;
    if (m_next != nullptr) {
        m_next->m_self = &m_next;
    }
    s_first = this;
    pthread_mutex_unlock(&s_listMutex);
}

CNxMutexOverFork::~CNxMutexOverFork() {
    pthread_mutex_lock(&s_listMutex);
    assert(*m_self == this);
    *m_self = m_next;
    if (m_next != nullptr) {
        m_next->m_self = m_self;
    }
    pthread_mutex_unlock(&s_listMutex);
}

// The bodies hand the mutexes over to each other, where the analysis does not look.
void CNxMutexOverFork::LockAll() NX_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&s_listMutex);
    int waits = 0;
    for (CNxMutexOverFork* mutex = s_first; mutex != nullptr; mutex = mutex->m_next) {
        mutex->m_isHeld = mutex->TryLock() == NX_OK;
        for (; !mutex->m_isHeld && waits < c_mostWaitsMs; ++waits) {
            cnx_sleep_ms(1);
            mutex->m_isHeld = mutex->TryLock() == NX_OK;
        }
    }
}

void CNxMutexOverFork::UnLockAll() NX_NO_THREAD_SAFETY_ANALYSIS {
    for (CNxMutexOverFork* mutex = s_first; mutex != nullptr; mutex = mutex->m_next) {
        if (mutex->m_isHeld) {
            mutex->UnLock();
        }
    }
    pthread_mutex_unlock(&s_listMutex);
}
