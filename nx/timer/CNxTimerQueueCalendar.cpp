#include <nx/timer/CNxTimerQueueCalendar.h>

#include <algorithm>
#include <cassert>
#include <functional>
#include <new>
#include <utility>

#include <nx/event/CNxCallingThread.h>
#include <nx/foundation/CCallOut.h>
#include <nx/timer/CTimerIndexT.h>

namespace {

constexpr unsigned long c_minSlotIntervalMs = 10;
constexpr unsigned long c_minLastIndex = 10;
constexpr size_t c_fewest = 8;
constexpr unsigned long c_endless = ~0ul;
// Endless timers are counted down too; nothing that counts from there ever gets below.
constexpr unsigned long c_endlessFrom = c_endless / 2 + 1;

unsigned long GetLastIndex(unsigned long slotIntervalMs, unsigned long maxTimeMs) {
    const unsigned long slots = maxTimeMs / slotIntervalMs;
    return slots > c_minLastIndex ? slots - 1 : c_minLastIndex;
}

}  // namespace

CNxTimerQueueCalendar::CNxTimerQueueCalendar(unsigned long slotIntervalMs, unsigned long maxTimeMs,
                                             INxEventQueue* eventQueue)
    : m_slotIntervalMs(std::max(slotIntervalMs, c_minSlotIntervalMs)),
      m_slots(GetLastIndex(m_slotIntervalMs, maxTimeMs) + 1),
      m_lastIndex(m_slots.size() - 1),
      m_eventQueue(eventQueue != nullptr ? eventQueue : CNxCallingThread::GetEventQueue()),
      m_index(std::make_unique<Index>(c_fewest)) {}

CNxTimerQueueCalendar::~CNxTimerQueueCalendar() {
    while (m_immediate != nullptr) {
        m_immediate = SlotPtr(m_immediate)->m_next;
    }
    for (const auto& place : m_index->GetPlaces()) {
        delete place.m_value;
    }
}

