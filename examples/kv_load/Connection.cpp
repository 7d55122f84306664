#include <common/Clock.h>
#include <kv_load/Connection.h>

#include <string_view>
#include <utility>

namespace kv_load {

Connection::Connection(std::uint64_t number, const ConnectionSetup& setup, Workload workload)
    : m_number(number),
      m_setup(setup),
      m_workload(std::move(workload)),
      m_pipeline(m_workload, setup.pipeline),
      m_connector(setup.reactor) {}

void Connection::Open() {
    m_state = EState::CONNECTING;
    const NxResult result =
        m_connector.Connect(m_setup.target.c_str(), m_setup.options, *this,
                            [this](const CNxCloseReason& reason) { Fail(reason.text); });
    if (result != NX_OK) {
        Fail("cannot connect to " + m_setup.target + ": " + NxResultName(result));
    }
}

void Connection::OnOpen(CNxConnection& /*connection*/) {
    m_state = EState::CONNECTED;
    m_setup.owner.OnConnected();
}

void Connection::Start() {
    CNxConnection* const connection = m_connector.GetConnection();
    if (m_state == EState::CONNECTED && connection != nullptr) {
        m_state = EState::RUNNING;
        m_activeAt = examples::NowNs();
        Ask(*connection);
        FinishIfAllAnswered();
    }
}

void Connection::Close() {
    m_state = EState::CLOSED;
    m_connector.Cancel();
}

void Connection::CheckTimeout(std::int64_t now) {
    const CNxConnection* const connection = m_connector.GetConnection();
    if (m_state != EState::RUNNING || connection == nullptr) {
        return;
    }
    const std::uint64_t bytes = connection->GetBytesReceived() + connection->GetBytesSent();
    if (std::exchange(m_bytesBefore, bytes) != bytes) {
        m_activeAt = now;
    } else if (now - m_activeAt > m_setup.stallTimeoutNs) {
        FailLost("stalled, no sign of life for " +
                 std::to_string(m_setup.stallTimeoutNs / examples::c_nsPerSecond) + " s");
    }
}

void Connection::OnReceive(CNxConnection& connection, CNxMessageChain& received) {
    const std::int64_t now = examples::NowNs();
    while (!received.IsEmpty()) {
        const std::string_view front = received.GetFront();
        if (!m_pipeline.Check(front.data(), front.size(), now, m_setup.progress.latency)) {
            Fail(m_pipeline.DescribeMismatch());
            return;
        }
        received.Consume(front.size());
    }
    Ask(connection);
    FinishIfAllAnswered();
}

// As much as the pipeline has room for, but no more than the socket takes soon: for the rest
// OnLowWater or the next reply comes.
void Connection::Ask(CNxConnection& connection) {
    CNxMessageChain requests;
    std::size_t room = c_outputAim - std::min(connection.GetUnsent(), c_outputAim);
    while (m_setup.progress.toIssue > 0 && !m_pipeline.IsFull() && requests.GetSize() < room) {
        --m_setup.progress.toIssue;
        char* const begin = requests.MakeSpace(m_workload.GetMaxRequestSize());
        requests.Commit(static_cast<std::size_t>(m_pipeline.WriteNext(begin) - begin));
    }
    if (!requests.IsEmpty()) {
        m_pipeline.MarkSent(examples::NowNs());
        // Whoever has ended is told so by OnClosed.
        connection.Send(std::move(requests));
    }
}

void Connection::FinishIfAllAnswered() {
    if (m_state == EState::RUNNING && m_pipeline.IsEmpty() && m_setup.progress.toIssue == 0) {
        Close();
        m_setup.owner.OnDone();
    }
}

void Connection::OnEnd(CNxConnection& /*connection*/) {
    FailLost("closed by the server");
}

void Connection::OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) {
    if (m_state == EState::CONNECTING) {
        Fail("cannot connect to " + m_setup.target + ": " + reason.text);
    } else {
        FailLost(reason.text);
    }
}

void Connection::Fail(const std::string& why) {
    const bool wasConnected = m_state == EState::CONNECTED || m_state == EState::RUNNING;
    Close();
    m_setup.owner.OnFailed(*this, wasConnected, why);
}

void Connection::FailLost(const std::string& why) {
    Fail("lost: " + why + "; the server owes " + m_pipeline.DescribeDebt());
}

}  // namespace kv_load
