// Handing work to another thread, as fast as it goes: the time from the first post to the last job
// run, for each job. The loop has processor 0; the producers have 1, 0, 1, ...
#include <atomic>

#include "loops.h"

namespace bench {

namespace {

class Counter {
public:
    explicit Counter(long total) : m_left(total) {}

    // For the loop's thread alone.
    static void Count(void* self) {
        Counter& counter = *static_cast<Counter*>(self);
        if (--counter.m_left == 0) {
            counter.m_done.CountDown();
        }
    }

    void Wait() { m_done.Wait(); }

private:
    long m_left;
    Latch m_done{1};
};

template <class Loop>
double Post(long producers) {
    Loop& loop = *new Loop(0);
    const long each = Times(600000) / producers + 1;
    Counter counter(each * producers);
    Latch ready(producers);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (long i = 0; i < producers; ++i) {
        threads.emplace_back([&, cpu = static_cast<int>((i + 1) % 2)] {
            PinTo(cpu);
            ready.CountDown();
            while (!go.load(std::memory_order_acquire)) {
                std::this_thread::yield();
            }
            for (long n = 0; n < each; ++n) {
                loop.Post({Counter::Count, &counter});
            }
        });
    }
    ready.Wait();
    const double start = NowInNs();
    go.store(true, std::memory_order_release);
    counter.Wait();
    const double end = NowInNs();
    for (std::thread& thread : threads) {
        thread.join();
    }
    return (end - start) / static_cast<double>(each * producers);
}

}  // namespace

void AddPost(std::vector<Case>& cases) {
    for (const long producers : {1, 2, 4, 8, 16}) {
        ForEachLoop([&](auto kind, const char* row) {
            cases.push_back({"post", "producers: {}", row, producers, [producers] {
                                 return Post<typename decltype(kind)::Type>(producers);
                             }});
        });
    }
}

}  // namespace bench
