// A timer as a member of the object that needs it, instead of a base class: the object hands it a
// sink and is called back. For timers of the thread itself; nx/thread/CNxTimerPreciseWrapperID.h
// has the ones that call another thread.
#pragma once

#include <nx/foundation/CNxTimeValue.h>
#include <nx/timer/INxTimerQueue.h>

class CNxTimerWrapperID;

class CNxTimerWrapperIDSink {
public:
    // A timer of this sink is due. On the thread that the timer is bound to; may schedule, cancel
    // and destroy any of its timers, `id` too.
    virtual void OnTimer(CNxTimerWrapperID* id) = 0;
    virtual ~CNxTimerWrapperIDSink() = default;
};

// Bound for its whole life to the timer queue of the thread that first schedules it: scheduled,
// cancelled and destroyed on that thread only, or on any once its loop has ended and it was joined,
// while the thread object is still there. CNxTimedCall takes a function in place of a sink.
class CNxTimerWrapperID : public INxTimerHandler {
public:
    CNxTimerWrapperID() = default;

    // Cancels the timer.
    ~CNxTimerWrapperID() override;

    CNxTimerWrapperID(const CNxTimerWrapperID&) = delete;
    CNxTimerWrapperID& operator=(const CNxTimerWrapperID&) = delete;

    // Calls `sink` (not owned) first `interval` from now, then every `interval`, `count` times in
    // all, 0 meaning until cancelled. With a null sink nobody is called.
    // NX_ERROR_NULL_POINTER when the calling thread is not registered or has no timer queue;
    // otherwise what the queue returns: NX_OK, NX_ERROR_FOUND when the timer was scheduled already
    // and has this schedule now, NX_ERROR_INVALID_ARG for an interval of zero or less with another
    // count than 1.
    [[nodiscard]] NxResult Schedule(CNxTimerWrapperIDSink* sink, const CNxTimeValue& interval,
                                    unsigned long count);

    // NX_OK, also when nothing was scheduled since the last Cancel; NX_ERROR_NOT_FOUND when the
    // timer has fired for the last time or its Schedule was refused.
    NxResult Cancel();

    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

private:
    // Says that Schedule came after Cancel, not that the timer is still pending.
    int m_scheduled = 0;
    INxTimerQueue* m_queue = nullptr;
};
