#include <common/AddressText.h>
#include <common/CallEvent.h>
#include <common/Clock.h>
#include <common/Trace.h>
#include <kv_server/Server.h>
#include <unistd.h>

#include <utility>
#include <vector>

namespace kv_server {

namespace {

// Beyond the clients served, so many are told that there is no place; further ones hear nothing.
constexpr std::size_t c_refusedAtOnce = 64;
constexpr std::int64_t c_lingerSeconds = 2;
constexpr std::int64_t c_stopSeconds = 5;
constexpr long c_stopTickUsec = 10000;

std::int64_t NowSeconds() {
    return examples::NowNs() / examples::c_nsPerSecond;
}

}  // namespace

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
      m_seconds(NowSeconds()) {}

std::string Server::Open() {
    const auto port = static_cast<unsigned short>(m_options.port);
    std::string error = m_acceptor.Open(CNxInetAddr(m_options.bind.c_str(), port));
    if (error.empty()) {
        m_stats.port = m_acceptor.GetAddress().GetPort();
        m_network.ScheduleTimer(this, nullptr, CNxTimeValue(1, 0), 0);
    }
    return error;
}

std::string Server::GetAddressText() const {
    return examples::ToText(m_acceptor.GetAddress());
}

void Server::OnAccepted(int socket) {
    ++m_stats.accepted;
    const std::uint64_t id = ++m_lastClientId;
    IClientOwner& owner = *this;
    auto client = std::make_unique<Client>(id, socket, m_network, owner);
    bool isOpen = false;
    if (m_stats.connected < m_options.maxClients) {
        isOpen = client->Open();
    } else {
        CountRefused("max-clients reached");
        isOpen = m_clients.size() < m_options.maxClients + c_refusedAtOnce &&
                 client->Refuse("ERR max number of clients reached");
    }
    if (isOpen) {
        m_stats.connected += client->IsRefused() ? 0 : 1;
        m_clients.emplace(id, std::move(client));
    } else if (!client->IsRefused()) {
        CountRefused("the reactor has no place for it");
    }
}

void Server::CountRefused(const char* why) {
    ++m_stats.refused;
    examples::Trace(examples::c_traceWarning, "client ", m_stats.accepted.load(),
                    " refused: ", why);
}

void Server::Submit(std::unique_ptr<Batch> batch) {
    examples::CallLater(m_store, [this, batch = std::move(batch)]() mutable {
        m_service.Run(*batch);
        examples::CallLater(
            m_network, [this, batch = std::move(batch)]() mutable { OnReplies(std::move(batch)); });
    });
}

void Server::OnReplies(std::unique_ptr<Batch> batch) {
    const std::uint64_t id = batch->clientId;
    const auto found = m_clients.find(id);
    if (found != m_clients.end() && !found->second->OnReplies(std::move(batch))) {
        Erase(id);
    }
}

void Server::ContinueLater(std::uint64_t clientId) {
    examples::CallLater(m_network, [this, clientId] {
        const auto found = m_clients.find(clientId);
        if (found != m_clients.end() && !found->second->Continue()) {
            Erase(clientId);
        }
    });
}

void Server::Stop() {
    examples::Trace(examples::c_traceInfo, "stopping; clients ", m_clients.size());
    m_acceptor.Close();
    m_stopAt = NowSeconds() + c_stopSeconds;
    m_network.ScheduleTimer(this, nullptr, CNxTimeValue(0, c_stopTickUsec), 0);
    EraseIf([](Client& client) { return !client.Stop(); });
}

void Server::Close() {
    m_acceptor.Close();
    m_network.CancelTimer(this);
    m_onStopped = nullptr;
    EraseIf([](Client&) { return true; });
}

void Server::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    m_seconds = NowSeconds();
    EraseIf([this](Client& client) { return IsOverdue(client); });
    if (m_stopAt != 0 && m_clients.empty() && m_onStopped) {
        std::exchange(m_onStopped, nullptr)();
    }
}

bool Server::IsOverdue(const Client& client) const {
    if (m_stopAt != 0) {
        return m_seconds >= m_stopAt || client.IsDone();
    }
    const std::int64_t silent = m_seconds - client.GetActiveAt();
    const auto idleTimeout = static_cast<std::int64_t>(m_options.idleTimeout);
    if (client.IsLingering()) {
        return silent >= c_lingerSeconds;
    }
    if (idleTimeout == 0 || silent <= idleTimeout) {
        return false;
    }
    examples::Trace(examples::c_traceInfo, "client ", client.GetId(), " was silent for ", silent,
                    " s");
    return true;
}

// A client is not destroyed while it is asked: it may be in the middle of its own operation.
template <class Condition>
void Server::EraseIf(Condition condition) {
    std::vector<std::uint64_t> ids;
    for (const auto& [id, client] : m_clients) {
        if (condition(*client)) {
            ids.push_back(id);
        }
    }
    for (const std::uint64_t id : ids) {
        Erase(id);
    }
}

void Server::Erase(std::uint64_t clientId) {
    const auto found = m_clients.find(clientId);
    m_stats.connected -= found->second->IsRefused() ? 0 : 1;
    m_clients.erase(found);
}

}  // namespace kv_server
