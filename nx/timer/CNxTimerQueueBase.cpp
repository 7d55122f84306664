#include <nx/foundation/CCallOut.h>
#include <nx/timer/CNxTimerQueueBase.h>

#include <cassert>
#include <new>

namespace {

constexpr const char* c_name = "a timer queue";

// A sum that wrapped would be due at once, and again in every pass.
CNxTimeValue GetExpiry(const CNxTimeValue& now, const CNxTimeValue& interval) {
    const CNxTimeValue expiry = now + interval;
    const bool wrapped = interval > CNxTimeValue::s_tvZero() && expiry <= now;
    return wrapped ? CNxTimeValue::s_tvMax() : expiry;
}

}  // namespace

NxResult CNxTimerQueueBase::ScheduleTimer(INxTimerHandler* handler, void* token,
                                          const CNxTimeValue& interval, unsigned long count) {
    const bool needsInterval = count != 1;
    if (handler == nullptr || (needsInterval && interval <= CNxTimeValue::s_tvZero())) {
        return NX_ERROR_INVALID_ARG;
    }
    m_Est.EnsureSingleThread(c_name);
    CNxTimeValue earliest;
    const bool wasEmpty = m_observer != nullptr && GetEarliestTime_l(earliest) != NX_OK;
    const CNxTimeValue expiry = GetExpiry(CNxTimeValue::GetTimeOfDay(), interval);
    const NxResult pushed =
        Push(CNode{handler, token, expiry, interval, count == 0 ? c_endless : count});
    if (wasEmpty) {
        m_observer->OnObserve("TimerQueue", nullptr);
    }
    return NxSucceeded(pushed) ? pushed : NX_ERROR_FAILURE;
}

NxResult CNxTimerQueueBase::Push(const CNode& node) {
    try {
        return PushNode_l(node);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CNxTimerQueueBase::CancelTimer(INxTimerHandler* handler) {
    if (handler == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    m_Est.EnsureSingleThread(c_name);
    const NxResult erased = EraseNode_l(handler);
    return erased == NX_OK || erased == NX_ERROR_NOT_FOUND ? erased : NX_ERROR_FAILURE;
}

CNxTimeValue CNxTimerQueueBase::GetEarliestTime() {
    m_Est.EnsureSingleThread(c_name);
    CNxTimeValue earliest;
    return GetEarliestTime_l(earliest) == NX_OK ? earliest : CNxTimeValue::s_tvMax();
}

int CNxTimerQueueBase::CheckExpire(CNxTimeValue* remainTime) {
    m_Est.EnsureSingleThread(c_name);
    CNxTimeValue remaining = CNxTimeValue::s_tvMax();
    CNxTimeValue earliest;
    int fired = 0;
    // An empty queue costs no clock read.
    if (GetEarliestTime_l(earliest) == NX_OK) {
        const CNxTimeValue now = CNxTimeValue::GetTimeOfDay();
        fired = FireDueNodes(now);
        if (GetEarliestTime_l(earliest) == NX_OK) {
            // Zero or less when the container would not give a due node away.
            remaining = earliest - now;
        }
    }
    if (remainTime != nullptr) {
        *remainTime = remaining;
    }
    return fired;
}

int CNxTimerQueueBase::FireDueNodes(const CNxTimeValue& now) {
    int fired = 0;
    CNxTimeValue earliest;
    while (GetEarliestTime_l(earliest) == NX_OK && earliest <= now) {
        CNode node{};
        if (PopFirstNode_l(node) != NX_OK) {
            break;
        }
        assert(node.m_expiry <= now);
        // Armed again before it runs, so the handler may cancel or replace its own timer.
        ArmAgain(node, now);
        CallOut("OnTimeout", [&] { node.m_handler->OnTimeout(now, node.m_token); });
        ++fired;
    }
    return fired;
}

void CNxTimerQueueBase::ArmAgain(CNode& node, const CNxTimeValue& now) {
    assert(node.m_count != 0);
    if (node.m_count != c_endless && --node.m_count == 0) {
        return;
    }
    if (node.m_interval > CNxTimeValue::s_tvZero()) {
        node.m_expiry = GetExpiry(now, node.m_interval);
        // It has no result of its own to return: a container that refuses has dropped the timer.
        static_cast<void>(RePushNode_l(node));
    }
}
