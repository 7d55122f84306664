// Events, and the queues that carry them from one thread to another. Everything that crosses
// threads in this library travels as an event.
#pragma once

#include <cstddef>

#include <nx/foundation/CNxRecycled.h>
#include <nx/foundation/NxResult.h>

// A piece of work that is handed to a thread and runs there.
//
// A queue owns an event from the moment it is posted or sent: whether it is accepted, refused or
// discarded, the library calls OnDestorySelf() exactly once, and nobody else deletes it.
class INxEvent : public CNxRecycled {
public:
    // Runs on the thread that owns the queue, with no lock held. The result goes to a sender; that
    // of a posted event is dropped. May post and send to any queue, its own too. An exception that
    // leaves it ends the process with a line on stderr that names it.
    virtual NxResult OnEventFire() = 0;

    // The end of the event, after it has fired or instead of firing. On the thread of the queue
    // or, for a refused event, on the caller's; never with a lock of the queue held. Deletes the
    // event unless overridden.
    virtual void OnDestorySelf() { delete this; }

    virtual ~INxEvent() = default;
};

// Where a thread takes its events from. Strictly first in, first out.
class INxEventQueue {
public:
    // Accepted for every post and without effect: no queue of the library orders by priority. Who
    // overrides PostEvent repeats its default, so that it is there for his class as well.
    enum EPriority { PRIORITY_HIGH = 0, PRIORITY_NORMAL = 1, PRIORITY_LOW = 2 };

    // Leaves the event with the queue, to be fired later by the thread that owns it. Any thread.
    // NX_OK, NX_ERROR_INVALID_ARG for null, NX_ERROR_NOT_INITIALIZED when the queue is stopped,
    // NX_ERROR_FAILURE without memory; the event is then destroyed before the call returns.
    virtual NxResult PostEvent(INxEvent* event, EPriority priority = PRIORITY_NORMAL) = 0;

    // Has the event fired by the thread that owns the queue and returns its result; blocks until
    // then, without a limit. Called on that thread itself it fires the event at once.
    // Before it returns the event has been destroyed: an event may use what lies on the sender's
    // stack to its very end.
    // NX_ERROR_INVALID_ARG for null, NX_ERROR_NOT_INITIALIZED when the queue is stopped,
    // NX_ERROR_NOT_AVAILABLE when the event was discarded without having fired, NX_ERROR_FAILURE
    // without memory.
    virtual NxResult SendEvent(INxEvent* event) = 0;

    // How many events wait. Any thread; out of date as soon as it is read.
    virtual size_t GetPendingEventsCount() = 0;

    virtual ~INxEventQueue() = default;

    // Refuses every event from now on and destroys those that wait, in order, without firing them;
    // their senders get NX_ERROR_NOT_AVAILABLE. For the end of a loop that nobody will run again.
    // A queue that cannot be stopped does nothing.
    virtual void StopAndDestoryPendingEvents() {}

    // Makes the calling thread the one that drains the queue, while nobody does. A queue that is
    // bound to no thread does nothing.
    virtual void Reset2CurrentThread() {}
};
