// The timer queue for a handful of timers: a list sorted by expiry.
#pragma once

#include <list>

#include <nx/timer/CNxTimerQueueBase.h>

// Scheduling and cancelling walk the list, firing takes its front. Among timers due at the same
// instant the one scheduled last fires first.
class CNxTimerQueueOrderedList : public CNxTimerQueueBase {
public:
    explicit CNxTimerQueueOrderedList(INxObserver* observer) : CNxTimerQueueBase(observer) {}

    // The list is sorted at any time. 0.
    int EnsureSorted() { return 0; }

protected:
    [[nodiscard]] NxResult PushNode_l(const CNode& node) override;
    [[nodiscard]] NxResult EraseNode_l(INxTimerHandler* handler) override;
    [[nodiscard]] NxResult RePushNode_l(const CNode& node) override;
    [[nodiscard]] NxResult PopFirstNode_l(CNode& node) override;
    [[nodiscard]] NxResult GetEarliestTime_l(CNxTimeValue& time) const override;

private:
    void MakeSpare(const CNode& node);
    void TakeOut(std::list<CNode>::iterator at);

    std::list<CNode> m_nodes;
    std::list<CNode> m_spare;  // the last one taken out, for the next push; at most one
};
