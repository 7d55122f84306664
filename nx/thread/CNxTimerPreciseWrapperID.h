// A timer that calls back on a thread of one's choice: a thread of its own keeps the time, on a
// grid of 10 ms, however busy the thread is that schedules, and posts an event to the one that is
// to be called.
#pragma once

#include <atomic>
#include <memory>

#include <nx/event/INxEventQueue.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/timer/INxTimerQueue.h>

class CNxTimerPreciseWrapperID;

class CNxTimerPreciseWrapperIDSink {
public:
    // A timer of this sink is due. On the timer's target thread, with no lock held; may schedule,
    // cancel and destroy any precise timer, `id` too. The library does not use `id` or the sink
    // any more once it has made the call.
    virtual void OnTimer(CNxTimerPreciseWrapperID* id) = 0;
    virtual ~CNxTimerPreciseWrapperIDSink() = default;
};

// CANCEL IT BEFORE IT IS DESTROYED, and before the target thread is: the destructor does not. A
// scheduled id that is destroyed ends the process in checking builds (NXBASE_CHECK_THREADS); in
// others the timer thread goes on to use it. Not needed for one that has fired for the last time
// and called its sink. Right after Cancel it may be destroyed, whatever is still under way.
//
// A cancelled timer does not call: an event of it that still waits at the target is void, also
// when the id is scheduled again meanwhile. On the target thread that is exact. On another one, a
// call that the target has begun to make is not waited for, so the sink must outlive it: cancel on
// the target thread, or after Cancel send that thread an event, before a sink is destroyed.
//
// Schedule and Cancel may be called on any thread, also at the same time.
class CNxTimerPreciseWrapperID : public INxTimerHandler {
public:
    // The first one starts the thread of all precise timers (nx/thread/CNxTimerPreciseManager.h),
    // so it is not made before InitMainThread.
    CNxTimerPreciseWrapperID();
    ~CNxTimerPreciseWrapperID() override;

    CNxTimerPreciseWrapperID(const CNxTimerPreciseWrapperID&) = delete;
    CNxTimerPreciseWrapperID& operator=(const CNxTimerPreciseWrapperID&) = delete;

    // Calls `sink` (not owned) on the thread of that type, first `interval` from now, then every
    // `interval`, `count` times in all, 0 meaning until cancelled. Replaces an earlier schedule of
    // the id, save for events that wait at the earlier target. With a null sink nobody is called.
    // An interval is rounded up to 10 ms; meant are 1 ms to two hours less 20 ms, what becomes of
    // others says nx/timer/CNxTimerQueueCalendar.h. None is refused.
    // AN EXPIRY FOR WHICH THERE IS NO MEMORY IS PASSED OVER, the last of a count too.
    // NX_OK. NX_ERROR_FAILURE without memory. NX_ERROR_INVALID_ARG for NX_THREAD_CALLING and
    // NX_THREAD_PRECISE_TIMER. NX_ERROR_NULL_POINTER when there is no such thread, when it has no
    // event queue (an earlier schedule of the id then goes on without calling anybody), and when
    // the timer thread does not run: it could not be started, or has ended since the id was made.
    [[nodiscard]] NxResult Schedule(CNxTimerPreciseWrapperIDSink* sink,
                                    const CNxTimeValue& interval, unsigned long count,
                                    int threadType);

    // NX_OK; NX_ERROR_FAILURE when nothing was scheduled since the last Cancel. The timer is
    // cancelled too with NX_ERROR_NOT_FOUND: it has fired for the last time, or its interval is
    // zero. NX_ERROR_NULL_POINTER, with nothing changed, when the timer thread does not run.
    NxResult Cancel();

    // On the timer thread, or on one that schedules when the timer is due: posts the event.
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

private:
    friend class CEventTimer;

    // Bit 0: scheduled. Above it: how often the id was cancelled, by which an event knows that it
    // is out of date. Shared with the events, which may outlive the id; written with the timer
    // thread's mutex held.
    using State = std::atomic<unsigned long>;
    static constexpr unsigned long c_scheduled = 1;

    bool IsScheduled() const { return (m_state->load() & c_scheduled) != 0; }
    void SetCancelled() { m_state->store((m_state->load() | c_scheduled) + 1); }
    void CheckNotPending_l();

    const std::shared_ptr<State> m_state;
    // Not owned.
    INxEventQueue* m_targetQueue = nullptr;
};

// Carries an expiry to the target thread.
class CEventTimer : public INxEvent {
public:
    // Neither is owned. `id` is looked at here only; null for either makes an event that does
    // nothing.
    CEventTimer(CNxTimerPreciseWrapperIDSink* sink, CNxTimerPreciseWrapperID* id);

    // Calls the sink if the id is scheduled and was not cancelled since the event was made. NX_OK.
    NxResult OnEventFire() override;

private:
    CNxTimerPreciseWrapperIDSink* const m_sink;
    CNxTimerPreciseWrapperID* const m_id;
    const std::shared_ptr<const CNxTimerPreciseWrapperID::State> m_state;
    // The state in which the event is good.
    const unsigned long m_validState;
};
