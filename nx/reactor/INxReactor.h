// What waits for descriptors on behalf of one thread and is at the same time that thread's event
// queue and timer queue.
#pragma once

#include <nx/event/INxEventQueue.h>
#include <nx/reactor/INxEventHandler.h>
#include <nx/timer/INxTimerQueue.h>

class CReactorCompanion;

// Any thread may call PostEvent, SendEvent, GetPendingEventsCount, NotifyHandler and StopEventLoop;
// everything else belongs to the thread that called Open. Once its loop has ended and that thread
// was joined, any thread may call RemoveHandler and CancelTimer, as long as the reactor is there.
// The result codes are with the implementations: CNxReactorBase and CNxReactorLoop have those that
// all reactors share.
class INxReactor : public INxEventQueue, public INxTimerQueue {
public:
    enum EReactorType { TYPE_EPOLL = 1, TYPE_REAL_TIME_SIGNAL = 2, TYPE_SELECT = 4 };

    virtual int GetReactorType() = 0;

    // Opens the reactor on the thread that will run its loop.
    [[nodiscard]] virtual NxResult Open() = 0;

    // Registers the handler for its descriptor, to be called for what `mask` has. A registration
    // that the descriptor has already is replaced, not merged: NX_ERROR_FOUND, which counts as
    // success.
    [[nodiscard]] virtual NxResult RegisterHandler(INxEventHandler* handler, long mask) = 0;

    // Takes the bits of `mask` off the registration of the handler's descriptor, and the
    // registration with the last of them. Never calls OnClose.
    virtual NxResult RemoveHandler(INxEventHandler* handler, long mask) = 0;

    // Has the loop dispatch `mask` to the handler's descriptor, as far as the handler is registered
    // for it; a null handler stands for descriptor -1, the posted events.
    [[nodiscard]] virtual NxResult NotifyHandler(INxEventHandler* handler, long mask) = 0;

    // Runs until StopEventLoop, or until the wait fails.
    virtual NxResult RunEventLoop() = 0;
    virtual NxResult StopEventLoop() = 0;

    // Ends the use of the reactor; registered handlers are not told. It may be opened again.
    virtual NxResult Close() = 0;

    // A receive buffer that the handlers of this reactor share, and its size in bytes: good for the
    // length of a callback.
    virtual char* GetBufferPtr() = 0;
    virtual unsigned long GetBufferSize() = 0;

    // A pointer that the reactor keeps for its user.
    virtual void* GetCookie() = 0;
    virtual void SetCookie(void* cookie) = 0;

    [[nodiscard]] NxResult ScheduleTimer(INxTimerHandler* handler, void* token,
                                         const CNxTimeValue& interval,
                                         unsigned long count) override = 0;
    NxResult CancelTimer(INxTimerHandler* handler) override = 0;

    // Hands the reactor to the calling thread while its loop does not run. A reactor that is bound
    // to no thread does nothing.
    void Reset2CurrentThread() override {}

    // Within a handler's OnClose: why its descriptor failed, an errno such as ECONNREFUSED or
    // ECONNRESET. 0 when that is not known, because the handler itself had refused or had taken the
    // error from the socket, and outside of OnClose. A handler that waited for a connect and
    // refused without having asked for SO_ERROR gets the reason as well.
    virtual int GetCloseReason() const { return 0; }

    // For the library: what its higher floors keep with the reactor, which is told of the reactor's
    // end. Null, and refused, by a reactor that has no place for it. Setting belongs to the
    // reactor's thread and happens once.
    virtual CReactorCompanion* GetCompanion() const { return nullptr; }
    [[nodiscard]] virtual bool SetCompanion(CReactorCompanion* /*companion*/) { return false; }

    // Within a handler's OnInput, AND FOR ITS DESCRIPTOR ALONE: whether the peer may have ended its
    // sending. False only when the reactor knows that it had not when the event came: then a
    // recv(2) that brings less than was asked for has emptied the socket (epoll(7)), the end is
    // told by another OnInput, and the handler need not ask once more. It has to where reads come
    // short for other reasons: of urgent data (MSG_OOB), or of descriptors in a unix socket.
    virtual bool MayHaveEnded() const { return true; }
};
