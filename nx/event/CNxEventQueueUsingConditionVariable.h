// The event queue that any thread may post to and whose owner sleeps until something comes.
#pragma once

#include <nx/event/CNxEventQueueLocked.h>
#include <nx/foundation/CNxSemaphore.h>

class CNxEventQueueUsingConditionVariable : public CNxEventQueueLocked {
public:
    // Posts the last event of the queue: refuses every later one, with no gap between the two, so
    // that none is stranded after it. Results as PostEvent.
    NxResult PostLastEvent(INxEvent* event) { return Post(event, EAfter::STOPPED, nullptr); }

    // For the owner: if nothing waits, sleeps once for at most `timeout` (relative; null or
    // s_tvMax(): without limit), then pops up to `max` events into `out`, which must be empty.
    // As PopPendingEvents; NX_ERROR_NOT_FOUND when there is still nothing: the time ran out, or the
    // wake-up came without an event.
    [[nodiscard]] NxResult PopOrWaitPendingEvents(Batch& out, CNxTimeValue* timeout, size_t max);
    [[nodiscard]] NxResult PopOrWaitPendingEvents(std::list<INxEvent*>& out, CNxTimeValue* timeout,
                                                  size_t max);

protected:
    void WakeSleeper() override;

private:
    class CSleeper;

    void WaitForEvent_l(const CNxTimeValue* timeout) NX_REQUIRES(m_mutex);
    [[nodiscard]] NxResult Sleep_l(const CNxTimeValue& deadline) NX_REQUIRES(m_mutex);

    // One for each sleeper that was taken out of m_sleepers. A semaphore and not a condition: it
    // may be given back without the mutex, although a sleeper that it lets go may destroy the
    // queue.
    CNxSemaphore m_wakeUps;
};
