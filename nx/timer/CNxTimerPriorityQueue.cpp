#include <nx/timer/CNxTimerPriorityQueue.h>

#include <algorithm>
#include <cassert>
#include <utility>

namespace {

// Four keys share two cache lines, and the heap is half as deep as a binary one.
constexpr size_t c_children = 4;

}  // namespace

// The relation that a heap of the standard library would be given: operator< of time values means
// later than. Of equal expiries the one pushed last is ahead.
bool CNxTimerPriorityQueue::IsBehind(const CKey& key, const CKey& other) {
    if (key.m_expiry == other.m_expiry) {
        return key.m_sequence < other.m_sequence;
    }
    return key.m_expiry < other.m_expiry;
}

NxResult CNxTimerPriorityQueue::PushNode_l(const CNode& node) {
    assert(m_heap.size() == m_index.size());
    if (m_heap.size() == m_heap.capacity()) {
        m_heap.reserve(2 * m_heap.size() + c_children);
    }
    bool inserted = false;
    CEntry* entry = FindOrInsert(node.m_handler, inserted);
    // From here on nothing throws.
    entry->m_node = node;
    const CKey key{node.m_expiry, ++m_sequence, entry};
    if (inserted) {
        m_heap.push_back(key);
        Put(SiftUp(m_heap.size() - 1, key), key);
        assert(IsInOrder(entry->m_place));
        return NX_OK;
    }
    Settle(entry->m_place, key);
    return NX_ERROR_FOUND;
}

NxResult CNxTimerPriorityQueue::RePushNode_l(const CNode& node) {
    assert(m_index.count(node.m_handler) == 0);
    return PushNode_l(node);
}

CNxTimerPriorityQueue::CEntry* CNxTimerPriorityQueue::FindOrInsert(INxTimerHandler* handler,
                                                                   bool& inserted) {
    if (m_spare.empty()) {
        const auto result = m_index.try_emplace(handler);
        inserted = result.second;
        return &result.first->second;
    }
    m_spare.key() = handler;
    auto result = m_index.insert(std::move(m_spare));
    inserted = result.inserted;
    m_spare = std::move(result.node);  // given back when the handler has a timer
    return &result.position->second;
}

NxResult CNxTimerPriorityQueue::EraseNode_l(INxTimerHandler* handler) {
    const auto found = m_index.find(handler);
    if (found == m_index.end()) {
        return NX_ERROR_NOT_FOUND;
    }
    Remove(found);
    return NX_OK;
}

NxResult CNxTimerPriorityQueue::PopFirstNode_l(CNode& node) {
    if (m_heap.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    node = m_heap.front().m_entry->m_node;
    Remove(m_index.find(node.m_handler));
    return NX_OK;
}

NxResult CNxTimerPriorityQueue::GetEarliestTime_l(CNxTimeValue& time) const {
    if (m_heap.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    time = m_heap.front().m_expiry;
    return NX_OK;
}

// The last key takes the place that becomes free.
void CNxTimerPriorityQueue::Remove(Index::iterator entry) {
    const size_t place = entry->second.m_place;
    assert(m_heap[place].m_entry == &entry->second);
    m_spare = m_index.extract(entry);
    const CKey last = m_heap.back();
    m_heap.pop_back();
    if (place < m_heap.size()) {
        Settle(place, last);
    }
}

// Puts a key where it belongs, starting from a place whose own key is no longer wanted.
void CNxTimerPriorityQueue::Settle(size_t place, const CKey& key) {
    const size_t above = SiftUp(place, key);
    Put(above == place ? SiftDown(place, key) : above, key);
    assert(IsInOrder(key.m_entry->m_place));
}

size_t CNxTimerPriorityQueue::SiftUp(size_t place, const CKey& key) {
    while (place != 0) {
        const size_t parent = (place - 1) / c_children;
        if (!IsBehind(m_heap[parent], key)) {
            break;
        }
        Put(place, m_heap[parent]);
        place = parent;
    }
    return place;
}

size_t CNxTimerPriorityQueue::SiftDown(size_t place, const CKey& key) {
    for (;;) {
        const size_t first = c_children * place + 1;
        const size_t end = std::min(first + c_children, m_heap.size());
        if (first >= end) {
            return place;
        }
        size_t ahead = first;
        for (size_t child = first + 1; child < end; ++child) {
            ahead = IsBehind(m_heap[ahead], m_heap[child]) ? child : ahead;
        }
        if (!IsBehind(key, m_heap[ahead])) {
            return place;
        }
        Put(place, m_heap[ahead]);
        place = ahead;
    }
}

// Whether a key stands between its parent and its children.
bool CNxTimerPriorityQueue::IsInOrder(size_t place) const {
    if (place != 0 && IsBehind(m_heap[(place - 1) / c_children], m_heap[place])) {
        return false;
    }
    const size_t first = c_children * place + 1;
    const size_t end = std::min(first + c_children, m_heap.size());
    for (size_t child = first; child < end; ++child) {
        if (IsBehind(m_heap[place], m_heap[child])) {
            return false;
        }
    }
    return true;
}

void CNxTimerPriorityQueue::Put(size_t place, const CKey& key) {
    m_heap[place] = key;
    key.m_entry->m_place = place;
}
