#include <nx/foundation/CCallOut.h>
#include <nx/resolve/CNxDnsManager.h>
#include <nx/stream/CConnectPlan.h>
#include <nx/stream/CNxConnector.h>
#include <nx/stream/interleave.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <new>
#include <system_error>
#include <utility>

namespace {

// RFC 8305 section 8.
CNxTimeValue AttemptDelay() {
    return {0, 250000};
}

// The backlog of a unix socket is full: the system says so at once, and tells nobody when it is not
// any more.
CNxTimeValue BacklogDelay() {
    return {0, 20000};
}

CNxTimeValue Now() {
    return CNxTimeValue::GetMonotonicTime();
}

double ToSeconds(const CNxTimeValue& time) {
    return static_cast<double>(time.GetSec()) + static_cast<double>(time.GetUsec()) / 1e6;
}

// Differs between clients that a machine starts together, and between machines; nothing hangs on it
// being hard to guess.
unsigned Seed(const void* object) {
    const CNxTimeValue now = CNxTimeValue::GetTimeOfDay();
    const auto mixed = static_cast<unsigned long>(now.GetSec() * 1000003 + now.GetUsec() * 8191) ^
                       static_cast<unsigned long>(getpid()) * 2654435761UL ^
                       reinterpret_cast<unsigned long>(object) >> 4;
    return static_cast<unsigned>(mixed ^ mixed >> 32);
}

int ToErrno(NxResult lookUp) {
    switch (lookUp) {
        case NX_ERROR_NOT_AVAILABLE:
            return ENOENT;
        case NX_ERROR_TIMEOUT:
            return ETIMEDOUT;
        case NX_ERROR_NULL_POINTER:
            return EINVAL;
        default:
            return EIO;
    }
}

const char* Describe(NxResult lookUp) {
    switch (lookUp) {
        case NX_ERROR_NOT_AVAILABLE:
            return "there is no such name, or it has no address";
        case NX_ERROR_TIMEOUT:
            return "no name server has answered";
        case NX_ERROR_NULL_POINTER:
            return "this thread cannot be told of names";
        default:
            return "the name could not be looked up";
    }
}

}  // namespace

// A socket that connects, until it has or has failed.
class CNxConnector::CAttempt : public INxEventHandler {
public:
    explicit CAttempt(CNxConnector& owner) : m_owner(owner) {}
    ~CAttempt() override { StopWatching(); }
    CAttempt(const CAttempt&) = delete;
    CAttempt& operator=(const CAttempt&) = delete;

    // 0 when it is under way, else why not.
    [[nodiscard]] int Begin(const CNxEndpoint& endpoint);

    CNxSocketBase TakeSocket() {
        StopWatching();
        return std::move(m_socket);
    }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnOutput(int fd) override;
    int OnClose(int fd, long mask) override;

private:
    void StopWatching();
    bool IsItsOwnPeer() const;

    CNxConnector& m_owner;
    CNxSocketBase m_socket;
    bool m_isWatched = false;
};

int CNxConnector::CAttempt::Begin(const CNxEndpoint& endpoint) {
    if (m_socket.Open(endpoint.GetFamily(), SOCK_STREAM | SOCK_NONBLOCK, 0, 0) != 0) {
        return errno;
    }
    if (connect(GetHandle(), endpoint.GetAddress(), endpoint.GetSize()) != 0 &&
        errno != EINPROGRESS && errno != EINTR) {
        return errno;
    }
    const NxResult watched = m_owner.m_reactor.RegisterHandler(this, NX_MASK_CONNECT);
    m_isWatched = NxSucceeded(watched);
    if (!m_isWatched) {
        return watched == NX_ERROR_INVALID_ARG ? EMFILE : ENOMEM;
    }
    return 0;
}

void CNxConnector::CAttempt::StopWatching() {
    if (m_isWatched) {
        m_isWatched = false;
        m_owner.m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
    }
}

// Its owner may be gone when OnAttemptEnded returns, and the attempt is.
int CNxConnector::CAttempt::OnOutput(int fd) {
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
    }
    CNxEndpoint peer;
    if (error == 0 && peer.SetPeerOf(fd) == NX_ERROR_FAILURE && errno == ENOTCONN) {
        // What was reported was not meant for this socket: one of the same number was closed.
        return 0;
    }
    if (error == 0 && IsItsOwnPeer()) {
        error = ECONNREFUSED;
    }
    m_owner.OnAttemptEnded(*this, error);
    return 0;
}

int CNxConnector::CAttempt::OnClose(int /*fd*/, long /*mask*/) {
    m_isWatched = false;
    const int reason = m_owner.m_reactor.GetCloseReason();
    // Without one it was connected, and hung up on at once.
    m_owner.OnAttemptEnded(*this, reason != 0 ? reason : ECONNRESET);
    return 0;
}

