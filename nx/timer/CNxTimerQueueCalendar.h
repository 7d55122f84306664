// A timing wheel: a ring of slots, one of which comes due with every tick of the owner. Scheduling
// and cancelling cost the same however many timers there are; the price is the grid of one slot.
#pragma once

#include <memory>
#include <vector>

#include <nx/event/INxEventQueue.h>
#include <nx/timer/INxTimerQueue.h>

template <class Value>
class CTimerIndexT;

// One link of a slot's chain.
template <class ValueType>
struct CNxTimerQueueCalendarSlotT {
    CNxTimerQueueCalendarSlotT* m_next;
    ValueType m_value;
    CNxTimerQueueCalendarSlotT** m_self;  // what points to this one
};

// Meant for intervals of 1 ms up to the span less two slots; the span is the number of slots times
// the slot interval. They are rounded up to whole slots; a timer of k slots scheduled between two
// ticks fires with the (k + 1)-th, and one tick later still when its place lies beyond the end of
// the ring. A periodic timer comes every k ticks, save for that.
//
// Other intervals, down to negative ones, are accepted and do this:
// - Zero: fires once with the next tick or OnEventFire, whatever its count.
// - Too long, or -1 ms and less: fires with the VERY NEXT tick, unless scheduled before the first
//   tick of a round, then with the last of it. A finite count is used up by that; an endless timer
//   fires once and waits for the next round.
// - Less than 1 ms of either sign: fires with every tick; a finite count is used up by the first.
//
// A tick does all its bookkeeping before it calls handlers, each at most once and in ascending
// order of their addresses. So they may schedule and cancel, but one that is cancelled by another
// handler of the same tick is still called in it: do not destroy handlers of others there.
//
// What the queue keeps of a handler without a timer, some hundred bytes, goes when there are more
// of them than handlers with one and memory is needed.
//
// Takes no lock and belongs to no thread: the owner serialises the calls, whichever threads they
// come from, and a handler runs under whatever it holds. Handlers are not owned.
class CNxTimerQueueCalendar : public INxTimerQueue, public INxEvent {
public:
    // Slots of at least 10 ms; as many as fit `maxTimeMs`, but not less than 11.
    // `eventQueue` is only kept for GetEventQueue; null for that of the calling thread. Throws
    // std::bad_alloc or std::length_error when the ring is too large for the memory.
    CNxTimerQueueCalendar(unsigned long slotIntervalMs, unsigned long maxTimeMs,
                          INxEventQueue* eventQueue);

    // Drops the timers without telling their handlers.
    ~CNxTimerQueueCalendar() override;

    CNxTimerQueueCalendar(const CNxTimerQueueCalendar&) = delete;
    CNxTimerQueueCalendar& operator=(const CNxTimerQueueCalendar&) = delete;

    // NX_ERROR_INVALID_ARG for a null handler, NX_ERROR_FAILURE without memory. NX_ERROR_FOUND when
    // a timer of the handler with an interval other than zero was replaced by another of that kind;
    // else NX_OK.
    [[nodiscard]] NxResult ScheduleTimer(INxTimerHandler* handler, void* token,
                                         const CNxTimeValue& interval,
                                         unsigned long count) override;

    // As INxTimerQueue, except for timers with an interval of zero, where the result is
    // NX_ERROR_NOT_FOUND: they are cancelled all the same. But once such a timer has replaced one
    // with another interval, NEITHER IT NOR A LATER ONE with an interval of zero is cancelled until
    // the handler gets another interval again; cancel first to avoid that. The queue keeps some
    // hundred bytes for such a handler, also after its last firing.
    NxResult CancelTimer(INxTimerHandler* handler) override;

    // To be called once per slot interval.
    void TimerTick();

    // For an owner that sleeps over ticks which fire nothing:
    // whether there is no timer at all;
    bool IsEmpty() const { return m_immediateCount == 0 && m_ringCount == 0; }
    // how many of the next ticks fire nothing, looking at `most` of them;
    unsigned long CountIdleTicks(unsigned long most) const;
    // the same as that many calls of TimerTick, for idle ones;
    void SkipIdleTicks(unsigned long ticks);
    // the number of the tick, 1 being the next, that is the first to fire a timer of that interval
    // if it is scheduled now.
    unsigned long GetFirstTick(const CNxTimeValue& interval) const;

    // Fires the timers with an interval of zero. NX_OK. Nobody in the library posts a calendar; an
    // owner that wants them sooner than the next tick may, to its own queue.
    NxResult OnEventFire() override;
    // Leaves the object alone: posting it does not give it away.
    void OnDestorySelf() override {}

    INxEventQueue* GetEventQueue() const { return m_eventQueue; }

private:
    enum TState {
        IDLE,      // no timer with an interval other than zero
        IN_RING,   // one
        REPLACED,  // it was replaced by one with an interval of zero
    };
    struct ValueType {
        INxTimerHandler* m_handler;
        void* m_token;
        CNxTimeValue m_interval;
        unsigned long m_count;  // firings left
        TState m_state;
    };
    using Slot = CNxTimerQueueCalendarSlotT<ValueType>;
    using SlotPtr = std::unique_ptr<Slot>;
    using Index = CTimerIndexT<Slot*>;

    // A call that a tick has to make. Later ones of a handler supersede earlier ones.
    struct Due {
        INxTimerHandler* m_handler;
        void* m_token;
        size_t m_order;
    };

    static void Push(Slot*& head, Slot* entry);
    static void Unlink(Slot* entry);

    unsigned long GetOffset(const CNxTimeValue& interval) const;
    unsigned long GetIndex(unsigned long offset) const;
    void ReserveDue();
    NxResult AddImmediate(INxTimerHandler* handler, void* token);
    NxResult AddToRing(const ValueType& value);
    Slot* FindOrAdd(INxTimerHandler* handler);
    void Grow();
    TState RemovePrevious(const INxTimerHandler* handler, Slot* entry);
    void PutIn(Slot*& chain, Slot* entry);
    void TakeOut(Slot* entry);
    void RemoveImmediate(const INxTimerHandler* handler);
    std::vector<Due> BeginFiring();
    void EndFiring(std::vector<Due>& due);
    void TakeImmediate(std::vector<Due>& due);
    void TakeCurrentSlot(std::vector<Due>& due);
    void ArmAgain(Slot* entry, Slot*& nextRound);
    void Fire(std::vector<Due>& due);

    const unsigned long m_slotIntervalMs;
    std::vector<Slot*> m_slots;  // chains
    const unsigned long m_lastIndex;
    unsigned long m_currentIndex = 0;  // the slot of the next tick
    INxEventQueue* const m_eventQueue;
    Slot* m_immediate = nullptr;  // intervals of zero; owned
    size_t m_immediateCount = 0;
    // The one entry for the ring of every handler that has had a timer there; owned.
    std::unique_ptr<Index> m_index;
    size_t m_ringCount = 0;
    std::vector<Due> m_spareDue;  // its memory serves every tick
};
