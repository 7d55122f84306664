#include <common/Clock.h>
#include <common/Trace.h>
#include <kv_server/Service.h>
#include <malloc.h>

#include <algorithm>
#include <utility>

namespace kv_server {

namespace {

using examples::Trace;

// Less is counted as nothing: most clients change no number that all loops share.
constexpr std::size_t c_heldStep = 4096;

// Less is not worth the walk through the heap.
constexpr std::size_t c_givenBackFrom = 16UL << 20;
constexpr CNxTimeValue c_givenBackEvery(1, 0);

// So many go fast enough for nobody to notice; the rest waits for the next time.
constexpr std::size_t c_removedAtOnce = 20000;
constexpr CNxTimeValue c_removedEvery(0, 100000);

constexpr CNxTimeValue c_lookEvery(0, 10000);
// Descriptors that a reactor serves in one turn.
constexpr std::size_t c_servedAtOnce = 1024;

std::int64_t NowMs() {
    return examples::NowNs() / 1000000;
}

// Tells a client that it is not served.
class Refusal : public INxConnectionSink {
    void OnOpen(CNxConnection& connection) override {
        connection.Send("-ERR max number of clients reached\r\n");
        connection.CloseWhenSent();
    }
    void OnReceive(CNxConnection& /*connection*/, CNxMessageChain& received) override {
        received.Clear();
    }
};

}  // namespace

// Belongs to its loop's thread, but for CountHeld and Drop, which whoever makes room calls.
class Service::Client : public INxConnectionSink {
public:
    Client(Service& service, std::uint64_t id) : m_service(service), m_id(id) {
        ++service.m_stats.connected;
    }
    ~Client() override { --m_service.m_stats.connected; }

    // Counts anew what it holds, and returns that: bytes of memory for its commands and replies. A
    // large value counts in full, though it may be shared with the store: replaced there, it is the
    // client's alone.
    std::size_t CountHeld() {
        const std::size_t unsent = m_connection->GetUnsent();
        return SetHeld(m_isDropped ? 0 : (m_unread + unsent) / c_heldStep * c_heldStep);
    }

    void Drop() {
        Trace(NX_TRACE_WARNING, "client ", m_id, " dropped: holds ", m_held.load(), " of ",
              m_service.m_held.load(), " bytes");
        m_isDropped = true;
        SetHeld(0);
        m_connection->CloseNow();
    }

private:
    std::size_t SetHeld(std::size_t held) {
        const std::size_t before = m_held.exchange(held);
        if (held != before) {
            const std::size_t all = m_service.m_held += held - before;
            if (all > m_service.m_heldMost) {
                m_service.m_heldMost = all;
            }
        }
        return held;
    }

    void OnOpen(CNxConnection& connection) override {
        m_connection = &connection;
        const CNxMutexGuardT<CNxMutexThread> guard(m_service.m_clientsMutex);
        m_service.m_clients.insert(this);
    }

    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        CNxMessageChain replies;
        const ERun end = m_service.Run(m_parser, received, connection.GetUnsent(), replies);
        // An open connection takes what is sent.
        connection.Send(std::move(replies));
        if (end == ERun::QUIT) {
            if (!m_parser.GetError().empty()) {
                Trace(NX_TRACE_WARNING, "client ", m_id, ": ", m_parser.GetError().c_str());
            }
            connection.CloseWhenSent();
        } else if (end == ERun::EARLY) {
            TakeTurns(connection);
        }
        m_unread = received.GetSize() + m_parser.GetHeld();
        CountHeld();
        m_service.MakeRoom();
    }

    // Goes on with what is there when others had their turn, unless it must take its replies first.
    void TakeTurns(CNxConnection& connection) {
        Pause(connection);
        auto goOn = [this, kept = CNxAutoPtr<CNxConnection>(&connection)] {
            const bool isOpen = kept->GetState() == CNxConnection::EState::OPEN;
            if (isOpen && kept->GetUnsent() <= c_maxWaiting) {
                Resume(*kept);
            }
        };
        if (NxPostCall(connection.GetReactor(), std::move(goOn)) != NX_OK) {
            connection.CloseNow();
        }
    }

    void Pause(CNxConnection& connection) {
        m_isPaused = true;
        connection.PauseReading();
    }

