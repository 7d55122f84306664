// A reactor on queued real-time signals: every change of a descriptor's readiness is a signal
// (F_SETSIG, fcntl(2)) that the loop takes with sigtimedwait(2).
#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <deque>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>

// At most one per process: its descriptors' signals belong to the process, and another reactor
// would take them.
//
// SIGRTMIN and SIGIO must be blocked in every thread of the process. CNxThreadManager::
// InitMainThread does that for the threads started after it, and construction and Open do it for
// their thread. A thread that has them open takes readiness away from the loop: Open puts a signal
// handler in the place of their default action, which would end the process, and it turns what it
// gets into an overflow.
//
// One turn of the loop: look at the stop flag, fire due timers, wait for one signal and dispatch
// it. What was readable or writable before it was registered comes when no signal waits, or after
// 1024 of them, and so do the posted events, so that a flood of these holds up neither.
//
// Edge-triggered like epoll: a handler reads (writes) until the call would block. Registering sets
// the descriptor's status flags to O_RDWR | O_NONBLOCK | O_ASYNC, removing it sets them to 0, so
// that it blocks again; any other flag is lost. Sockets, pipes and terminals raise signals; files,
// eventfd(2) and timerfd_create(2) do not, and are never called after their registration.
//
// Overflow: a process may have RLIMIT_SIGPENDING signals queued. What finds no room becomes a
// SIGIO: the loop prints a line on standard output and calls every handler for input and output as
// if it were ready; one that waits for a connect is dropped with OnClose, its outcome unknown.
// Another SIGIO before any other signal prints only; then the loop asks poll(2), once no signal
// waits, which descriptors are ready, and calls those. No readiness is lost.
//
// A signal says nothing about which opening of a descriptor it was for. Callbacks without readiness
// happen, and find that the call would block; a failure, and what a handler hears that waits for a
// connect, is checked with poll(2).
class CNxReactorRealTimeSignal : public CNxReactorBase {
public:
    // Blocks the signals for the constructing thread.
    explicit CNxReactorRealTimeSignal(std::unique_ptr<CNxTimerQueueBase> timerQueue = nullptr);
    ~CNxReactorRealTimeSignal() override;

    int GetReactorType() override { return TYPE_REAL_TIME_SIGNAL; }

    // Block the signals for the calling thread. NX_OK, NX_ERROR_UNEXPECTED when that fails.
    NxResult init();
    NxResult init2();

    // Also blocks the signals for the calling thread, forgets those that wait, and asks the system
    // for 81,920 queued signals where it still has that setting.
    // NX_OK; NX_ERROR_UNEXPECTED when the signals cannot be blocked; else the result of
    // CNxReactorBase::Open or CNxReactorNotifyPipe::Open. After a failure the reactor is closed, an
    // already open one as well.
    NxResult Open() override;

    // Descriptors that are still registered raise no signals any more. NX_OK.
    NxResult Close() override;

    // With a handler what CNxReactorNotifyPipe::Notify answers. For null NX_OK, or NX_ERROR_FAILURE
    // while the reactor is closed and when the signal queue is full; then the posted events run
    // all the same.
    NxResult NotifyHandler(INxEventHandler* handler, long mask) override;

    // NX_OK, when stopped. Once stopped it fires the events posted so far and refuses later ones.
    NxResult RunEventLoop() override;

    // NX_OK. NX_ERROR_FAILURE while the reactor is closed and, on another thread than the
    // reactor's, when the signal queue is full: the loop then goes on, try again.
    NxResult StopEventLoop() override;

    // NX_ERROR_UNEXPECTED for null or when the descriptor cannot be set up; NX_ERROR_FAILURE when
    // it has failed or its peer has hung up already. Input, or room for output, that is there
    // already is dispatched by the loop. With NX_MASK_CONNECT only the outcome of a connect is.
    NxResult OnHandleRegister(int fd, long mask, INxEventHandler* handler) override;
    void OnHandleRemoved(int fd) override;

    // Nothing; no code installs it.
    static void TimerTickFun(int /*signal*/) {}

private:
    // A dispatch that no signal will ask for.
    struct CReady {
        int m_fd;
        long m_mask;
    };

    NxResult OpenParts();
    NxResult BlockSignals();
    int SetProcRtsigMax_i(int wanted);
    void ForgetWaitingSignals();
    void TakeOver();
    void LeaveThread();
    bool IsRegistered(int fd) const;

    NxResult CheckReadiness(int fd, long mask);
    NxResult CheckPollIn_i(int fd);
    void CheckConnect(int fd);
    void CheckPollOut(int fd);

    void WaitAndDispatch(const CNxTimeValue& remaining);
    int Wait(siginfo_t& info, const CNxTimeValue& remaining);
    void HandleSignal(const siginfo_t& info);
    void HandleReadiness(int fd, long band);
    void HandleOverflow(int result, int error);
    bool HasDeferred() const;
    void RunDeferred();
    void PollAll();

    sigset_t m_signals;
    const int m_signal;
    CNxReactorNotifyPipe m_NotifyPipe;
    pid_t m_pid = 0;
    // Whoever sends the thread a signal holds the mutex, so that it is there.
    CNxMutexThread m_threadMutex;
    pthread_t m_thread NX_GUARDED_BY(m_threadMutex){};
    int m_bSignalOverFlowing = 0;

    bool m_isThreadThere NX_GUARDED_BY(m_threadMutex) = false;
    bool m_isStopQueued NX_GUARDED_BY(m_threadMutex) = false;
    // A wake-up is under way that covers everything posted until it is cleared.
    std::atomic<bool> m_isWakeQueued{false};

    // For a time when no signal waits.
    std::deque<CReady> m_ready;
    bool m_eventsDue = false;
    bool m_pollAllDue = false;
    int m_signalsTaken = 0;
};
