#include <nx/thread/CNxTimerPreciseManager.h>

#include <cassert>
#include <new>

namespace {

constexpr unsigned long c_tickMs = 10;
constexpr unsigned long c_spanMs = 2UL * 60 * 60 * 1000;
constexpr unsigned long c_mostLateTicks = 100;
// How far the thread looks for the next timer before it sleeps: a minute.
constexpr unsigned long c_mostIdleTicks = 6000;

CNxTimeValue TicksToTime(unsigned long ticks) {
    CNxTimeValue time;
    time.SetByTotalMsec(static_cast<long>(ticks * c_tickMs));
    return time;
}

// Null unless its thread runs and shall go on.
std::atomic<CNxTimerPreciseManager*> s_pPreciseTimerMgr{nullptr};
// The one made last, until it is destroyed.
std::atomic<CNxTimerPreciseManager*> s_last{nullptr};

}  // namespace

CNxMutexThread& CNxTimerPreciseManager::GetMutex() {
    alignas(CNxMutexThread) static char s_place[sizeof(CNxMutexThread)];
    static auto* const s_mutex = new (s_place) CNxMutexThread;
    return *s_mutex;
}

CNxTimerPreciseManager* CNxTimerPreciseManager::Current() {
    return s_pPreciseTimerMgr.load(std::memory_order_acquire);
}

CNxTimerPreciseManager* CNxTimerPreciseManager::Instance() {
    CNxTimerPreciseManager* const running = Current();
    if (running != nullptr) {
        return running;
    }
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    return Current() != nullptr ? Current() : Start();
}

CNxTimerPreciseManager* CNxTimerPreciseManager::Start() {
    GetMutex().AssertHeld();
    if (!DestroyEnded()) {
        return nullptr;
    }
    CNxTimerPreciseManager* manager = nullptr;
    try {
        manager = new CNxTimerPreciseManager;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (manager->Create(NX_THREAD_PRECISE_TIMER, CNxThreadManager::FLAG_JOINABLE) != NX_OK) {
        manager->Destory(0);
        return nullptr;
    }
    s_pPreciseTimerMgr.store(manager, std::memory_order_release);
    return manager;
}

bool CNxTimerPreciseManager::DestroyEnded() {
    CNxTimerPreciseManager* const last = s_last.load(std::memory_order_acquire);
    if (last == nullptr) {
        return true;
    }
    if (last->m_joined.load(std::memory_order_acquire) == 0) {
        return false;
    }
    last->Destory(0);
    return true;
}

CNxTimerPreciseManager::CNxTimerPreciseManager()
    : m_calendar(std::make_unique<CNxTimerQueueCalendar>(c_tickMs, c_spanMs, nullptr)) {
    s_last.store(this, std::memory_order_release);
}

CNxTimerPreciseManager::~CNxTimerPreciseManager() {
    CNxTimerPreciseManager* self = this;
    s_pPreciseTimerMgr.compare_exchange_strong(self, nullptr);
    self = this;
    s_last.compare_exchange_strong(self, nullptr);
}

NxResult CNxTimerPreciseManager::Schedule_l(INxTimerHandler* id, void* sink,
                                            const CNxTimeValue& interval, unsigned long count) {
    GetMutex().AssertHeld();
    if (m_calendar == nullptr) {
        return NX_OK;
    }
    // An interval counts from now, not from where the wheel stopped to sleep.
    CatchUp_l();
    if (interval == CNxTimeValue::s_tvZero()) {
        // A timer that gets an interval of zero in place of another one could not be cancelled.
        m_calendar->CancelTimer(id);
    }
    const CNxTimeValue due = m_lastTick + TicksToTime(m_calendar->GetFirstTick(interval));
    if (m_calendar->ScheduleTimer(id, sink, interval, count) == NX_ERROR_FAILURE) {
        return NX_ERROR_FAILURE;
    }
    if (m_wakeTime > due) {
        m_wakeTime = due;
        m_wake.Signal();
    }
    // That it replaced another timer is no news to the caller, nor that a null id has none.
    return NX_OK;
}

NxResult CNxTimerPreciseManager::Cancel_l(INxTimerHandler* id) {
    GetMutex().AssertHeld();
    return m_calendar != nullptr ? m_calendar->CancelTimer(id) : NX_ERROR_NULL_POINTER;
}

void CNxTimerPreciseManager::OnThreadInit() {
    Reset2CurrentThreadId();
    SetStartFlag();
}

void CNxTimerPreciseManager::OnThreadRun() {
    EnsureLoopThread();
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    while (!IsStopped()) {
        CatchUp_l();
        SleepUntilNext_l();
    }
}

// Makes the ticks that are due by now.
void CNxTimerPreciseManager::CatchUp_l() {
    GetMutex().AssertHeld();
    const CNxTimeValue now = CNxTimeValue::GetMonotonicTime();
    for (;;) {
        assert(m_lastTick <= now);
        unsigned long due =
            static_cast<unsigned long>((now - m_lastTick).GetTotalInMsec()) / c_tickMs;
        const unsigned long idle = m_calendar->CountIdleTicks(due);
        m_calendar->SkipIdleTicks(idle);
        m_lastTick += TicksToTime(idle);
        due -= idle;
        if (due == 0) {
            return;
        }
        if (due > c_mostLateTicks) {
            m_lastTick += TicksToTime(due - c_mostLateTicks);
        }
        m_calendar->TimerTick();
        m_lastTick += TicksToTime(1);
    }
}

void CNxTimerPreciseManager::SleepUntilNext_l() {
    const unsigned long idle = m_calendar->CountIdleTicks(c_mostIdleTicks);
    m_wakeTime =
        m_calendar->IsEmpty() ? CNxTimeValue::s_tvMax() : m_lastTick + TicksToTime(idle + 1);
    // Where ticks take longer than they last, others get the mutex all the same.
    const CNxTimeValue soonest = CNxTimeValue::GetMonotonicTime() + CNxTimeValue(0, 1000);
    if (soonest > m_wakeTime) {
        m_wakeTime = soonest;
    }
    // However it ends, the clock is looked at next.
    static_cast<void>(m_wake.WaitUntil(m_wakeTime));
}

// The bodies hand the mutex over to each other, where the analysis does not look.
void CNxTimerPreciseManager::BeforeFork() NX_NO_THREAD_SAFETY_ANALYSIS {
    GetMutex().Lock();
}

void CNxTimerPreciseManager::AfterForkInParent() NX_NO_THREAD_SAFETY_ANALYSIS {
    GetMutex().UnLock();
}

void CNxTimerPreciseManager::AfterForkInChild() NX_NO_THREAD_SAFETY_ANALYSIS {
    s_pPreciseTimerMgr.store(nullptr);
    s_last.store(nullptr);
    GetMutex().UnLock();
}

void CNxTimerPreciseManager::EndAndJoin() {
    CNxTimerPreciseManager* manager = Current();
    if (manager == nullptr || CNxThreadManager::IsEqualCurrentThread(manager->GetThreadId())) {
        return;
    }
    {
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        manager = s_pPreciseTimerMgr.exchange(nullptr);
        if (manager == nullptr) {
            return;
        }
        assert(manager->m_calendar != nullptr);
        manager->m_calendar.reset();
        manager->SetStopFlag();
        manager->m_wake.Signal();
    }
    manager->Join();
    // The system may give it to another thread.
    manager->SetThreadId(0);
    manager->m_joined.store(1, std::memory_order_release);
}
