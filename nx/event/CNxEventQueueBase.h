// The core of the event queues, without a lock.
#pragma once

#include <pthread.h>

#include <atomic>
#include <list>
#include <vector>

#include <nx/event/INxEventQueue.h>
#include <nx/foundation/CNxTimeValue.h>

// A first-in first-out list of events with the rules of posting, sending, popping and refusing.
// Safe only where the caller holds the lock of the owning object; the queues for use between
// threads are CNxEventQueueUsingMutex and CNxEventQueueUsingConditionVariable.
//
// Open from construction. The thread that drains it writes its id into it when it starts; once
// stopped it refuses every event with NX_ERROR_NOT_INITIALIZED. Posting reads no clock.
//
// A queue must outlive every SendEvent that is under way on it.
class CNxEventQueueBase : public INxEventQueue {
public:
    // Events that have been popped, oldest first. The queue keeps its own in the same way: who pops
    // into the same batch again and again, cleared, has it swapped, and nothing is allocated.
    using Batch = std::vector<INxEvent*>;

    CNxEventQueueBase();

    // Destroys what still waits, in order, without firing it.
    ~CNxEventQueueBase() override;

    CNxEventQueueBase(const CNxEventQueueBase&) = delete;
    CNxEventQueueBase& operator=(const CNxEventQueueBase&) = delete;

    NxResult PostEvent(INxEvent* event, EPriority priority = PRIORITY_NORMAL) override;
    NxResult SendEvent(INxEvent* event) override;
    size_t GetPendingEventsCount() override;

    // Destroys what waits, in order, without firing it. Waiting senders wake with
    // NX_ERROR_NOT_AVAILABLE.
    virtual void DestoryPendingEvents();

    void StopAndDestoryPendingEvents() override;

    // Moves up to `max` events, oldest first, to `out`, which must be empty; `remaining` (may be
    // null) gets the number left. With `max` 0 nothing moves and the result is NX_OK.
    // NX_OK; NX_ERROR_NOT_FOUND when nothing waits, NX_ERROR_FAILURE without memory for `out`, and
    // then nothing is written. Taking all into a batch needs none; of more than `max` a batch gets
    // as many as there is memory for.
    // Takes no lock: the owner of a locked queue holds its mutex.
    [[nodiscard]] NxResult PopPendingEvents(Batch& out, size_t max, size_t* remaining);
    [[nodiscard]] NxResult PopPendingEvents(std::list<INxEvent*>& out, size_t max,
                                            size_t* remaining);

    // The same for the oldest event alone.
    [[nodiscard]] NxResult PopOnePendingEvent(INxEvent*& out, size_t* remaining);

    // Fires and destroys each event, in order; null entries are passed over. The container stays as
    // it is: the caller clears it. NX_OK. Without any lock held.
    NxResult ProcessEvents(const Batch& events);
    NxResult ProcessEvents(const std::list<INxEvent*>& events);

    // Empties a batch that has been processed, and frees its memory if a burst has made it large.
    static void Clear(Batch& batch);

    // For a caller within an event that is not going to return, since it ends the process: wakes
    // the sender of that event, and destroys unfired those that were taken off the queue with it.
    // Senders get NX_ERROR_NOT_AVAILABLE. For any other caller it does nothing, nor for an event in
    // which the process was forked: that is the parent's.
    static void AbandonBatches();

    // NX_ERROR_INVALID_ARG for null, else NX_OK.
    NxResult ProcessOneEvent(INxEvent* event);

    // The thread that drains the queue; 0 as long as there is none.
    void SetOwnerThreadId(unsigned long id) { m_ownerThreadId.store(id); }
    void Reset2CurrentThread() override { SetOwnerThreadId(pthread_self()); }
    unsigned long GetOwnerThreadId() const { return m_ownerThreadId.load(); }

    bool IsQueueStopped() const { return m_stopped.load(std::memory_order_relaxed) != 0; }

    // 50 ms: a handler or event that runs longer counts as slow.
    static CNxTimeValue s_tvReportInterval() { return {0, 50000}; }

protected:
    // What becomes of the queue with the event.
    enum class EAfter { OPEN, STOPPED };

    // Appends the event, or returns why not. Does not destroy it. The event that stops the queue
    // needs no memory.
    [[nodiscard]] NxResult Append_i(INxEvent* event, EAfter after);

    // Fires the event; its exceptions end the process.
    static NxResult Fire(INxEvent* event);

    // What a post still owes once the lock is released: a refused event is destroyed.
    static NxResult FinishPost(INxEvent* event, NxResult result);

    // GetPendingEventsCount without a lock.
    size_t GetCount_i() const { return m_pendingEvents.size() - m_first; }

    // Moves all that waits to the empty `out`.
    void TakeAll_i(Batch& out);

    static void DestroyAll(const Batch& events);

    void SetStopped_i(bool stopped) { m_stopped.store(stopped ? 1 : 0, std::memory_order_relaxed); }

private:
    [[nodiscard]] bool MakeRoom_i(EAfter after);
    [[nodiscard]] size_t CopyFirst_i(Batch& out, size_t most) const;
    void DropFirst_i(size_t count);
    void DropPopped_i();

    // Those before m_first are popped already. With events in it there is always room for one more,
    // the last; m_lastPlace is that room for an empty queue.
    Batch m_pendingEvents;
    size_t m_first = 0;
    Batch m_lastPlace;

protected:
    // When a backlog was last reported: for subclasses that report one.
    CNxTimeValue m_reportTime;

private:
    std::atomic<unsigned long> m_ownerThreadId{0};
    std::atomic<int> m_stopped{0};
};
