#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/stream/CListeningSocket.h>
#include <nx/stream/CNxAcceptor.h>
#include <nx/stream/CPlacesTaken.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <new>
#include <utility>

namespace {

constexpr int c_acceptsPerTurn = 128;

CNxTimeValue RetryAfter() {
    return {0, 100000};
}

int AcceptFrom(int listener, CNxEndpoint& peer) {
    sockaddr_storage address;
    socklen_t size = sizeof address;
    auto* const base = reinterpret_cast<sockaddr*>(&address);
    const int accepted = accept4(listener, base, &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted != -1) {
        // A peer without an address of these kinds is one of no family.
        static_cast<void>(peer.SetAddress(base, size));
    }
    return accepted;
}

}  // namespace

CNxAcceptor::CNxAcceptor(INxReactor& reactor, OnAccepted onAccepted)
    : m_reactor(reactor),
      m_call(new Call{std::move(onAccepted), false}),
      m_places(new CPlacesTaken),
      m_socket(new CListeningSocket) {}

CNxAcceptor::~CNxAcceptor() {
    m_call->isGone = true;
    Close();
}

NxResult CNxAcceptor::Open(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options) {
    if (m_state != EState::CLOSED) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    if (endpoint.GetFamily() == AF_UNSPEC || !m_call->function) {
        return NX_ERROR_INVALID_ARG;
    }
    const NxResult opened = m_socket->Open(endpoint, options);
    if (opened != NX_OK) {
        return opened;
    }
    const NxResult registered = m_reactor.RegisterHandler(this, NX_MASK_ACCEPT);
    if (!NxSucceeded(registered)) {
        errno = registered == NX_ERROR_FAILURE ? errno : EINVAL;
        const CKeptErrno keptErrno;
        m_socket->Close();
        return NX_ERROR_FAILURE;
    }
    m_state = EState::LISTENING;
    m_options = options;
    m_accepted = 0;
    m_refused = 0;
    OpenSpare();
    return NX_OK;
}

void CNxAcceptor::Close() {
    if (m_state != EState::CLOSED) {
        Pause();
        m_state = EState::CLOSED;
        m_socket->Close();
        m_spare.Close();
    }
}

void CNxAcceptor::Pause() {
    if (m_state != EState::CLOSED) {
        m_reactor.CancelTimer(this);
        m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_state = EState::PAUSED;
    }
}

void CNxAcceptor::Resume() {
    if (m_state == EState::PAUSED || m_state == EState::WAITING) {
        Listen();
    }
}

int CNxAcceptor::GetHandle() const {
    return m_socket->GetHandle();
}

const CNxEndpoint& CNxAcceptor::GetEndpoint() const {
    return m_socket->GetEndpoint();
}

size_t CNxAcceptor::GetConnections() const {
    return m_places->GetTotal();
}

int CNxAcceptor::OnInput(int /*fd*/) {
    const std::shared_ptr<Call> call = m_call;
    bool isAnyTaken = false;
    for (int i = 0; i < c_acceptsPerTurn; ++i) {
        const EOutcome outcome = AcceptOne(*call);
        if (call->isGone || m_state != EState::LISTENING || outcome == EOutcome::NONE_WAITS) {
            return 0;
        }
        if (outcome == EOutcome::SYSTEM_REFUSED) {
            ListenLater();
            return 0;
        }
        isAnyTaken = isAnyTaken || outcome == EOutcome::TAKEN;
    }
    // Others have their turn.
    if (!isAnyTaken || m_reactor.NotifyHandler(this, NX_MASK_ACCEPT) != NX_OK) {
        ListenLater();
    }
    return 0;
}

int CNxAcceptor::OnClose(int /*fd*/, long /*mask*/) {
    // The reactor has dropped it, but it listens still.
    m_state = EState::PAUSED;
    ListenLater();
    return 0;
}

void CNxAcceptor::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    assert(m_state == EState::WAITING);
    Listen();
}

