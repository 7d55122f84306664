#include <nx/foundation/CKeptErrno.h>
#include <nx/reactor/realtime/CReactorSignals.h>
#include <nx/reactor/realtime/CSignalledThread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>

void CSignalledThread::Enter() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    assert(m_state == THREAD_AWAY);
    m_wake.store(WAKE_NONE);
    Enter_i();
}

void CSignalledThread::TakeOver() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_state == THREAD_AWAY || IsCalling_i()) {
        return;
    }
    // Fails for no signal that there is.
    static_cast<void>(CReactorSignals::Block());
    m_wake.store(WAKE_DUE);
    Enter_i();
}

void CSignalledThread::Enter_i() {
    m_state = THREAD_THERE;
    m_thread = pthread_self();
    CReactorSignals::SetTaker(static_cast<pid_t>(syscall(SYS_gettid)));
}

void CSignalledThread::Leave() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    // Without one of its own it would take away that of another reactor.
    if (m_state != THREAD_AWAY) {
        CReactorSignals::SetTaker(0);
    }
    m_state = THREAD_AWAY;
}

NxResult CSignalledThread::Wake() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_state == THREAD_AWAY) {
        return NX_ERROR_FAILURE;
    }
    if (IsCalling_i()) {
        m_wake.store(WAKE_DUE);
        return NX_OK;
    }
    EWake expected = WAKE_NONE;
    if (!m_wake.compare_exchange_strong(expected, WAKE_QUEUED) || Queue_i(VALUE_WAKE)) {
        return NX_OK;
    }
    expected = WAKE_QUEUED;
    // Not if one has become due meanwhile.
    m_wake.compare_exchange_strong(expected, WAKE_NONE);
    return NX_ERROR_FAILURE;
}

NxResult CSignalledThread::Stop(CNxStopFlag& flag) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_state == THREAD_AWAY) {
        return NX_ERROR_FAILURE;
    }
    // On its own thread the loop sees the flag before it waits.
    if (m_state != THREAD_STOPPED && !IsCalling_i()) {
        if (!Queue_i(VALUE_STOP)) {
            return NX_ERROR_FAILURE;
        }
        m_state = THREAD_STOPPED;
    }
    flag.SetStopFlag();
    return NX_OK;
}

void CSignalledThread::TakeWake() {
    EWake expected = WAKE_DUE;
    // Not one that is under way.
    m_wake.compare_exchange_strong(expected, WAKE_NONE);
}

bool CSignalledThread::IsCalling_i() const {
    return pthread_equal(m_thread, pthread_self()) != 0;
}

bool CSignalledThread::Queue_i(EValue value) {
    assert(m_state != THREAD_AWAY && !IsCalling_i());
    sigval content{};
    content.sival_int = value;
    const int number = CReactorSignals::GetNumber();
    return ResultOfError(pthread_sigqueue(m_thread, number, content)) == NX_OK;
}
