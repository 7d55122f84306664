#include <nx/thread/CNxThreadDummy.h>

NxResult CNxThreadDummy::Init(CNxThread* actual, int type) {
    if (m_actual != nullptr) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    if (actual == nullptr || type == -1) {
        return NX_ERROR_INVALID_ARG;
    }
    m_actual = actual;
    return RegisterAs(type, actual->GetThreadId(), actual->GetThreadHandle());
}

NxResult CNxThreadDummy::Create(int /*type*/, CNxThreadManager::TFlag /*flags*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxThreadDummy::Stop(CNxTimeValue* timeout) {
    return m_actual != nullptr ? m_actual->Stop(timeout) : NX_ERROR_NOT_INITIALIZED;
}

INxReactor* CNxThreadDummy::GetReactor() {
    return m_actual != nullptr ? m_actual->GetReactor() : nullptr;
}

INxEventQueue* CNxThreadDummy::GetEventQueue() {
    return m_actual != nullptr ? m_actual->GetEventQueue() : nullptr;
}

INxTimerQueue* CNxThreadDummy::GetTimerQueue() {
    return m_actual != nullptr ? m_actual->GetTimerQueue() : nullptr;
}
