// Inside the library only: how other threads reach the thread of the real-time-signal reactor.
#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>

#include <nx/foundation/CNxMutexOverFork.h>
#include <nx/foundation/CNxUtilClasses.h>

// A wake-up, which has the thread fire the posted events, and the stop are queued signals. Any
// thread may call Wake and Stop, the rest belongs to the thread itself.
class CSignalledThread {
public:
    // What a queued signal of the reactor carries.
    enum EValue : int { VALUE_WAKE = 0, VALUE_STOP = 1 };

    // The calling thread is reached from here on, as one that nobody has woken or stopped yet.
    void Enter();

    // A loop may run on another thread than the one that entered. The calling thread takes its
    // place, if somebody has it, with the signals blocked and a wake-up due: the other one may have
    // got those until now.
    void TakeOver();

    // From here on nobody sends the thread a signal.
    void Leave();

    // A wake-up that is under way covers this one too; on the thread itself it is due at once.
    // NX_OK, or NX_ERROR_FAILURE when there is no thread or the signal queue is full.
    [[nodiscard]] NxResult Wake();

    // Sets the flag, after the signal that makes the thread look at it.
    // NX_OK, or NX_ERROR_FAILURE, with the flag as it was, when there is no thread or the signal
    // queue is full.
    [[nodiscard]] NxResult Stop(CNxStopFlag& flag);

    // The signal of a wake-up came.
    void SetWakeDue() { m_wake.store(WAKE_DUE); }
    bool IsWakeDue() const { return m_wake.load() == WAKE_DUE; }

    // None is due any more: whatever is posted from here on needs another.
    void TakeWake();

private:
    enum EThread { THREAD_AWAY, THREAD_THERE, THREAD_STOPPED };
    enum EWake { WAKE_NONE, WAKE_QUEUED, WAKE_DUE };

    void Enter_i() NX_REQUIRES(m_mutex);
    bool IsCalling_i() const NX_REQUIRES(m_mutex);
    [[nodiscard]] bool Queue_i(EValue value) NX_REQUIRES(m_mutex);

    // Whoever sends the thread a signal holds the mutex, so that it is there.
    CNxMutexOverFork m_mutex;
    EThread m_state NX_GUARDED_BY(m_mutex) = THREAD_AWAY;
    pthread_t m_thread NX_GUARDED_BY(m_mutex){};
    std::atomic<EWake> m_wake{WAKE_NONE};
};
