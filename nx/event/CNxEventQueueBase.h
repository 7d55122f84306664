// The core of the event queues, without a lock, and the wrapper that turns a post into a send.
#pragma once

#include <atomic>
#include <list>

#include <nx/event/INxEventQueue.h>
#include <nx/foundation/CNxEventThread.h>
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
    CNxEventQueueBase();

    // Destroys what still waits, in order, without firing it.
    ~CNxEventQueueBase() override;

    CNxEventQueueBase(const CNxEventQueueBase&) = delete;
    CNxEventQueueBase& operator=(const CNxEventQueueBase&) = delete;

    NxResult PostEvent(INxEvent* event, EPriority priority) override;
    NxResult SendEvent(INxEvent* event) override;
    size_t GetPendingEventsCount() override;

    // Destroys what waits, in order, without firing it. Waiting senders wake with
    // NX_ERROR_NOT_AVAILABLE.
    virtual void DestoryPendingEvents();

    // The same, and refuses every event from then on, with no gap between the two.
    virtual void StopAndDestoryPendingEvents();

    // Moves up to `max` events, oldest first, to `out`, which must be empty; `remaining` (may be
    // null) gets the number left. With `max` 0 nothing moves and the answer is NX_OK.
    // NX_OK, or NX_ERROR_NOT_FOUND when nothing waits; then nothing is written.
    // Takes no lock: the owner of a locked queue holds its mutex.
    NxResult PopPendingEvents(std::list<INxEvent*>& out, size_t max, size_t* remaining);

    // The same for the oldest event alone.
    NxResult PopOnePendingEvent(INxEvent*& out, size_t* remaining);

    // Fires and destroys each event, in order; null entries are passed over. The list stays as it
    // is: the caller clears it. NX_OK. Without any lock held.
    NxResult ProcessEvents(const std::list<INxEvent*>& events);

    // For a caller within ProcessEvents that is not going to return, since it ends the process:
    // wakes the sender of the event that it is in, and destroys those behind it unfired. Senders
    // read NX_ERROR_NOT_AVAILABLE. For any other caller it does nothing.
    static void AbandonBatches();

    // NX_ERROR_INVALID_ARG for null, else NX_OK.
    NxResult ProcessOneEvent(INxEvent* event);

    // The thread that drains the queue; 0 as long as there is none.
    void SetOwnerThreadId(unsigned long id) { m_ownerThreadId.store(id); }
    unsigned long GetOwnerThreadId() const { return m_ownerThreadId.load(); }

    bool IsQueueStopped() const { return m_stopped.load(std::memory_order_relaxed) != 0; }

    // 50 ms: a handler or event that runs longer counts as slow.
    static CNxTimeValue s_tvReportInterval() { return {0, 50000}; }

protected:
    // One list node made before the lock is taken, so that none is allocated under it.
    using Node = std::list<INxEvent*>;

    // Appends the event in `node`, or answers why not. Does not destroy it.
    NxResult Append_i(Node& node);

    // What a post still owes once the lock is released: a refused event is destroyed.
    static NxResult FinishPost(INxEvent* event, NxResult result);

    // Moves all that waits to `out`.
    void TakeAll_i(std::list<INxEvent*>& out);

    static void DestroyAll(const std::list<INxEvent*>& events);

    void SetStopped_i(bool stopped) { m_stopped.store(stopped ? 1 : 0, std::memory_order_relaxed); }

private:
    std::list<INxEvent*> m_pendingEvents;
    size_t m_pendingCount = 0;

protected:
    // When a backlog was last reported: for subclasses that report one.
    CNxTimeValue m_reportTime;

private:
    std::atomic<unsigned long> m_ownerThreadId{0};
    std::atomic<int> m_stopped{0};
};

// The event that SendEvent posts in place of the sender's: it fires the sender's event and wakes
// the sender with the result.
//
// Two threads let go of a wrapper: the queue's, after it fired or discarded it, and the sender's,
// after it has the result. Whichever is last deletes it. So that the deletion normally falls to
// the queue's thread, the sender posts a fired wrapper once more; a discarded one it releases
// itself, because its queue may be gone.
class CNxEventSynchronous : public INxEvent {
public:
    // Takes over `event` (null is answered with NX_ERROR_NULL_POINTER when it fires). The queue is
    // not owned.
    CNxEventSynchronous(INxEvent* event, CNxEventQueueBase* queue);

    // Destroys the event if the wrapper still has it, and wakes the sender if it never fired.
    ~CNxEventSynchronous() override;

    NxResult OnEventFire() override;
    void OnDestorySelf() override;

    // For the queue's thread, within OnEventFire, when that is not going to return: wakes the
    // sender with NX_ERROR_NOT_AVAILABLE. Neither the wrapper nor its event is destroyed any more.
    void Abandon();

    // For the sending thread, once: waits without limit until the wrapper has fired or was
    // discarded. The result of the event, or NX_ERROR_NOT_AVAILABLE when it was discarded. The
    // wrapper must not be touched afterwards. If the wait itself fails its code is returned, and
    // the wrapper is left alone because the queue still has it.
    NxResult WaitResultAndDeleteThis();

private:
    void DestroyWrappedEvent();

    std::atomic<INxEvent*> m_event;
    NxResult m_result = NX_ERROR_NOT_AVAILABLE;
    CNxEventQueueBase* const m_queue;
    std::atomic<int> m_firstDestructionDone{0};
    CNxEventThread m_done{0, 0};
    // Written before m_done is signalled, read by the sender after its wait.
    bool m_fired = false;
};
