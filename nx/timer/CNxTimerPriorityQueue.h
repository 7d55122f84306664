// The timer queue that reactors and task threads have unless they are given another: a heap.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <nx/timer/CNxTimerQueueBase.h>

template <class Value>
class CTimerIndexT;

// Behaves like CNxTimerQueueOrderedList, down to the order among equal expiries, so one can stand
// in for the other. Scheduling, replacing and cancelling take O(log n), the earliest expiry O(1).
// Only a handler that is new to the queue may need memory. What the queue keeps of one without a
// timer, some hundred bytes, goes when there are more of them than handlers with one and memory
// is needed.
class CNxTimerPriorityQueue : public CNxTimerQueueBase {
public:
    // Throws std::bad_alloc.
    explicit CNxTimerPriorityQueue(INxObserver* observer);
    ~CNxTimerPriorityQueue() override;

protected:
    [[nodiscard]] NxResult PushNode_l(const CNode& node) override;
    [[nodiscard]] NxResult EraseNode_l(INxTimerHandler* handler) override;
    [[nodiscard]] NxResult RePushNode_l(const CNode& node) override;
    [[nodiscard]] NxResult PopFirstNode_l(CNode& node) override;
    [[nodiscard]] NxResult GetEarliestTime_l(CNxTimeValue& time) const override;

private:
    // What a handler, and its node, are known by here.
    using Number = unsigned int;
    using Index = CTimerIndexT<Number>;

    // What the heap orders by, kept apart from the nodes so that a comparison stays in the heap.
    struct CKey {
        long m_sec;
        int m_usec;
        Number m_number;
        unsigned long m_sequence;  // the larger was pushed later
    };

    // Inline, so that a key comes into the heap from registers: copied from where it was just put
    // together it would wait until the node has reached the memory.
    static inline bool IsBehind(const CKey& key, const CKey& other);
    Number AddNode();
    void Grow();
    void DropIdleNodes(Index& index);
    void Remove(Number number);
    inline void Settle(size_t place, const CKey& key);
    inline size_t SiftUp(size_t place, const CKey& key);
    inline size_t SiftDown(size_t place, const CKey& key);
    bool IsInOrder(size_t place) const;
    inline void Put(size_t place, const CKey& key);

    std::vector<CKey> m_heap;  // the children of i are 4i+1 to 4i+4
    std::vector<CNode> m_nodes;
    // By number: where the key lies in the heap. Close together, for a sift writes many.
    std::vector<Number> m_places;
    std::unique_ptr<Index> m_index;
    unsigned long m_sequence = 0;
};
