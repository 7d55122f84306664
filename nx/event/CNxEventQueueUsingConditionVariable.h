// The event queue that any thread may post to and whose owner sleeps until something comes.
#pragma once

#include <nx/event/CNxEventQueueLocked.h>
#include <nx/foundation/CNxConditionVariableThread.h>

class CNxEventQueueUsingConditionVariable : public CNxEventQueueLocked {
public:
    CNxEventQueueUsingConditionVariable() : m_condition(m_mutex) {}

    // Posts the last event of the queue: refuses every later one, with no gap between the two, so
    // that none is stranded after it. Results as PostEvent.
    NxResult PostLastEvent(INxEvent* event) { return Post(event, EAfter::STOPPED, nullptr); }

    // For the owner: if nothing waits, sleeps once for at most `timeout` (relative; null or
    // s_tvMax(): without limit), then pops up to `max` events into `out`, which must be empty.
    // NX_OK, or NX_ERROR_NOT_FOUND when there is still nothing: the time ran out, or the wake-up
    // came without an event.
    [[nodiscard]] NxResult PopOrWaitPendingEvents(std::list<INxEvent*>& out, CNxTimeValue* timeout,
                                                  size_t max);

protected:
    void OnAppended_l() override;

private:
    CNxConditionVariableThread m_condition;
};
