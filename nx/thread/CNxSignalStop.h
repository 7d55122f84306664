// Carries the wish to end the process from the network thread, where signals are taken, to the main
// thread.
#pragma once

#include <atomic>

#include <nx/event/INxEventQueue.h>

class CNxThread;

// One per process. Never deleted: the queue that carries it does not own it.
class CNxSignalStop : public INxEvent {
public:
    static CNxSignalStop* Instance();

    // Call it on the network thread, e.g. in an event that a signal made: posts this object to
    // that thread's queue, after the events that wait there, and prints
    // "CNxSignalStop::CNxSignalStop, PostEvent, rv=%d.\n" to standard output (CNxOwnLines). The
    // argument is not used.
    // The result of the post; NX_OK with nothing done when it was launched before or the caller is
    // not the network thread; NX_ERROR_FAILURE when there is no network thread or it has no queue.
    NxResult Launch(int signal);

    // On the network thread: prints "CNxSignalStop::OnEventFire. tid=%d.\n" and stops the main
    // thread. What its Stop returns, or NX_ERROR_NULL_POINTER without a main thread.
    NxResult OnEventFire() override;

    void OnDestorySelf() override {}

private:
    CNxSignalStop() = default;

    // Where it was launched; null before.
    std::atomic<CNxThread*> m_networkThread{nullptr};
};
