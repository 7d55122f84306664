#include <common/Clock.h>
#include <common/Program.h>
#include <common/Trace.h>
#include <kv_server/Server.h>
#include <malloc.h>
#include <nx/event/NxCall.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <iterator>
#include <new>
#include <utility>

namespace kv_server {

namespace {

// Beyond the clients served, so many are told that there is no place; further ones hear nothing.
constexpr std::size_t c_refusedAtOnce = 64;
constexpr std::int64_t c_lingerSeconds = 2;
constexpr std::int64_t c_stopMs = 4500;
constexpr long c_stopTickUsec = 10000;

// The store gets ahead of the network thread by so many bytes of replies.
constexpr std::size_t c_mostUncounted = 16UL << 20;

// Less is not worth the walk through the heap.
constexpr std::size_t c_givenBackFrom = 16UL << 20;

// So many go fast enough for nobody to notice; the rest waits for the next turn.
constexpr std::size_t c_removedAtOnce = 10000;
constexpr std::int64_t c_msPerSecond = 1000;
constexpr std::int64_t c_usPerMs = 1000;

std::int64_t NowMs() {
    return examples::NowNs() / (examples::c_nsPerSecond / c_msPerSecond);
}

}  // namespace

void StoreService::Run(Batch& batch) {
    m_store.SetTime(NowMs());
    m_runner.Run(batch);
    ScheduleExpiry();
}

void StoreService::Close() {
    m_timers.CancelTimer(this);
    m_store.Clear();
}

void StoreService::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    m_nextExpiry.reset();
    m_store.SetTime(NowMs());
    m_store.RemoveExpired(c_removedAtOnce);
    ScheduleExpiry();
}

// One timer, for the key that expires first. It may come early when the system's clock is set, and
// is then set again.
void StoreService::ScheduleExpiry() {
    const std::optional<std::int64_t> next = m_store.GetNextExpiry();
    if (!next.has_value() || next == m_nextExpiry) {
        return;
    }
    m_nextExpiry = next;
    const std::int64_t wait = std::max<std::int64_t>(*next - m_store.GetTime(), 0);
    const CNxTimeValue interval(wait / c_msPerSecond, wait % c_msPerSecond * c_usPerMs);
    const NxResult result = m_timers.ScheduleTimer(this, nullptr, interval, 1);
    if (!NxSucceeded(result)) {
        // No memory: the next batch tries again. Until then keys expire when they are named.
        m_nextExpiry.reset();
    }
}

Server::Server(const Options& options, INxReactor& network, INxEventQueue& store,
               StoreService& service, Stats& stats, std::function<void()> onStopped)
    : m_options(options),
      m_network(network),
      m_store(store),
      m_service(service),
      m_stats(stats),
      m_onStopped(std::move(onStopped)),
      m_acceptor(
          network, [this](int socket) { OnAccepted(socket); },
          [this] { CountRefused("out of descriptors"); }),
      m_now(NowMs()),
      m_mayHold(options.clientMemory << 20),
      m_mayBeUncounted(std::min(m_mayHold, c_mostUncounted)) {}

std::string Server::Open() {
    const auto port = static_cast<unsigned short>(m_options.port);
    std::string error = m_acceptor.Open(CNxInetAddr(m_options.bind.c_str(), port));
    if (error.empty()) {
        m_stats.port = m_acceptor.GetAddress().GetPort();
        Tick(CNxTimeValue(1, 0));
    }
    return error;
}

void Server::Tick(const CNxTimeValue& interval) {
    examples::Require(m_network.ScheduleTimer(this, nullptr, interval, 0), "watch its clients");
}

std::string Server::GetAddressText() const {
    return m_acceptor.GetAddress().GetHostPort().GetRawData();
}

void Server::OnAccepted(int socket) {
    ++m_stats.accepted;
    bool isTaken = false;
    try {
        IClientOwner& owner = *this;
        auto client = std::make_unique<Client>(++m_lastClientId, socket, m_network, owner);
        isTaken = true;
        Serve(std::move(client));
    } catch (const std::bad_alloc&) {
        if (!isTaken) {
            close(socket);
        }
        CountRefused("out of memory");
    }
}

void Server::Serve(std::unique_ptr<Client> client) {
    const std::uint64_t id = client->GetId();
    if (m_stats.connected >= m_options.maxClients) {
        CountRefused("max-clients reached");
        if (m_connections.size() < m_options.maxClients + c_refusedAtOnce &&
            client->Refuse("ERR max number of clients reached")) {
            m_connections.emplace(id, Connection{std::move(client), false});
        }
    } else if (client->Open()) {
        m_connections.emplace(id, Connection{std::move(client), true});
        ++m_stats.connected;
    } else {
        CountRefused("the reactor has no place for it");
    }
}

void Server::CountRefused(const char* why) {
    ++m_stats.refused;
    examples::Trace(examples::c_traceWarning, "client ", m_stats.accepted.load(),
                    " refused: ", why);
}

