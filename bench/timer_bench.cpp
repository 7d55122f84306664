// What a timer costs on the list, the heap and the wheel, beside a std::priority_queue that leaves
// replaced timers in and skips them, the usual way to have no index.
#include <benchmark/benchmark.h>
#include <nx/nx.h>

#include <memory>
#include <queue>
#include <vector>

namespace {

struct Connection : INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { ++m_fired; }
    long m_fired = 0;
    unsigned long m_latest = 0;  // for the peer
};

class Peer {
public:
    void Schedule(Connection& connection, const CNxTimeValue& interval) {
        if (m_heap.size() > 2 * m_limit) {
            DropReplaced();
        }
        connection.m_latest = ++m_sequence;
        m_heap.push({CNxTimeValue::GetTimeOfDay() + interval, m_sequence, &connection});
    }

    void CheckExpire() {
        const CNxTimeValue now = CNxTimeValue::GetTimeOfDay();
        while (!m_heap.empty() && m_heap.top().m_expiry <= now) {
            const Timer timer = m_heap.top();
            m_heap.pop();
            if (timer.m_sequence == timer.m_connection->m_latest) {
                timer.m_connection->OnTimeout(now, nullptr);
            }
        }
    }

    size_t m_limit = 0;  // how many connections there are

private:
    struct Timer {
        CNxTimeValue m_expiry;
        unsigned long m_sequence;
        Connection* m_connection;
        bool operator<(const Timer& other) const { return m_expiry > other.m_expiry; }
    };

    void DropReplaced() {
        std::vector<Timer> kept;
        for (; !m_heap.empty(); m_heap.pop()) {
            if (m_heap.top().m_sequence == m_heap.top().m_connection->m_latest) {
                kept.push_back(m_heap.top());
            }
        }
        m_heap = decltype(m_heap)(std::less<>(), std::move(kept));
    }

    std::priority_queue<Timer, std::vector<Timer>, std::less<>> m_heap;
    unsigned long m_sequence = 0;
};

// The queues of the library under the peer's two operations.
template <class Queue>
struct Adapter {
    void Schedule(Connection& connection, const CNxTimeValue& interval) {
        benchmark::DoNotOptimize(m_queue.ScheduleTimer(&connection, nullptr, interval, 1));
    }
    void CheckExpire() { m_queue.CheckExpire(nullptr); }
    size_t m_limit = 0;
    Queue m_queue{nullptr};
};

class Wheel {
public:
    void Schedule(Connection& connection, const CNxTimeValue& interval) {
        benchmark::DoNotOptimize(m_queue.ScheduleTimer(&connection, nullptr, interval, 1));
    }
    void CheckExpire() { m_queue.TimerTick(); }
    size_t m_limit = 0;

private:
    CNxTimerQueueCalendar m_queue{10, 7200000, nullptr};
};

using List = Adapter<CNxTimerQueueOrderedList>;
using Heap = Adapter<CNxTimerPriorityQueue>;

// An idle timer of a minute for each of `range` connections, started anew by a request on one.
template <class Timers>
void RestartIdleTimer(benchmark::State& state) {
    Timers timers;
    std::vector<Connection> connections(static_cast<size_t>(state.range(0)));
    timers.m_limit = connections.size();
    for (Connection& connection : connections) {
        timers.Schedule(connection, CNxTimeValue(60, 0));
    }
    size_t next = 0;
    for (auto _ : state) {
        next = (next + 7919) % connections.size();
        timers.Schedule(connections[next], CNxTimeValue(60, 0));
    }
}
BENCHMARK_TEMPLATE(RestartIdleTimer, Peer)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK_TEMPLATE(RestartIdleTimer, List)->Arg(10)->Arg(1000);
BENCHMARK_TEMPLATE(RestartIdleTimer, Heap)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK_TEMPLATE(RestartIdleTimer, Wheel)->Arg(10)->Arg(1000)->Arg(100000);

// `range` timers scheduled and fired.
template <class Timers>
void ScheduleAndFire(benchmark::State& state) {
    Timers timers;
    std::vector<Connection> connections(static_cast<size_t>(state.range(0)));
    timers.m_limit = connections.size();
    long passes = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < connections.size(); ++i) {
            const long before = static_cast<long>(i * 7919 % 999);
            timers.Schedule(connections[i], CNxTimeValue(0, -1 - before));
        }
        timers.CheckExpire();
        ++passes;
    }
    for (const Connection& connection : connections) {
        if (connection.m_fired != passes) {
            state.SkipWithError("a timer did not fire");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK_TEMPLATE(ScheduleAndFire, Peer)->Arg(10)->Arg(1000);
BENCHMARK_TEMPLATE(ScheduleAndFire, List)->Arg(10)->Arg(1000);
BENCHMARK_TEMPLATE(ScheduleAndFire, Heap)->Arg(10)->Arg(1000);
BENCHMARK_TEMPLATE(ScheduleAndFire, Wheel)->Arg(10)->Arg(1000);

}  // namespace
