// The default reactor: edge-triggered epoll(7).
#pragma once

#include <sys/epoll.h>

#include <cstdlib>
#include <memory>

#include <nx/reactor/CNxReactorLoop.h>

// Edge-triggered: a handler reads (writes) until the call would block, else it is not called again
// before new data (room) comes; one that wants to be called without that asks with
// NotifyHandler(this, mask). Registering makes the descriptor non-blocking.
//
// A descriptor registered for output is closed when it fails, as by a failed connect or a reset;
// GetCloseReason tells why. OnInput gets what had arrived before; a handler that does not read it
// is not closed but gets OnOutput, and finds the failure when it reads or writes. A socket that
// lives on after an error, one for datagrams say, is closed in any case.
//
// The wait of one turn dispatches up to 1024 ready descriptors in the kernel's order, then fires
// the posted events. A timer due in less than a millisecond is spun for, not waited for; as long as
// timers fire in every pass the loop still polls the descriptors once per pass.
//
// NX_ERROR_FAILURE from Open also means that epoll_create1(2) or an allocation failed, from
// RunEventLoop that epoll_wait(2) did. Close keeps the epoll descriptor, until the next Open or the
// destructor.
class CNxReactorEpoll : public CNxReactorLoop {
public:
    using CNxReactorLoop::CNxReactorLoop;
    ~CNxReactorEpoll() override;

    int GetReactorType() override { return TYPE_EPOLL; }

    // NX_ERROR_FAILURE for null, or when the descriptor cannot be made non-blocking or cannot be
    // watched: closed, or a regular file. What was watched before still is then.
    [[nodiscard]] NxResult OnHandleRegister(int fd, long mask, INxEventHandler* handler) override;
    void OnHandleRemoved(int fd) override;

    // Known for what epoll_wait(2) has found ready, not for what NotifyHandler asked for.
    bool MayHaveEnded() const override { return m_mayHaveEnded; }

    // Whether the socket has no pending error (SO_ERROR, socket(7)), which it takes from it.
    bool IsConnected(int fd) const;

private:
    struct CFree {
        void operator()(epoll_event* ready) const { std::free(ready); }
    };

    [[nodiscard]] NxResult OpenDemultiplexer() override;
    [[nodiscard]] NxResult WaitAndDispatch(const CNxTimeValue& remaining, bool hasWork) override;
    void CloseEpoll();
    void DispatchReady(int count);
    void DispatchOne(int fd, unsigned int readiness);
    [[nodiscard]] bool Watch(int fd, epoll_event interest);
    void ForgetReady(int fd);

    int m_epollHandle = -1;
    // What a wait found ready.
    std::unique_ptr<epoll_event[], CFree> m_ready;
    // The part of it that the current turn dispatches or has still to dispatch.
    int m_nextReady = 0;
    int m_readyCount = 0;
    // Of the event that is being dispatched.
    bool m_mayHaveEnded = true;
};
