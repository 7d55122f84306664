// What it costs to hand work to another place: the library's queues beside the plainest peer that
// does the same, in one run.
#include <benchmark/benchmark.h>
#include <nx/nx.h>

#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>

namespace {

constexpr auto c_normal = INxEventQueue::PRIORITY_NORMAL;

class Increment : public INxEvent {
public:
    explicit Increment(long& sum) : m_sum(sum) {}
    NxResult OnEventFire() override {
        ++m_sum;
        return NX_OK;
    }

private:
    long& m_sum;
};

void PeerMutexDequeOfFunctions(benchmark::State& state) {
    std::mutex mutex;
    std::deque<std::function<void()>> queue;
    long sum = 0;
    for (auto _ : state) {
        for (long i = 0; i < state.range(0); ++i) {
            const std::lock_guard<std::mutex> lock(mutex);
            queue.emplace_back([&sum] { ++sum; });
        }
        std::deque<std::function<void()>> batch;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            batch.swap(queue);
        }
        for (const auto& work : batch) {
            work();
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PeerMutexDequeOfFunctions)->Arg(1)->Arg(100);

void PostPopAndFire(benchmark::State& state) {
    CNxEventQueueUsingMutex queue;
    long sum = 0;
    for (auto _ : state) {
        for (long i = 0; i < state.range(0); ++i) {
            queue.PostEvent(new Increment(sum), c_normal);
        }
        std::list<INxEvent*> batch;
        {
            CNxMutexGuardT<CNxMutexThread> guard(queue.GetMutex());
            benchmark::DoNotOptimize(
                queue.PopPendingEvents(batch, std::numeric_limits<size_t>::max(), nullptr));
        }
        queue.ProcessEvents(batch);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PostPopAndFire)->Arg(1)->Arg(100);

// There and back between two threads, through a task thread's condition.
void SendToAnotherThread(benchmark::State& state) {
    CNxThread* worker = nullptr;
    if (CNxThreadManager::Instance()->CreateUserTaskThread(worker, CNxThreadManager::FLAG_JOINABLE,
                                                           0) != NX_OK) {
        state.SkipWithError("no thread");
        return;
    }
    long sum = 0;
    for (auto _ : state) {
        worker->GetEventQueue()->SendEvent(new Increment(sum));
    }
    worker->Stop(nullptr);
    worker->Join();
    worker->Destory(0);
}
BENCHMARK(SendToAnotherThread)->UseRealTime();

// The same through a reactor's notify pipe.
void SendToAReactorThread(benchmark::State& state) {
    CNxThread* network = nullptr;
    if (CNxThreadManager::Instance()->CreateNetworkThread(
            NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(), network) != NX_OK) {
        state.SkipWithError("no thread");
        return;
    }
    long sum = 0;
    for (auto _ : state) {
        network->GetEventQueue()->SendEvent(new Increment(sum));
    }
    network->Stop(nullptr);
    network->Join();
    network->Destory(0);
}
BENCHMARK(SendToAReactorThread)->UseRealTime();

// A reference taken and released on an object that no other thread has; the peer is the counter of
// std::shared_ptr.
void PeerSharedPointer(benchmark::State& state) {
    const auto object = std::make_shared<long>(0);
    for (auto _ : state) {
        auto copy = object;
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(PeerSharedPointer)->Threads(1)->Threads(2)->UseRealTime();

void TakeAndReleaseAReference(benchmark::State& state) {
    CNxDataBlock* block = nullptr;
    if (CNxDataBlock::CreateInstance(block, 64, nullptr) != NX_OK) {
        state.SkipWithError("no memory");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(block->AddReference());
        benchmark::DoNotOptimize(block->ReleaseReference());
    }
    block->ReleaseReference();
}
BENCHMARK(TakeAndReleaseAReference)->Threads(1)->Threads(2)->UseRealTime();

class Idle : public INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override {}
};

// One timer scheduled and cancelled among `range` others.
void ScheduleAndCancel(benchmark::State& state) {
    CNxTimerQueueOrderedList queue(nullptr);
    std::vector<Idle> others(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < others.size(); ++i) {
        benchmark::DoNotOptimize(queue.ScheduleTimer(
            &others[i], nullptr, CNxTimeValue(1000 + static_cast<long>(i), 0), 1));
    }
    Idle handler;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            queue.ScheduleTimer(&handler, nullptr, CNxTimeValue(1000 + state.range(0) / 2, 0), 1));
        queue.CancelTimer(&handler);
    }
}
BENCHMARK(ScheduleAndCancel)->Arg(10)->Arg(1000);

}  // namespace
