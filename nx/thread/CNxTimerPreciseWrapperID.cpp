#include <nx/foundation/standard_streams.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxTimerPreciseManager.h>
#include <nx/thread/CNxTimerPreciseWrapperID.h>

#include <cstdlib>
#include <new>

namespace {

// The token of a timer is read back as exactly this type.
void* ToToken(CNxTimerPreciseWrapperIDSink* sink) {
    return sink;
}

// One may be pending that the manager's own Schedule made so.
#ifdef NXBASE_CHECK_THREADS
constexpr bool c_checksEveryId = true;
#else
constexpr bool c_checksEveryId = false;
#endif

}  // namespace

CNxTimerPreciseWrapperID::CNxTimerPreciseWrapperID() : m_state(std::make_shared<State>(0)) {
    CNxTimerPreciseManager::Instance();
}

CNxTimerPreciseWrapperID::~CNxTimerPreciseWrapperID() {
    if (!c_checksEveryId && !IsScheduled()) {
        return;
    }
    CNxMutexGuardT<CNxMutexThread> guard(CNxTimerPreciseManager::GetMutex());
    CheckNotPending_l();
    SetCancelled();
}

#ifdef NXBASE_CHECK_THREADS
void CNxTimerPreciseWrapperID::CheckNotPending_l() {
    CNxTimerPreciseManager* const manager = CNxTimerPreciseManager::Current();
    if (manager != nullptr && manager->Cancel_l(this) == NX_OK) {
        PrintToStderr("nxbase: a precise timer id was destroyed while scheduled\n");
        std::abort();
    }
}
#else
void CNxTimerPreciseWrapperID::CheckNotPending_l() {}
#endif

NxResult CNxTimerPreciseWrapperID::Schedule(CNxTimerPreciseWrapperIDSink* sink,
                                            const CNxTimeValue& interval, unsigned long count,
                                            int threadType) {
    if (threadType == NX_THREAD_CALLING || threadType == NX_THREAD_PRECISE_TIMER) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxThread* const target = CNxThreadManager::Instance()->GetThread(threadType);
    if (target == nullptr) {
        return NX_ERROR_NULL_POINTER;
    }
    INxEventQueue* const queue = target->GetEventQueue();
    CNxMutexGuardT<CNxMutexThread> guard(CNxTimerPreciseManager::GetMutex());
    m_targetQueue = queue;
    CNxTimerPreciseManager* const manager = CNxTimerPreciseManager::Current();
    if (queue == nullptr || manager == nullptr) {
        return NX_ERROR_NULL_POINTER;
    }
    const NxResult result = manager->Schedule_l(this, ToToken(sink), interval, count);
    if (result == NX_OK) {
        m_state->fetch_or(c_scheduled);
    }
    return result;
}

NxResult CNxTimerPreciseWrapperID::Cancel() {
    CNxMutexGuardT<CNxMutexThread> guard(CNxTimerPreciseManager::GetMutex());
    if (!IsScheduled()) {
        return NX_ERROR_FAILURE;
    }
    CNxTimerPreciseManager* const manager = CNxTimerPreciseManager::Current();
    if (manager == nullptr) {
        return NX_ERROR_NULL_POINTER;
    }
    const NxResult result = manager->Cancel_l(this);
    SetCancelled();
    return result;
}

void CNxTimerPreciseWrapperID::OnTimeout(const CNxTimeValue& /*curTime*/, void* token) {
    CNxTimerPreciseManager::GetMutex().AssertHeld();
    if (IsScheduled() && token != nullptr && m_targetQueue != nullptr) {
        auto* const sink = static_cast<CNxTimerPreciseWrapperIDSink*>(token);
        auto* const event = new (std::nothrow) CEventTimer(sink, this);
        if (event != nullptr) {
            m_targetQueue->PostEvent(event);
        }
    }
}

CEventTimer::CEventTimer(CNxTimerPreciseWrapperIDSink* sink, CNxTimerPreciseWrapperID* id)
    : m_sink(sink),
      m_id(id),
      m_state(id != nullptr ? id->m_state : nullptr),
      m_validState(m_state != nullptr ? m_state->load() | CNxTimerPreciseWrapperID::c_scheduled
                                      : 0) {}

NxResult CEventTimer::OnEventFire() {
    if (m_sink != nullptr && m_state != nullptr && m_state->load() == m_validState) {
        m_sink->OnTimer(m_id);
    }
    return NX_OK;
}

// The manager knows ids by name only; what it does with one stands here.
NxResult CNxTimerPreciseManager::Schedule(CNxTimerPreciseWrapperID* id,
                                          CNxTimerPreciseWrapperIDSink* sink,
                                          const CNxTimeValue& interval, unsigned long count) {
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    return Schedule_l(id, ToToken(sink), interval, count);
}

NxResult CNxTimerPreciseManager::Cancel(CNxTimerPreciseWrapperID* id) {
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    return id != nullptr ? Cancel_l(id) : NX_ERROR_NULL_POINTER;
}
