// Base of objects that stand for an object living on another thread and reach it through that
// thread's event queue.
#pragma once

#include <nx/event/INxEventQueue.h>

class CNxThread;

// Holds the target thread's event queue, which is not owned and must outlive the proxy. Any thread.
class CNxThreadProxyBase {
public:
    // The queue of that thread; none for null or a thread without one.
    explicit CNxThreadProxyBase(CNxThread* thread);

    // The queue of the thread that is registered under `type` at this moment; none without it.
    explicit CNxThreadProxyBase(int type);

    // As PostEvent and SendEvent of the queue. NX_ERROR_INVALID_ARG for null,
    // NX_ERROR_UNEXPECTED when there is no queue; the event is then destroyed.
    NxResult PostEvent_i(INxEvent* event);
    NxResult SendEvent_i(INxEvent* event);

protected:
    ~CNxThreadProxyBase() = default;

private:
    NxResult CheckTarget(INxEvent* event) const;

    INxEventQueue* const m_eventQueue;
};

class CNxThreadProxyManager {};