// A socket that connects to a port of this machine where nobody listens may be given that very port
// as its own, and meet itself.
bool CNxConnector::CAttempt::IsItsOwnPeer() const {
    CNxEndpoint local;
    CNxEndpoint peer;
    return local.SetLocalOf(GetHandle()) == NX_OK && peer.SetPeerOf(GetHandle()) == NX_OK &&
           local.GetFamily() != AF_UNIX && local == peer;
}

CNxConnector::CNxConnector(INxReactor& reactor) : m_reactor(reactor), m_random(Seed(this)) {}

CNxConnector::~CNxConnector() {
    Stop();
}

NxResult CNxConnector::Connect(const char* target, const CNxConnectorOptions& options,
                               INxConnectionSink& sink, OnFailed onFailed) {
    Stop();
    m_plan = nullptr;
    if (target == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    try {
        auto plan = std::make_shared<CConnectPlan>(target, options, sink);
        plan->onFailed = std::move(onFailed);
        if (!plan->Complete()) {
            return NX_ERROR_INVALID_ARG;
        }
        m_plan = std::move(plan);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    m_delays = 0;
    return WaitForTry({});
}

NxResult CNxConnector::Reconnect() {
    if (m_plan == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (m_state == EState::CONNECTED && Now() - m_connectedAt >= m_plan->options.maxDelay) {
        m_delays = 0;
    }
    Stop();
    return WaitForTry(NextDelay());
}

CNxTimeValue CNxConnector::GetDelay() const {
    const CNxTimeValue now = Now();
    return m_state == EState::WAITING && m_due > now ? m_due - now : CNxTimeValue();
}

void CNxConnector::Cancel() {
    Stop();
}

CNxConnection* CNxConnector::GetConnection() const {
    const bool isThere = m_connection && m_connection->GetState() != CNxConnection::EState::CLOSED;
    return isThere ? m_connection.Get() : nullptr;
}

void CNxConnector::Stop() {
    const EState state = std::exchange(m_state, EState::IDLE);
    if (state == EState::RESOLVING) {
        CNxDnsManager::Instance()->CancelResolve(this);
    }
    if (state != EState::IDLE && state != EState::CONNECTED) {
        m_reactor.CancelTimer(this);
    }
    m_attempts.clear();
    m_endpoints.clear();
    m_next = 0;
    // Abandoning it may destroy what belongs to it, and so come back here.
    const CNxAutoPtr<CNxConnection> connection = std::move(m_connection);
    if (connection) {
        connection->Abandon();
    }
}

NxResult CNxConnector::ScheduleUntil(const CNxTimeValue& due) {
    m_due = due;
    if (due == CNxTimeValue::s_tvMax()) {
        m_reactor.CancelTimer(this);
        return NX_OK;
    }
    const CNxTimeValue now = Now();
    const NxResult scheduled =
        m_reactor.ScheduleTimer(this, nullptr, due > now ? due - now : CNxTimeValue(), 1);
    return scheduled == NX_ERROR_FOUND ? NX_OK : scheduled;
}

NxResult CNxConnector::WaitForTry(const CNxTimeValue& delay) {
    m_tried = 0;
    const NxResult scheduled = ScheduleUntil(Now() + delay);
    m_state = scheduled == NX_OK ? EState::WAITING : EState::IDLE;
    return scheduled;
}

// In the middle of a try.
void CNxConnector::Wait(EState state, const CNxTimeValue& due) {
    m_state = state;
    if (ScheduleUntil(due > m_deadline ? m_deadline : due) != NX_OK) {
        FailTry(ENOMEM);
    }
}

CNxTimeValue CNxConnector::NextDelay() {
    const CNxConnectorOptions& options = m_plan->options;
    const double longest = ToSeconds(options.maxDelay);
    const double whole = std::min(std::ldexp(ToSeconds(options.firstDelay), m_delays), longest);
    if (whole < longest) {
        ++m_delays;
    }
    std::uniform_real_distribution<double> chance(0, options.jitter);
    return CNxTimeValue(whole * (1 - chance(m_random)));
}

void CNxConnector::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    const CNxTimeValue now = Now();
    if (m_due > now) {
        // The system clock was set forward.
        if (ScheduleUntil(m_due) != NX_OK) {
            FailTry(ENOMEM);
        }
        return;
    }
    switch (m_state) {
        case EState::WAITING:
            BeginTry();
            return;
        case EState::RESOLVING:
            FailTry(ETIMEDOUT, Describe(NX_ERROR_TIMEOUT));
            return;
        case EState::CONNECTING:
            if (now >= m_deadline) {
                FailTry(ETIMEDOUT);
            } else {
                StartAttempts();
            }
            return;
        default:
            assert(false);
    }
}

void CNxConnector::BeginTry() {
    const CNxTimeValue& timeout = m_plan->options.timeout;
    m_deadline = timeout == CNxTimeValue() ? CNxTimeValue::s_tvMax() : Now() + timeout;
    m_lastError = 0;
    if (!m_plan->host.empty()) {
        Resolve();
        return;
    }
    try {
        m_endpoints.assign(1, m_plan->endpoint);
    } catch (const std::bad_alloc&) {
        FailTry(ENOMEM);
        return;
    }
    StartAttempts();
}

void CNxConnector::Resolve() {
    CNxDnsRecord* found = nullptr;
    const NxResult asked =
        CNxDnsManager::Instance()->AsyncResolve(found, m_plan->host, this, 0, nullptr);
    const auto record = CNxAutoPtr<CNxDnsRecord>::Adopt(found);
    if (asked == NX_OK) {
        UseRecord(*record);
    } else if (asked == NX_ERROR_WOULD_BLOCK) {
        Wait(EState::RESOLVING, m_deadline);
    } else {
        FailTry(ToErrno(asked), Describe(asked));
    }
}

void CNxConnector::OnObserve(const char* /*topic*/, void* data) {
    if (m_state != EState::RESOLVING) {
        return;
    }
    const auto& record = *static_cast<const CNxDnsRecord*>(data);
    if (record.GetResult() == NX_OK) {
        UseRecord(record);
    } else {
        FailTry(ToErrno(record.GetResult()), Describe(record.GetResult()));
    }
}

void CNxConnector::UseRecord(const CNxDnsRecord& record) {
    assert(!record.GetAddresses().empty());
    try {
        m_endpoints = Interleave(record.GetAddresses(), m_plan->port);
    } catch (const std::bad_alloc&) {
        FailTry(ENOMEM);
        return;
    }
    StartAttempts();
}

// Begins with the next address, and with those after it while they fail at once.
void CNxConnector::StartAttempts() {
    m_state = EState::CONNECTING;
    while (m_next < m_endpoints.size()) {
        const CNxEndpoint& endpoint = m_endpoints[m_next];
        const int error = StartAttempt(endpoint);
        if (error == EAGAIN && endpoint.GetFamily() == AF_UNIX) {
            Wait(EState::CONNECTING, Now() + BacklogDelay());
            return;
        }
        ++m_next;
        if (error == 0) {
            break;
        }
        m_lastError = error;
    }
    if (m_attempts.empty()) {
        FailTry(m_lastError);
        return;
    }
    const bool isLast = m_next == m_endpoints.size();
    Wait(EState::CONNECTING, isLast ? m_deadline : Now() + AttemptDelay());
}

int CNxConnector::StartAttempt(const CNxEndpoint& endpoint) {
    try {
        auto attempt = std::make_unique<CAttempt>(*this);
        // A socket that is under way must not meet with want of memory.
        m_attempts.reserve(m_endpoints.size());
        const int error = attempt->Begin(endpoint);
        if (error == 0) {
            m_attempts.push_back(std::move(attempt));
        }
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void CNxConnector::OnAttemptEnded(CAttempt& attempt, int error) {
    assert(m_state == EState::CONNECTING);
    if (error == 0) {
        Succeed(attempt.TakeSocket());
        return;
    }
    m_lastError = error;
    m_attempts.erase(
        std::find_if(m_attempts.begin(), m_attempts.end(),
                     [&attempt](const auto& other) { return other.get() == &attempt; }));
    StartAttempts();
}

void CNxConnector::Succeed(CNxSocketBase socket) {
    Stop();
    const NxResult created =
        CNxConnection::Create(m_connection, m_reactor, CNxConnectedSocket{std::move(socket), {}},
                              m_plan->sink, m_plan->options.connection);
    if (created != NX_OK) {
        FailTry(ENOMEM);
        return;
    }
    m_connectedAt = Now();
    m_state = EState::CONNECTED;
}

// The connector may be gone when it returns.
void CNxConnector::FailTry(int error, const char* what) {
    Stop();
    const std::shared_ptr<const CConnectPlan> plan = m_plan;
    CNxCloseReason reason{ENxClosed::FAILED, error, {}};
    try {
        reason.text =
            plan->target + ": " + (what != nullptr ? what : std::generic_category().message(error));
    } catch (const std::bad_alloc&) {
        // The number says enough.
    }
    ++m_tried;
    if (plan->options.tries != 0 && m_tried >= plan->options.tries) {
        GiveUp(reason);
        return;
    }
    const CNxTimeValue delay = NextDelay();
    if (ScheduleUntil(Now() + delay) != NX_OK) {
        GiveUp({ENxClosed::FAILED, ENOMEM, {}});
        return;
    }
    m_state = EState::WAITING;
    if (plan->options.onRetry) {
        CallOut("onRetry", [&] { plan->options.onRetry(reason, delay); });
    }
}

void CNxConnector::GiveUp(const CNxCloseReason& reason) {
    const std::shared_ptr<const CConnectPlan> plan = m_plan;
    if (plan->onFailed) {
        CallOut("onFailed", [&] { plan->onFailed(reason); });
    }
}
