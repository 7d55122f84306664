#include <nx/timer/CNxTimedCall.h>

#include <cassert>

// The call that runs, with its function, to the end of the scope. Its handle may be cancelled, run
// anew or destroyed meanwhile: then it has no handle any more.
class CNxTimedCall::CUnderWay {
public:
    // Not inlined: gcc 12 would warn of a pointer that dangles, which the destructor or a Cancel
    // takes back.
    [[gnu::noinline]] explicit CUnderWay(CNxTimedCall& handle)
        : m_handle(&handle), m_function(std::move(handle.m_function)) {
        handle.m_underWay = this;
    }

    // Before the function ends, which may destroy the handle.
    ~CUnderWay() {
        if (m_handle == nullptr) {
            return;
        }
        assert(m_handle->m_underWay == this);
        m_handle->m_underWay = nullptr;
        if (m_handle->IsPending()) {
            m_handle->m_function = std::move(m_function);
        }
    }

    CUnderWay(const CUnderWay&) = delete;
    CUnderWay& operator=(const CUnderWay&) = delete;

    CNxTimedCall* m_handle;
    CNxFunctionT<void()> m_function;
};

void CNxTimedCall::Cancel() {
    if (m_underWay != nullptr) {
        std::exchange(m_underWay, nullptr)->m_handle = nullptr;
    }
    if (m_timers != nullptr) {
        // A reactor that was closed meanwhile has no timers left.
        static_cast<void>(std::exchange(m_timers, nullptr)->CancelTimer(this));
    }
    // The last step: its end may destroy the handle.
    const CNxFunctionT<void()> ending(std::move(m_function));
}

NxResult CNxTimedCall::Schedule(INxTimerQueue& timers, const CNxTimeValue& interval,
                                unsigned long count, CNxFunctionT<void()> function) {
    if (!function) {
        return NX_ERROR_INVALID_ARG;
    }
    const NxResult scheduled = timers.ScheduleTimer(this, nullptr, interval, count);
    if (!NxSucceeded(scheduled)) {
        return scheduled;
    }
    if (m_timers == &timers) {
        // Its timer was replaced.
        m_timers = nullptr;
    }
    const CNxFunctionT<void()> replaced(std::move(m_function));
    Cancel();
    m_timers = &timers;
    m_isPeriodic = count == c_untilCancelled;
    m_function = std::move(function);
    return NX_OK;
}

void CNxTimedCall::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    // A pass over the timers that the call itself makes.
    if (m_underWay != nullptr) {
        return;
    }
    if (!m_isPeriodic) {
        m_timers = nullptr;
    }
    CUnderWay(*this).m_function();
}
