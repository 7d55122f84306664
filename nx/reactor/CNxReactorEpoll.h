// The default reactor: edge-triggered epoll(7).
#pragma once

#include <sys/epoll.h>

#include <cstdlib>
#include <memory>

#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>

// One turn of the loop: look at the stop flag, fire due timers, wait, dispatch up to 1024 ready
// descriptors in the kernel's order, run the posted events.
//
// Edge-triggered: a handler reads (writes) until the call would block, else it is not called again
// before new data (room) comes; one that wants to be called without that asks with
// NotifyHandler(this, mask). Registering makes the descriptor non-blocking.
//
// A descriptor registered for output must be a socket: before OnOutput its SO_ERROR is read, and
// one that has an error or cannot be asked is closed like a failed connect.
//
// A timer due in less than a millisecond is spun for, not waited for; as long as timers fire in
// every pass the loop still polls the descriptors once per pass.
class CNxReactorEpoll : public CNxReactorBase {
public:
    using CNxReactorBase::CNxReactorBase;
    ~CNxReactorEpoll() override;

    int GetReactorType() override { return TYPE_EPOLL; }

    // NX_OK; NX_ERROR_FAILURE when epoll_create1(2) or an allocation fails; else the result of
    // CNxReactorBase::Open or CNxReactorNotifyPipe::Open. After a failure the reactor is closed,
    // so a second Open of an open one ends with NX_ERROR_ALREADY_INITIALIZED and a closed reactor.
    NxResult Open() override;

    // The epoll descriptor stays until the next Open or the destructor. NX_OK.
    NxResult Close() override;

    // What CNxReactorNotifyPipe::Notify answers.
    NxResult NotifyHandler(INxEventHandler* handler, long mask) override;

    // NX_OK when stopped; NX_ERROR_FAILURE when epoll_wait(2) fails, and the loop may be run again.
    // Once stopped it fires the events posted so far and refuses later ones.
    NxResult RunEventLoop() override;

    // Also before the loop runs, which then only fires what was posted. NX_OK.
    NxResult StopEventLoop() override;

    // NX_ERROR_FAILURE for null, or when the descriptor cannot be made non-blocking or cannot be
    // watched: closed, or a regular file.
    NxResult OnHandleRegister(int fd, long mask, INxEventHandler* handler) override;
    void OnHandleRemoved(int fd) override;

    // Whether the socket has no pending error (SO_ERROR, socket(7)), which it takes from it.
    bool IsConnected(int fd) const;

private:
    struct CFree {
        void operator()(epoll_event* events) const { std::free(events); }
    };

    NxResult OpenParts();
    NxResult OpenEpoll();
    void CloseEpoll();
    NxResult WaitAndDispatch(int timeoutMs);
    void DispatchReady(int count);
    long ToMask(int fd, unsigned int events) const;
    void RearmNotifyPipe();

    int m_epollHandle = -1;
    CNxReactorNotifyPipe m_NotifyPipe;
    std::unique_ptr<epoll_event[], CFree> m_events;
    // The part of m_events that the current turn has still to dispatch.
    int m_nextEvent = 0;
    int m_eventCount = 0;
};
