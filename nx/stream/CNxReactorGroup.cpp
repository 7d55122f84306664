#include <nx/event/NxCall.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/process/CatchBadAlloc.h>
#include <nx/stream/CNxAcceptor.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxReactorGroup.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/thread/CNxThreadReactor.h>
#include <sched.h>

#include <cassert>
#include <cerrno>
#include <limits>
#include <utility>

namespace {

constexpr size_t c_maxLoops = 1024;
constexpr size_t c_maxName = 15;  // pthread_setname_np(3)
constexpr unsigned long c_pollMs = 5;

// Those that the process may use; empty when the system does not tell.
std::vector<std::string> GetCpus() {
    std::vector<std::string> cpus;
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &set)) {
                cpus.push_back(std::to_string(cpu));
            }
        }
    }
    return cpus;
}

std::string MakeName(const std::string& group, size_t loop) {
    const std::string number = "-" + std::to_string(loop);
    assert(number.size() < c_maxName);
    return group.substr(0, c_maxName - number.size()) + number;
}

}  // namespace

struct CNxReactorGroup::CLoop {
    struct CDestory {
        void operator()(CNxThread* made) const { made->Destory(0); }
    };
    std::unique_ptr<CNxThreadReactor, CDestory> thread{new CNxThreadReactor};
    // Connections that were handed to it and are not made yet.
    std::atomic<size_t> onTheirWay{0};

    INxReactor& GetReactor() const { return *thread->GetReactor(); }

    // A loop that has ended by itself keeps its connections until somebody ends them.
    size_t CountConnections() const {
        return thread->IsRunning() ? CNxConnection::GetCount(GetReactor()) : 0;
    }
};

// A listening socket, or one on each loop, and what its connections are made with.
class CNxReactorGroup::CListener {
public:
    CListener(CNxReactorGroup& group, CNxSinkSource sinks, const CNxListenOptions& options)
        : m_group(group),
          m_sinks(std::move(sinks)),
          m_options(options),
          m_connectionOptions(std::make_shared<const CNxConnectionOptions>(options.connection)),
          m_acceptors(group.GetCount()) {}

    // The first one accepts on loop 0, the second one on loop 1 and so on.
    [[nodiscard]] NxResult Open(const CNxEndpoint& endpoint, size_t first);

    // On that loop, or when its thread was joined.
    void Close(size_t loop) { m_acceptors[loop].reset(); }

    const CNxEndpoint& GetEndpoint() const { return m_endpoint; }
    CNxTlsContext* GetTls() const { return m_connectionOptions->tls.Get(); }

private:
    bool HasOneForEach() const {
        return m_options.distribution == ENxDistribution::SOCKET_FOR_EACH;
    }
    [[nodiscard]] NxResult OpenOn(size_t loop, const CNxEndpoint& endpoint);
    void HandOver(size_t from, CNxConnectedSocket socket);
    size_t ChooseLoop();
    void MakeConnection(size_t loop, CNxConnectedSocket socket);
    NxResult TryToMake(size_t loop, CNxConnectedSocket socket);

    CNxReactorGroup& m_group;
    const CNxSinkSource m_sinks;
    CNxListenOptions m_options;
    const CNxConnection::Options m_connectionOptions;
    // By loop; null on those that do not accept.
    std::vector<std::unique_ptr<CNxAcceptor>> m_acceptors;
    CNxEndpoint m_endpoint;
    size_t m_next = 0;  // of the loop that accepts for all
};

NxResult CNxReactorGroup::CListener::Open(const CNxEndpoint& endpoint, size_t first) {
    if (HasOneForEach() && endpoint.GetFamily() == AF_UNIX) {
        return NX_ERROR_INVALID_ARG;
    }
    m_options.acceptor.reusePort |= HasOneForEach();
    const size_t count = m_acceptors.size();
    NxResult opened = OpenOn(first % count, endpoint);
    CNxEndpoint bound = m_endpoint;
    for (size_t i = 1; HasOneForEach() && i < count && opened == NX_OK; ++i) {
        // With the port that the first one has got.
        opened = OpenOn((first + i) % count, bound);
    }
    if (opened != NX_OK) {
        const CKeptErrno keptErrno;
        m_endpoint = CNxEndpoint();
        // What a loop that has ended does not close any more goes with the group.
        static_cast<void>(m_group.RunOnEach([this](size_t loop) { Close(loop); }));
    }
    return opened;
}

