// Timers: one of many cancelled and scheduled anew, and many that are due fired in one pass. The
// time for each.
#include <nx/nx.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "bench.h"

#ifdef NXBENCH_HAS_LIBEV
#include <ev.h>
#endif
#ifdef NXBENCH_HAS_LIBEVENT
#include <event2/event.h>
#endif
#ifdef NXBENCH_HAS_ASIO
#include <asio.hpp>
#endif
#ifdef NXBENCH_HAS_LIBUV
#include <uv.h>
#endif

namespace bench {

namespace {

// Each kind below has `count` timers, all known by a number. Schedule: that one, not pending, in so
// many milliseconds, once. Cancel: whether it was pending. Fire: those that are due; how often
// timers have fired is `s_fired`.
long s_fired = 0;

// A hashed wheel: a slot is a list of what is due in its millisecond of any round.
class RawWheel {
public:
    explicit RawWheel(size_t count) : m_timers(count) {
        for (Link& slot : m_slots) {
            slot.next = slot.previous = &slot;
        }
    }

    void Schedule(size_t i, long ms) {
        Timer& timer = m_timers[i];
        timer.due = Now() + ms;
        Link& slot = SlotOf(timer.due);
        timer.next = &slot;
        timer.previous = slot.previous;
        slot.previous->next = &timer;
        slot.previous = &timer;
    }

    bool Cancel(size_t i) { return Unlink(m_timers[i]); }

    void Fire() {
        const long now = Now();
        for (; m_tick <= now; ++m_tick) {
            Link& slot = SlotOf(m_tick);
            for (Link* link = slot.next; link != &slot;) {
                Timer& timer = *static_cast<Timer*>(link);
                link = link->next;
                if (timer.due == m_tick) {
                    Unlink(timer);
                    ++s_fired;
                }
            }
        }
    }

private:
    struct Link {
        Link* next = nullptr;
        Link* previous = nullptr;
    };
    struct Timer : Link {
        long due = 0;
    };

    static long Now() { return static_cast<long>(NowInNs() / 1e6); }
    Link& SlotOf(long due) { return m_slots[static_cast<size_t>(due) % m_slots.size()]; }

    static bool Unlink(Timer& timer) {
        if (timer.next == nullptr) {
            return false;
        }
        timer.next->previous = timer.previous;
        timer.previous->next = timer.next;
        timer.next = nullptr;
        return true;
    }

    std::vector<Timer> m_timers;
    std::array<Link, 65536> m_slots;
    long m_tick = Now();
};

struct NxHandler : INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override { ++s_fired; }
};

template <class Queue>
class NxTimers {
public:
    void Schedule(size_t i, long ms) {
        Require(m_queue.ScheduleTimer(&m_handlers[i], nullptr,
                                      CNxTimeValue(ms / 1000, ms % 1000 * 1000), 1) == NX_OK,
                "ScheduleTimer");
    }
    bool Cancel(size_t i) { return m_queue.CancelTimer(&m_handlers[i]) == NX_OK; }

protected:
    template <class... Arguments>
    explicit NxTimers(size_t count, Arguments... arguments)
        : m_handlers(count), m_queue(arguments...) {}

    std::vector<NxHandler> m_handlers;
    Queue m_queue;
};

struct NxHeap : NxTimers<CNxTimerPriorityQueue> {
    explicit NxHeap(size_t count) : NxTimers(count, nullptr) {}
    void Fire() { m_queue.CheckExpire(nullptr); }
};

struct NxCalendar : NxTimers<CNxTimerQueueCalendar> {
    explicit NxCalendar(size_t count) : NxTimers(count, c_slotMs, 120000ul, nullptr) {}
    // The ticks that are owed, and the one that is under way.
    void Fire() {
        for (; m_tickDue < NowInNs() + c_slotMs * 1e6; m_tickDue += c_slotMs * 1e6) {
            m_queue.TimerTick();
        }
    }

private:
    static constexpr unsigned long c_slotMs = 10;
    double m_tickDue = NowInNs() + c_slotMs * 1e6;
};

#ifdef NXBENCH_HAS_LIBEV
class LibevTimers {
public:
    explicit LibevTimers(size_t count) : m_timers(count) {
        for (ev_timer& timer : m_timers) {
            ev_timer_init(
                &timer, [](struct ev_loop*, ev_timer*, int) { ++s_fired; }, 0., 0.);
        }
    }
    void Schedule(size_t i, long ms) {
        ev_timer_set(&m_timers[i], static_cast<double>(ms) / 1e3, 0.);
        ev_timer_start(m_loop, &m_timers[i]);
    }
    bool Cancel(size_t i) {
        const bool wasPending = ev_is_active(&m_timers[i]);
        ev_timer_stop(m_loop, &m_timers[i]);
        return wasPending;
    }
    void Fire() { ev_run(m_loop, EVRUN_NOWAIT); }

private:
    struct ev_loop* const m_loop = ev_loop_new(EVFLAG_AUTO);
    std::vector<ev_timer> m_timers;
};
#endif

#ifdef NXBENCH_HAS_LIBEVENT
class LibeventTimers {
public:
    explicit LibeventTimers(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            m_timers.push_back(evtimer_new(
                m_base, [](evutil_socket_t, short, void*) { ++s_fired; }, nullptr));
        }
    }
    void Schedule(size_t i, long ms) {
        const timeval interval{ms / 1000, ms % 1000 * 1000};
        Require(evtimer_add(m_timers[i], Prepare(interval)) == 0, "evtimer_add");
    }
    bool Cancel(size_t i) {
        const bool wasPending = evtimer_pending(m_timers[i], nullptr) != 0;
        return evtimer_del(m_timers[i]) == 0 && wasPending;
    }
    void Fire() { event_base_loop(m_base, EVLOOP_NONBLOCK); }

