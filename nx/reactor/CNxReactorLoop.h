// The loop of every reactor, and how other threads wake and stop it.
#pragma once

#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>

// A concrete reactor derives from it and adds the waiting: WaitAndDispatch, OnHandleRegister,
// OnHandleRemoved and, if there is something to open for them, OpenDemultiplexer.
//
// One turn: look at the stop flag, fire the timers that are due, wait and dispatch, fire what was
// posted. Every turn looks for posted events, whatever woke it. No wait is longer than a second: a
// wake-up that could not be sent is then made up for, if no post has done it before, and a system
// clock that was set is seen. Only where no wake-up can fail, and without a timer, it has no limit.
class CNxReactorLoop : public CNxReactorBase {
public:
    using CNxReactorBase::CNxReactorBase;

    // On any thread that has the reactor for itself. Registered handlers are not told, and the
    // hooks not called.
    ~CNxReactorLoop() override;

    // A second Open of an open reactor closes it.
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when it was open; else what failed first of
    // OpenDemultiplexer, CNxReactorBase::Open and CNxReactorNotifyPipe::Open. After a failure the
    // reactor is closed.
    [[nodiscard]] NxResult Open() override;

    // Its loop then ends at once, should it be run. NX_OK. Not from within a callback.
    NxResult Close() override;

    // The result of CNxReactorNotifyPipe::Notify. A handler may ask for itself, on the reactor's
    // thread, as often as it likes: no system call is made for it, and it is called after the
    // descriptors that are ready.
    [[nodiscard]] NxResult NotifyHandler(INxEventHandler* handler, long mask) override;

    // NX_OK when stopped, also while closed; NX_ERROR_FAILURE when the wait fails, and the loop may
    // be run again. NX_ERROR_NOT_INITIALIZED in a forked child for its parent's reactor, also when
    // a callback forked and returned there: nothing more of it is dispatched.
    // Once stopped it fires the events posted so far and refuses later ones.
    NxResult RunEventLoop() override;

    // Also before the loop runs, which then only fires what was posted. NX_OK.
    NxResult StopEventLoop() override;

protected:
    // Whether notifications or posted events wait.
    bool HasPosted();

    // Dispatches the notifications that wait now, then fires posted events. What is added meanwhile
    // waits for the next turn.
    void RunPosted();

    CNxReactorNotifyPipe m_NotifyPipe;

private:
    // Opens what the reactor waits with, as the first step of Open. After a failure Open calls
    // Close. NX_OK, or why it cannot be opened.
    [[nodiscard]] virtual NxResult OpenDemultiplexer() { return NX_OK; }

    // Waits once, for at most `remaining`, dispatches what is ready and calls RunPosted.
    // `remaining` is a second or less, or for a reactor of TYPE_EPOLL s_tvMax(), without limit.
    // Saves wake-ups by m_NotifyPipe.EndWait() between the wait and the dispatch. `hasWork`: a
    // timer has fired in this turn, or something is posted; otherwise it need not look at the
    // descriptors when there is no time to wait. NX_OK, also when nothing came or a signal
    // interrupted it; NX_ERROR_FAILURE ends the loop.
    [[nodiscard]] virtual NxResult WaitAndDispatch(const CNxTimeValue& remaining, bool hasWork) = 0;

    [[nodiscard]] NxResult OpenParts();
    NxResult RunTurns();
    int FireTimers(CNxTimeValue& remaining);
    void RunLastEvents();
};
