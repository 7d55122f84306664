// What all reactors share: registration, removal, dispatch, the posted events and the timers.
// CNxReactorLoop adds the loop, a concrete reactor the waiting.
#pragma once

#include <atomic>
#include <memory>

#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/foundation/CNxUtilClasses.h>
#include <nx/reactor/CNxEventHandlerRepository.h>
#include <nx/reactor/INxReactor.h>
#include <nx/timer/CNxTimerQueueBase.h>

// Life: constructed (stopped) -> Open on the thread that runs the loop -> RunEventLoop until
// StopEventLoop -> Close -> opened again or destroyed.
//
// Events: accepted from construction on, so that work can be posted before the loop runs; what is
// posted before Open fires once the loop runs. The end of the loop refuses what comes later: the
// loop fires what was posted until then, and from there to the next Open every post and send
// returns NX_ERROR_NOT_INITIALIZED and its event is destroyed. Close discards what still waits.
// A sender never hangs on a stopping reactor: it gets the event's result, NX_ERROR_NOT_INITIALIZED
// or NX_ERROR_NOT_AVAILABLE.
//
// Any thread may call PostEvent, SendEvent, GetPendingEventsCount, NotifyHandler and
// StopEventLoop; all else belongs to the thread that called Open. When the loop has ended and its
// thread was joined, or the reactor is closed, any one thread may clear up: remove handlers, cancel
// timers, close it. For that the reactor must still be there: it outlives its handlers and timers.
//
// A forked child has a copy of an open reactor, not the reactor: its calls change nothing that the
// parent uses. Registering, posting, notifying and running the loop return an error there, removing
// and Close forget what the copy knows; after Close it may be opened as the child's own.
class CNxReactorBase : public INxReactor, public CNxStopFlag, public CNxEventQueueUsingMutex {
public:
    // Takes over the timer queue that the reactor shall use until it is closed; null, and every
    // later Open, makes a CNxTimerPriorityQueue.
    explicit CNxReactorBase(std::unique_ptr<CNxTimerQueueBase> timerQueue = nullptr);
    ~CNxReactorBase() override;

    // Makes the calling thread the reactor's, and the timer queue and the table of registrations.
    // For more than 8,192 descriptors call CNxEventHandlerRepository::SetRlimit before.
    // NX_OK, NX_ERROR_ALREADY_INITIALIZED when open, NX_ERROR_FAILURE when there is no memory for
    // the timer queue, or why there is no table (CNxEventHandlerRepository::Open).
    [[nodiscard]] NxResult Open() override;

    // Drops timers, registrations and pending events. NX_OK. Not from within a callback.
    NxResult Close() override;

    // Puts the handler in the place of its descriptor's registration, if there is one.
    // NX_OK, also when nothing changes because handler and mask are those registered.
    // NX_ERROR_FOUND when another registration was replaced, which counts as success. The watch is
    // changed in place, by OnHandleRegister alone: OnHandleRemoved is not called for it.
    // NX_ERROR_INVALID_ARG for null, a mask without any bit of NX_MASK_ALL_EVENTS, or a descriptor
    // that has no place in the table: negative, above it, or any while the reactor is not open.
    // The result of OnHandleRegister for a descriptor that cannot be watched; it is asked first.
    // NX_ERROR_NOT_INITIALIZED in a forked child for its parent's reactor.
    // After a failure everything is as before: a registration that was to be replaced is still
    // there, and its handler is called.
    [[nodiscard]] NxResult RegisterHandler(INxEventHandler* handler, long mask) override;

    // GOES BY THE DESCRIPTOR, not by the handler: one that kept its number after it was closed
    // takes the registration of whoever has the number now. Checking builds (NXBASE_CHECK_THREADS)
    // then print both handlers on standard error, and go on. Remove a handler before its descriptor
    // is closed. NX_OK when the whole registration went or nothing of it was meant; NX_ERROR_FOUND
    // when a part of it is left; NX_ERROR_INVALID_ARG for null or a mask without any bit of
    // NX_MASK_ALL_EVENTS.
    NxResult RemoveHandler(INxEventHandler* handler, long mask) override;

    // As CNxEventQueueUsingMutex; wakes the loop when the queue was empty, and when an earlier
    // wake-up could not be sent.
    NxResult PostEvent(INxEvent* event,
                       INxEventQueue::EPriority priority = INxEventQueue::PRIORITY_NORMAL) override;
    NxResult SendEvent(INxEvent* event) override;
    size_t GetPendingEventsCount() override;
    void StopAndDestoryPendingEvents() override;

    // As the timer queue; NX_ERROR_NOT_INITIALIZED before Open and after Close.
    [[nodiscard]] NxResult ScheduleTimer(INxTimerHandler* handler, void* token,
                                         const CNxTimeValue& interval,
                                         unsigned long count) override;
    NxResult CancelTimer(INxTimerHandler* handler) override;

