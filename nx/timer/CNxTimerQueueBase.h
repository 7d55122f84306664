// The engine of the list- and heap-ordered timer queues: scheduling, cancelling and the expiry pass
// over a container that a subclass supplies.
#pragma once

#include <nx/foundation/CNxUtilClasses.h>
#include <nx/foundation/INxObserver.h>
#include <nx/timer/INxTimerQueue.h>

// Belongs to the thread that made it (Reset2CurrentThread moves it); takes no lock. Has no thread
// of its own: the owner calls CheckExpire from its loop. Pending timers are dropped with the
// queue, their handlers are not told.
class CNxTimerQueueBase : public INxTimerQueue {
public:
    // The observer is told ("TimerQueue", null data) when a timer comes into the empty queue, so
    // that a sleeping owner can be woken. May be null; not owned.
    explicit CNxTimerQueueBase(INxObserver* observer) : m_observer(observer) {}

    CNxTimerQueueBase(const CNxTimerQueueBase&) = delete;
    CNxTimerQueueBase& operator=(const CNxTimerQueueBase&) = delete;

    // As INxTimerQueue. Also NX_ERROR_INVALID_ARG for an interval of zero or less with a count
    // other than 1; a one-shot timer may have it, and is due at once. Count ~0ul is endless like 0.
    // An expiry beyond the largest time value never comes. NX_ERROR_FAILURE when the container
    // refuses, or without memory.
    [[nodiscard]] NxResult ScheduleTimer(INxTimerHandler* handler, void* token,
                                         const CNxTimeValue& interval,
                                         unsigned long count) override;
    NxResult CancelTimer(INxTimerHandler* handler) override;

    // The earliest expiry, s_tvMax() when no timer is pending.
    virtual CNxTimeValue GetEarliestTime();

    // Fires every timer that is due, in order of expiry, and returns how many fired.
    // `remainTime` (may be null) gets the time until the next timer, s_tvMax() when there is none.
    // A timer that is due again is armed anew, one interval from the start of this pass, before
    // its handler runs: a late pass fires it once and does not catch up.
    virtual int CheckExpire(CNxTimeValue* remainTime);

    virtual void Dump() {}

    void Reset2CurrentThread() override { m_Est.Reset2CurrentThreadId(); }

    // For the end of the owner's loop: from here on any thread may cancel what is left, until
    // Reset2CurrentThread.
    void LetGo() { m_Est.LetGo(); }

protected:
    static constexpr unsigned long c_endless = ~0ul;

    struct CNode {
        INxTimerHandler* m_handler;
        void* m_token;
        CNxTimeValue m_expiry;
        CNxTimeValue m_interval;
        unsigned long m_count;  // firings left; c_endless is never counted down
    };

    // The container. Among equal expiries the node that was pushed last is the first. Results:
    // NX_OK; NX_ERROR_FOUND when a push replaced the handler's node; NX_ERROR_NOT_FOUND when there
    // is no such node. Any other code of a subclass counts as NX_ERROR_FAILURE. PushNode_l may
    // throw std::bad_alloc, with the container as it was; RePushNode_l needs no memory after
    // PopFirstNode_l.
    [[nodiscard]] virtual NxResult PushNode_l(const CNode& node) = 0;
    [[nodiscard]] virtual NxResult EraseNode_l(INxTimerHandler* handler) = 0;
    // Pushes a node whose handler is known to have none.
    [[nodiscard]] virtual NxResult RePushNode_l(const CNode& node) = 0;
    // Takes the earliest node out.
    [[nodiscard]] virtual NxResult PopFirstNode_l(CNode& node) = 0;
    [[nodiscard]] virtual NxResult GetEarliestTime_l(CNxTimeValue& time) const = 0;

private:
    NxResult Push(const CNode& node);
    int FireDueNodes(const CNxTimeValue& now);
    void ArmAgain(CNode& node, const CNxTimeValue& now);

    CNxEnsureSingleThread m_Est;
    INxObserver* const m_observer;
};
