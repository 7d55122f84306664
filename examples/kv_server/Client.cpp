#include <common/Trace.h>
#include <kv_server/Client.h>
#include <kv_server/Limits.h>
#include <kv_server/ReplyWriter.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace kv_server {

namespace {

// Full receive buffers in one go; then the other clients have their turn.
constexpr int c_turns = 16;

// After Stop: what one client can have had on its way.
constexpr std::size_t c_lastInput = 1UL << 20;

bool WouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
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
    m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
}

bool Client::Open() {
    return Watch();
}

bool Client::Refuse(std::string_view error) {
    m_refused = true;
    m_ending = true;
    ReplyWriter(m_output).WriteError(error);
    return Open() && Continue();
}

bool Client::Stop() {
    m_stopping = true;
    m_readable = true;
    return Continue();
}

bool Client::OnReplies(std::unique_ptr<Batch> batch) {
    m_batch = std::move(batch);
    m_output.Append(std::move(m_batch->replies));
    if (m_batch->quit) {
        m_ending = true;
    }
    if (m_batch->quit || !m_batch->HasCommands()) {
        m_batch->bytes.reset();
        m_batch->commands.Clear();
    }
    return Continue();
}

int Client::OnInput(int /*fd*/) {
    m_readable = true;
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
    return Proceed() && Watch();
}

// Whether the connection goes on.
bool Client::Proceed() {
    if (m_lingering) {
        return Discard();
    }
    for (int turn = 0; turn < c_turns; ++turn) {
        if (!Flush()) {
            return false;
        }
        NoteSlowness();
        if (m_batch == nullptr || m_slow) {
            return true;
        }
        const bool toldError = m_ending || m_batch->error.empty();
        if (m_batch->HasCommands() || !toldError) {
            m_owner.Submit(std::move(m_batch));
            return true;
        }
        if (m_ending) {
            return m_output.IsEmpty() ? End() : true;
        }
        if (!m_readable) {
            return true;
        }
        if (!Receive()) {
            return false;
        }
    }
    m_owner.ContinueLater(m_id);
    return true;
}

// Sends until all is gone or the socket is full.
bool Client::Flush() {
    m_waitsForRoom = false;
    while (!m_output.IsEmpty() && !m_waitsForRoom) {
        if (m_output.SendTo(GetHandle()) >= 0) {
            m_activeAt = m_owner.GetSeconds();
        } else if (WouldBlock()) {
            m_waitsForRoom = true;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void Client::NoteSlowness() {
    const bool slow = m_output.GetSize() >= c_maxWaiting;
    if (slow && !m_slow) {
        examples::Trace(examples::c_traceWarning, "client ", m_id,
                        " reads slowly: ", m_output.GetSize(), " bytes wait for it");
    }
    m_slow = slow;
}

// Watching for room costs a look at the socket with every event, so it is not left on. A reactor
// that reports states, not changes, must not report what is left for later. False when the socket
// cannot be watched any more.
bool Client::Watch() {
    const bool statesOnly = m_reactor.GetReactorType() == INxReactor::TYPE_SELECT;
    const bool input = !statesOnly || !m_readable || m_lingering;
    const long wanted = (input ? NX_MASK_READ : 0) | (m_waitsForRoom ? NX_MASK_WRITE : 0);
    if (wanted == m_watched) {
        return true;
    }
    m_watched = wanted;
    if (wanted == 0) {
        return m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS) == NX_OK;
    }
    const NxResult result = m_reactor.RegisterHandler(this, wanted);
    return result == NX_OK || result == NX_ERROR_FOUND;
}

bool Client::Receive() {
    char* const buffer = m_reactor.GetBufferPtr();
    const ssize_t received = recv(GetHandle(), buffer, m_reactor.GetBufferSize(), 0);
    if (received <= 0) {
        return ReceiveNothing(received);
    }
    const auto size = static_cast<std::size_t>(received);
    m_activeAt = m_owner.GetSeconds();
    m_reader.Take({buffer, size}, *m_batch);
    if (!m_batch->error.empty()) {
        examples::Trace(examples::c_traceWarning, "client ", m_id, ": ", m_batch->error.c_str());
    }
    if (m_stopping) {
        CountLastInput(size);
    }
    return true;
}

// Whether the connection goes on.
bool Client::ReceiveNothing(long result) {
    if (result == 0) {
        m_inputEnded = true;
        m_ending = true;
        return true;
    }
    if (errno == EINTR) {
        return true;
    }
    m_readable = false;
    m_ending = m_ending || m_stopping;
    return WouldBlock();
}

// A client that never stops sending must not keep the server from stopping.
void Client::CountLastInput(std::size_t size) {
    m_lastInput -= size < m_lastInput ? size : m_lastInput;
    if (m_lastInput == 0) {
        m_readable = false;
        m_ending = true;
    }
}

bool Client::End() {
    if (m_inputEnded || (m_stopping && IsDelivered())) {
        return false;
    }
    shutdown(GetHandle(), SHUT_WR);
    m_lingering = true;
    m_activeAt = m_owner.GetSeconds();
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
    m_owner.ContinueLater(m_id);
    return true;
}

// Whether the client's system has acknowledged every byte.
bool Client::IsDelivered() const {
    int waiting = 0;
    return m_socket.Control(TIOCOUTQ, &waiting) == 0 && waiting == 0;
}

}  // namespace kv_server
