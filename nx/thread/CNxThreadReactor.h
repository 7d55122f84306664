// The thread that runs a reactor.
#pragma once

#include <atomic>
#include <memory>

#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThread.h>

// Owns its reactor, which is its event queue and its timer queue as well.
class CNxThreadReactor : public CNxThread {
public:
    // Hands the reactor over, before Create. NX_OK; NX_ERROR_ALREADY_INITIALIZED when there is one
    // already, NX_ERROR_INVALID_ARG for null; the reactor then stays the caller's.
    [[nodiscard]] NxResult Init(INxReactor* reactor);

    // As CNxThread::Create. The reactor is opened on the thread that will run it, for type
    // NX_THREAD_MAIN in the call itself; when that fails its result is returned, with the thread
    // ended and, if joinable, joined: all that is left to do is Destory.
    [[nodiscard]] NxResult Create(int type, CNxThreadManager::TFlag flags) override;

    // Makes the reactor leave its loop after all events posted so far. NX_ERROR_NOT_IMPLEMENTED
    // for a time-out, NX_ERROR_NOT_INITIALIZED without a reactor, else what the reactor returns.
    NxResult Stop(CNxTimeValue* timeout) override;

    void OnThreadInit() override;

    // Runs the reactor's loop, then closes the reactor. A loop that ends with another result than
    // NX_OK is reported (CNxThreadManager::SetThreadEndObserver) before that.
    void OnThreadRun() override;

    // Null without a reactor.
    INxReactor* GetReactor() override { return m_reactor.get(); }
    INxEventQueue* GetEventQueue() override { return m_reactor.get(); }
    INxTimerQueue* GetTimerQueue() override { return m_reactor.get(); }

private:
    std::unique_ptr<INxReactor> m_reactor;
    std::atomic<int> m_stopAsked{0};
    // Of Open; written by the new thread while Create waits for it.
    NxResult m_openResult = NX_ERROR_NOT_INITIALIZED;
    int m_openErrno = 0;
};
