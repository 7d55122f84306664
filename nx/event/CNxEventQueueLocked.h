// What the queues for use between threads have in common: the core and a mutex.
#pragma once

#include <nx/event/CNxEventQueueBase.h>
#include <nx/foundation/CNxMutexOverFork.h>

// Posting, sending, counting and both ways of destroying what waits lock the mutex themselves.
// Events are fired and destroyed without it, so an event may post to its own queue at any point.
class CNxEventQueueLocked : public CNxEventQueueBase {
public:
    NxResult PostEvent(INxEvent* event, EPriority priority = PRIORITY_NORMAL) override;
    size_t GetPendingEventsCount() override;
    void DestoryPendingEvents() override;
    void StopAndDestoryPendingEvents() override;

protected:
    // As PostEvent. `oldSize` (may be null) gets the number of events that waited before this one,
    // whatever becomes of it. An accepted event leaves the queue open or stops it, with no gap
    // between the two.
    NxResult Post(INxEvent* event, EAfter after, size_t* oldSize);

    // Lets one thread go that has counted itself in m_sleepers; called without the mutex, after the
    // count was taken down for it. That thread does not leave the queue before it was let go, so
    // the queue is still there.
    virtual void WakeSleeper() {}

    CNxMutexOverFork m_mutex;

    // How many threads wait for an event, and have not been promised a wake-up yet.
    unsigned long m_sleepers NX_GUARDED_BY(m_mutex) = 0;
};
