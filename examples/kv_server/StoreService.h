// The store, on a thread of its own.
#pragma once

#include <kv_server/Batch.h>
#include <kv_server/CommandRunner.h>
#include <kv_server/KvStore.h>
#include <kv_server/Stats.h>
#include <nx/timer/INxTimerQueue.h>

#include <cstdint>
#include <optional>

namespace kv_server {

// Runs batches and removes keys when they expire. Made on any thread; Run and Close belong to the
// store's. Destroyed closed.
class StoreService : private INxTimerHandler {
public:
    StoreService(INxTimerQueue& timers, const Stats& stats)
        : m_timers(timers), m_runner(m_store, stats) {}
    StoreService(const StoreService&) = delete;
    StoreService& operator=(const StoreService&) = delete;

    void Run(Batch& batch);
    void Close();

private:
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;
    void ScheduleExpiry();

    INxTimerQueue& m_timers;
    KvStore m_store;
    CommandRunner m_runner;
    // What the timer is set to; nothing while it is not.
    std::optional<std::int64_t> m_nextExpiry;
};

}  // namespace kv_server
