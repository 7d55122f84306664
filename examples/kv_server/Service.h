// What serves the clients: the keys, which the loops share, and a sink for each connection.
#pragma once

#include <kv_server/CommandRunner.h>
#include <kv_server/KvStore.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/stream/CNxConnection.h>
#include <nx/timer/CNxTimedCall.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace kv_server {

class Client;

// Clients run their commands on their own loops; all that one of them has sent in one go runs
// without others between. Any thread may call any operation but Start. Outlives its clients, and is
// outlived by the loops.
class Service {
public:
    // At most so many clients, which may hold so many bytes together.
    Service(std::size_t maxClients, std::size_t mayHold)
        : m_maxClients(maxClients), m_mayHold(mayHold) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Has the loop remove keys when they expire and give memory back; on its thread. False without
    // memory.
    [[nodiscard]] bool Start(INxReactor& loop);

    // For a new connection: serves it, or only tells it that there is no place. With several loops
    // that accept at the same moment there may be a client more for each.
    std::unique_ptr<INxConnectionSink> MakeSink();

    // As CommandRunner::Run.
    ERun Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
             CNxMessageChain& replies);

    // Those that are open.
    void Add(Client& client);
    void Remove(Client& client);

    // A client that held so many bytes of memory holds so many now.
    void CountHeld(std::size_t before, std::size_t now);

    // Whether the clients hold more than they may; MakeRoom lets go who holds most until the rest
    // may stay.
    bool IsFull() const { return m_held.load(std::memory_order_relaxed) > m_mayHold; }
    void MakeRoom();

    Stats& GetStats() { return m_stats; }

private:
    CNxAutoPtr<CNxConnection> TakeLargest();
    void RemoveExpired();
    void GiveMemoryBack();

    const std::size_t m_maxClients;
    const std::size_t m_mayHold;
    Stats m_stats;

    CNxMutexThread m_mutex;
    KvStore m_store NX_GUARDED_BY(m_mutex);
    CommandRunner m_runner NX_GUARDED_BY(m_mutex){m_store, m_stats};

    CNxMutexThread m_clientsMutex;
    std::set<Client*> m_clients NX_GUARDED_BY(m_clientsMutex);
    std::atomic<std::size_t> m_held{0};      // bytes, by all clients
    std::atomic<std::size_t> m_heldMost{0};  // since memory was given back

    CNxTimedCall m_expiry;
    CNxTimedCall m_memory;
};

// One client. Belongs to its loop's thread, but for CountHeld, Forget and the queries, which
// whoever makes room calls.
class Client : public INxConnectionSink {
public:
    Client(Service& service, std::uint64_t id) : m_service(service), m_id(id) {
        ++service.GetStats().connected;
    }
    ~Client() override { --m_service.GetStats().connected; }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    std::uint64_t GetId() const { return m_id; }
    // Null before it is open.
    CNxConnection* GetConnection() const { return m_connection; }

    // Counts anew what it holds, and returns that: bytes of memory for its commands and replies. A
    // large value counts in full, though it may be shared with the store: replaced there, it is the
    // client's alone.
    std::size_t CountHeld();
    // It is let go: holds nothing any more.
    void Forget();

    void OnOpen(CNxConnection& connection) override;
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override;
    void OnHighWater(CNxConnection& connection) override;
    void OnLowWater(CNxConnection& connection) override;
    void OnStop(CNxConnection& connection) override;
    void OnClosed(CNxConnection& connection, const CNxCloseReason& reason) override;

private:
    void TakeTurns(CNxConnection& connection);
    void Pause(CNxConnection& connection);
    void Resume(CNxConnection& connection);

    Service& m_service;
    const std::uint64_t m_id;
    CNxConnection* m_connection = nullptr;
    RequestParser m_parser;
    bool m_isPaused = false;

    std::atomic<std::size_t> m_unread{0};  // bytes that came and could not be run yet
    std::atomic<std::size_t> m_held{0};    // as counted last
    std::atomic<bool> m_isForgotten{false};

    // While the server stops.
    CNxTimedCall m_stop;
    std::uint64_t m_receivedBefore = 0;
    std::size_t m_quietLooks = 0;
};

}  // namespace kv_server
