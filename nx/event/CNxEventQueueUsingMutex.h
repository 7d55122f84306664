// The event queue that any thread may post to and that its owner polls.
#pragma once

#include <nx/event/CNxEventQueueLocked.h>

// The owner locks GetMutex() around the pop operations.
class CNxEventQueueUsingMutex : public CNxEventQueueLocked {
public:
    // As PostEvent; `oldSize` (may be null) gets the number of events that waited before this one,
    // whatever becomes of it.
    NxResult PostEventWithOldSize(INxEvent* event, EPriority /*priority*/, size_t* oldSize) {
        return Post(event, EAfter::OPEN, oldSize);
    }

    CNxMutexThread& GetMutex() { return m_mutex; }
};
