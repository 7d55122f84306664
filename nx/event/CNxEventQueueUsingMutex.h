// The event queue that any thread may post to and that its owner polls.
#pragma once

#include <nx/event/CNxEventQueueBase.h>
#include <nx/foundation/CNxMutexThread.h>

// CNxEventQueueBase behind a mutex. PostEvent, SendEvent, GetPendingEventsCount and both ways of
// destroying what waits lock it themselves; the owner locks GetMutex() around the pop operations.
// Events are fired and destroyed without it, so an event may post to its own queue at any point.
class CNxEventQueueUsingMutex : public CNxEventQueueBase {
public:
    NxResult PostEvent(INxEvent* event, EPriority priority) override;
    size_t GetPendingEventsCount() override;
    void DestoryPendingEvents() override;
    void StopAndDestoryPendingEvents() override;

    // As PostEvent; `oldSize` (may be null) gets the number of events that waited before this one,
    // whatever becomes of it.
    NxResult PostEventWithOldSize(INxEvent* event, EPriority priority, size_t* oldSize);

    CNxMutexThread& GetMutex() { return m_mutex; }

private:
    CNxMutexThread m_mutex;
};
