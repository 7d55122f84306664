// Inside the library only: what the connections of one reactor have in common, and how other
// threads reach them.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/NxResult.h>
#include <nx/reactor/CReactorCompanion.h>
#include <nx/stream/CDueHeap.h>
#include <nx/stream/CListT.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CStreamOutput.h>
#include <nx/timer/INxTimerQueue.h>

class CStreamMember;

// Which list a member is in. The first and the last of a life follow each other.
struct CInLife;   // live, ended, gone
struct CInTurn;   // has its turn when the current turn of the loop has come to its end
struct CInInbox;  // another thread has left something for it

// Made with the first connection of a reactor, whose companion it is. What lives is in its list,
// which has a reference to it. Any thread may ask for the count and post a turn; everything else
// belongs to the reactor's thread, or to whoever has the reactor when its loop has ended.
class CStreamLoop final : public CReactorCompanion, private INxTimerHandler {
public:
    // From here to the end of the scope connections may end: calls of OnClosed come at the end of
    // the outermost scope, and only after it an object may be gone. So every way into a connection
    // begins with it, and touches nothing after it.
    class CEntry {
    public:
        explicit CEntry(CStreamLoop& loop);
        ~CEntry();
        CEntry(const CEntry&) = delete;
        CEntry& operator=(const CEntry&) = delete;

    private:
        CStreamLoop& m_loop;
    };

    // That of the reactor, made if there is none. Null without memory, and for a reactor that has
    // no place for it.
    static CStreamLoop* Of(INxReactor& reactor);
    // Null if there is none.
    static CStreamLoop* Find(INxReactor& reactor);

    INxReactor& GetReactor() const { return m_reactor; }

    // Whether the reactor reports states, not changes.
    bool ReportsStates() const { return m_reportsStates; }

    bool IsOnThread() const { return m_thread.load(std::memory_order_relaxed) == pthread_self(); }
    // Whether connections are ended because the reactor is: no new ones then.
    bool IsClosing() const { return m_isClosing; }

    size_t GetCount() const { return m_count.load(std::memory_order_relaxed); }

    void Add(CStreamMember& member);
    // The member has ended: OnClosed is due.
    void Remove(CStreamMember& member);

    // Has the member proceed at the end of this turn.
    void Enlist(CStreamMember& member);

    // Milliseconds of the monotonic clock, which may be some behind.
    static std::int64_t NowMs();

    // Calls OnDue once when the time is over, or soon after; if that was asked for an earlier time
    // already, then. NX_OK; NX_ERROR_FAILURE without memory.
    [[nodiscard]] NxResult CallBy(CStreamMember& member, std::int64_t due);

    void StopAll();
    void EndAll();

    void OnReactorClosing() override;

private:
    friend class CStreamMember;
    class CTurnEvent;

    using CLife = CListT<CStreamMember, CInLife>;
    using CTurn = CListT<CStreamMember, CInTurn>;

    explicit CStreamLoop(INxReactor& reactor);

    [[nodiscard]] NxResult PostTurn();
    void PayTurn();
    void RunTurn();
    void TakeInboxes();
    void CallEach(void (CStreamMember::*call)());
    void TellEnded();
    void ReleaseGone();
    void HeedClock();
    static std::int64_t GetClockLead();
    [[nodiscard]] NxResult WakeAtFirst();
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    INxReactor& m_reactor;
    const bool m_reportsStates;
    std::atomic<pthread_t> m_thread;
    std::atomic<size_t> m_count{0};

    CLife m_live;
    CLife m_ended;  // OnClosed is due
    CLife m_gone;   // the reference is to be released
    CTurn m_turn;
    int m_depth = 0;  // of entries
    bool m_isClosing = false;
    bool m_isTurnOwed = false;  // there was no memory to post it
    bool m_isInTurn = false;

    CDueHeap m_dues;
    // When the timer fires; c_never without one.
    std::int64_t m_wakeAt = CDueMember::c_never;
    std::int64_t m_clockLead = 0;  // of the timers' clock over ours, when the timer was set

    std::atomic<bool> m_isPosted{false};
    CNxMutexThread m_mutex;
    CListT<CStreamMember, CInInbox> m_inboxes NX_GUARDED_BY(m_mutex);
};

// A connection as its loop sees it. Made on the loop's thread.
class CStreamMember : public CNxConnection,
                      public CLinkT<CInLife>,
                      public CLinkT<CInTurn>,
                      public CLinkT<CInInbox>,
                      public CDueMember {
public:
    // What is left beside bytes, in the order of weight.
    enum class EAsked : unsigned char { NOTHING, NO_MORE, END_WHEN_SENT, DROP, END_NOW };

protected:
    explicit CStreamMember(CStreamLoop& loop) : m_loop(&loop) {}

    CStreamLoop& GetLoop() const { return *m_loop; }

    // Any thread: leaves it for the loop's. NX_OK; NX_ERROR_NOT_INITIALIZED after an end was asked
    // for, and when the loop has ended; NX_ERROR_FAILURE without memory, and then only an end that
    // was asked for is kept.
    NxResult Leave(CStreamOutput&& output, EAsked asked);

    // Bytes that were left and not taken yet.
    size_t GetLeftSize() const { return m_leftSize.load(std::memory_order_relaxed); }

    // Takes what was left until now; from here on only what weighs more than `asked` can be.
    void CloseInbox(EAsked asked);

private:
    friend class CStreamLoop;

    // What there is to do now.
    virtual void Proceed() = 0;
    virtual void OnDue() = 0;
    virtual void OnLeft(CStreamOutput&& output, EAsked asked) noexcept = 0;
    virtual void TellStop() = 0;
    virtual void EndWithLoop() = 0;
    virtual void TellClosed() = 0;
    // After TellClosed and all calls under way: gives up its reference to itself.
    virtual void Release() = 0;

    // With the loop's mutex held.
    void TakeInbox_i();
    CStreamOutput TakeLeft_i();

    EAsked m_asked NX_GUARDED_BY(m_loop->m_mutex) = EAsked::NOTHING;
    const CNxAutoPtr<CStreamLoop> m_loop;
    // Made when another thread leaves something for the first time.
    std::unique_ptr<CStreamOutput> m_inbox NX_GUARDED_BY(m_loop->m_mutex);
    std::atomic<size_t> m_leftSize{0};
};