    void Resume(CNxConnection& connection) {
        m_isPaused = false;
        connection.ResumeReading();
    }

    void OnHighWater(CNxConnection& connection) override {
        Trace(NX_TRACE_WARNING, "client ", m_id, " reads slowly: ", connection.GetUnsent(),
              " bytes wait for it");
        Pause(connection);
    }

    void OnLowWater(CNxConnection& connection) override {
        Resume(connection);
        CountHeld();
    }

    // Answers what has arrived by now: until nothing came for as many turns of the loop as it takes
    // until every descriptor had one.
    void OnStop(CNxConnection& connection) override {
        const auto look = [this, &connection] {
            const std::uint64_t received = connection.GetBytesReceived();
            const bool isNew = std::exchange(m_receivedBefore, received) != received;
            m_quietLooks = isNew || m_isPaused ? 0 : m_quietLooks + 1;
            const std::size_t count = CNxConnection::GetCount(connection.GetReactor());
            if (m_quietLooks > 1 + count / c_servedAtOnce) {
                m_stop.Cancel();
                connection.CloseWhenSent();
            }
        };
        if (m_stop.RunEvery(connection.GetReactor(), c_lookEvery, look) != NX_OK) {
            connection.CloseWhenSent();
        }
    }

    void OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) override {
        m_stop.Cancel();
        if (reason.kind == ENxClosed::IDLE || reason.kind == ENxClosed::STALLED) {
            Trace(NX_TRACE_INFO, "client ", m_id, " dropped: ", reason.text.c_str());
        }
        const CNxMutexGuardT<CNxMutexThread> guard(m_service.m_clientsMutex);
        m_service.m_clients.erase(this);
        SetHeld(0);
    }

    Service& m_service;
    const std::uint64_t m_id;
    CNxConnection* m_connection = nullptr;
    RequestParser m_parser;
    bool m_isPaused = false;

    std::atomic<std::size_t> m_unread{0};  // bytes that came and could not be run yet
    std::atomic<std::size_t> m_held{0};    // as counted last
    std::atomic<bool> m_isDropped{false};

    // While the server stops.
    CNxTimedCall m_stop;
    std::uint64_t m_receivedBefore = 0;
    std::size_t m_quietLooks = 0;
};

NxResult Service::Start(INxReactor& loop) {
    const auto removeExpired = [this] {
        const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        m_store.SetTime(NowMs());
        m_store.RemoveExpired(c_removedAtOnce);
    };
    const auto giveMemoryBack = [this] {
        const std::size_t held = m_held;
        if (m_heldMost - std::min(held, m_heldMost.load()) >= c_givenBackFrom) {
            malloc_trim(0);
            m_heldMost = held;
        }
    };
    return NxSendCall(loop, [&] {
        const NxResult started = m_expiry.RunEvery(loop, c_removedEvery, removeExpired);
        return started != NX_OK ? started
                                : m_memory.RunEvery(loop, c_givenBackEvery, giveMemoryBack);
    });
}

std::unique_ptr<INxConnectionSink> Service::MakeSink() {
    const std::uint64_t id = ++m_stats.accepted;
    if (m_stats.connected < m_maxClients) {
        return std::make_unique<Client>(*this, id);
    }
    ++m_stats.refused;
    Trace(NX_TRACE_WARNING, "client ", id, " refused: max-clients reached");
    return std::make_unique<Refusal>();
}

// As CommandRunner::Run.
ERun Service::Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
                  CNxMessageChain& replies) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_store.SetTime(NowMs());
    return m_runner.Run(parser, input, waiting, replies);
}

// Lets go who holds most until the rest may stay, each being counted as of now: nobody tells when a
// client has taken the last of what it had asked for.
void Service::MakeRoom() {
    while (m_held > m_mayHold) {
        const CNxMutexGuardT<CNxMutexThread> guard(m_clientsMutex);
        Client* largest = nullptr;
        std::size_t most = 0;
        for (Client* const client : m_clients) {
            const std::size_t held = client->CountHeld();
            if (held > most) {
                most = held;
                largest = client;
            }
        }
        if (largest == nullptr || m_held <= m_mayHold) {
            return;
        }
        // Within a call of a sink, so that no OnClosed comes before the lock is free.
        largest->Drop();
    }
}

}  // namespace kv_server
