#include <nx/thread/CNxReactorThreadProxy.h>

#include <new>

namespace {

NxResult Refuse(INxEvent* event) {
    if (event != nullptr) {
        event->OnDestorySelf();
    }
    return NX_ERROR_NOT_IMPLEMENTED;
}

}  // namespace

NxResult CNxReactorThreadProxy::CEventRegisterHandler::OnEventFire() {
    return m_reactor != nullptr ? m_reactor->RegisterHandler(m_handler, m_mask)
                                : NX_ERROR_NULL_POINTER;
}

NxResult CNxReactorThreadProxy::CEventRemoveHandler::OnEventFire() {
    return m_reactor != nullptr ? m_reactor->RemoveHandler(m_handler, m_mask)
                                : NX_ERROR_NULL_POINTER;
}

CNxReactorThreadProxy::CNxReactorThreadProxy(INxReactor* reactor, int type)
    : CNxThreadProxyBase(type), m_reactor(reactor) {}

NxResult CNxReactorThreadProxy::Send(INxEvent* event) {
    return event != nullptr ? SendEvent_i(event) : NX_ERROR_FAILURE;
}

NxResult CNxReactorThreadProxy::RegisterHandler(INxEventHandler* handler, long mask) {
    return m_reactor != nullptr
               ? Send(new (std::nothrow) CEventRegisterHandler(m_reactor, handler, mask))
               : NX_ERROR_NULL_POINTER;
}

NxResult CNxReactorThreadProxy::RemoveHandler(INxEventHandler* handler, long mask) {
    return m_reactor != nullptr
               ? Send(new (std::nothrow) CEventRemoveHandler(m_reactor, handler, mask))
               : NX_ERROR_NULL_POINTER;
}

int CNxReactorThreadProxy::GetReactorType() {
    return m_reactor != nullptr ? m_reactor->GetReactorType() : 0;
}

char* CNxReactorThreadProxy::GetBufferPtr() {
    return m_reactor != nullptr ? m_reactor->GetBufferPtr() : nullptr;
}

unsigned long CNxReactorThreadProxy::GetBufferSize() {
    return m_reactor != nullptr ? m_reactor->GetBufferSize() : 0;
}

void* CNxReactorThreadProxy::GetCookie() {
    return m_reactor != nullptr ? m_reactor->GetCookie() : nullptr;
}

void CNxReactorThreadProxy::SetCookie(void* cookie) {
    if (m_reactor != nullptr) {
        m_reactor->SetCookie(cookie);
    }
}

int CNxReactorThreadProxy::GetCloseReason() const {
    return m_reactor != nullptr ? m_reactor->GetCloseReason() : 0;
}

NxResult CNxReactorThreadProxy::Open() {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::Close() {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::RunEventLoop() {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::StopEventLoop() {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::NotifyHandler(INxEventHandler* /*handler*/, long /*mask*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::ScheduleTimer(INxTimerHandler* /*handler*/, void* /*token*/,
                                              const CNxTimeValue& /*interval*/,
                                              unsigned long /*count*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::CancelTimer(INxTimerHandler* /*handler*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxReactorThreadProxy::SendEvent(INxEvent* event) {
    return Refuse(event);
}

NxResult CNxReactorThreadProxy::PostEvent(INxEvent* event) {
    return Refuse(event);
}

NxResult CNxReactorThreadProxyImp::PostEvent(INxEvent* event,
                                             INxEventQueue::EPriority /*priority*/) {
    return PostEvent_i(event);
}

size_t CNxReactorThreadProxyImp::GetPendingEventsCount() {
    INxReactor* const reactor = GetReactor();
    return reactor != nullptr ? reactor->GetPendingEventsCount() : 0;
}
