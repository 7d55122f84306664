// An event that keeps a public record of what the library did with it.
#pragma once

#include <nx/event/INxEventQueue.h>

#include <atomic>
#include <functional>
#include <utility>

struct EventCounts {
    std::atomic<int> m_made{0};
    std::atomic<int> m_fired{0};
    std::atomic<int> m_destroyed{0};

    bool AllDestroyed() const { return m_made.load() == m_destroyed.load(); }
};

// Counts itself, and does and answers what it is told to.
class CountedEvent : public INxEvent {
public:
    using Action = std::function<NxResult()>;

    explicit CountedEvent(EventCounts& counts, Action action = nullptr,
                          std::function<void()> atEnd = nullptr)
        : m_counts(counts), m_action(std::move(action)), m_atEnd(std::move(atEnd)) {
        ++m_counts.m_made;
    }

    NxResult OnEventFire() override {
        ++m_counts.m_fired;
        return m_action ? m_action() : NX_OK;
    }

    void OnDestorySelf() override {
        ++m_counts.m_destroyed;
        if (m_atEnd) {
            m_atEnd();
        }
        INxEvent::OnDestorySelf();
    }

private:
    EventCounts& m_counts;
    Action m_action;
    std::function<void()> m_atEnd;
};
