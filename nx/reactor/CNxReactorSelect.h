// A reactor on select(2): for few descriptors, and where level-triggered readiness is wanted.
#pragma once

#include <sys/select.h>

#include <nx/reactor/CNxReactorLoop.h>

// Level-triggered: a handler is called in every turn as long as its descriptor is ready, so one
// that has nothing to write must not stay registered for output. Descriptors are left as they are,
// blocking ones too. The dispatch of one turn sees only the registrations that the wait saw.
//
// The wait of one turn calls OnInput of all that are readable in ascending order of their
// descriptors, then OnOutput of all that are writable. What another thread posted fires at the
// place of the notify pipe's descriptor in that order, the rest after it.
//
// A failed connect is no failure to select(2): the handler gets OnOutput, also because the
// descriptor became readable, and asks for SO_ERROR (socket(7)) itself.
//
// A descriptor that is closed while it is registered makes select(2) fail and ends the loop with
// NX_ERROR_FAILURE: remove the handler first. When the system has no memory for select(2) the loop
// tries again every 10 ms, and fires timers and posted events meanwhile.
class CNxReactorSelect : public CNxReactorLoop {
public:
    using CNxReactorLoop::CNxReactorLoop;

    int GetReactorType() override { return TYPE_SELECT; }

    // NX_ERROR_INVALID_ARG for null and for a descriptor of FD_SETSIZE (1024) or more, which cannot
    // be put into an fd_set; else NX_OK, without looking at the descriptor.
    [[nodiscard]] NxResult OnHandleRegister(int fd, long mask, INxEventHandler* handler) override;
    void OnHandleRemoved(int fd) override;

private:
    [[nodiscard]] NxResult WaitAndDispatch(const CNxTimeValue& remaining, bool hasWork) override;
    void ProcessFdSets_i(fd_set& ready, long mask, int& count, int maxFd);

    // What the current turn has still to dispatch.
    fd_set m_readSet{};
    fd_set m_writeSet{};
};
