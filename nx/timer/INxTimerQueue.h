// Timers: what fires, and the queue it is scheduled on.
#pragma once

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>

// A timer is known by its handler: one handler has at most one timer per queue. Not owned by the
// queue; a handler cancels its timer before it is destroyed.
class INxTimerHandler {
public:
    // The timer is due. On the thread that owns the queue, with no lock held. `curTime` is when the
    // queue began this pass over its timers, the same for every handler of the pass; `token` is
    // what was given to ScheduleTimer. May schedule and cancel any timer of the queue, its own too.
    // An exception that leaves it ends the process with a line on stderr that names it.
    virtual void OnTimeout(const CNxTimeValue& curTime, void* token) = 0;
    virtual ~INxTimerHandler() = default;
};

// Timers of one thread, by CNxTimeValue::GetTimeOfDay: when the system clock is set they move with
// it, unless the process has called CNxTimeValue::UseMonotonicClock. No locks: only that thread
// calls it; others post an event to it. Once its loop has ended and it was joined any thread may
// cancel, as long as the queue is there: the reactor or thread object that has it outlives those
// who do.
class INxTimerQueue {
public:
    // First fires `interval` from now, then every `interval`; `count` times in all, 0 meaning until
    // cancelled. A handler that has a timer gets this one instead.
    // NX_OK; NX_ERROR_FOUND when a timer of the handler was replaced, which counts as success;
    // NX_ERROR_INVALID_ARG for a null handler; NX_ERROR_FAILURE without memory, the handler then
    // keeps the timer it has. Implementations add what else they refuse.
    [[nodiscard]] virtual NxResult ScheduleTimer(INxTimerHandler* handler, void* token,
                                                 const CNxTimeValue& interval,
                                                 unsigned long count) = 0;

    // NX_OK, NX_ERROR_INVALID_ARG for null, NX_ERROR_NOT_FOUND when the handler has no timer.
    virtual NxResult CancelTimer(INxTimerHandler* handler) = 0;

    virtual ~INxTimerQueue() = default;

    // Hands the queue to the calling thread. One that is bound to no thread does nothing.
    virtual void Reset2CurrentThread() {}
};
