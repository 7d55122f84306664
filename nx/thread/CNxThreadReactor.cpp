#include <nx/thread/CNxThreadReactor.h>

#include <cerrno>

NxResult CNxThreadReactor::Init(INxReactor* reactor) {
    if (m_reactor != nullptr) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    if (reactor == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    m_reactor.reset(reactor);
    return NX_OK;
}

NxResult CNxThreadReactor::Create(int type, CNxThreadManager::TFlag flags) {
    const NxResult created = CNxThread::Create(type, flags);
    if (created != NX_OK) {
        return created;
    }
    if (type == NX_THREAD_MAIN) {
        return m_reactor != nullptr ? m_reactor->Open() : NX_ERROR_NOT_INITIALIZED;
    }
    if (m_openResult != NX_OK) {
        Join();
        errno = m_openErrno;
    }
    return m_openResult;
}

NxResult CNxThreadReactor::Stop(CNxTimeValue* timeout) {
    if (timeout != nullptr) {
        return NX_ERROR_NOT_IMPLEMENTED;
    }
    if (m_reactor == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    m_stopAsked.store(1);
    return m_reactor->StopEventLoop();
}

void CNxThreadReactor::OnThreadInit() {
    if (m_reactor != nullptr && GetThreadType() != NX_THREAD_MAIN) {
        m_openResult = m_reactor->Open();
        m_openErrno = errno;
        // Open has cleared what another thread asked for since the registration.
        if (m_openResult == NX_OK && m_stopAsked.load() != 0) {
            m_reactor->StopEventLoop();
        }
    }
}

void CNxThreadReactor::OnThreadRun() {
    if (m_reactor == nullptr) {
        return;
    }
    const NxResult ended = m_reactor->RunEventLoop();
    if (ended != NX_OK) {
        ReportEnd(ended);
    }
    m_reactor->Close();
}
