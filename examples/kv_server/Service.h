// What serves the clients: the keys, which the loops share, and a sink for each connection.
#pragma once

#include <kv_server/CommandRunner.h>
#include <kv_server/KvStore.h>
#include <nx/nx.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <set>

namespace kv_server {

// Clients run their commands on their own loops; all that one of them has sent in one go runs
// without others between. Any thread may call any operation. Outlives its clients, and is
// outlived by the loops.
class Service {
public:
    // At most so many clients, which may hold so many bytes together.
    Service(std::size_t maxClients, std::size_t mayHold)
        : m_maxClients(maxClients), m_mayHold(mayHold) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Has the loop, which is another thread's, remove keys when they expire and give memory back.
    // As CNxTimedCall::RunEvery.
    [[nodiscard]] NxResult Start(INxReactor& loop);

    // For a new connection: serves it, or only tells it that there is no place. With several loops
    // that accept at the same moment there may be a client more for each.
    std::unique_ptr<INxConnectionSink> MakeSink();

    Stats& GetStats() { return m_stats; }

private:
    class Client;

    ERun Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
             CNxMessageChain& replies);
    void MakeRoom();

    const std::size_t m_maxClients;
    const std::size_t m_mayHold;
    Stats m_stats;

    CNxMutexThread m_mutex;
    KvStore m_store NX_GUARDED_BY(m_mutex);
    CommandRunner m_runner NX_GUARDED_BY(m_mutex){m_store, m_stats};

    CNxMutexThread m_clientsMutex;
    std::set<Client*> m_clients NX_GUARDED_BY(m_clientsMutex);  // that are open
    std::atomic<std::size_t> m_held{0};                         // bytes, by all clients
    std::atomic<std::size_t> m_heldMost{0};                     // since memory was given back

    CNxTimedCall m_expiry;
    CNxTimedCall m_memory;
};

}  // namespace kv_server
