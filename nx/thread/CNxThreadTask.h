// The worker threads: one that drains an event queue, and one that runs timers besides.
#pragma once

#include <memory>

#include <nx/event/CNxEventQueueUsingConditionVariable.h>
#include <nx/event/CNxEventStop.h>
#include <nx/foundation/CNxUtilClasses.h>
#include <nx/thread/CNxThread.h>
#include <nx/timer/CNxTimerPriorityQueue.h>

// Sleeps until events come and fires them in order.
class CNxThreadTaskWithEventQueueOnly : public CNxThread, public CNxStopFlag {
public:
    // Ends the loop after all events posted so far; later ones are refused with
    // NX_ERROR_NOT_INITIALIZED. The time-out is not used: Join waits for the end.
    // NX_OK, or NX_ERROR_NOT_INITIALIZED when it was stopped before.
    NxResult Stop(CNxTimeValue* timeout) override;

    // Makes the calling thread the one that drains the queue.
    void OnThreadInit() override;
    void OnThreadRun() override;

    INxEventQueue* GetEventQueue() override { return &m_eventQueue; }

    void BindToCallingThread() override;

private:
    // Lies in the thread, so that stopping needs no memory.
    class CStopEvent : public CNxEventStopT<CNxThreadTaskWithEventQueueOnly> {
    public:
        using CNxEventStopT::CNxEventStopT;
        void OnDestorySelf() override {}
    };
    CStopEvent m_stopEvent{this};

protected:
    // The start of a turn: `wait` (no limit) may be made the time until the loop is needed again.
    // Returns the most events that the turn fires.
    virtual size_t BeginTurn(CNxTimeValue& wait);

    CNxEventQueueUsingConditionVariable m_eventQueue;
};

// Alternates between its timers and its events: due timers fire before each look at the queue, and
// at most 100,000 events are fired between two looks at the timers, and while there is a timer it
// looks once a second, in case the system clock has been set.
class CNxThreadTask : public CNxThreadTaskWithEventQueueOnly {
public:
    void OnThreadInit() override;
    void OnThreadRun() override;

    // Null before OnThreadInit.
    INxTimerQueue* GetTimerQueue() override { return m_timerQueue.get(); }

protected:
    size_t BeginTurn(CNxTimeValue& wait) override;

private:
    std::unique_ptr<CNxTimerPriorityQueue> m_timerQueue;
};
