#include <nx/timer/CNxTimerQueueCalendar.h>

#include <algorithm>
#include <cassert>
#include <functional>
#include <new>
#include <utility>

#include <nx/event/CNxCallingThread.h>
#include <nx/foundation/CCallOut.h>

namespace {

constexpr unsigned long c_minSlotIntervalMs = 10;
constexpr unsigned long c_minLastIndex = 10;
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
      m_eventQueue(eventQueue != nullptr ? eventQueue : CNxCallingThread::GetEventQueue()) {}

CNxTimerQueueCalendar::~CNxTimerQueueCalendar() {
    DeleteChain(m_immediate);
    for (Slot* chain : m_slots) {
        DeleteChain(chain);
    }
}

void CNxTimerQueueCalendar::DeleteChain(Slot* chain) {
    while (chain != nullptr) {
        chain = SlotPtr(chain)->m_next;
    }
}

NxResult CNxTimerQueueCalendar::ScheduleTimer(INxTimerHandler* handler, void* token,
                                              const CNxTimeValue& interval, unsigned long count) {
    if (handler == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    const bool isImmediate = interval == CNxTimeValue::s_tvZero();
    const auto known = m_entries.find(handler);
    const bool isKnown = known != m_entries.end();
    Slot* const inRing = isKnown ? known->second : nullptr;
    SlotPtr entry;
    if (!Prepare(handler, inRing == nullptr ? &entry : nullptr, isImmediate)) {
        return NX_ERROR_FAILURE;
    }
    if (!isKnown) {
        RemoveImmediate(handler);
    }
    if (inRing != nullptr) {
        entry = Unlink(inRing);
    }
    entry->m_value = {handler, token, interval, count == 0 ? c_endless : count};
    if (isImmediate) {
        if (isKnown) {
            m_entries[handler] = nullptr;
        }
        ++m_immediateCount;
        Push(m_immediate, std::move(entry));
        return NX_OK;
    }
    m_entries[handler] = entry.get();
    Push(m_slots[GetIndex(GetOffset(interval))], std::move(entry));
    return inRing != nullptr ? NX_ERROR_FOUND : NX_OK;
}

// Everything that needs memory, a tick with all timers in it too; with none everything is as it
// was.
bool CNxTimerQueueCalendar::Prepare(INxTimerHandler* handler, SlotPtr* entry, bool isImmediate) {
    try {
        if (entry != nullptr) {
            *entry = std::make_unique<Slot>();
        }
        const size_t most = m_entries.size() + m_immediateCount + 1;
        if (m_spareDue.capacity() < most) {
            m_spareDue.reserve(2 * most);
        }
        if (!isImmediate) {
            m_entries.try_emplace(handler, nullptr);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

NxResult CNxTimerQueueCalendar::CancelTimer(INxTimerHandler* handler) {
    if (handler == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    const auto found = m_entries.find(handler);
    if (found == m_entries.end()) {
        RemoveImmediate(handler);
        return NX_ERROR_NOT_FOUND;
    }
    if (found->second == nullptr) {
        return NX_ERROR_NOT_FOUND;
    }
    assert(found->second->m_value.m_handler == handler);
    Unlink(found->second);
    m_entries.erase(found);
    return NX_OK;
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
        const ValueType& value = m_immediate->m_value;
        due.push_back({value.m_handler, value.m_token, due.size()});
        Unlink(m_immediate);
    }
    m_immediateCount = 0;
}

void CNxTimerQueueCalendar::TakeCurrentSlot(std::vector<Due>& due) {
    Slot*& slot = m_slots[m_currentIndex];
    Slot* nextRound = nullptr;
    while (slot != nullptr) {
        const ValueType& value = slot->m_value;
        due.push_back({value.m_handler, value.m_token, due.size()});
        ArmAgain(Unlink(slot), nextRound);
    }
    slot = nextRound;
    if (slot != nullptr) {
        slot->m_self = &slot;
    }
}

void CNxTimerQueueCalendar::ArmAgain(SlotPtr entry, Slot*& nextRound) {
    const ValueType& value = entry->m_value;
    assert(value.m_count != 0);
    const unsigned long left = --entry->m_value.m_count;
    const unsigned long offset = GetOffset(value.m_interval);
    const unsigned long index = GetIndex(offset);
    const bool isThisSlot = index == m_currentIndex;
    // Due again in the slot of this very tick, which calls a handler but once: the count runs out.
    if (left == 0 || (isThisSlot && left < c_endlessFrom)) {
        m_entries.erase(value.m_handler);
    } else if (!isThisSlot) {
        Push(m_slots[index], std::move(entry));
    } else if (offset == 0) {
        Push(m_slots[m_currentIndex == m_lastIndex ? 0 : m_currentIndex + 1], std::move(entry));
    } else {
        Push(nextRound, std::move(entry));
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
            assert(m_immediateCount != 0);
            --m_immediateCount;
            return;
        }
    }
}

void CNxTimerQueueCalendar::Push(Slot*& head, SlotPtr entry) {
    assert(head == nullptr || head->m_self == &head);
    entry->m_next = head;
    entry->m_self = &head;
    if (head != nullptr) {
        head->m_self = &entry->m_next;
    }
    head = entry.release();
}

CNxTimerQueueCalendar::SlotPtr CNxTimerQueueCalendar::Unlink(Slot* entry) {
    assert(*entry->m_self == entry);
    assert(entry->m_next == nullptr || entry->m_next->m_self == &entry->m_next);
    *entry->m_self = entry->m_next;
    if (entry->m_next != nullptr) {
        entry->m_next->m_self = entry->m_self;
    }
    return SlotPtr(entry);
}
