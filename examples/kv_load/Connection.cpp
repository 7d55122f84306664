#include <common/Clock.h>
#include <kv_load/Connection.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

namespace kv_load {

namespace {

// Enough for one send; beyond it a deep pipeline is asked in several.
constexpr std::ptrdiff_t c_outputAim = 65536;

constexpr std::int64_t c_quietNs = examples::c_nsPerSecond / 10;

std::size_t GetOutputCapacity(const Workload& workload, std::size_t pipeline) {
    const std::size_t request = workload.GetMaxRequestSize();
    return std::min(pipeline * request, static_cast<std::size_t>(c_outputAim) + request);
}

std::string ToSeconds(std::int64_t ns) {
    return std::to_string(ns / examples::c_nsPerSecond) + " s";
}

std::string DescribeErrno() {
    return std::system_category().message(errno);
}

}  // namespace

Connection::Connection(std::uint64_t number, const ConnectionSetup& setup, Workload workload)
    : m_number(number),
      m_setup(setup),
      m_workload(std::move(workload)),
      m_pipeline(m_workload, setup.pipeline),
      m_output(new char[GetOutputCapacity(m_workload, setup.pipeline)]) {}

void Connection::Open() {
    m_lastActivity = examples::NowNs();
    if (!OpenSocket()) {
        FailConnect(DescribeErrno());
        return;
    }
    m_state = EState::CONNECTING;
    Watch(NX_MASK_CONNECT);
}

bool Connection::Watch(long mask) {
    const NxResult result = m_setup.reactor.RegisterHandler(this, mask);
    if (NxSucceeded(result)) {
        return true;
    }
    Fail("cannot be watched by the reactor (result " + std::to_string(result) + ")");
    return false;
}

bool Connection::OpenSocket() {
    const CNxInetAddr& server = m_setup.server;
    if (m_socket.Open(server.GetType(), SOCK_STREAM, 0, 0) != 0 ||
        m_socket.Enable(CNxIPCBase::NON_BLOCK) != 0) {
        return false;
    }
    // Without it the last, short segment of a batch waits for the acknowledgement of the one
    // before.
    const int on = 1;
    setsockopt(GetHandle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    const auto size = static_cast<socklen_t>(server.GetSize());
    return connect(GetHandle(), server.GetPtr(), size) == 0 || errno == EINPROGRESS;
}

void Connection::OnConnected() {
    // Before the run the server has nothing to say, but it may hang up.
    if (Watch(NX_MASK_READ)) {
        m_state = EState::CONNECTED;
        m_setup.owner.OnConnected();
    }
}

void Connection::Start() {
    if (m_state != EState::CONNECTED) {
        return;
    }
    m_state = EState::RUNNING;
    m_lastActivity = examples::NowNs();
    Send();
    FinishIfAllAnswered();
}

void Connection::Close() {
    if (m_state != EState::CLOSED) {
        m_state = EState::CLOSED;
        m_setup.reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_socket.Close();
    }
}

void Connection::CheckTimeouts(std::int64_t now) {
    const std::int64_t waited = now - m_lastActivity;
    if (m_state == EState::CONNECTING && waited > m_setup.connectTimeoutNs) {
        FailConnect("no answer within " + ToSeconds(m_setup.connectTimeoutNs));
    } else if (m_state == EState::RUNNING && waited > m_setup.stallTimeoutNs) {
        FailLost("stalled, no sign of life for " + ToSeconds(m_setup.stallTimeoutNs));
    } else if (m_state == EState::RUNNING && waited > c_quietNs) {
        OnInput(GetHandle());
    }
}

int Connection::OnInput(int /*fd*/) {
    if (Receive() && m_state == EState::RUNNING) {
        Send();
        FinishIfAllAnswered();
    }
    // A closed connection has removed itself.
    return 0;
}

int Connection::OnOutput(int /*fd*/) {
    if (m_state == EState::CONNECTING) {
        OnConnected();
    } else if (m_state == EState::RUNNING) {
        Send();
    }
    return 0;
}

// The reactor has found an error on the socket and taken its number.
int Connection::OnClose(int /*fd*/, long /*mask*/) {
    if (m_state == EState::CONNECTING) {
        FailConnect("refused or unreachable");
    } else {
        FailLost("reset by the server");
    }
    return 0;
}

bool Connection::Receive() {
    char* const buffer = m_setup.reactor.GetBufferPtr();
    const unsigned long size = m_setup.reactor.GetBufferSize();
    for (;;) {
        const ssize_t received = recv(GetHandle(), buffer, size, 0);
        if (received <= 0) {
            return ReceiveFailed(received);
        }
        const auto count = static_cast<std::size_t>(received);
        m_lastActivity = examples::NowNs();
        if (!m_pipeline.Check(buffer, count, m_lastActivity, m_setup.progress.latency)) {
            Fail(m_pipeline.DescribeMismatch());
            return false;
        }
        // A short read has emptied the socket, and what comes next is an edge of its own. Only the
        // end of the stream may have come already: CheckTimeouts looks for it.
        if (count < size && CanAsk()) {
            return true;
        }
    }
}

// Whether there is just nothing more to read for now.
bool Connection::ReceiveFailed(long result) {
    if (result == 0) {
        FailLost("closed by the server");
        return false;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return true;
    }
    FailLost(DescribeErrno());
    return false;
}

void Connection::Send() {
    for (;;) {
        FillOutput();
        if (m_outputSent == m_outputEnd) {
            WaitForRoom(false);
            return;
        }
        const std::int64_t now = examples::NowNs();
        m_pipeline.MarkSent(now);
        const ssize_t sent = send(GetHandle(), m_output.get() + m_outputSent,
                                  m_outputEnd - m_outputSent, MSG_NOSIGNAL);
        if (sent >= 0) {
            m_lastActivity = now;
            m_outputSent += static_cast<std::size_t>(sent);
            assert(m_outputSent <= m_outputEnd);
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            WaitForRoom(true);
        } else {
            FailLost(DescribeErrno());
        }
        return;
    }
}

// The output is refilled only when it is empty, so that it never has to be moved together.
bool Connection::CanAsk() const {
    return m_outputSent == m_outputEnd && m_setup.progress.toIssue > 0 && !m_pipeline.IsFull();
}

void Connection::FillOutput() {
    if (!CanAsk()) {
        return;
    }
    char* const begin = m_output.get();
    char* end = begin;
    while (m_setup.progress.toIssue > 0 && !m_pipeline.IsFull() && end - begin < c_outputAim) {
        --m_setup.progress.toIssue;
        end = m_pipeline.WriteNext(end);
    }
    m_outputSent = 0;
    m_outputEnd = static_cast<std::size_t>(end - begin);
    assert(m_outputEnd <= GetOutputCapacity(m_workload, m_setup.pipeline));
}

// Watching for room costs a look at the socket with every reply, so it is not left on.
void Connection::WaitForRoom(bool wait) {
    if (m_waitsForRoom != wait) {
        m_waitsForRoom = wait;
        Watch(wait ? NX_MASK_READ | NX_MASK_WRITE : NX_MASK_READ);
    }
}

void Connection::FinishIfAllAnswered() {
    if (m_state == EState::RUNNING && m_pipeline.IsEmpty() && m_setup.progress.toIssue == 0) {
        Close();
        m_setup.owner.OnDone();
    }
}

void Connection::Fail(const std::string& why) {
    const bool wasConnected = m_state == EState::CONNECTED || m_state == EState::RUNNING;
    Close();
    m_setup.owner.OnFailed(*this, wasConnected, why);
}

void Connection::FailConnect(const std::string& why) {
    Fail("cannot connect to " + m_setup.server.GetHostPort().GetRawData() + ": " + why);
}

void Connection::FailLost(const std::string& why) {
    Fail("lost: " + why + "; the server owes " + m_pipeline.DescribeDebt());
}

}  // namespace kv_load