NxResult CNxTimerQueueCalendar::ScheduleTimer(INxTimerHandler* handler, void* token,
                                              const CNxTimeValue& interval, unsigned long count) {
    if (handler == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    try {
        ReserveDue();
        return interval == CNxTimeValue::s_tvZero()
                   ? AddImmediate(handler, token)
                   : AddToRing({handler, token, interval, count == 0 ? c_endless : count, IDLE});
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CNxTimerQueueCalendar::AddImmediate(INxTimerHandler* handler, void* token) {
    auto immediate = std::make_unique<Slot>();
    // From here on nothing throws.
    immediate->m_value = {handler, token, CNxTimeValue::s_tvZero(), 1, IDLE};
    Slot* const entry = m_index->Find(handler).m_value;
    if (RemovePrevious(handler, entry) != IDLE) {
        entry->m_value.m_state = REPLACED;
    }
    Push(m_immediate, immediate.release());
    ++m_immediateCount;
    return NX_OK;
}

NxResult CNxTimerQueueCalendar::AddToRing(const ValueType& value) {
    Slot* const entry = FindOrAdd(value.m_handler);
    // From here on nothing throws.
    const TState previous = RemovePrevious(value.m_handler, entry);
    entry->m_value = value;
    PutIn(m_slots[GetIndex(GetOffset(value.m_interval))], entry);
    return previous == IN_RING ? NX_ERROR_FOUND : NX_OK;
}

// For a tick with all timers in it, and one more.
void CNxTimerQueueCalendar::ReserveDue() {
    const size_t most = m_ringCount + m_immediateCount + 1;
    if (m_spareDue.capacity() < most) {
        m_spareDue.reserve(2 * most);
    }
}

CNxTimerQueueCalendar::Slot* CNxTimerQueueCalendar::FindOrAdd(INxTimerHandler* handler) {
    auto* place = &m_index->Find(handler);
    if (place->m_handler == nullptr) {
        auto entry = std::make_unique<Slot>();
        if (m_index->IsFull()) {
            Grow();
            place = &m_index->Find(handler);
        }
        m_index->Insert(*place, handler, entry.release());
    }
    return place->m_value;
}

// Room for more handlers, as many as have a timer at least; the others are dropped.
void CNxTimerQueueCalendar::Grow() {
    const auto& places = m_index->GetPlaces();
    const auto isIdle = [](const auto& place) {
        return place.m_handler == nullptr || place.m_value->m_value.m_state == IDLE;
    };
    const auto idle = std::count_if(places.begin(), places.end(), isIdle);
    auto index =
        std::make_unique<Index>(2 * (places.size() - static_cast<size_t>(idle)) + c_fewest);
    for (const auto& place : places) {
        if (isIdle(place)) {
            delete place.m_value;
        } else {
            index->Insert(index->Find(place.m_handler), place.m_handler, place.m_value);
        }
    }
    m_index = std::move(index);
}

NxResult CNxTimerQueueCalendar::CancelTimer(INxTimerHandler* handler) {
    if (handler == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    Slot* const entry = m_index->Find(handler).m_value;
    return RemovePrevious(handler, entry) == IN_RING ? NX_OK : NX_ERROR_NOT_FOUND;
}

// `entry` is the handler's for the ring, null for none. Returns what it was before.
CNxTimerQueueCalendar::TState CNxTimerQueueCalendar::RemovePrevious(const INxTimerHandler* handler,
                                                                    Slot* entry) {
    const TState state = entry == nullptr ? IDLE : entry->m_value.m_state;
    assert(entry == nullptr || entry->m_value.m_handler == handler || state == IDLE);
    if (state == IDLE) {
        RemoveImmediate(handler);
    } else if (state == IN_RING) {
        TakeOut(entry);
    }
    return state;
}

void CNxTimerQueueCalendar::TimerTick() {
    std::vector<Due> due = BeginFiring();
    TakeImmediate(due);
    TakeCurrentSlot(due);
    m_currentIndex = m_currentIndex == m_lastIndex ? 0 : m_currentIndex + 1;
    Fire(due);
    EndFiring(due);
}

// Out of reach while handlers run, in case one of them makes another tick.
std::vector<CNxTimerQueueCalendar::Due> CNxTimerQueueCalendar::BeginFiring() {
    std::vector<Due> due = std::move(m_spareDue);
    due.clear();
    return due;
}

void CNxTimerQueueCalendar::EndFiring(std::vector<Due>& due) {
    if (m_spareDue.capacity() < due.capacity()) {
        m_spareDue = std::move(due);
    }
}

unsigned long CNxTimerQueueCalendar::CountIdleTicks(unsigned long most) const {
    if (m_immediate != nullptr) {
        return 0;
    }
    const unsigned long slots = m_slots.size();
    for (unsigned long tick = 0; tick < std::min(most, slots); ++tick) {
        if (m_slots[(m_currentIndex + tick) % slots] != nullptr) {
            return tick;
        }
    }
    return most;
}

void CNxTimerQueueCalendar::SkipIdleTicks(unsigned long ticks) {
    assert(CountIdleTicks(ticks) == ticks);
    m_currentIndex = (m_currentIndex + ticks) % m_slots.size();
}

unsigned long CNxTimerQueueCalendar::GetFirstTick(const CNxTimeValue& interval) const {
    if (interval == CNxTimeValue::s_tvZero()) {
        return 1;
    }
    const unsigned long slots = m_slots.size();
    return (GetIndex(GetOffset(interval)) + slots - m_currentIndex) % slots + 1;
}

NxResult CNxTimerQueueCalendar::OnEventFire() {
    std::vector<Due> due = BeginFiring();
    TakeImmediate(due);
    Fire(due);
    EndFiring(due);
    return NX_OK;
}

void CNxTimerQueueCalendar::TakeImmediate(std::vector<Due>& due) {
    while (m_immediate != nullptr) {
        const SlotPtr entry(m_immediate);
        due.push_back({entry->m_value.m_handler, entry->m_value.m_token, due.size()});
        m_immediate = entry->m_next;
    }
    m_immediateCount = 0;
}

void CNxTimerQueueCalendar::TakeCurrentSlot(std::vector<Due>& due) {
    Slot*& slot = m_slots[m_currentIndex];
    Slot* nextRound = nullptr;
    while (slot != nullptr) {
        Slot* const entry = slot;
        due.push_back({entry->m_value.m_handler, entry->m_value.m_token, due.size()});
        TakeOut(entry);
        ArmAgain(entry, nextRound);
    }
    slot = nextRound;
    if (slot != nullptr) {
        slot->m_self = &slot;
    }
}

void CNxTimerQueueCalendar::ArmAgain(Slot* entry, Slot*& nextRound) {
    ValueType& value = entry->m_value;
    assert(value.m_count != 0);
    const unsigned long left = --value.m_count;
    const unsigned long offset = GetOffset(value.m_interval);
    const unsigned long index = GetIndex(offset);
    const bool isThisSlot = index == m_currentIndex;
    // Due again in the slot of this very tick, which calls a handler but once: the count runs out.
    if (left == 0 || (isThisSlot && left < c_endlessFrom)) {
        return;
    }
    if (!isThisSlot) {
        PutIn(m_slots[index], entry);
    } else if (offset == 0) {
        PutIn(m_slots[m_currentIndex == m_lastIndex ? 0 : m_currentIndex + 1], entry);
    } else {
        PutIn(nextRound, entry);
    }
}

void CNxTimerQueueCalendar::Fire(std::vector<Due>& due) {
    if (due.empty()) {
        return;
    }
    const CNxTimeValue now = CNxTimeValue::GetTimeOfDay();
    std::sort(due.begin(), due.end(), [](const Due& a, const Due& b) {
        if (a.m_handler == b.m_handler) {
            return a.m_order < b.m_order;
        }
        return std::less<>()(a.m_handler, b.m_handler);
    });
    for (size_t i = 0; i < due.size(); ++i) {
        if (i + 1 == due.size() || due[i + 1].m_handler != due[i].m_handler) {
            CallOut("OnTimeout", [&] { due[i].m_handler->OnTimeout(now, due[i].m_token); });
        }
    }
}

unsigned long CNxTimerQueueCalendar::GetOffset(const CNxTimeValue& interval) const {
    const auto ms = static_cast<unsigned long>(interval.GetTotalInMsec());
    const unsigned long ticks = ms / m_slotIntervalMs + (ms % m_slotIntervalMs == 0 ? 0 : 1);
    return std::min(ticks, m_lastIndex);
}

// Wraps by one slot less than the ring has.
unsigned long CNxTimerQueueCalendar::GetIndex(unsigned long offset) const {
    assert(offset <= m_lastIndex && m_currentIndex <= m_lastIndex);
    const unsigned long index = m_currentIndex + offset;
    return index <= m_lastIndex ? index : index - m_lastIndex;
}

void CNxTimerQueueCalendar::RemoveImmediate(const INxTimerHandler* handler) {
    for (Slot* entry = m_immediate; entry != nullptr; entry = entry->m_next) {
        if (entry->m_value.m_handler == handler) {
            Unlink(entry);
            delete entry;
            assert(m_immediateCount != 0);
            --m_immediateCount;
            return;
        }
    }
}

void CNxTimerQueueCalendar::PutIn(Slot*& chain, Slot* entry) {
    Push(chain, entry);
    entry->m_value.m_state = IN_RING;
    ++m_ringCount;
}

void CNxTimerQueueCalendar::TakeOut(Slot* entry) {
    assert(entry->m_value.m_state == IN_RING && m_ringCount != 0);
    Unlink(entry);
    entry->m_value.m_state = IDLE;
    --m_ringCount;
}

void CNxTimerQueueCalendar::Push(Slot*& head, Slot* entry) {
    assert(head == nullptr || head->m_self == &head);
    entry->m_next = head;
    entry->m_self = &head;
    if (head != nullptr) {
        head->m_self = &entry->m_next;
    }
    head = entry;
}

void CNxTimerQueueCalendar::Unlink(Slot* entry) {
    assert(*entry->m_self == entry);
    assert(entry->m_next == nullptr || entry->m_next->m_self == &entry->m_next);
    *entry->m_self = entry->m_next;
    if (entry->m_next != nullptr) {
        entry->m_next->m_self = entry->m_self;
    }
}
