#include <nx/event/INxEventQueue.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CStreamLoop.h>

#include <algorithm>
#include <cassert>
#include <ctime>
#include <new>
#include <utility>

namespace {

// The coarse clock's step at most: a timer is that much late, and finds the time over.
constexpr std::int64_t c_clockStepMs = 10;

// A step of the timers' clock, not the grain of the two.
constexpr std::int64_t c_setBackMs = 100;

// Of the timer while it fires: there is no need for another.
constexpr std::int64_t c_now = 0;

}  // namespace

// Not fired, it is made up for by the next one.
class CStreamLoop::CTurnEvent : public INxEvent {
public:
    explicit CTurnEvent(CStreamLoop& loop) : m_loop(&loop) {}
    ~CTurnEvent() override {
        if (m_loop) {
            m_loop->m_isPosted.store(false);
        }
    }
    CTurnEvent(const CTurnEvent&) = delete;
    CTurnEvent& operator=(const CTurnEvent&) = delete;

    NxResult OnEventFire() override {
        const CNxAutoPtr<CStreamLoop> loop(std::move(m_loop));
        loop->RunTurn();
        return NX_OK;
    }

private:
    CNxAutoPtr<CStreamLoop> m_loop;
};

CStreamLoop::CEntry::CEntry(CStreamLoop& loop) : m_loop(loop) {
    ++m_loop.m_depth;
    m_loop.m_thread.store(pthread_self(), std::memory_order_relaxed);
}

CStreamLoop::CEntry::~CEntry() {
    assert(m_loop.m_depth > 0);
    if (m_loop.m_depth == 1) {
        m_loop.PayTurn();
        m_loop.TellEnded();
    }
    if (--m_loop.m_depth == 0) {
        m_loop.ReleaseGone();
    }
}

CStreamLoop::CStreamLoop(INxReactor& reactor)
    : m_reactor(reactor),
      m_reportsStates(reactor.GetReactorType() == INxReactor::TYPE_SELECT),
      m_thread(pthread_self()) {}

CStreamLoop* CStreamLoop::Find(INxReactor& reactor) {
    return static_cast<CStreamLoop*>(reactor.GetCompanion());
}

CStreamLoop* CStreamLoop::Of(INxReactor& reactor) {
    CStreamLoop* const there = Find(reactor);
    if (there != nullptr) {
        return there;
    }
    const CNxAutoPtr<CStreamLoop> made(new (std::nothrow) CStreamLoop(reactor));
    return made && reactor.SetCompanion(made.Get()) ? made.Get() : nullptr;
}

void CStreamLoop::Add(CStreamMember& member) {
    m_thread.store(pthread_self(), std::memory_order_relaxed);
    m_live.Add(member);
    m_count.fetch_add(1, std::memory_order_relaxed);
}

void CStreamLoop::Remove(CStreamMember& member) {
    assert(m_depth > 0);
    static_cast<CLinkT<CInTurn>&>(member).Unlink();
    m_dues.Remove(member);
    m_ended.Add(member);
    m_count.fetch_sub(1, std::memory_order_relaxed);
}

void CStreamLoop::Enlist(CStreamMember& member) {
    if (static_cast<CLinkT<CInTurn>&>(member).IsLinked()) {
        return;
    }
    m_turn.Add(member);
    m_isTurnOwed = PostTurn() != NX_OK;
}

// Whoever finds a turn posted has been seen by it: it looks after it has said that it runs.
NxResult CStreamLoop::PostTurn() {
    if (m_isPosted.exchange(true)) {
        return NX_OK;
    }
    auto* const event = new (std::nothrow) CTurnEvent(*this);
    if (event == nullptr) {
        m_isPosted.store(false);
        return NX_ERROR_FAILURE;
    }
    return m_reactor.PostEvent(event, INxEventQueue::PRIORITY_NORMAL);
}

// Without memory for an event the turn comes at once.
void CStreamLoop::PayTurn() {
    if (m_isTurnOwed && !m_isInTurn && !m_isClosing) {
        m_isTurnOwed = false;
        RunTurn();
    }
}

// Those that come again have the next one, which comes at once when there is no memory to post it.
void CStreamLoop::RunTurn() {
    const bool wasInTurn = std::exchange(m_isInTurn, true);
    do {
        m_isPosted.store(false);
        TakeInboxes();
        CTurn turn;
        turn.TakeAll(m_turn);
        while (CStreamMember* const member = turn.TakeFirst()) {
            member->Proceed();
        }
    } while (std::exchange(m_isTurnOwed, false) && PostTurn() != NX_OK);
    m_isInTurn = wasInTurn;
}

void CStreamLoop::TakeInboxes() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    while (CStreamMember* const member = m_inboxes.TakeFirst()) {
        member->TakeInbox_i();
        m_turn.Add(*member);
    }
}

void CStreamLoop::TellEnded() {
    assert(m_depth > 0);
    while (CStreamMember* const member = m_ended.TakeFirst()) {
        m_gone.Add(*member);
        member->TellClosed();
    }
}