bool Server::Submit(std::unique_ptr<Batch> batch) {
    auto run = [this, batch = std::move(batch)]() mutable {
        // Else it comes back as it is, behind those that have to be counted first.
        if (m_uncounted < m_mayBeUncounted) {
            m_service.Run(*batch);
        }
        m_uncounted += batch->replies.GetSize();
        if (m_replies.Put(std::move(batch))) {
            // Where there is no memory for this, the next tick looks.
            NxPostCall(m_network, [this] { TakeReplies(); });
        }
    };
    return NxPostCall(m_store, std::move(run)) == NX_OK;
}

void Server::TakeReplies() {
    for (auto batch = m_replies.Take(); batch != nullptr; batch = m_replies.Take()) {
        OnReplies(std::move(batch));
        if (IsFull()) {
            MakeRoom();
        }
    }
}

void Server::OnReplies(std::unique_ptr<Batch> batch) {
    const std::uint64_t id = batch->clientId;
    m_uncounted -= batch->replies.GetSize();
    Client* const client = Find(id);
    if (client != nullptr && !client->OnReplies(std::move(batch))) {
        Erase(id);
    }
}

bool Server::ContinueLater(std::uint64_t clientId) {
    const auto goOn = [this, clientId] {
        Client* const client = Find(clientId);
        if (client != nullptr && !client->Continue()) {
            Erase(clientId);
        }
    };
    return NxPostCall(m_network, goOn) == NX_OK;
}

void Server::CountHeld(std::size_t before, std::size_t now) {
    assert(m_held >= before);
    const bool wasFull = IsFull();
    m_held += now - before;
    m_heldMost = std::max(m_heldMost, m_held);
    if (IsFull() && !wasFull) {
        // Not at once: a client is in the middle of its step. Without memory the next tick does it.
        NxPostCall(m_network, [this] { MakeRoom(); });
    }
}

// Lets go who holds most until the rest may stay.
void Server::MakeRoom() {
    while (IsFull()) {
        const auto holdsLess = [](const auto& one, const auto& other) {
            return one.second.client->GetHeld() < other.second.client->GetHeld();
        };
        const auto most = std::max_element(m_connections.begin(), m_connections.end(), holdsLess);
        assert(most != m_connections.end());
        examples::Trace(examples::c_traceWarning, "client ", most->first, " dropped: holds ",
                        most->second.client->GetHeld(), " of ", m_held, " bytes");
        Erase(most);
    }
}

void Server::GiveMemoryBack() {
    if (m_heldMost - m_held >= c_givenBackFrom) {
        malloc_trim(0);
        m_heldMost = m_held;
    }
}

Client* Server::Find(std::uint64_t clientId) {
    const auto found = m_connections.find(clientId);
    return found != m_connections.end() ? found->second.client.get() : nullptr;
}

void Server::Stop() {
    assert(m_stopAt == 0);
    examples::Trace(examples::c_traceInfo, "stopping; clients ", m_connections.size());
    m_acceptor.Close();
    m_stopAt = NowMs() + c_stopMs;
    Tick(CNxTimeValue(0, c_stopTickUsec));
    EraseIf([](Client& client) { return !client.Stop(); });
}

void Server::Close() {
    m_acceptor.Close();
    m_network.CancelTimer(this);
    m_onStopped = nullptr;
    EraseIf([](Client&) { return true; });
}

void Server::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    m_now = NowMs();
    m_acceptor.OnTick();
    TakeReplies();
    MakeRoom();
    EraseIf([this](Client& client) { return !client.OnTick() || IsOverdue(client); });
    GiveMemoryBack();
    if (m_stopAt != 0 && m_now >= m_stopAt) {
        m_service.GiveUp();
    }
    if (m_stopAt != 0 && m_connections.empty() && m_onStopped) {
        std::exchange(m_onStopped, nullptr)();
    }
}

bool Server::IsOverdue(const Client& client) const {
    if (m_stopAt != 0) {
        return m_now >= m_stopAt || client.IsDone();
    }
    const std::int64_t silent = GetSeconds() - client.GetActiveAt();
    const auto idleTimeout = static_cast<std::int64_t>(m_options.idleTimeout);
    if (client.IsLingering()) {
        return silent >= c_lingerSeconds;
    }
    if (idleTimeout == 0 || silent <= idleTimeout || !client.IsIdle()) {
        return false;
    }
    examples::Trace(examples::c_traceInfo, "client ", client.GetId(), " was silent for ", silent,
                    " s");
    return true;
}

// Needs no memory.
template <class Condition>
void Server::EraseIf(Condition condition) {
    for (auto at = m_connections.begin(); at != m_connections.end();) {
        at = condition(*at->second.client) ? Erase(at) : std::next(at);
    }
}

void Server::Erase(std::uint64_t clientId) {
    const auto found = m_connections.find(clientId);
    assert(found != m_connections.end());
    Erase(found);
}

Server::Connections::iterator Server::Erase(Connections::iterator found) {
    m_stats.connected -= found->second.isServed ? 1 : 0;
    const auto next = m_connections.erase(found);
    assert(m_stats.connected <= m_connections.size());
    return next;
}

}  // namespace kv_server