NxResult CNxReactorGroup::CListener::OpenOn(size_t loop, const CNxEndpoint& endpoint) {
    INxReactor& reactor = m_group.m_loops[loop]->GetReactor();
    const NxResult made = CatchBadAlloc([&]() -> NxResult {
        m_acceptors[loop] = std::make_unique<CNxAcceptor>(
            reactor, [this, loop](CNxConnectedSocket socket, const CNxEndpoint& /*peer*/) {
                HandOver(loop, std::move(socket));
            });
        return NX_OK;
    });
    if (made != NX_OK) {
        return made;
    }
    int error = 0;
    const NxResult opened = NxSendCall(reactor, [&]() -> NxResult {
        const NxResult result = m_acceptors[loop]->Open(endpoint, m_options.acceptor);
        error = errno;
        m_endpoint = m_acceptors[loop]->GetEndpoint();
        return result;
    });
    errno = error;
    return opened;
}

void CNxReactorGroup::CListener::HandOver(size_t from, CNxConnectedSocket socket) {
    const size_t to = HasOneForEach() ? from : ChooseLoop();
    if (to == from) {
        MakeConnection(to, std::move(socket));
        return;
    }
    CLoop& loop = *m_group.m_loops[to];
    ++loop.onTheirWay;
    auto make = [this, to, &loop, handed = std::move(socket)]() mutable {
        --loop.onTheirWay;
        MakeConnection(to, std::move(handed));
    };
    if (NxPostCall(loop.GetReactor(), std::move(make)) != NX_OK) {
        --loop.onTheirWay;
        ++m_group.m_refused;
    }
}

size_t CNxReactorGroup::CListener::ChooseLoop() {
    const auto& loops = m_group.m_loops;
    size_t chosen = m_next++ % loops.size();
    if (m_options.distribution != ENxDistribution::FEWEST) {
        return chosen;
    }
    // Among equals in turn.
    size_t fewest = std::numeric_limits<size_t>::max();
    for (size_t i = 0, at = chosen; i < loops.size(); ++i, at = (at + 1) % loops.size()) {
        const size_t count =
            CNxConnection::GetCount(loops[at]->GetReactor()) + loops[at]->onTheirWay;
        if (count < fewest) {
            fewest = count;
            chosen = at;
        }
    }
    return chosen;
}

void CNxReactorGroup::CListener::MakeConnection(size_t loop, CNxConnectedSocket socket) {
    // Its loop has told its connections to end, or is about to.
    if (m_group.m_isStopping || TryToMake(loop, std::move(socket)) != NX_OK) {
        ++m_group.m_refused;
    }
}

NxResult CNxReactorGroup::CListener::TryToMake(size_t loop, CNxConnectedSocket socket) {
    return CatchBadAlloc([&]() -> NxResult {
        INxReactor& reactor = m_group.m_loops[loop]->GetReactor();
        CNxAutoPtr<CNxConnection> connection;
        if (m_sinks.m_sink != nullptr) {
            return CNxConnection::Create(connection, reactor, std::move(socket), *m_sinks.m_sink,
                                         m_connectionOptions);
        }
        std::unique_ptr<INxConnectionSink> sink = m_sinks.m_make();
        if (sink == nullptr) {
            return NX_ERROR_NOT_AVAILABLE;
        }
        return CNxConnection::Create(connection, reactor, std::move(socket), std::move(sink),
                                     m_connectionOptions);
    });
}

CNxReactorGroup::CNxReactorGroup() = default;

CNxReactorGroup::~CNxReactorGroup() {
    while (Stop(CNxTimeValue::s_tvZero()) != NX_OK) {
    }
}

NxResult CNxReactorGroup::Start(const CNxReactorGroupOptions& options) {
    if (!m_loops.empty() || m_isStopping) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    const NxResult started = CatchBadAlloc([&]() -> NxResult {
        const std::vector<std::string> cpus = GetCpus();
        const size_t count = options.loops != 0 ? options.loops : cpus.size() + cpus.empty();
        if (count > c_maxLoops) {
            return NX_ERROR_INVALID_ARG;
        }
        const bool isPinned = options.onePerCpu && !cpus.empty();
        NxResult result = NX_OK;
        for (size_t i = 0; i < count && result == NX_OK; ++i) {
            result = StartLoop(isPinned ? cpus[i % cpus.size()] : "", MakeName(options.name, i));
        }
        return result;
    });
    if (started != NX_OK) {
        const CKeptErrno keptErrno;
        StopLoops();
        // Nothing runs on them yet that could block.
        static_cast<void>(JoinUntil(CNxTimeValue::s_tvMax()));
        m_loops.clear();
    }
    return started;
}

NxResult CNxReactorGroup::StartLoop(const std::string& cpu, const std::string& name) {
    auto loop = std::make_unique<CLoop>();
    m_loops.reserve(m_loops.size() + 1);
    loop->thread->SetCPUSet(cpu.c_str());
    loop->thread->SetName(name.c_str());
    NxResult result = loop->thread->Init(CNxThreadManager::CreateNetworkReactor());
    if (result == NX_OK) {
        result = loop->thread->Create(CNxThreadManager::Instance()->GetAndIncreamUserType(),
                                      CNxThreadManager::FLAG_JOINABLE);
    }
    if (result == NX_OK) {
        m_loops.push_back(std::move(loop));
    }
    return result;
}

