// A thread object that is driven from a loop of the application's own.
#pragma once

#include <memory>

#include <nx/event/CNxEventQueueUsingMutex.h>
#include <nx/thread/CNxThread.h>
#include <nx/timer/CNxTimerPriorityQueue.h>

// Gives a loop that the library does not run an event queue and timers:
//     auto* heart = new CNxThreadHeartBeat;
//     heart->CreateNotRun(type, CNxThreadManager::FLAG_JOINABLE);
//     heart->OnThreadInit();
//     for (...) { ...; heart->DoHeartBeat(); }
//     heart->Destory(0);
// Nothing wakes the application's loop when an event comes: how soon it fires is a matter of how
// often DoHeartBeat is called. CreateNotRun, OnThreadInit, DoHeartBeat and Destory belong to the
// thread of that loop.
class CNxThreadHeartBeat : public CNxThread {
public:
    // There is no loop to stop. NX_OK.
    NxResult Stop(CNxTimeValue* /*timeout*/) override { return NX_OK; }

    void OnThreadInit() override;

    // One heartbeat.
    void OnThreadRun() override { DoHeartBeat(); }

    // Fires every due timer, then every event that waits. Never blocks. NX_OK.
    NxResult DoHeartBeat();

    INxEventQueue* GetEventQueue() override { return &m_eventQueue; }

    // Null before OnThreadInit.
    INxTimerQueue* GetTimerQueue() override { return m_timerQueue.get(); }

    EEnd GetEnd() const override { return EEnd::BY_APPLICATION; }

private:
    CNxEventQueueUsingMutex m_eventQueue;
    std::unique_ptr<CNxTimerPriorityQueue> m_timerQueue;
};
