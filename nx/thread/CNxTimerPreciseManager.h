// The thread that drives the precise timers of the process. Programs use it through
// nx/thread/CNxTimerPreciseWrapperID.h.
#pragma once

#include <memory>

#include <nx/foundation/CNxConditionVariableThread.h>
#include <nx/foundation/CNxUtilClasses.h>
#include <nx/thread/CNxThread.h>
#include <nx/timer/CNxTimerQueueCalendar.h>

class CNxTimerPreciseWrapperID;
class CNxTimerPreciseWrapperIDSink;

// One per process: thread NX_THREAD_PRECISE_TIMER, made with the first id or Instance(). It turns a
// wheel of two hours by one slot for every 10 ms of the monotonic clock, so that setting the system
// clock moves no precise timer, and sleeps until the next one is due. Ticks that come late are made
// up for, up to a second of them: after a longer pause (a stopped process, a thread that got no
// processor) all timers go on from there.
//
// It runs until JoinAllThreads after StopAllThreads, or until the tear-down: both end and join it
// after the other threads. Its timers are dropped then. The next id or Instance() starts a new
// one.
//
// Any thread may call any operation. One mutex serialises them with the ticks; it outlives
// everything, so ids may be used at any time, also by threads that still run during exit().
class CNxTimerPreciseManager final : public CNxThread, public CNxStopFlag {
public:
    // The running manager, started if there is none; null when it cannot be started: no system
    // thread to be had, or the thread type is taken.
    static CNxTimerPreciseManager* Instance();

    // What CNxTimerPreciseWrapperID does, less the id's own state: one that was not scheduled
    // itself is not called. NX_OK, also when the thread has ended and nothing is scheduled;
    // NX_ERROR_FAILURE without memory.
    [[nodiscard]] NxResult Schedule(CNxTimerPreciseWrapperID* id,
                                    CNxTimerPreciseWrapperIDSink* sink,
                                    const CNxTimeValue& interval, unsigned long count);

    // NX_OK; NX_ERROR_NULL_POINTER for null and when the thread has ended; NX_ERROR_NOT_FOUND when
    // no timer is pending, and for one with an interval of zero, which is cancelled all the same.
    NxResult Cancel(CNxTimerPreciseWrapperID* id);

    // Changes nothing: timers go on while other threads come to their end. NX_OK.
    NxResult Stop(CNxTimeValue* /*timeout*/) override { return NX_OK; }

    void OnThreadInit() override;
    void OnThreadRun() override;

    EEnd GetEnd() const override { return EEnd::AFTER_ALL_OTHERS; }

    // For the thread manager. Ends the thread and waits for that; nothing to do when it does not
    // run, or when called on it. The object stays registered.
    static void EndAndJoin();

    // Around a fork: the child has no timer thread, and starts one of its own when it needs it.
    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();

    // Destroys an ended and joined manager, so that its thread type is free. False when there is
    // one that is not.
    static bool DestroyEnded();

    ~CNxTimerPreciseManager() override;

private:
    friend class CNxTimerPreciseWrapperID;

    CNxTimerPreciseManager();

    // Guards the calendar and the state of every id. Never destroyed.
    static CNxMutexThread& GetMutex();
    static CNxTimerPreciseManager* Current();
    static CNxTimerPreciseManager* Start();

    // With the mutex held.
    NxResult Schedule_l(INxTimerHandler* id, void* sink, const CNxTimeValue& interval,
                        unsigned long count);
    NxResult Cancel_l(INxTimerHandler* id);

    void CatchUp_l();
    void SleepUntilNext_l();

    // Null when the thread shall end or has ended. This and what follows with the mutex held.
    std::unique_ptr<CNxTimerQueueCalendar> m_calendar;
    // When the last tick was due, and when the thread is going to wake; of the monotonic clock.
    CNxTimeValue m_lastTick = CNxTimeValue::GetMonotonicTime();
    CNxTimeValue m_wakeTime;
    CNxConditionVariableThread m_wake{GetMutex()};
    std::atomic<int> m_joined{0};
};
