// What the queues for use between threads have in common: the core and a mutex.
#pragma once

#include <nx/event/CNxEventQueueBase.h>
#include <nx/foundation/CNxMutexOverFork.h>

// Posting, sending, counting and both ways of destroying what waits lock the mutex themselves.
// Events are fired and destroyed without it, so an event may post to its own queue at any point.
class CNxEventQueueLocked : public CNxEventQueueBase {
public:
    NxResult PostEvent(INxEvent* event, EPriority priority) override;
    size_t GetPendingEventsCount() override;
    void DestoryPendingEvents() override;
    void StopAndDestoryPendingEvents() override;

protected:
    // What becomes of the queue with the event.
    enum class EAfter { OPEN, STOPPED };

    // As PostEvent. `oldSize` (may be null) gets the number of events that waited before this one,
    // whatever becomes of it. An accepted event leaves the queue open or stops it, with no gap
    // between the two.
    NxResult Post(INxEvent* event, EAfter after, size_t* oldSize);

    // An event has been appended; called with the mutex held.
    virtual void OnAppended_l() {}

    CNxMutexOverFork m_mutex;

private:
    // For the last event, so that stopping needs no memory; empty once that has been posted.
    Node m_lastNode NX_GUARDED_BY(m_mutex){nullptr};
};
