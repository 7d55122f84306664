// The marks of objects that belong to one thread, and the flag that ends a thread's loop.
#pragma once

#include <pthread.h>

#include <atomic>

// Remembers the one thread that may use an object. In checking builds (NXBASE_CHECK_THREADS, on in
// Debug and sanitizer builds) a call from another thread ends the process with a message; otherwise
// the check costs nothing. It does not take part in any locking.
class CNxEnsureSingleThread {
public:
    // The constructing thread.
    CNxEnsureSingleThread() : m_threadId(pthread_self()) {}

    void Reset2CurrentThreadId() { Reset2ThreadId(pthread_self()); }
    void Reset2ThreadId(unsigned long id) {
        m_threadId.store(id, std::memory_order_relaxed);
        TakeBack();
    }

    // The thread has no more to do with the object: any other may clear up after it, one at a time,
    // until the thread takes it back or it is handed to another.
    void LetGo() { m_isLetGo.store(true, std::memory_order_relaxed); }
    void TakeBack() { m_isLetGo.store(false, std::memory_order_relaxed); }

    // `what` names the object in the message.
#ifdef NXBASE_CHECK_THREADS
    void EnsureSingleThread(const char* what = "an object") const;
#else
    void EnsureSingleThread(const char* /*what*/ = nullptr) const {}
#endif

private:
    std::atomic<unsigned long> m_threadId;
    std::atomic<bool> m_isLetGo{false};
};

// Whether a thread's loop shall end; set (stopped) at construction. Any thread may set and read it;
// the loop belongs to one thread. Setting it wakes nobody: a loop that waits for an event may never
// look at it. CNxThread::Stop and INxReactor::StopEventLoop do both.
class CNxStopFlag {
public:
    void SetStartFlag() { m_stopped.store(0, std::memory_order_release); }
    void SetStopFlag() { m_stopped.store(1, std::memory_order_release); }
    bool IsStopped() const { return m_stopped.load(std::memory_order_acquire) != 0; }

    // Hands the loop to the calling thread.
    void Reset2CurrentThreadId() { m_loopThread.Reset2CurrentThreadId(); }

protected:
    CNxStopFlag() = default;
    ~CNxStopFlag() = default;

    void EnsureLoopThread() const { m_loopThread.EnsureSingleThread("a thread's loop"); }

private:
    CNxEnsureSingleThread m_loopThread;
    std::atomic<int> m_stopped{1};
};
