// The event that a send posts in place of the sender's.
#pragma once

#include <nx/event/INxEventQueue.h>
#include <nx/foundation/CNxSemaphore.h>

class CNxEventQueueBase;

// Passes the queue once: fires the sender's event on the queue's thread, destroys it there, and
// then, as the last thing that thread does with the wrapper, wakes the sender with the result. So
// the wrapper may lie on the sender's stack, and the sender owns it.
class CNxEventSynchronous : public INxEvent {
public:
    // Takes over `event` (null fires with NX_ERROR_NULL_POINTER). The queue is not used.
    CNxEventSynchronous(INxEvent* event, CNxEventQueueBase* queue);

    // Destroys the event if no queue did. Not while a queue has the wrapper.
    ~CNxEventSynchronous() override;

    CNxEventSynchronous(const CNxEventSynchronous&) = delete;
    CNxEventSynchronous& operator=(const CNxEventSynchronous&) = delete;

    NxResult OnEventFire() override;

    // Destroys the sender's event, wakes the sender, and does not touch the wrapper any more.
    void OnDestorySelf() override;

    // For the sending thread, once, after the wrapper was posted: waits without limit until a queue
    // has let go of it. The result of the event, or NX_ERROR_NOT_AVAILABLE when it was discarded
    // without having fired. A request to cancel the thread (pthread_cancel(3)) waits as well.
    [[nodiscard]] NxResult WaitResult();

    // The same for a wrapper made with new, which it deletes.
    NxResult WaitResultAndDeleteThis();

    // For a thread within an event that is not going to return, since it ends the process: wakes
    // the senders of the events that the thread is in, which are not destroyed any more.
    // NX_ERROR_NOT_AVAILABLE for those that have no result yet.
    static void AbandonUnderWay();

private:
    class CUnderWay;

    void DestroyWrappedEvent();

    INxEvent* m_event;
    // Written before m_done is given back, read by the sender after its wait.
    NxResult m_result = NX_ERROR_NOT_AVAILABLE;
    CNxSemaphore m_done;
    // The wrapper in whose event the thread came to this one.
    CNxEventSynchronous* m_outer = nullptr;
    // The process in which it came there (CNxProcessWide::CountForks).
    unsigned int m_forks = 0;
};