void CStreamLoop::ReleaseGone() {
    while (CStreamMember* const member = m_gone.TakeFirst()) {
        member->Release();
    }
}

// Those that there are now; one that ends meanwhile leaves the list by itself.
void CStreamLoop::CallEach(void (CStreamMember::*call)()) {
    CLife all;
    all.TakeAll(m_live);
    while (CStreamMember* const member = all.TakeFirst()) {
        m_live.Add(*member);
        (member->*call)();
    }
}

void CStreamLoop::StopAll() {
    const CEntry entry(*this);
    CallEach(&CStreamMember::TellStop);
}

void CStreamLoop::EndAll() {
    const CEntry entry(*this);
    CallEach(&CStreamMember::EndWithLoop);
    TellEnded();
}

void CStreamLoop::OnReactorClosing() {
    const bool wasClosing = std::exchange(m_isClosing, true);
    EndAll();
    if (std::exchange(m_wakeAt, CDueMember::c_never) != CDueMember::c_never) {
        m_reactor.CancelTimer(this);
    }
    m_isClosing = wasClosing;
}

std::int64_t CStreamLoop::NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

NxResult CStreamLoop::CallBy(CStreamMember& member, std::int64_t due) {
    try {
        if (due < member.GetDue()) {
            m_dues.Set(member, due);
            HeedClock();
        }
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    return WakeAtFirst();
}

// The timer of a clock that was set back since comes so much too late: another one is needed.
void CStreamLoop::HeedClock() {
    const bool isRunning = m_wakeAt != c_now && m_wakeAt != CDueMember::c_never;
    if (isRunning && GetClockLead() < m_clockLead - c_setBackMs) {
        m_wakeAt = CDueMember::c_never;
    }
}

std::int64_t CStreamLoop::GetClockLead() {
    return CNxTimeValue::GetTimeOfDay().GetTotalInMsec() - NowMs();
}

NxResult CStreamLoop::WakeAtFirst() {
    const CDueMember* const first = m_dues.GetFirst();
    if (first == nullptr || m_wakeAt <= first->GetDue()) {
        return NX_OK;
    }
    CNxTimeValue interval;
    interval.SetByTotalMsec(std::max<std::int64_t>(first->GetDue() - NowMs(), 0) + c_clockStepMs);
    if (!NxSucceeded(m_reactor.ScheduleTimer(this, nullptr, interval, 1))) {
        return NX_ERROR_FAILURE;
    }
    m_wakeAt = first->GetDue();
    m_clockLead = GetClockLead();
    return NX_OK;
}

void CStreamLoop::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    const CEntry entry(*this);
    m_wakeAt = c_now;
    const std::int64_t now = NowMs();
    for (CDueMember* first = m_dues.GetFirst(); first != nullptr && first->GetDue() <= now;
         first = m_dues.GetFirst()) {
        m_dues.Remove(*first);
        static_cast<CStreamMember*>(first)->OnDue();
    }
    m_wakeAt = CDueMember::c_never;
    // Without memory for the timer it is the next CallBy that has it.
    static_cast<void>(WakeAtFirst());
}

NxResult CStreamMember::Leave(CStreamOutput&& output, EAsked asked) {
    CNxMutexGuardT<CNxMutexThread> guard(m_loop->m_mutex);
    if (m_asked != EAsked::NOTHING && asked <= m_asked) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (!output.IsEmpty() && m_inbox == nullptr) {
        m_inbox.reset(new (std::nothrow) CStreamOutput);
        if (m_inbox == nullptr) {
            return NX_ERROR_FAILURE;
        }
    }
    const NxResult posted = m_loop->PostTurn();
    if (posted != NX_OK && asked == EAsked::NOTHING) {
        return posted;
    }
    m_loop->m_inboxes.Add(*this);
    if (asked != EAsked::NOTHING) {
        m_asked = asked;
    }
    if (m_inbox != nullptr) {
        m_leftSize.fetch_add(output.GetSize(), std::memory_order_relaxed);
        m_inbox->Append(std::move(output));
    }
    return NX_OK;
}

void CStreamMember::CloseInbox(EAsked asked) {
    // One that has ended drops it, and whose memory it was may be told: with no lock held.
    CStreamOutput left;
    EAsked leftAsked = EAsked::NOTHING;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_loop->m_mutex);
        static_cast<CLinkT<CInInbox>*>(this)->Unlink();
        left = TakeLeft_i();
        leftAsked = m_asked;
        m_asked = std::max(m_asked, asked);
    }
    OnLeft(std::move(left), leftAsked);
}

void CStreamMember::TakeInbox_i() {
    m_loop->m_mutex.AssertHeld();
    OnLeft(TakeLeft_i(), m_asked);
}

CStreamOutput CStreamMember::TakeLeft_i() {
    m_loop->m_mutex.AssertHeld();
    m_leftSize.store(0, std::memory_order_relaxed);
    return m_inbox != nullptr ? std::move(*m_inbox) : CStreamOutput();
}
