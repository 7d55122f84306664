#include <common/Trace.h>

#include <kv_server/Service.h>
#include <malloc.h>
#include <nx/event/NxCall.h>
#include <nx/reactor/INxReactor.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace kv_server {

namespace {

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
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
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

bool Service::Start(INxReactor& loop) {
    return m_expiry.RunEvery(loop, c_removedEvery, [this] { RemoveExpired(); }) == NX_OK &&
           m_memory.RunEvery(loop, c_givenBackEvery, [this] { GiveMemoryBack(); }) == NX_OK;
}

std::unique_ptr<INxConnectionSink> Service::MakeSink() {
    const std::uint64_t id = ++m_stats.accepted;
    if (m_stats.connected < m_maxClients) {
        return std::make_unique<Client>(*this, id);
    }
    ++m_stats.refused;
    examples::Trace(examples::c_traceWarning, "client ", id, " refused: max-clients reached");
    return std::make_unique<Refusal>();
}

ERun Service::Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
                  CNxMessageChain& replies) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_store.SetTime(NowMs());
    return m_runner.Run(parser, input, waiting, replies);
}

void Service::RemoveExpired() {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_store.SetTime(NowMs());
    m_store.RemoveExpired(c_removedAtOnce);
}

void Service::GiveMemoryBack() {
    const std::size_t held = m_held;
    if (m_heldMost - std::min(held, m_heldMost.load()) >= c_givenBackFrom) {
        malloc_trim(0);
        m_heldMost = held;
    }
}

void Service::Add(Client& client) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_clientsMutex);
    m_clients.insert(&client);
}

void Service::Remove(Client& client) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_clientsMutex);
    m_clients.erase(&client);
}

void Service::CountHeld(std::size_t before, std::size_t now) {
    const std::size_t held = m_held += now - before;
    if (held > m_heldMost) {
        m_heldMost = held;
    }
}

void Service::MakeRoom() {
    while (IsFull()) {
        const CNxAutoPtr<CNxConnection> largest = TakeLargest();
        if (!largest) {
            return;
        }
        largest->CloseNow();
    }
}

// Null when all may stay, each being counted as of now: nobody tells when a client has taken the
// last of what it had asked for.
CNxAutoPtr<CNxConnection> Service::TakeLargest() {
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
    if (largest == nullptr || !IsFull()) {
        return {};
    }
    examples::Trace(examples::c_traceWarning, "client ", largest->GetId(), " dropped: holds ", most,
                    " of ", m_held.load(), " bytes");
    largest->Forget();
    return CNxAutoPtr<CNxConnection>(largest->GetConnection());
}

std::size_t Client::CountHeld() {
    const std::size_t held =
        m_isForgotten ? 0 : (m_unread + m_connection->GetUnsent()) / c_heldStep * c_heldStep;
    const std::size_t before = m_held.exchange(held);
    if (held != before) {
        m_service.CountHeld(before, held);
    }
    return held;
}

void Client::Forget() {
    m_isForgotten = true;
    CountHeld();
}

void Client::OnOpen(CNxConnection& connection) {
    m_connection = &connection;
    m_service.Add(*this);
}

void Client::OnReceive(CNxConnection& connection, CNxMessageChain& received) {
    CNxMessageChain replies;
    const ERun end = m_service.Run(m_parser, received, connection.GetUnsent(), replies);
    // An open connection takes what is sent.
    connection.Send(std::move(replies));
    if (end == ERun::QUIT) {
        if (!m_parser.GetError().empty()) {
            examples::Trace(examples::c_traceWarning, "client ", m_id, ": ",
                            m_parser.GetError().c_str());
        }
        connection.CloseWhenSent();
    } else if (end == ERun::EARLY) {
        TakeTurns(connection);
    }
    m_unread = received.GetSize() + m_parser.GetHeld();
    CountHeld();
    if (m_service.IsFull()) {
        m_service.MakeRoom();
    }
}

// Goes on with what is there when others had their turn, unless it must take its replies first.
void Client::TakeTurns(CNxConnection& connection) {
    Pause(connection);
    auto goOn = [this, kept = CNxAutoPtr<CNxConnection>(&connection)] {
        if (kept->GetState() == CNxConnection::EState::OPEN && kept->GetUnsent() <= c_maxWaiting) {
            Resume(*kept);
        }
    };
    if (NxPostCall(connection.GetReactor(), std::move(goOn)) != NX_OK) {
        connection.CloseNow();
    }
}

void Client::Pause(CNxConnection& connection) {
    m_isPaused = true;
    connection.PauseReading();
}

void Client::Resume(CNxConnection& connection) {
    m_isPaused = false;
    connection.ResumeReading();
}

void Client::OnHighWater(CNxConnection& connection) {
    examples::Trace(examples::c_traceWarning, "client ", m_id,
                    " reads slowly: ", connection.GetUnsent(), " bytes wait for it");
    Pause(connection);
}

void Client::OnLowWater(CNxConnection& connection) {
    Resume(connection);
    CountHeld();
}

// Answers what has arrived by now: until nothing came for as many turns of the loop as it takes
// until every descriptor had one.
void Client::OnStop(CNxConnection& connection) {
    const auto look = [this, &connection] {
        const bool isQuiet = !m_isPaused && m_receivedBefore == connection.GetBytesReceived();
        m_receivedBefore = connection.GetBytesReceived();
        m_quietLooks = isQuiet ? m_quietLooks + 1 : 0;
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

void Client::OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) {
    m_stop.Cancel();
    if (reason.kind == ENxClosed::IDLE || reason.kind == ENxClosed::STALLED) {
        examples::Trace(examples::c_traceInfo, "client ", m_id, " dropped: ", reason.text.c_str());
    }
    if (m_connection != nullptr) {
        m_service.Remove(*this);
        Forget();
    }
}

}  // namespace kv_server
