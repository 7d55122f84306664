// Inside the library only: who is to be called at what time.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

// What can be in a CDueHeap, and tells it when. Destroyed, it is in none.
class CDueMember {
public:
    static constexpr std::int64_t c_never = std::numeric_limits<std::int64_t>::max();

    CDueMember() = default;
    ~CDueMember() { assert(m_due == c_never); }
    CDueMember(const CDueMember&) = delete;
    CDueMember& operator=(const CDueMember&) = delete;

    // In the unit of the heap; c_never while it is in none.
    std::int64_t GetDue() const { return m_due; }

private:
    friend class CDueHeap;

    std::int64_t m_due = c_never;
    std::uint32_t m_place = 0;
};

// Members in the order of their due times, those of equal times in any. They know their places, so
// one costs 20 bytes; a timer each would be several times that. Not owned. Belongs to one thread at
// a time.
class CDueHeap {
public:
    // Has the member due at that time, not c_never, instead of when it was before. Throws
    // std::bad_alloc, with nothing changed, for one that was not in the heap.
    void Set(CDueMember& member, std::int64_t due);

    // Nothing to do for one that is not in it.
    void Remove(CDueMember& member);

    // Null when there is none.
    CDueMember* GetFirst() const { return m_heap.empty() ? nullptr : m_heap.front(); }

private:
    void Settle(CDueMember& member);
    void Put(size_t place, CDueMember& member);

    std::vector<CDueMember*> m_heap;  // the children of i are 2i+1 and 2i+2
};
