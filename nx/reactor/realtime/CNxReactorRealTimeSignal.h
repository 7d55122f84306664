// A reactor on queued real-time signals: every change of a descriptor's readiness is a signal
// (F_SETSIG, fcntl(2)) that the loop takes with sigtimedwait(2).
#pragma once

#include <sys/types.h>

#include <csignal>
#include <memory>

#include <nx/reactor/CNxReactorLoop.h>

class CSignalledThread;
class CUntoldReadiness;

// At most one per process: its descriptors' signals belong to the process, and another reactor
// would take them.
//
// SIGRTMIN and SIGIO must be blocked in every thread of the process. CNxThreadManager::
// InitMainThread does that for the threads started after it, and construction and Open do it for
// their thread. A thread that has them open takes readiness away from the loop: Open puts a signal
// handler in the place of their default action, which would end the process, and it turns what it
// gets into an overflow.
//
// The wait of one turn takes one signal and dispatches it. What was readable or writable before it
// was registered comes when no signal waits, or after 1024 of them, and so do the posted events, so
// that a flood of these holds up neither.
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
//
// Open also forgets the signals that wait, and asks the system for 81,920 queued ones where it
// still has that setting. NX_ERROR_UNEXPECTED from it also means that the signals cannot be
// blocked.
class CNxReactorRealTimeSignal : public CNxReactorLoop {
public:
    // Blocks the signals for the constructing thread.
    explicit CNxReactorRealTimeSignal(std::unique_ptr<CNxTimerQueueBase> timerQueue = nullptr);
    ~CNxReactorRealTimeSignal() override;

    int GetReactorType() override { return TYPE_REAL_TIME_SIGNAL; }

    // Block the signals for the calling thread; Open does it by itself. NX_OK, NX_ERROR_UNEXPECTED
    // when that fails.
    [[nodiscard]] NxResult init();
    [[nodiscard]] NxResult init2();

    // Descriptors that are still registered raise no signals any more. NX_OK.
    NxResult Close() override;

    // With a handler as CNxReactorLoop. For null NX_OK, or NX_ERROR_FAILURE while the reactor is
    // closed, in a forked child, and when the signal queue is full; then the posted events fire all
    // the same.
    [[nodiscard]] NxResult NotifyHandler(INxEventHandler* handler, long mask) override;

    // NX_OK, when stopped. May run on another thread than Open, after Reset2CurrentThread there.
    NxResult RunEventLoop() override;

    // NX_OK. NX_ERROR_FAILURE while the reactor is closed, in a forked child and, on another thread
    // than the reactor's, when the signal queue is full: the loop then goes on, try again.
    NxResult StopEventLoop() override;

    // NX_ERROR_UNEXPECTED for null or when the descriptor cannot be set up; NX_ERROR_FAILURE when
    // it has failed or its peer has hung up already and the handler has nothing left to read, or
    // when there is no memory. Input, or room for output, that is there already is dispatched by
    // the loop. With NX_MASK_CONNECT only the outcome of a connect is.
    [[nodiscard]] NxResult OnHandleRegister(int fd, long mask, INxEventHandler* handler) override;
    void OnHandleRemoved(int fd) override;

    // Nothing; no code installs it.
    static void TimerTickFun(int /*signal*/) {}

private:
    [[nodiscard]] NxResult OpenDemultiplexer() override;
    [[nodiscard]] NxResult WaitAndDispatch(const CNxTimeValue& remaining, bool hasWork) override;
    void LeaveThread();
    void HandleSignal(const siginfo_t& info);
    void HandleReadiness(int fd, long band);
    void Dispatch(int fd, long mask);
    void HandleOverflow(int signal, int error);
    bool HasDeferred() const;
    void RunDeferred();

    pid_t m_pid = 0;
    const std::unique_ptr<CSignalledThread> m_thread;
    // With the posted events and the records of the pipe: what is deferred to a time when no signal
    // waits.
    const std::unique_ptr<CUntoldReadiness> m_untold;
    int m_signalsTaken = 0;
    // 1 from an overflow to the next signal that is none.
    int m_bSignalOverFlowing = 0;
};
