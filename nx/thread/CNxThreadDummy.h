// A second name for a thread: stands in the registry under another type and leads to its queues.
#pragma once

#include <nx/thread/CNxThread.h>

// Made with new, given its thread by Init, ended with Destory. The actual thread is not owned and
// must outlive the dummy. The dummy keeps the thread id that it took over: end it before the actual
// thread ends, or a later thread that gets the same id from the system may be taken for it.
class CNxThreadDummy : public CNxThread {
public:
    // Registers the dummy under `type` with the identity of `actual`. NX_OK;
    // NX_ERROR_ALREADY_INITIALIZED on a second call, NX_ERROR_INVALID_ARG for null or type -1,
    // NX_ERROR_FOUND when the type is taken.
    [[nodiscard]] NxResult Init(CNxThread* actual, int type);

    // A dummy starts nothing. NX_ERROR_NOT_IMPLEMENTED.
    [[nodiscard]] NxResult Create(int type, CNxThreadManager::TFlag flags) override;

    // Stops the actual thread and returns what that does; NX_ERROR_NOT_INITIALIZED without one.
    NxResult Stop(CNxTimeValue* timeout) override;

    void OnThreadRun() override {}

    // Those of the actual thread; null without one.
    INxReactor* GetReactor() override;
    INxEventQueue* GetEventQueue() override;
    INxTimerQueue* GetTimerQueue() override;

    EEnd GetEnd() const override { return EEnd::WITH_ANOTHER; }

private:
    CNxThread* m_actual = nullptr;
};
