// A reactor as seen from other threads: registers and removes handlers on the reactor's own thread.
#pragma once

#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThreadProxyManager.h>

// Any thread, except that buffer and cookie are those of the real reactor and without a lock: they
// belong to its thread unless the users agree otherwise. The real reactor and its thread are not
// owned and must outlive the proxy. With another proxy as the real reactor the calls go through
// both.
//
// Not complete: PostEvent with a priority and GetPendingEventsCount are left to a subclass, such as
// CNxReactorThreadProxyImp.
class CNxReactorThreadProxy : public INxReactor, public CNxThreadProxyBase {
public:
    // Call the reactor's RegisterHandler, respectively RemoveHandler, where they fire, and return
    // its result; NX_ERROR_NULL_POINTER without a reactor.
    class CEventHandlerCall : public INxEvent {
    protected:
        CEventHandlerCall(INxReactor* reactor, INxEventHandler* handler, long mask)
            : m_reactor(reactor), m_handler(handler), m_mask(mask) {}

        INxReactor* const m_reactor;
        INxEventHandler* const m_handler;
        const long m_mask;
    };

    class CEventRegisterHandler : public CEventHandlerCall {
    public:
        CEventRegisterHandler(INxReactor* reactor, INxEventHandler* handler, long mask)
            : CEventHandlerCall(reactor, handler, mask) {}
        NxResult OnEventFire() override;
    };

    class CEventRemoveHandler : public CEventHandlerCall {
    public:
        CEventRemoveHandler(INxReactor* reactor, INxEventHandler* handler, long mask)
            : CEventHandlerCall(reactor, handler, mask) {}
        NxResult OnEventFire() override;
    };

    // `type` is that of the thread that runs the reactor and is registered now.
    CNxReactorThreadProxy(INxReactor* reactor, int type);

    // Blocks until the reactor's thread has done it; on that thread itself done at once. What the
    // real reactor returns; NX_ERROR_NULL_POINTER without a reactor, NX_ERROR_UNEXPECTED without a
    // thread, NX_ERROR_NOT_INITIALIZED or NX_ERROR_NOT_AVAILABLE when the thread has ended or ends
    // meanwhile.
    [[nodiscard]] NxResult RegisterHandler(INxEventHandler* handler, long mask) override;
    NxResult RemoveHandler(INxEventHandler* handler, long mask) override;

    // Those of the real reactor; 0 and null without one.
    int GetReactorType() override;
    char* GetBufferPtr() override;
    unsigned long GetBufferSize() override;
    void* GetCookie() override;
    void SetCookie(void* cookie) override;
    int GetCloseReason() const override;

    // What belongs to the reactor's thread or to its owner. All return NX_ERROR_NOT_IMPLEMENTED and
    // do nothing, except that an event is destroyed.
    [[nodiscard]] NxResult Open() override;
    NxResult Close() override;
    NxResult RunEventLoop() override;
    NxResult StopEventLoop() override;
    [[nodiscard]] NxResult NotifyHandler(INxEventHandler* handler, long mask) override;
    [[nodiscard]] NxResult ScheduleTimer(INxTimerHandler* handler, void* token,
                                         const CNxTimeValue& interval,
                                         unsigned long count) override;
    NxResult CancelTimer(INxTimerHandler* handler) override;
    NxResult SendEvent(INxEvent* event) override;
    virtual NxResult PostEvent(INxEvent* event);
    // Without the default: an event alone is for the one above.
    NxResult PostEvent(INxEvent* event, INxEventQueue::EPriority priority) override = 0;

protected:
    INxReactor* GetReactor() const { return m_reactor; }

private:
    NxResult Send(INxEvent* event);

    INxReactor* const m_reactor;
};

// The proxy for applications.
class CNxReactorThreadProxyImp : public CNxReactorThreadProxy {
public:
    using CNxReactorThreadProxy::CNxReactorThreadProxy;
    using CNxReactorThreadProxy::PostEvent;

    // Posts to the reactor's thread: as INxEventQueue::PostEvent; NX_ERROR_UNEXPECTED without a
    // thread, and the event is destroyed.
    NxResult PostEvent(INxEvent* event, INxEventQueue::EPriority priority) override;

    // Of the real reactor; 0 without one.
    size_t GetPendingEventsCount() override;
};
