// The timer queue for many timers of one thread: a heap in place of the sorted list.
#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>

#include <nx/timer/CNxTimerQueueBase.h>

// Behaves like CNxTimerQueueOrderedList, down to the order among equal expiries, so one can stand
// in for the other. Scheduling, replacing and cancelling take O(log n), the earliest expiry O(1). A
// timer that is armed again allocates nothing.
class CNxTimerPriorityQueue : public CNxTimerQueueBase {
public:
    explicit CNxTimerPriorityQueue(INxObserver* observer) : CNxTimerQueueBase(observer) {}

protected:
    [[nodiscard]] NxResult PushNode_l(const CNode& node) override;
    [[nodiscard]] NxResult EraseNode_l(INxTimerHandler* handler) override;
    [[nodiscard]] NxResult RePushNode_l(const CNode& node) override;
    [[nodiscard]] NxResult PopFirstNode_l(CNode& node) override;
    [[nodiscard]] NxResult GetEarliestTime_l(CNxTimeValue& time) const override;

private:
    // A timer, and where its key lies in the heap.
    struct CEntry {
        CNode m_node;
        size_t m_place;
    };
    // What the heap orders by, kept apart from the timers so that a comparison stays in the heap.
    struct CKey {
        CNxTimeValue m_expiry;
        unsigned long m_sequence;  // the larger was pushed later
        CEntry* m_entry;
    };
    using Index = std::unordered_map<INxTimerHandler*, CEntry>;

    static bool IsBehind(const CKey& key, const CKey& other);
    CEntry* FindOrInsert(INxTimerHandler* handler, bool& inserted);
    void Remove(Index::iterator entry);
    void Settle(size_t place, const CKey& key);
    size_t SiftUp(size_t place, const CKey& key);
    size_t SiftDown(size_t place, const CKey& key);
    bool IsInOrder(size_t place) const;
    void Put(size_t place, const CKey& key);

    std::vector<CKey> m_heap;  // the children of i are 4i+1 to 4i+4
    Index m_index;
    Index::node_type m_spare;  // the last one removed, for the next push
    unsigned long m_sequence = 0;
};
