// Threads that run jobs handed to them by others, each the way its makers mean it to be done. They
// are never destroyed: the process ends with the measurement.
#pragma once

#include <nx/nx.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "bench.h"
#include "peers.h"

namespace bench {

// What is handed over: a function and what it is called with.
struct Job {
    void (*run)(void*);
    void* argument;
};

inline void StartThread(int cpu, std::function<void()> body) {
    std::thread([cpu, body = std::move(body)] {
        PinTo(cpu);
        body();
    }).detach();
}

// A list under a lock, and a condition for the sleeper; one node is allocated for each job.
class RawLoop {
public:
    explicit RawLoop(int cpu) {
        StartThread(cpu, [this] { Loop(); });
    }

    void Post(Job job) {
        Node* const node = new Node{job, nullptr};
        bool wasEmpty = false;
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            wasEmpty = m_first == nullptr;
            (wasEmpty ? m_first : m_last->next) = node;
            m_last = node;
        }
        if (wasEmpty) {
            m_condition.notify_one();
        }
    }

private:
    struct Node {
        Job job;
        Node* next;
    };

    [[noreturn]] void Loop() {
        for (;;) {
            Node* node = nullptr;
            {
                std::unique_lock<std::mutex> guard(m_mutex);
                m_condition.wait(guard, [this] { return m_first != nullptr; });
                node = std::exchange(m_first, nullptr);
            }
            while (node != nullptr) {
                const std::unique_ptr<Node> done(node);
                node->job.run(node->job.argument);
                node = node->next;
            }
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_condition;
    Node* m_first = nullptr;
    Node* m_last = nullptr;
};

// A list of jobs by value, swapped out whole: what goes with a wake-up that carries nothing.
class JobBox {
public:
    // Whether it was empty.
    bool Put(Job job) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_jobs.push_back(job);
        return m_jobs.size() == 1;
    }

    // Runs all there are, on the thread of the loop.
    void Run() {
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_running.swap(m_jobs);
        }
        for (const Job& job : m_running) {
            job.run(job.argument);
        }
        m_running.clear();
    }

    void WaitFor(std::condition_variable& condition) {
        std::unique_lock<std::mutex> guard(m_mutex);
        condition.wait(guard, [this] { return !m_jobs.empty(); });
    }

private:
    std::mutex m_mutex;
    std::vector<Job> m_jobs;
    std::vector<Job> m_running;
};

class RawLoopNoAllocation {
public:
    explicit RawLoopNoAllocation(int cpu) {
        StartThread(cpu, [this] {
            for (;;) {
                m_box.WaitFor(m_condition);
                m_box.Run();
            }
        });
    }

    void Post(Job job) {
        if (m_box.Put(job)) {
            m_condition.notify_one();
        }
    }

private:
    JobBox m_box;
    std::condition_variable m_condition;
};

// What a hand-written loop over descriptors does.
class RawEpollLoop {
public:
    explicit RawEpollLoop(int cpu)
        : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        epoll_event wanted{};
        wanted.events = EPOLLIN;
        Require(epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_event, &wanted) == 0, "epoll_ctl");
        StartThread(cpu, [this] { Loop(); });
    }

    void Post(Job job) {
        if (m_box.Put(job)) {
            Require(eventfd_write(m_event, 1) == 0, "eventfd_write");
        }
    }

private:
    [[noreturn]] void Loop() {
        for (;;) {
            epoll_event ready{};
            if (epoll_wait(m_epoll, &ready, 1, -1) == 1) {
                eventfd_t count = 0;
                Require(eventfd_read(m_event, &count) == 0, "eventfd_read");
                m_box.Run();
            }
        }
    }

    const int m_epoll;
    const int m_event;
    JobBox m_box;
};

// The queue of a thread of the library.
class NxLoop {
public:
    void Post(Job job) { Require(m_queue->PostEvent(new Event(job)) == NX_OK, "PostEvent"); }

    void Call(Job job) { Require(m_queue->SendEvent(new Event(job)) == NX_OK, "SendEvent"); }

protected:
    void Start(CNxThread* thread, int cpu) {
        m_queue = thread->GetEventQueue();
        Call({[](void* argument) { PinTo(*static_cast<int*>(argument)); }, &cpu});
    }

private:
    class Event : public INxEvent {
    public:
        explicit Event(Job job) : m_job(job) {}
        NxResult OnEventFire() override {
            m_job.run(m_job.argument);
            return NX_OK;
        }

    private:
        const Job m_job;
    };

    INxEventQueue* m_queue = nullptr;
};

