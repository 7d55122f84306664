// Compares two timer queues: each gets a world of its own, handlers that schedule and cancel from
// their callbacks too, and both do the same as long as both queues do.
#pragma once

#include <nx/timer/INxTimerQueue.h>

#include <array>
#include <cstdlib>
#include <random>
#include <vector>

// How many random operations a comparison makes.
inline long GetTestSteps(long usual) {
    const char* given = std::getenv("NXBASE_TEST_STEPS");
    return given == nullptr ? usual : std::atol(given);
}

// What a random operation chooses from, and how many percent of the firings do more operations.
struct TimerChoices {
    unsigned m_handlers;
    std::vector<CNxTimeValue> m_intervals;
    std::vector<unsigned long> m_counts;
    unsigned m_reentrant;
};

class TimerWorld {
public:
    TimerWorld(INxTimerQueue& queue, const TimerChoices& choices, unsigned seed)
        : m_queue(queue), m_choices(choices), m_engine(seed), m_handlers(choices.m_handlers) {
        for (Handler& handler : m_handlers) {
            handler.m_world = this;
        }
    }

    unsigned Random(size_t below) { return static_cast<unsigned>(m_engine() % below); }

    // Schedules or, one time in four, cancels.
    void Operate() {
        ++m_operations;
        Handler& handler = m_handlers[Random(m_handlers.size())];
        if (Random(4) == 0) {
            Log(1, handler, m_queue.CancelTimer(&handler));
            return;
        }
        const CNxTimeValue interval = m_choices.m_intervals[Random(m_choices.m_intervals.size())];
        const unsigned long count = m_choices.m_counts[Random(m_choices.m_counts.size())];
        char* token = m_tokens.data() + Random(m_tokens.size());
        Log(2, handler, m_queue.ScheduleTimer(&handler, token, interval, count));
    }

    void Log(long what, long value, long more = 0, long last = 0) {
        m_log.push_back({what, value, more, last});
    }

    // What happened since it was last cleared: results, and firings with token and time.
    std::vector<std::array<long, 4>> m_log;
    long m_operations = 0;
    long m_fired = 0;

private:
    struct Handler : INxTimerHandler {
        void OnTimeout(const CNxTimeValue& now, void* token) override {
            m_world->OnTimeout(*this, now, token);
        }
        TimerWorld* m_world = nullptr;
    };

    void Log(long what, const Handler& handler, NxResult result) {
        Log(what, &handler - m_handlers.data(), result);
    }

    void OnTimeout(const Handler& handler, const CNxTimeValue& now, void* token) {
        ++m_fired;
        Log(&handler - m_handlers.data(), static_cast<char*>(token) - m_tokens.data(), now.GetSec(),
            now.GetUsec());
        for (unsigned more = 0; more < 3 && Random(100) < m_choices.m_reentrant; ++more) {
            Operate();
        }
    }

    INxTimerQueue& m_queue;
    const TimerChoices& m_choices;
    std::mt19937 m_engine;
    std::vector<Handler> m_handlers;
    std::array<char, 50> m_tokens{};
};
