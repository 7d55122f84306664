// The event queue that any thread may post to and whose owner sleeps until something comes.
#pragma once

#include <nx/event/CNxEventQueueBase.h>
#include <nx/foundation/CNxConditionVariableThread.h>

// CNxEventQueueBase behind a mutex and a condition variable. Every operation below locks by itself;
// events are fired and destroyed without the lock, so an event may post to its own queue at any
// point.
class CNxEventQueueUsingConditionVariable : public CNxEventQueueBase {
public:
    CNxEventQueueUsingConditionVariable() : m_condition(m_mutex) {}

    NxResult PostEvent(INxEvent* event, EPriority priority) override;
    size_t GetPendingEventsCount() override;
    void DestoryPendingEvents() override;
    void StopAndDestoryPendingEvents() override;

    // Posts the last event of the queue: refuses every later one, with no gap between the two, so
    // that none is stranded behind it. Results as PostEvent.
    NxResult PostLastEvent(INxEvent* event);

    // For the owner: if nothing waits, sleeps once for at most `timeout` (relative; null or
    // s_tvMax(): without limit), then pops up to `max` events into `out`, which must be empty.
    // NX_OK, or NX_ERROR_NOT_FOUND when there is still nothing: the time ran out, or the wake-up
    // came without an event.
    NxResult PopOrWaitPendingEvents(std::list<INxEvent*>& out, CNxTimeValue* timeout, size_t max);

private:
    NxResult Post_i(INxEvent* event, bool last);

    CNxMutexThread m_mutex;
    CNxConditionVariableThread m_condition;
};
