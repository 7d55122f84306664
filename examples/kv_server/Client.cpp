#include <common/Trace.h>
#include <kv_server/Client.h>
#include <kv_server/ReplyWriter.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>
#include <utility>

namespace kv_server {

namespace {

// Full receive buffers in one go; then the other clients have their turn.
constexpr int c_turns = 16;

// After Stop: as much as one client can have had on its way.
constexpr std::size_t c_lastInput = 1UL << 20;

bool WouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

// The system is short of buffers: no readiness will tell when that is over.
bool LacksBuffers() {
    return errno == ENOBUFS || errno == ENOMEM;
}

}  // namespace

Client::Client(std::uint64_t id, int socket, INxReactor& reactor, IClientOwner& owner)
    : m_id(id),
      m_reactor(reactor),
      m_owner(owner),
      m_batch(std::make_unique<Batch>()),
      m_activeAt(owner.GetSeconds()),
      m_lastInput(c_lastInput) {
    m_socket.SetHandle(socket);
    m_batch->clientId = id;
    // Replies are written whole; waiting for more would only delay them.
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

Client::~Client() {
    // Not registered any more when the reactor has dropped it.
    m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
    m_owner.CountHeld(m_held, 0);
}

bool Client::MayFollow(EState state, EState next) {
    switch (state) {
        case EState::WAITING:
            return next == EState::READABLE || next == EState::STOPPING || next == EState::ENDING;
        case EState::READABLE:
            return next != EState::READABLE && next != EState::LINGERING;
        case EState::STOPPING:
            return next == EState::ENDING || next == EState::HUNG_UP;
        case EState::ENDING:
            return next == EState::LINGERING;
        case EState::HUNG_UP:
        case EState::LINGERING:
            break;
    }
    return false;
}

void Client::Enter(EState next) {
    assert(MayFollow(m_state, next));
    m_state = next;
}

bool Client::Open() {
    return Watch();
}

bool Client::Refuse(std::string_view error) {
    Enter(EState::ENDING);
    ReplyWriter(m_output).WriteError(error);
    return Continue();
}

bool Client::Stop() {
    if (IsTaking()) {
        Enter(EState::STOPPING);
    }
    return Continue();
}

bool Client::OnReplies(std::unique_ptr<Batch> batch) {
    assert(m_batch == nullptr && batch->clientId == m_id && !IsSlow());
    m_batch = std::move(batch);
    m_output.Append(std::move(m_batch->replies));
    if (m_batch->quit && IsTaking()) {
        Enter(EState::ENDING);
    }
    if (m_batch->quit || !m_batch->HasCommands()) {
        m_batch->Clear();
    }
    const bool goesOn = Continue();
    if (goesOn && IsSlow()) {
        examples::Trace(examples::c_traceWarning, "client ", m_id,
                        " reads slowly: ", m_output.GetSize(), " bytes wait for it");
    }
    return goesOn;
}

int Client::OnInput(int /*fd*/) {
    if (m_state == EState::WAITING) {
        Enter(EState::READABLE);
    }
    return Continue() ? 0 : -1;
}

int Client::OnOutput(int /*fd*/) {
    return Continue() ? 0 : -1;
}

int Client::OnClose(int /*fd*/, long /*mask*/) {
    m_owner.OnDropped(m_id);
    return 0;
}

bool Client::Continue() {
    m_isStarved = false;
    try {
        const bool goesOn = Proceed() && Watch();
        CountHeld();
        return goesOn;
    } catch (const std::bad_alloc&) {
        examples::Trace(examples::c_traceWarning, "client ", m_id, " dropped: out of memory");
        return false;
    }
}

bool Client::OnTick() {
    if (std::exchange(m_isActive, false)) {
        m_activeAt = m_owner.GetSeconds();
    }
    return !m_isStarved || Continue();
}

bool Client::IsIdle() const {
    if (m_batch == nullptr) {
        return false;
    }
    pollfd socket{GetHandle(), 0, 0};
    socket.events =
        static_cast<short>((IsReceiving() ? POLLIN : 0) | (m_output.IsEmpty() ? 0 : POLLOUT));
    return poll(&socket, 1, 0) <= 0;
}

bool Client::IsReceiving() const {
    return m_state <= EState::READABLE && m_batch != nullptr && !m_batch->HasWork() && !IsSlow();
}

void Client::CountHeld() {
    const std::size_t held = m_reader.GetHeld() + m_output.GetSize() +
                             (m_batch != nullptr ? m_batch->GetHeld() : m_submitted);
    m_owner.CountHeld(std::exchange(m_held, held), held);
}

bool Client::Proceed() {
    if (m_state == EState::LINGERING) {
        return Discard();
    }
    for (int turn = 0; turn < c_turns; ++turn) {
        if (!Flush()) {
            return false;
        }
        if (m_batch == nullptr || IsSlow()) {
            return true;
        }
        if (m_batch->HasWork()) {
            return Submit();
        }
        if (!IsTaking()) {
            return m_output.IsEmpty() ? End() : true;
        }
        if (m_state == EState::WAITING || m_isStarved) {
            return true;
        }
        if (m_owner.IsFull()) {
            break;
        }
        if (!Receive()) {
            return false;
        }
        CountHeld();
    }
    return m_owner.ContinueLater(m_id);
}

bool Client::Submit() {
    m_submitted = m_batch->GetHeld();
    return m_owner.Submit(std::move(m_batch));
}

// Sends until all is gone or the socket is full.
bool Client::Flush() {
    while (!m_output.IsEmpty()) {
        if (m_output.SendTo(GetHandle()) >= 0) {
            m_isActive = true;
        } else if (errno != EINTR) {
            m_isStarved = LacksBuffers();
            return m_isStarved || WouldBlock();
        }
    }
    return true;
}

// Watching for room costs a look at the socket with every readiness, so it is not left on. A
// reactor that reports states, not changes, must not report what is left for later.
bool Client::Watch() {
    const bool statesOnly = m_reactor.GetReactorType() == INxReactor::TYPE_SELECT;
    const bool input = !statesOnly || m_state == EState::WAITING || m_state == EState::LINGERING;
    const long wanted = (input ? NX_MASK_READ : 0) | (m_output.IsEmpty() ? 0 : NX_MASK_WRITE);
    if (wanted == m_watched) {
        return true;
    }
    m_watched = wanted;
    if (wanted == 0) {
        return m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS) == NX_OK;
    }
    const NxResult result = m_reactor.RegisterHandler(this, wanted);
    return NxSucceeded(result);
}

bool Client::Receive() {
    assert(m_state == EState::READABLE || m_state == EState::STOPPING);
    char* const buffer = m_reactor.GetBufferPtr();
    const ssize_t received = recv(GetHandle(), buffer, m_reactor.GetBufferSize(), 0);
    if (received <= 0) {
        return ReceiveNothing(received);
    }
    const auto size = static_cast<std::size_t>(received);
    m_isActive = true;
    m_reader.Take({buffer, size}, *m_batch);
    if (!m_batch->error.empty()) {
        examples::Trace(examples::c_traceWarning, "client ", m_id, ": ", m_batch->error.c_str());
    }
    if (m_state == EState::STOPPING) {
        CountLastInput(size);
    }
    return true;
}

bool Client::ReceiveNothing(long result) {
    if (result == 0) {
        Enter(EState::HUNG_UP);
        return true;
    }
    m_isStarved = LacksBuffers();
    if (m_isStarved || errno == EINTR) {
        return true;
    }
    Enter(m_state == EState::STOPPING ? EState::ENDING : EState::WAITING);
    return WouldBlock();
}

// A client that never stops sending must not keep the server from stopping.
void Client::CountLastInput(std::size_t size) {
    m_lastInput -= std::min(size, m_lastInput);
    if (m_lastInput == 0) {
        Enter(EState::ENDING);
    }
}

bool Client::End() {
    assert(m_output.IsEmpty() && m_batch != nullptr);
    if (m_state == EState::HUNG_UP) {
        return false;
    }
    Enter(EState::LINGERING);
    shutdown(GetHandle(), SHUT_WR);
    m_isActive = true;
    return Discard();
}

bool Client::Discard() {
    for (int turn = 0; turn < c_turns; ++turn) {
        const ssize_t received =
            recv(GetHandle(), m_reactor.GetBufferPtr(), m_reactor.GetBufferSize(), 0);
        if (received == 0 || (received < 0 && errno != EINTR)) {
            return received < 0 && WouldBlock();
        }
    }
    return m_owner.ContinueLater(m_id);
}

bool Client::IsDone() const {
    int waiting = 0;
    return IsLingering() && m_socket.Control(TIOCOUTQ, &waiting) == 0 && waiting == 0;
}

}  // namespace kv_server
