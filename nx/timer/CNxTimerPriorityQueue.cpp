#include <nx/timer/CNxTimerPriorityQueue.h>
#include <nx/timer/CTimerIndexT.h>

#include <algorithm>
#include <cassert>
#include <limits>
#include <new>
#include <utility>

namespace {

// The heap is half as deep as a binary one.
constexpr size_t c_children = 4;
constexpr size_t c_fewest = 8;
// Of handlers: their numbers have 32 bits.
constexpr size_t c_most = size_t{1} << 31;
// The place of a handler that has no timer.
constexpr unsigned int c_idle = std::numeric_limits<unsigned int>::max();

}  // namespace

CNxTimerPriorityQueue::CNxTimerPriorityQueue(INxObserver* observer) : CNxTimerQueueBase(observer) {
    Grow();
}

CNxTimerPriorityQueue::~CNxTimerPriorityQueue() = default;

// The relation that a heap of the standard library would be given: a later expiry is behind. Of
// equal expiries the one pushed last is ahead. Without branches, for nobody could foretell them.
bool CNxTimerPriorityQueue::IsBehind(const CKey& key, const CKey& other) {
    const bool isBehindOfEquals =
        (key.m_usec == other.m_usec) & (key.m_sequence < other.m_sequence);
    return (key.m_sec > other.m_sec) |
           ((key.m_sec == other.m_sec) & ((key.m_usec > other.m_usec) | isBehindOfEquals));
}

NxResult CNxTimerPriorityQueue::PushNode_l(const CNode& node) {
    auto* place = &m_index->Find(node.m_handler);
    if (place->m_handler == nullptr) {
        if (m_index->IsFull()) {
            Grow();
            place = &m_index->Find(node.m_handler);
        }
        // From here on nothing throws.
        m_index->Insert(*place, node.m_handler, AddNode());
    }
    const Number number = place->m_value;
    m_nodes[number] = node;
    const CKey key{node.m_expiry.GetSec(), static_cast<int>(node.m_expiry.GetUsec()), number,
                   ++m_sequence};
    const bool isPending = m_places[number] != c_idle;
    if (!isPending) {
        m_places[number] = static_cast<Number>(m_heap.size());
        m_heap.emplace_back();
    }
    Settle(m_places[number], key);
    return isPending ? NX_ERROR_FOUND : NX_OK;
}

NxResult CNxTimerPriorityQueue::RePushNode_l(const CNode& node) {
    [[maybe_unused]] const NxResult pushed = PushNode_l(node);
    assert(pushed == NX_OK);
    return NX_OK;
}

CNxTimerPriorityQueue::Number CNxTimerPriorityQueue::AddNode() {
    assert(m_nodes.size() < m_nodes.capacity());
    m_nodes.emplace_back();
    m_places.push_back(c_idle);
    return static_cast<Number>(m_nodes.size() - 1);
}

// Room for more handlers, as many as have a timer at least.
void CNxTimerPriorityQueue::Grow() {
    const size_t fewest = 2 * m_heap.size() + c_fewest;
    if (fewest > c_most) {
        throw std::bad_alloc();
    }
    auto index = std::make_unique<Index>(fewest);
    m_heap.reserve(index->GetCapacity());
    m_nodes.reserve(index->GetCapacity());
    m_places.reserve(index->GetCapacity());
    DropIdleNodes(*index);
    m_index = std::move(index);
}

// The others get new numbers.
void CNxTimerPriorityQueue::DropIdleNodes(Index& index) {
    Number kept = 0;
    for (Number number = 0; number < m_nodes.size(); ++number) {
        if (m_places[number] != c_idle) {
            m_nodes[kept] = m_nodes[number];
            m_places[kept] = m_places[number];
            m_heap[m_places[kept]].m_number = kept;
            INxTimerHandler* const handler = m_nodes[kept].m_handler;
            index.Insert(index.Find(handler), handler, kept);
            ++kept;
        }
    }
    assert(kept == m_heap.size());
    m_nodes.resize(kept);
    m_places.resize(kept);
}

NxResult CNxTimerPriorityQueue::EraseNode_l(INxTimerHandler* handler) {
    const auto& place = m_index->Find(handler);
    if (place.m_handler == nullptr || m_places[place.m_value] == c_idle) {
        return NX_ERROR_NOT_FOUND;
    }
    Remove(place.m_value);
    return NX_OK;
}

NxResult CNxTimerPriorityQueue::PopFirstNode_l(CNode& node) {
    if (m_heap.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    const Number number = m_heap.front().m_number;
    node = m_nodes[number];
    Remove(number);
    return NX_OK;
}

NxResult CNxTimerPriorityQueue::GetEarliestTime_l(CNxTimeValue& time) const {
    if (m_heap.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    time = m_nodes[m_heap.front().m_number].m_expiry;
    return NX_OK;
}

// The last key takes the place that becomes free.
void CNxTimerPriorityQueue::Remove(Number number) {
    const size_t place = m_places[number];
    assert(m_heap[place].m_number == number);
    m_places[number] = c_idle;
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
    assert(IsInOrder(m_places[key.m_number]));
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
    m_places[key.m_number] = static_cast<Number>(place);
}