INxReactor* CNxReactorGroup::GetReactor(size_t loop) const {
    return loop < m_loops.size() ? &m_loops[loop]->GetReactor() : nullptr;
}

NxResult CNxReactorGroup::RunOnEach(const std::function<void(size_t loop)>& function) {
    NxResult result = NX_OK;
    for (size_t i = 0; i < m_loops.size(); ++i) {
        const NxResult sent = NxSendCall(m_loops[i]->GetReactor(), [&] { function(i); });
        result = result == NX_OK ? sent : result;
    }
    return result;
}

NxResult CNxReactorGroup::PostToEach(const std::function<void(size_t loop)>& function) {
    NxResult result = NX_OK;
    for (size_t i = 0; i < m_loops.size(); ++i) {
        const NxResult posted = CatchBadAlloc([&]() -> NxResult {
            return NxPostCall(m_loops[i]->GetReactor(), [function, i] { function(i); });
        });
        result = result == NX_OK ? posted : result;
    }
    return result;
}

NxResult CNxReactorGroup::Listen(const CNxEndpoint& endpoint, CNxSinkSource sinks,
                                 const CNxListenOptions& options) {
    if (m_loops.empty() || m_isStopping) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (sinks.m_sink == nullptr && !sinks.m_make) {
        return NX_ERROR_INVALID_ARG;
    }
    return CatchBadAlloc([&]() -> NxResult {
        m_listeners.push_back(std::make_unique<CListener>(*this, std::move(sinks), options));
        return m_listeners.back()->Open(endpoint, m_listeners.size() - 1);
    });
}

CNxEndpoint CNxReactorGroup::GetEndpoint(size_t listener) const {
    return listener < m_listeners.size() ? m_listeners[listener]->GetEndpoint() : CNxEndpoint();
}

NxResult CNxReactorGroup::ReloadTls(std::string& error) {
    NxResult result = NX_OK;
    for (const std::unique_ptr<CListener>& listener : m_listeners) {
        std::string text;
        CNxTlsContext* const tls = listener->GetTls();
        const NxResult reloaded = tls != nullptr ? tls->Reload(text) : NX_OK;
        if (result == NX_OK && reloaded != NX_OK) {
            result = reloaded;
            error = text;
        }
    }
    return result;
}

size_t CNxReactorGroup::GetConnections() const {
    size_t count = 0;
    for (const std::unique_ptr<CLoop>& loop : m_loops) {
        count += loop->CountConnections();
    }
    return count;
}

void CNxReactorGroup::BeginStop() {
    if (m_isStopping.exchange(true)) {
        return;
    }
    // Without memory for it the connections are not told, and the end of the stop closes what
    // listens.
    static_cast<void>(PostToEach([this](size_t loop) {
        for (const std::unique_ptr<CListener>& listener : m_listeners) {
            listener->Close(loop);
        }
        CNxConnection::StopAll(m_loops[loop]->GetReactor());
    }));
}

NxResult CNxReactorGroup::Stop(const CNxTimeValue& limit) {
    BeginStop();
    const CNxTimeValue start = CNxTimeValue::GetMonotonicTime();
    while (GetConnections() != 0 && limit > CNxTimeValue::GetMonotonicTime() - start) {
        cnx_sleep_ms(c_pollMs);
    }
    StopLoops();
    return JoinUntil(CNxTimeValue::GetMonotonicTime() + c_blockedLimit);
}

void CNxReactorGroup::StopLoops() {
    // What this does not reach JoinUntil does.
    static_cast<void>(
        PostToEach([this](size_t loop) { CNxConnection::CloseAll(m_loops[loop]->GetReactor()); }));
    for (const std::unique_ptr<CLoop>& loop : m_loops) {
        // One that has ended by itself is not there to be stopped.
        static_cast<void>(loop->thread->StopForCertain(nullptr));
    }
}

NxResult CNxReactorGroup::JoinUntil(const CNxTimeValue& deadline) {
    NxResult result = NX_OK;
    for (size_t i = 0; i < m_loops.size(); ++i) {
        // Another failure says that it was joined before.
        if (m_loops[i]->thread->JoinUntil(deadline) == NX_ERROR_TIMEOUT) {
            result = NX_ERROR_TIMEOUT;
            continue;
        }
        for (const std::unique_ptr<CListener>& listener : m_listeners) {
            listener->Close(i);
        }
        CNxConnection::CloseAll(m_loops[i]->GetReactor());
    }
    return result;
}
