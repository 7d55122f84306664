// How any thread wakes a reactor that waits, and hands it a descriptor and a mask to dispatch.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>

#include <nx/foundation/CNxMutexOverFork.h>
#include <nx/reactor/CNxPipe.h>
#include <nx/reactor/INxEventHandler.h>

class CNxReactorBase;

// A member of its reactor, registered there like any other handler for what wakes the reactor: for
// epoll(7) an event counter (eventfd(2)), which edge-triggered need not be read, for other reactors
// the reading end of a CNxPipe. Notifications are a list, as long as it takes. A wake-up is sent to
// a reactor that waits or is about to, and none while one is on its way: a loop says with BeginWait
// that it will look at GetCount() and at the posted events, and only then wait. On the reactor's
// own thread none is sent at all.
//
// Open, Close, BeginWait, EndWait, OnInput and DispatchFirst belong to the reactor's thread; Notify
// may be called on any thread, also while the pipe is being closed: it never writes to a descriptor
// that is no longer the pipe's.
class CNxReactorNotifyPipe : public INxEventHandler {
public:
    CNxReactorNotifyPipe() = default;
    ~CNxReactorNotifyPipe() override;

    CNxReactorNotifyPipe(const CNxReactorNotifyPipe&) = delete;
    CNxReactorNotifyPipe& operator=(const CNxReactorNotifyPipe&) = delete;

    // Opens the pipe, which must be closed, and registers it. NX_OK, NX_ERROR_INVALID_ARG for null,
    // NX_ERROR_NOT_AVAILABLE when there is no event counter, NX_ERROR_FAILURE when the pipe cannot
    // be made non-blocking, else the result of CNxPipe::Open or RegisterHandler (NX_ERROR_FOUND
    // counts as a failure here). After a failure it is closed.
    [[nodiscard]] NxResult Open(CNxReactorBase* reactor);

    // Takes the registration back, drops the notifications and closes the pipe; the result of
    // CNxPipe::Close. Closed in any case.
    NxResult Close();

    // Has the reactor dispatch `mask` to the descriptor of `handler`, after the events posted
    // before it. Null has it look at the posted events, which any turn of its loop does. The pipe
    // itself as the handler, with mask 0, only wakes the reactor. Never blocks. NX_OK;
    // NX_ERROR_NOT_INITIALIZED when closed, and in a forked child for a pipe that its parent
    // opened; NX_ERROR_FAILURE when there is no memory for it; NX_ERROR_UNEXPECTED when the wake-up
    // cannot be sent. After a failure nothing is dispatched, with one exception: a null handler
    // needs no memory, and without a wake-up its posted events fire in the reactor's next turn.
    [[nodiscard]] NxResult Notify(INxEventHandler* handler, long mask);

    // How often DispatchFirst finds something to do.
    size_t GetCount() const { return m_count.load(); }

    // Has the oldest notification dispatched, if there is one: the registration of its descriptor
    // decides now. Before one that came after posted events it has those fired, as a step of its
    // own.
    void DispatchFirst();

    // The loop is about to look for work and, if there is none, to wait: who brings some from here
    // on wakes it. Until the first call everybody does.
    void BeginWait() { m_state.store(STATE_WAITS); }

    // It does not wait any more, and comes to BeginWait before it does: no wake-up is needed.
    void EndWait() { m_state.store(STATE_RUNS, std::memory_order_release); }

    // Whether no wake-up can fail while it is open: an event counter takes all there ever are. For
    // the reactor's thread.
    bool IsCertain() const;

    // What the reactor waits for, -1 when closed.
    int GetHandle() const override;

    // Takes what woke the reactor from the pipe; then DispatchFirst or, if nothing is to be
    // dispatched, fires the posted events. 0.
    int OnInput(int fd) override;

private:
    struct CNotification {
        int m_fd;
        long m_mask;
    };

    // Whether who brings work has to wake the loop. Whoever brings some looks at it afterwards, and
    // the loop looks for work after it has said that it waits: one of the two sees the other.
    enum EState { STATE_WAITS, STATE_IS_TOLD, STATE_RUNS };

    [[nodiscard]] NxResult OpenPipe(CNxReactorBase* reactor);
    [[nodiscard]] NxResult OpenCounter_i() NX_REQUIRES(m_mutex);
    [[nodiscard]] NxResult OpenPair_i() NX_REQUIRES(m_mutex);
    CNxReactorBase* Forget();
    [[nodiscard]] NxResult Add_i(const CNotification& notification, bool afterEvents)
        NX_REQUIRES(m_mutex);
    [[nodiscard]] bool Wake_i(bool always) NX_REQUIRES(m_mutex);
    [[nodiscard]] bool Write_i() NX_REQUIRES(m_mutex);
    void Count_i() NX_REQUIRES(m_mutex);

    mutable CNxMutexOverFork m_mutex;
    // One of the two is open.
    CNxPipe m_PipeNotify NX_GUARDED_BY(m_mutex);
    int m_counter NX_GUARDED_BY(m_mutex) = -1;
    std::deque<CNotification> m_notifications NX_GUARDED_BY(m_mutex);
    // The posted events are to be fired after so many of the notifications.
    bool m_eventsAsked NX_GUARDED_BY(m_mutex) = false;
    size_t m_beforeEvents NX_GUARDED_BY(m_mutex) = 0;
    // Null when closed; written with the mutex held.
    std::atomic<CNxReactorBase*> m_pReactor{nullptr};
    std::atomic<EState> m_state{STATE_WAITS};
    std::atomic<size_t> m_count{0};
};
