#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxConditionVariableThread.h>

#include <cerrno>
#include <ctime>
#include <limits>

namespace {

constexpr long c_nanosecondsPerMicrosecond = 1000;

// pthread refuses negative fields with EINVAL; what lies before the clock's start has passed
// anyway.
timespec ToTimespec(const CNxTimeValue& deadline) {
    if (deadline <= CNxTimeValue::s_tvZero()) {
        return {0, 0};
    }
    return {deadline.GetSec(), deadline.GetUsec() * c_nanosecondsPerMicrosecond};
}

}  // namespace

CNxConditionVariableThread::CNxConditionVariableThread(CNxMutexThread& mutex) : m_mutex(mutex) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

CNxConditionVariableThread::~CNxConditionVariableThread() {
    pthread_cond_destroy(&m_condition);
}

NxResult CNxConditionVariableThread::Signal() {
    return ResultOfError(pthread_cond_signal(&m_condition));
}

NxResult CNxConditionVariableThread::Broadcast() {
    return ResultOfError(pthread_cond_broadcast(&m_condition));
}

NxResult CNxConditionVariableThread::Wait(CNxTimeValue* timeout) {
    return WaitUntil(GetDeadline(timeout));
}

NxResult CNxConditionVariableThread::WaitUntil(const CNxTimeValue& deadline) {
    const int error = WaitWithMutex(deadline);
    switch (error) {
        case 0:
        case EINTR:
            return NX_OK;
        case ETIMEDOUT:
            return NX_ERROR_TIMEOUT;
        default:
            return ResultOfError(error);
    }
}

// The mutex is held again at its end, also when the thread is cancelled in the wait.
class CNxConditionVariableThread::CReleased {
public:
    explicit CReleased(CNxMutexThread& mutex) : m_mutex(mutex) {
        m_mutex.AssertHeld();
        m_mutex.NoteUnLocked();
    }
    ~CReleased() { m_mutex.NoteLocked(); }

    CReleased(const CReleased&) = delete;
    CReleased& operator=(const CReleased&) = delete;

private:
    CNxMutexThread& m_mutex;
};

int CNxConditionVariableThread::WaitWithMutex(const CNxTimeValue& deadline) {
    const CReleased released(m_mutex);
    if (deadline == CNxTimeValue::s_tvMax()) {
        return pthread_cond_wait(&m_condition, &m_mutex.m_mutex);
    }
    const timespec until = ToTimespec(deadline);
    return pthread_cond_timedwait(&m_condition, &m_mutex.m_mutex, &until);
}

CNxTimeValue CNxConditionVariableThread::GetDeadline(const CNxTimeValue* timeout) {
    if (timeout == nullptr || *timeout == CNxTimeValue::s_tvMax()) {
        return CNxTimeValue::s_tvMax();
    }
    const CNxTimeValue now = CNxTimeValue::GetMonotonicTime();
    // One second of slack for the carry of the microseconds.
    if (timeout->GetSec() >= std::numeric_limits<long>::max() - now.GetSec() - 1) {
        return CNxTimeValue::s_tvMax();
    }
    return now + *timeout;
}
