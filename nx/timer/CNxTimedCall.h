// A function that a timer calls, and the handle that can cancel it.
//
//     CNxTimedCall m_idle;
//     ...
//     if (m_idle.RunAfter(reactor, CNxTimeValue(30, 0), [this] { Close(); }) != NX_OK) { ... }
#pragma once

#include <new>
#include <utility>

#include <nx/foundation/CNxFunction.h>
#include <nx/timer/INxTimerQueue.h>

// One call at a time: what runs it anew replaces what is pending. A member of the object that the
// function uses, mostly: the end of either ends the calls.
//
// Belongs to the thread of its timer queue (a reactor or task thread). There it may be run anew,
// cancelled and destroyed at any time, also inside its own call: the function itself lives until it
// has returned. Once that thread's loop has ended and it was joined, any thread may cancel and
// destroy it. The timer queue must outlive it, unless it is cancelled before or was never run.
// Not for a CNxTimerQueueCalendar, which may still call a handler that another one has cancelled.
//
// Not movable: the timer queue knows it by its address.
class CNxTimedCall : private INxTimerHandler {
public:
    CNxTimedCall() = default;

    // As Cancel.
    ~CNxTimedCall() override { Cancel(); }

    CNxTimedCall(const CNxTimedCall&) = delete;
    CNxTimedCall& operator=(const CNxTimedCall&) = delete;

    // Call the function once, `interval` from now (at once, in the next turn of the loop, for zero
    // and less); respectively first then, and every `interval` until cancelled.
    // NX_OK, also when a pending call was replaced. NX_ERROR_INVALID_ARG for a null function and,
    // from RunEvery, an interval of zero or less; NX_ERROR_NOT_INITIALIZED for a reactor that is
    // not open; NX_ERROR_FAILURE without memory. After a failure the function is destroyed and all
    // is as before: a call that was pending still is.
    // Needs no memory of its own for a function that CNxFunctionT holds without.
    // What is inside its own call is not called again by a pass over the timers that it makes.
    template <class Function>
    [[nodiscard]] NxResult RunAfter(INxTimerQueue& timers, const CNxTimeValue& interval,
                                    Function function) {
        return Run(timers, interval, 1, std::move(function));
    }
    template <class Function>
    [[nodiscard]] NxResult RunEvery(INxTimerQueue& timers, const CNxTimeValue& interval,
                                    Function function) {
        return Run(timers, interval, c_untilCancelled, std::move(function));
    }

    // From here on the function is not called any more; it is destroyed, when it runs at its
    // return. Nothing to do when none is pending.
    void Cancel();

    // Whether it is to be called again: false inside the call of RunAfter, true in that of RunEvery
    // as long as it is not cancelled. A timer queue that is closed or destroyed does not tell.
    bool IsPending() const { return m_timers != nullptr; }

private:
    class CUnderWay;

    static constexpr unsigned long c_untilCancelled = 0;

    template <class Function>
    NxResult Run(INxTimerQueue& timers, const CNxTimeValue& interval, unsigned long count,
                 Function&& function) {
        try {
            return Schedule(timers, interval, count, std::forward<Function>(function));
        } catch (const std::bad_alloc&) {
            return NX_ERROR_FAILURE;
        }
    }

    NxResult Schedule(INxTimerQueue& timers, const CNxTimeValue& interval, unsigned long count,
                      CNxFunctionT<void()> function);
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    // Where the timer is; null when there is none.
    INxTimerQueue* m_timers = nullptr;
    bool m_isPeriodic = false;
    // Empty while it runs.
    CNxFunctionT<void()> m_function;
    CUnderWay* m_underWay = nullptr;
};