    virtual ~LibeventTimers() = default;

protected:
    virtual const timeval* Prepare(const timeval& interval) { return &interval; }

    event_base* const m_base = event_base_new();
    std::vector<event*> m_timers;
};

// All timers have the same interval, the first that was asked for.
class LibeventCommonTimers : public LibeventTimers {
public:
    using LibeventTimers::LibeventTimers;

private:
    const timeval* Prepare(const timeval& interval) override {
        if (m_common == nullptr) {
            m_common = event_base_init_common_timeout(m_base, &interval);
        }
        return m_common;
    }
    const timeval* m_common = nullptr;
};
#endif

#ifdef NXBENCH_HAS_ASIO
class AsioTimers {
public:
    explicit AsioTimers(size_t count) {
        m_timers.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            m_timers.emplace_back(m_context);
        }
    }
    void Schedule(size_t i, long ms) {
        m_timers[i].expires_after(std::chrono::milliseconds(ms));
        m_timers[i].async_wait([](const asio::error_code& error) { s_fired += error ? 0 : 1; });
    }
    bool Cancel(size_t i) {
        const bool wasPending = m_timers[i].cancel() == 1;
        // The cancelled wait is completed by the context, which else would collect them.
        if (++m_cancelled % 100 == 0) {
            m_context.poll();
        }
        return wasPending;
    }
    void Fire() {
        m_context.restart();  // it stops when nothing is pending
        m_context.poll();
    }

private:
    asio::io_context m_context{1};
    std::vector<asio::steady_timer> m_timers;
    long m_cancelled = 0;
};
#endif

#ifdef NXBENCH_HAS_LIBUV
class UvTimers {
public:
    explicit UvTimers(size_t count) : m_timers(count) {
        Require(uv_loop_init(&m_loop) == 0, "uv_loop_init");
        for (uv_timer_t& timer : m_timers) {
            Require(uv_timer_init(&m_loop, &timer) == 0, "uv_timer_init");
        }
    }
    void Schedule(size_t i, long ms) {
        Require(
            uv_timer_start(
                &m_timers[i], [](uv_timer_t*) { ++s_fired; }, static_cast<uint64_t>(ms), 0) == 0,
            "uv_timer_start");
    }
    bool Cancel(size_t i) {
        const bool wasPending = uv_is_active(reinterpret_cast<uv_handle_t*>(&m_timers[i])) != 0;
        return uv_timer_stop(&m_timers[i]) == 0 && wasPending;
    }
    void Fire() { uv_run(&m_loop, UV_RUN_NOWAIT); }

private:
    uv_loop_t m_loop{};
    std::vector<uv_timer_t> m_timers;
};
#endif

// Intervals that follow no order: up to a minute.
long IntervalOf(size_t i) {
    return 10000 + static_cast<long>(i * 7919 % 49999);
}

template <class Timers>
double ScheduleAndCancel(long count) {
    PinTo(1);
    const auto size = static_cast<size_t>(Size(count));
    Timers timers(size);
    for (size_t i = 0; i < size; ++i) {
        timers.Schedule(i, IntervalOf(i));
    }
    const long times = Times(300000);
    size_t next = 0;
    long cancelled = 0;
    const double start = NowInNs();
    for (long i = 0; i < times; ++i) {
        next = (next + 611953) % size;
        cancelled += timers.Cancel(next) ? 1 : 0;
        timers.Schedule(next, IntervalOf(next + static_cast<size_t>(i)));
    }
    const double end = NowInNs();
    Require(cancelled == times && s_fired == 0, "a timer was not pending");
    return (end - start) / static_cast<double>(times);
}

template <class Timers>
double FireDue(long count) {
    PinTo(1);
    const long size = Size(count);
    constexpr int c_turns = 3;
    Timers timers(static_cast<size_t>(size));
    double spent = 0;
    for (int turn = 1; turn <= c_turns; ++turn) {
        for (long i = 0; i < size; ++i) {
            timers.Schedule(static_cast<size_t>(i), 1 + i * 7919 % 50);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(80));
        const double start = NowInNs();
        timers.Fire();
        spent += NowInNs() - start;
        Require(s_fired == turn * size, "not all timers have fired, or some twice");
    }
    return spent / static_cast<double>(c_turns * size);
}

template <class Action>
void ForEachKind(Action action) {
    action(Kind<RawWheel>(), "raw");
    action(Kind<NxHeap>(), "nxbase heap");
    action(Kind<NxCalendar>(), "nxbase calendar");
#ifdef NXBENCH_HAS_LIBEV
    action(Kind<LibevTimers>(), "libev");
#endif
#ifdef NXBENCH_HAS_LIBEVENT
    action(Kind<LibeventTimers>(), "libevent");
    action(Kind<LibeventCommonTimers>(), "libevent common");
#endif
#ifdef NXBENCH_HAS_ASIO
    action(Kind<AsioTimers>(), "Asio");
#endif
#ifdef NXBENCH_HAS_LIBUV
    action(Kind<UvTimers>(), "libuv");
#endif
}

}  // namespace

void AddTimers(std::vector<Case>& cases) {
    for (const long count : {100, 1000, 10000, 100000, 1000000}) {
        ForEachKind([&](auto kind, const char* row) {
            cases.push_back({"timers", "cancel and schedule one of {}", row, count, [count] {
                                 return ScheduleAndCancel<typename decltype(kind)::Type>(count);
                             }});
        });
    }
    ForEachKind([&](auto kind, const char* row) {
        cases.push_back({"timers", "fire 100,000 that are due", row, 0,
                         [] { return FireDue<typename decltype(kind)::Type>(100000); }});
    });
}

}  // namespace bench
