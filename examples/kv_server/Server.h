// The two sides of the server: who is connected, on the network thread, and the keys, on a thread
// of their own. Batches of commands and replies travel between them as events.
#pragma once

#include <common/Acceptor.h>
#include <kv_server/BatchBox.h>
#include <kv_server/Client.h>
#include <kv_server/CommandRunner.h>
#include <kv_server/KvStore.h>
#include <kv_server/Options.h>
#include <nx/event/INxEventQueue.h>
#include <nx/timer/INxTimerQueue.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

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

    // Any thread: what runs ends soon, and what comes is not run.
    void GiveUp() { m_runner.GiveUp(); }

private:
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;
    void ScheduleExpiry();

    INxTimerQueue& m_timers;
    KvStore m_store;
    CommandRunner m_runner;
    // What the timer is set to; nothing while it is not.
    std::optional<std::int64_t> m_nextExpiry;
};

// Made and destroyed on the main thread; everything else belongs to the network thread. Destroyed
// closed, and when neither thread runs events any more.
class Server : private IClientOwner, private INxTimerHandler {
public:
    // `store` is the queue of the thread that `service` belongs to. `onStopped` is called when
    // Stop has come to its end.
    Server(const Options& options, INxReactor& network, INxEventQueue& store, StoreService& service,
           Stats& stats, std::function<void()> onStopped);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Listens. Returns what is wrong, or "".
    [[nodiscard]] std::string Open();

    // "ADDR:PORT".
    std::string GetAddressText() const;

    // Accepts no more, answers what has arrived, and hangs up on each client when it is answered,
    // on all of them after four and a half seconds, whatever the store does. To be called once.
    void Stop();

    // Hangs up on whoever is left.
    void Close();

private:
    bool Submit(std::unique_ptr<Batch> batch) override;
    bool ContinueLater(std::uint64_t clientId) override;
    void CountHeld(std::size_t before, std::size_t now) override;
    bool IsFull() const override { return m_held > m_mayHold; }
    void OnDropped(std::uint64_t clientId) override { Erase(clientId); }
    std::int64_t GetSeconds() const override { return m_now / 1000; }
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    // A connection, which counts as a client unless it is only told that it is refused.
    struct Connection {
        std::unique_ptr<Client> client;
        bool isServed;
    };
    using Connections = std::unordered_map<std::uint64_t, Connection>;

    void OnAccepted(int socket);
    void CountRefused(const char* why);
    void Serve(std::unique_ptr<Client> client);
    void TakeReplies();
    void OnReplies(std::unique_ptr<Batch> batch);
    void MakeRoom();
    void GiveMemoryBack();
    // The client of that number, or null.
    Client* Find(std::uint64_t clientId);
    void Tick(const CNxTimeValue& interval);
    template <class Condition>
    void EraseIf(Condition condition);
    void Erase(std::uint64_t clientId);
    Connections::iterator Erase(Connections::iterator found);
    bool IsOverdue(const Client& client) const;

    const Options m_options;
    INxReactor& m_network;
    INxEventQueue& m_store;
    StoreService& m_service;
    Stats& m_stats;
    std::function<void()> m_onStopped;  // empty once called

    examples::Acceptor m_acceptor;
    // A batch may come back when its client is gone: it is known by a number that is never reused.
    Connections m_connections;
    std::uint64_t m_lastClientId = 0;
    std::int64_t m_now;         // milliseconds, as of the last tick
    std::int64_t m_stopAt = 0;  // 0 before Stop

    BatchBox m_replies;
    const std::size_t m_mayHold;
    std::size_t m_held = 0;      // bytes, by all clients
    std::size_t m_heldMost = 0;  // since memory was given back
    const std::size_t m_mayBeUncounted;
    std::atomic<std::size_t> m_uncounted{0};  // bytes of the replies in m_replies
};

}  // namespace kv_server
