// The network side: who is connected, and the way of a batch to the store and back.
#pragma once

#include <kv_server/Acceptor.h>
#include <kv_server/Client.h>
#include <kv_server/Options.h>
#include <kv_server/Stats.h>
#include <kv_server/StoreService.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace kv_server {

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

    // Listens. Answers what is wrong, or "".
    std::string Open();

    // "ADDR:PORT".
    std::string GetAddressText() const;

    // Accepts no more, answers what has arrived, and hangs up on each client when it is answered,
    // on all of them after five seconds.
    void Stop();

    // Hangs up on whoever is left.
    void Close();

private:
    void Submit(std::unique_ptr<Batch> batch) override;
    void ContinueLater(std::uint64_t clientId) override;
    void OnDropped(std::uint64_t clientId) override { Erase(clientId); }
    std::int64_t GetSeconds() const override { return m_seconds; }
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    void OnAccepted(int socket);
    void CountRefused(const char* why);
    void OnReplies(std::unique_ptr<Batch> batch);
    template <class Condition>
    void EraseIf(Condition condition);
    void Erase(std::uint64_t clientId);
    bool IsOverdue(const Client& client) const;

    const Options m_options;
    INxReactor& m_network;
    INxEventQueue& m_store;
    StoreService& m_service;
    Stats& m_stats;
    std::function<void()> m_onStopped;  // empty once called

    Acceptor m_acceptor;
    // A batch may come back when its client is gone: it is known by a number that is never reused.
    std::unordered_map<std::uint64_t, std::unique_ptr<Client>> m_clients;
    std::uint64_t m_lastClientId = 0;
    std::int64_t m_seconds;
    std::int64_t m_stopAt = 0;  // 0 before Stop
};

}  // namespace kv_server