class NxTaskLoop : public NxLoop {
public:
    explicit NxTaskLoop(int cpu) {
        CNxThread* thread = nullptr;
        Require(CNxThreadManager::Instance()->CreateUserTaskThread(
                    thread, CNxThreadManager::FLAG_JOINABLE, 0) == NX_OK,
                "CreateUserTaskThread");
        Start(thread, cpu);
    }
};

class NxReactorLoop : public NxLoop {
public:
    explicit NxReactorLoop(int cpu) {
        CNxThreadManager* const threads = CNxThreadManager::Instance();
        CNxThread* thread = nullptr;
        Require(
            threads->CreateReactorThread(threads->GetAndIncreamUserType(),
                                         CNxThreadManager::CreateNetworkReactor(), thread) == NX_OK,
            "CreateReactorThread");
        Start(thread, cpu);
    }
};

#ifdef NXBENCH_HAS_ASIO
class AsioLoop {
public:
    explicit AsioLoop(int cpu) {
        StartThread(cpu, [this] { m_context.run(); });
    }

    void Post(Job job) {
        asio::post(m_context, [job] { job.run(job.argument); });
    }

private:
    asio::io_context m_context{1};  // one thread runs it
    asio::executor_work_guard<asio::io_context::executor_type> m_work{m_context.get_executor()};
};
#endif

#ifdef NXBENCH_HAS_LIBUV
// Sends of an async handle coalesce, so the jobs have a place of their own.
class UvLoop {
public:
    explicit UvLoop(int cpu) {
        Require(uv_loop_init(&m_loop) == 0, "uv_loop_init");
        m_async.data = this;
        Require(uv_async_init(
                    &m_loop, &m_async,
                    [](uv_async_t* async) { static_cast<UvLoop*>(async->data)->m_box.Run(); }) == 0,
                "uv_async_init");
        StartThread(cpu, [this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }

    void Post(Job job) {
        if (m_box.Put(job)) {
            Require(uv_async_send(&m_async) == 0, "uv_async_send");
        }
    }

private:
    uv_loop_t m_loop{};
    uv_async_t m_async{};
    JobBox m_box;
};
#endif

#ifdef NXBENCH_HAS_LIBEVENT
// Activations of an event coalesce as well.
class EventLoop {
public:
    explicit EventLoop(int cpu) {
        Require(evthread_use_pthreads() == 0, "evthread_use_pthreads");
        event_base* const base = event_base_new();
        m_event = event_new(
            base, -1, EV_PERSIST,
            [](evutil_socket_t, short, void* self) { static_cast<EventLoop*>(self)->m_box.Run(); },
            this);
        Require(m_event != nullptr, "event_new");
        StartThread(cpu, [base] { event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY); });
    }

    void Post(Job job) {
        if (m_box.Put(job)) {
            event_active(m_event, 0, 0);
        }
    }

private:
    event* m_event = nullptr;
    JobBox m_box;
};
#endif

// Calls `action(Kind<LOOP>(), ROW)` for each kind of loop.
template <class Action>
void ForEachLoop(Action action) {
    action(Kind<RawLoop>(), "raw");
    action(Kind<RawLoopNoAllocation>(), "raw, no allocation");
    action(Kind<RawEpollLoop>(), "raw epoll");
    action(Kind<NxTaskLoop>(), "nxbase task");
    action(Kind<NxReactorLoop>(), "nxbase reactor");
#ifdef NXBENCH_HAS_ASIO
    action(Kind<AsioLoop>(), "Asio");
#endif
#ifdef NXBENCH_HAS_LIBUV
    action(Kind<UvLoop>(), "libuv");
#endif
#ifdef NXBENCH_HAS_LIBEVENT
    action(Kind<EventLoop>(), "libevent");
#endif
}

// Calls `call(loop, job)` again and again, each time with a job that counts, both on processor 0.
// Nanoseconds a call.
template <class Loop, class Call>
double MeasureCalls(Call call) {
    PinTo(0);
    Loop& loop = *new Loop(0);
    const long times = Times(40000);
    long count = 0;
    const Job job{[](void* argument) { ++*static_cast<long*>(argument); }, &count};
    const double start = NowInNs();
    for (long i = 0; i < times; ++i) {
        call(loop, job);
    }
    const double end = NowInNs();
    Require(count == times, "calls are missing");
    return (end - start) / static_cast<double>(times);
}

// A call made of a post, and an answer that wakes the caller.
template <class Loop>
double PostAndWait() {
    struct Request {
        Job job{};
        Latch done{1};
    } request;
    const auto runAndTell = [](void* argument) {
        auto& asked = *static_cast<Request*>(argument);
        asked.job.run(asked.job.argument);
        asked.done.CountDown();
    };
    return MeasureCalls<Loop>([&](Loop& loop, Job job) {
        request.job = job;
        loop.Post({runAndTell, &request});
        request.done.Wait(1);
    });
}

}  // namespace bench
