// A reactor on select(2): for few descriptors, and where level-triggered readiness is wanted.
#pragma once

#include <sys/select.h>

#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>

// One turn of the loop: look at the stop flag, fire due timers, wait, call OnInput of all that are
// readable in ascending order of their descriptors, then OnOutput of all that are writable. Posted
// events run at the place of the notify pipe's descriptor in that order.
//
// Level-triggered: a handler is called in every turn as long as its descriptor is ready, so one
// that has nothing to write must not stay registered for output. Descriptors are left as they are,
// blocking ones too. The dispatch of one turn sees only the registrations that the wait saw.
//
// A failed connect is no failure to select(2): the handler gets OnOutput, also because the
// descriptor became readable, and asks for SO_ERROR (socket(7)) itself.
//
// A descriptor that is closed while it is registered ends the loop with NX_ERROR_FAILURE: remove
// the handler first.
class CNxReactorSelect : public CNxReactorBase {
public:
    using CNxReactorBase::CNxReactorBase;
    ~CNxReactorSelect() override;

    int GetReactorType() override { return TYPE_SELECT; }

    // NX_OK, or the result of CNxReactorBase::Open or CNxReactorNotifyPipe::Open. After a failure
    // the reactor is closed, an already open one as well.
    NxResult Open() override;
    NxResult Close() override;

    // What CNxReactorNotifyPipe::Notify answers.
    NxResult NotifyHandler(INxEventHandler* handler, long mask) override;

    // NX_OK when stopped; NX_ERROR_FAILURE when select(2) fails, and the loop may be run again.
    // Once stopped it fires the events posted so far and refuses later ones.
    NxResult RunEventLoop() override;

    // Also before the loop runs, which then only fires what was posted. NX_OK.
    NxResult StopEventLoop() override;

    // NX_ERROR_INVALID_ARG for null and for a descriptor of FD_SETSIZE (1024) or more, which cannot
    // be put into an fd_set; else NX_OK, without looking at the descriptor.
    NxResult OnHandleRegister(int fd, long mask, INxEventHandler* handler) override;
    void OnHandleRemoved(int fd) override;

private:
    NxResult OpenParts();
    NxResult WaitAndDispatch(const CNxTimeValue& remaining);
    void ProcessFdSets_i(fd_set& ready, long mask, int& count, int maxFd);

    CNxReactorNotifyPipe m_NotifyPipe;
    // What the current turn has still to dispatch.
    fd_set m_readSet{};
    fd_set m_writeSet{};
};
