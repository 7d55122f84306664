// The event that ends the loop of the thread that fires it.
#pragma once

#include <nx/event/INxEventQueue.h>

// Thread is a kind with SetStopFlag(); it must outlive the event, which it does in its own queue.
template <class Thread>
class CNxEventStopT : public INxEvent {
public:
    explicit CNxEventStopT(Thread* thread) : m_thread(thread) {}

    NxResult OnEventFire() override {
        m_thread->SetStopFlag();
        return NX_OK;
    }

private:
    Thread* const m_thread;
};