// Registered anew, the reactor reports what waits already, edge-triggered or not.
void CNxAcceptor::Listen() {
    assert(GetHandle() != -1 && m_state != EState::LISTENING);
    if (m_reactor.RegisterHandler(this, NX_MASK_ACCEPT) == NX_OK) {
        m_reactor.CancelTimer(this);
        m_state = EState::LISTENING;
    } else {
        ListenLater();
    }
}

// The timer comes again and again until it has a registration. Without memory for one a
// registration stays, and is tried in every turn: busy is better than deaf.
void CNxAcceptor::ListenLater() {
    assert(GetHandle() != -1);
    if (NxSucceeded(m_reactor.ScheduleTimer(this, nullptr, RetryAfter(), 0))) {
        m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_state = EState::WAITING;
    } else if (m_state == EState::LISTENING) {
        // Without memory for this either, the next connection has the reactor call.
        static_cast<void>(m_reactor.NotifyHandler(this, NX_MASK_ACCEPT));
    }
}

CNxAcceptor::EOutcome CNxAcceptor::AcceptOne(Call& call) {
    CNxEndpoint peer;
    const int accepted = AcceptFrom(GetHandle(), peer);
    if (accepted == -1) {
        return OnRefusal(errno);
    }
    CNxConnectedSocket socket;
    socket.socket.SetHandle(ToHighDescriptor(accepted));
    if (socket.socket.GetHandle() != -1) {
        socket.attached = m_places->Take(peer, m_options.maxConnections, m_options.maxPerAddress);
    }
    if (socket.attached == nullptr || IsTooFast()) {
        ++m_refused;
    } else {
        HandOver(call, std::move(socket), peer);
    }
    return EOutcome::TAKEN;
}

void CNxAcceptor::HandOver(Call& call, CNxConnectedSocket socket, const CNxEndpoint& peer) {
    bool isTaken = true;
    try {
        call.function(std::move(socket), peer);
    } catch (const std::bad_alloc&) {
        isTaken = false;
    }
    if (!call.isGone) {
        ++(isTaken ? m_accepted : m_refused);
    }
}

CNxAcceptor::EOutcome CNxAcceptor::OnRefusal(int error) {
    switch (error) {
        case EAGAIN:
            return EOutcome::NONE_WAITS;
        case EMFILE:
        case ENFILE:
            return HangUpOnOne();
        // What had happened to the connection before it was accepted (accept(2)); there may be
        // others.
        case EINTR:
        case ECONNABORTED:
        case EPERM:
        case EPROTO:
        case ENETDOWN:
        case ENOPROTOOPT:
        case EHOSTDOWN:
        case ENONET:
        case EHOSTUNREACH:
        case EOPNOTSUPP:
        case ENETUNREACH:
            return EOutcome::GONE;
        default:
            return EOutcome::SYSTEM_REFUSED;
    }
}

CNxAcceptor::EOutcome CNxAcceptor::HangUpOnOne() {
    m_spare.Close();
    CNxEndpoint peer;
    CNxSocketBase client;
    client.SetHandle(AcceptFrom(GetHandle(), peer));
    const bool isAccepted = client.GetHandle() != -1;
    const bool isNone = !isAccepted && errno == EAGAIN;
    client.Close();
    OpenSpare();
    if (isAccepted) {
        ++m_refused;
        return EOutcome::TAKEN;
    }
    return isNone ? EOutcome::NONE_WAITS : EOutcome::SYSTEM_REFUSED;
}

// Without one it is tried again when it is needed.
void CNxAcceptor::OpenSpare() {
    assert(m_spare.GetHandle() == -1);
    m_spare.SetHandle(ToHighDescriptor(eventfd(0, EFD_CLOEXEC)));
}

bool CNxAcceptor::IsTooFast() {
    if (m_options.maxPerSecond == 0) {
        return false;
    }
    const CNxTimeValue now = CNxTimeValue::GetMonotonicTime();
    if (now - m_secondBegan >= CNxTimeValue(1, 0)) {
        m_secondBegan = now;
        m_inSecond = 0;
    }
    return m_inSecond++ >= m_options.maxPerSecond;
}
