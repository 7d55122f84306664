// The two mutexes of the library, plain and recursive, and the scope guard that every lock in it
// goes through. Thin wrappers over pthread_mutex_t (pthread_mutex_lock(3p)) that return
// result codes.
#pragma once

#include <nx/foundation/NxResult.h>
#include <nx/foundation/NxThreadAnnotations.h>
#include <pthread.h>

#include <atomic>

// What both kinds share. Made only as one of the derived classes, which initialise the mutex; must
// be unlocked when it is destroyed.
class NX_CAPABILITY("mutex") CNxMutexThreadBase {
public:
    CNxMutexThreadBase(const CNxMutexThreadBase&) = delete;
    CNxMutexThreadBase& operator=(const CNxMutexThreadBase&) = delete;

    // NX_OK, or NX_ERROR_FAILURE when pthread_mutex_lock fails; then nothing is held.
    NxResult Lock() NX_ACQUIRE();

    // NX_OK, or NX_ERROR_FAILURE when pthread_mutex_unlock fails.
    NxResult UnLock() NX_RELEASE();

    // NX_OK, or NX_ERROR_FAILURE when the mutex is busy or the call fails. Never blocks.
    [[nodiscard]] NxResult TryLock() NX_TRY_ACQUIRE(false);

    // In checking builds (NXBASE_CHECK_THREADS) ends the process with a message unless the calling
    // thread holds the mutex; otherwise nothing.
#ifdef NXBASE_CHECK_THREADS
    void AssertHeld() const NX_ASSERT_CAPABILITY(this);
#else
    void AssertHeld() const NX_ASSERT_CAPABILITY(this) {}
#endif

protected:
    explicit CNxMutexThreadBase(int pthreadType);
    ~CNxMutexThreadBase();

private:
    // Waits with it, which releases and takes it.
    friend class CNxConditionVariableThread;

    pthread_mutex_t m_mutex;

    // Who holds it, for AssertHeld.
#ifdef NXBASE_CHECK_THREADS
    void NoteLocked();
    void NoteUnLocked();
    std::atomic<unsigned long> m_holder{0};
    int m_depth = 0;
#else
    void NoteLocked() {}
    void NoteUnLocked() {}
#endif
};

// Not recursive: a thread that locks it twice waits for itself for ever, TryLock on a held one
// returns NX_ERROR_FAILURE.
class CNxMutexThread : public CNxMutexThreadBase {
public:
    CNxMutexThread() : CNxMutexThreadBase(PTHREAD_MUTEX_NORMAL) {}
};

// May be locked again by its owner; free after as many UnLock as Lock.
class CNxMutexThreadRecursive : public CNxMutexThreadBase {
public:
    CNxMutexThreadRecursive() : CNxMutexThreadBase(PTHREAD_MUTEX_RECURSIVE) {}
};

// Holds a mutex from here to the end of the scope. When Lock fails the scope runs without the lock
// and nothing is unlocked at its end; GetLockResult() tells.
template <class Mutex>
class NX_SCOPED_CAPABILITY CNxMutexGuardT {
public:
    explicit CNxMutexGuardT(Mutex& mutex) NX_ACQUIRE(mutex)
        : m_mutex(mutex), m_lockResult(mutex.Lock()) {}
    ~CNxMutexGuardT() NX_RELEASE() { UnLockIfLocked(); }

    CNxMutexGuardT(const CNxMutexGuardT&) = delete;
    CNxMutexGuardT& operator=(const CNxMutexGuardT&) = delete;

    NxResult GetLockResult() const { return m_lockResult; }

private:
    // The analysis cannot follow "unlock only if the lock succeeded".
    void UnLockIfLocked() NX_NO_THREAD_SAFETY_ANALYSIS {
        if (m_lockResult == NX_OK) {
            m_mutex.UnLock();
        }
    }

    Mutex& m_mutex;
    const NxResult m_lockResult;
};
