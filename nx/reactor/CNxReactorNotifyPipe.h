// How any thread wakes a reactor that waits, and hands it a descriptor and a mask to dispatch.
#pragma once

#include <cstddef>
#include <deque>

#include <nx/foundation/CNxMutexOverFork.h>
#include <nx/reactor/CNxPipe.h>
#include <nx/reactor/INxEventHandler.h>

class CNxReactorBase;

// A member of its reactor, registered there like any other handler for the reading end of a
// CNxPipe. Notifications are a list, as long as it takes; through the pipe goes a byte that wakes
// the reactor, and none while one is on its way. On the reactor's own thread none goes at all: its
// loop looks at GetCount() before it waits.
//
// Open, Close, OnInput and DispatchFirst belong to the reactor's thread; Notify may be called on
// any thread, also while the pipe is being closed: it never writes to a descriptor that is no
// longer the pipe's.
class CNxReactorNotifyPipe : public INxEventHandler {
public:
    CNxReactorNotifyPipe() = default;
    ~CNxReactorNotifyPipe() override;

    CNxReactorNotifyPipe(const CNxReactorNotifyPipe&) = delete;
    CNxReactorNotifyPipe& operator=(const CNxReactorNotifyPipe&) = delete;

    // Opens the pipe, which must be closed, and registers it. NX_OK, NX_ERROR_INVALID_ARG for null,
    // NX_ERROR_FAILURE when the pipe cannot be made non-blocking, else the result of CNxPipe::Open
    // or RegisterHandler (NX_ERROR_FOUND counts as a failure here). After a failure it is closed.
    [[nodiscard]] NxResult Open(CNxReactorBase* reactor);

    // Takes the registration back, drops the notifications and closes the pipe; the result of
    // CNxPipe::Close. Closed in any case.
    NxResult Close();

    // Has the reactor dispatch `mask` to the descriptor of `handler`, or to -1 for null. The pipe
    // itself as the handler, with mask 0, only wakes the reactor. Never blocks.
    // NX_OK; NX_ERROR_NOT_INITIALIZED when closed, and in a forked child for a pipe that its parent
    // opened; NX_ERROR_FAILURE when there is no memory for it; NX_ERROR_UNEXPECTED when the wake-up
    // cannot be sent. After a failure nothing is dispatched, with one exception: a null handler
    // needs no memory, and without a wake-up its posted events fire in the reactor's next turn.
    [[nodiscard]] NxResult Notify(INxEventHandler* handler, long mask);

    // How many notifications wait, those for descriptor -1 as one.
    size_t GetCount() const;

    // Has the oldest notification dispatched, if there is one: the registration of its descriptor
    // decides now.
    void DispatchFirst();

    // The reading end, -1 when closed.
    int GetHandle() const override;

    // Takes what woke the reactor from the pipe, and DispatchFirst. 0.
    int OnInput(int fd) override;

private:
    struct CNotification {
        int m_fd;
        long m_mask;
    };

    [[nodiscard]] NxResult OpenPipe(CNxReactorBase* reactor);
    CNxReactorBase* Forget();
    [[nodiscard]] NxResult Add_i(int fd, long mask) NX_REQUIRES(m_mutex);
    [[nodiscard]] bool Wake_i() NX_REQUIRES(m_mutex);

    mutable CNxMutexOverFork m_mutex;
    CNxPipe m_PipeNotify NX_GUARDED_BY(m_mutex);
    CNxReactorBase* m_pReactor NX_GUARDED_BY(m_mutex) = nullptr;
    std::deque<CNotification> m_notifications NX_GUARDED_BY(m_mutex);
    // The posted events are asked for, after so many of the notifications.
    bool m_eventsAsked NX_GUARDED_BY(m_mutex) = false;
    size_t m_beforeEvents NX_GUARDED_BY(m_mutex) = 0;
    // A byte is in the pipe.
    bool m_isWoken NX_GUARDED_BY(m_mutex) = false;
};
