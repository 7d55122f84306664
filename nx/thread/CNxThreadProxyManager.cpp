#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxThreadProxyManager.h>

CNxThreadProxyBase::CNxThreadProxyBase(CNxThread* thread)
    : m_eventQueue(thread != nullptr ? thread->GetEventQueue() : nullptr) {}

CNxThreadProxyBase::CNxThreadProxyBase(int type)
    : m_eventQueue(CNxThreadManager::Instance()->GetThreadEventQueue(type)) {}

NxResult CNxThreadProxyBase::PostEvent_i(INxEvent* event) {
    const NxResult checked = CheckTarget(event);
    return checked == NX_OK ? m_eventQueue->PostEvent(event) : checked;
}

NxResult CNxThreadProxyBase::SendEvent_i(INxEvent* event) {
    const NxResult checked = CheckTarget(event);
    return checked == NX_OK ? m_eventQueue->SendEvent(event) : checked;
}

NxResult CNxThreadProxyBase::CheckTarget(INxEvent* event) const {
    if (event == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (m_eventQueue == nullptr) {
        event->OnDestorySelf();
        return NX_ERROR_UNEXPECTED;
    }
    return NX_OK;
}
