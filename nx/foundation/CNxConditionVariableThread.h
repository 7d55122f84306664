// A condition variable that waits with one CNxMutexThread and takes relative time-outs.
#pragma once

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxTimeValue.h>

// Over pthread_cond_t with the monotonic clock: setting the system clock changes no wait. The mutex
// is the caller's and must outlive the condition. Any thread may call any operation.
//
// A wake-up is a hint: Wait may also return NX_OK without a signal (pthread_cond_wait(3p)), so
// callers re-check what they wait for, in a loop.
class CNxConditionVariableThread {
public:
    explicit CNxConditionVariableThread(CNxMutexThread& mutex);
    ~CNxConditionVariableThread();

    CNxConditionVariableThread(const CNxConditionVariableThread&) = delete;
    CNxConditionVariableThread& operator=(const CNxConditionVariableThread&) = delete;

    // Wakes one waiting thread, if any. NX_OK or NX_ERROR_FAILURE.
    NxResult Signal();

    // Wakes every waiting thread. NX_OK or NX_ERROR_FAILURE.
    NxResult Broadcast();

    // Call with the mutex locked; it is released while waiting and held again on return.
    // `timeout` is relative; null or s_tvMax() waits without limit, zero or less does not wait.
    // NX_OK when woken, NX_ERROR_TIMEOUT when the time ran out, NX_ERROR_FAILURE otherwise.
    [[nodiscard]] NxResult Wait(CNxTimeValue* timeout);

    // The same with a point of the MONOTONIC clock (CNxTimeValue::GetMonotonicTime), for loops that
    // re-check: the limit does not start anew with every wake-up. s_tvMax() waits without limit.
    [[nodiscard]] NxResult WaitUntil(const CNxTimeValue& deadline);

    // The deadline that WaitUntil takes for a relative `timeout` counted from now; s_tvMax() for
    // null and for what lies beyond the largest time value.
    static CNxTimeValue GetDeadline(const CNxTimeValue* timeout);

private:
    class CReleased;

    int WaitWithMutex(const CNxTimeValue& deadline);

    CNxMutexThread& m_mutex;
    pthread_cond_t m_condition;
};