    // 65,535 bytes, shared by all handlers of the reactor: good for the length of a callback.
    char* GetBufferPtr() override { return m_szBuffer; }
    unsigned long GetBufferSize() override { return sizeof(m_szBuffer); }

    int GetCloseReason() const override { return m_closeReason; }

    CReactorCompanion* GetCompanion() const override { return m_companion.load(); }
    [[nodiscard]] bool SetCompanion(CReactorCompanion* companion) override;

    void* GetCookie() override { return m_pCookie; }
    void SetCookie(void* cookie) override { m_pCookie = cookie; }

    // The one point of dispatch. Calls the handler of `fd` for those bits of `mask` that it is
    // registered for: OnInput, then, if that returned 0 and left the registration in place,
    // OnOutput. Anything else than 0, or NX_MASK_CLOSE in `mask`, removes the handler and calls
    // its OnClose. With `dropConnect` a handler that waits for a connect is dropped uncalled.
    // Descriptor -1 fires the posted events, at most 100,000; the rest comes in a later turn.
    // `reason` is what GetCloseReason returns while OnClose runs after NX_MASK_CLOSE, an errno;
    // `fromNotify` is for the caller's reader.
    // NX_OK, NX_ERROR_NOT_INITIALIZED without a table and in a forked child,
    // NX_ERROR_INVALID_ARG for a descriptor outside of it, NX_ERROR_NOT_FOUND when nothing is
    // registered or no event waits. A loop has no use for it: the handler has heard what there was
    // to hear.
    NxResult ProcessHandleEvent(int fd, long mask, long reason, int fromNotify, int dropConnect);

    // Fires the due timers. NX_OK, NX_ERROR_NOT_INITIALIZED without a timer queue: then there is
    // nothing to fire, so it may be dropped.
    NxResult ProcessTimerTick();

    // Takes the bits of `mask` off a registration of which `element` is a copy, and calls OnClose
    // if the last of them goes and `mask` has NX_MASK_SHOULD_CALL. Results as RemoveHandler.
    NxResult RemoveHandleWithoutFinding_i(int fd,
                                          const CNxEventHandlerRepository::CElement& element,
                                          long mask);

    // Hands the reactor to the calling thread while its loop does not run.
    void Reset2CurrentThread() override;

    // Whether the reactor was opened by a parent of this process. Any thread.
    bool IsCopyOfParent() const;

    // The demultiplexer's part of a removal and of a registration. Registering with a null
    // handler or a descriptor that cannot be watched returns an error and changes nothing; for a
    // descriptor that has a registration it changes the watch.
    virtual void OnHandleRemoved(int fd) = 0;
    [[nodiscard]] virtual NxResult OnHandleRegister(int fd, long mask,
                                                    INxEventHandler* handler) = 0;

protected:
    // Before the registrations and timers go.
    void TellCompanion();

    // For a descriptor that failed: its handler gets what had arrived before, in as many calls of
    // OnInput as it takes, then OnClose, with `error` as the reason or, if that is 0, with what the
    // socket tells. Without an `error`, a handler that does not read at present gets OnOutput
    // instead of OnClose and stays: it finds the failure when it reads or writes.
    void DispatchFailure(int fd, int error);

    // The error that waits at a socket, which it takes from it (SO_ERROR, socket(7)), or why it
    // cannot be asked; EPIPE for what is no socket.
    static int TakeError(int fd);

    // The beginning and the end of the loop, on its thread, which it belongs to in between.
    void TakeBack();
    void LetGo();

    CNxEnsureSingleThread m_Est;
    std::unique_ptr<CNxTimerQueueBase> m_pTimerQueue;
    CNxEventHandlerRepository m_EhRepository;

private:
    void ForgetFailing(int fd);
    bool DispatchUnread(int fd);
    NxResult CloseHandler(int fd, const CNxEventHandlerRepository::CElement& element, int reason);
    NxResult ProcessPostedEvents();
    NxResult CallHandler(int fd, long active, INxEventHandler* handler);
    NxResult DropHandler(int fd, const INxEventHandler* handler);
    bool IsWakeUpOwed();

    // Empty: for the next pass over the posted events.
    Batch m_batch;

    char m_szBuffer[65535] = {};
    void* m_pCookie = nullptr;
    // Of the OnClose that runs.
    int m_closeReason = 0;
    // What DispatchFailure is about, as long as its registration stays; else -1.
    int m_failingFd = -1;
    // CNxProcessWide::CountForks at the last Open; -1 before.
    std::atomic<long> m_forksAtOpen{-1};
    // Holds a reference.
    std::atomic<CReactorCompanion*> m_companion{nullptr};
    // Events wait of which the loop has not been told.
    std::atomic<bool> m_wakeUpOwed{false};
};
