#include <common/Acceptor.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

namespace examples {

namespace {

constexpr int c_acceptsAtOnce = 128;
constexpr long c_retryUsec = 100000;

}  // namespace

Acceptor::Acceptor(INxReactor& reactor, std::function<void(int)> onAccepted,
                   std::function<void()> onRefused)
    : m_reactor(reactor), m_onAccepted(std::move(onAccepted)), m_onRefused(std::move(onRefused)) {}

std::string Acceptor::Open(const CNxInetAddr& address) {
    if (m_socket.Open(1, address) != 0 || m_socket.Enable(CNxIPCBase::NON_BLOCK) != 0 ||
        listen(m_socket.GetHandle(), SOMAXCONN) != 0 || m_socket.GetLocalAddr(m_address) != 0 ||
        m_reactor.RegisterHandler(this, NX_MASK_ACCEPT) != NX_OK) {
        return "cannot listen on " + address.GetHostPort().GetRawData() + ": " +
               std::system_category().message(errno);
    }
    OpenSpare();
    return {};
}

void Acceptor::Close() {
    if (m_socket.GetHandle() != -1) {
        m_reactor.CancelTimer(this);
        m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_socket.Close();
        m_spare.Close();
    }
}

int Acceptor::OnInput(int /*fd*/) {
    for (int i = 0; i < c_acceptsAtOnce; ++i) {
        const EResult result = AcceptOne();
        if (result == EResult::NONE) {
            return 0;
        }
        if (result == EResult::AGAIN_LATER) {
            TryAgain(CNxTimeValue(0, c_retryUsec));
            return 0;
        }
    }
    // The clients have their turn first.
    TryAgain(CNxTimeValue::s_tvZero());
    return 0;
}

void Acceptor::TryAgain(const CNxTimeValue& wait) {
    const NxResult result = m_reactor.ScheduleTimer(this, nullptr, wait, 1);
    m_isStuck = !NxSucceeded(result);
}

void Acceptor::OnTick() {
    if (std::exchange(m_isStuck, false)) {
        OnInput(GetHandle());
    }
}

void Acceptor::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    OnInput(GetHandle());
}

Acceptor::EResult Acceptor::AcceptOne() {
    const int client = accept4(GetHandle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client >= 0) {
        m_onAccepted(client);
        return EResult::ACCEPTED;
    }
    switch (errno) {
        case EAGAIN:
            return EResult::NONE;
        case EMFILE:
        case ENFILE:
            return HangUpOnOne();
        case EINTR:
        case ECONNABORTED:
        case EPROTO:
            // Gone before it was accepted; there may be others.
            return EResult::ACCEPTED;
        default:
            return EResult::AGAIN_LATER;
    }
}

Acceptor::EResult Acceptor::HangUpOnOne() {
    m_spare.Close();
    CNxSocketBase client;
    client.SetHandle(accept4(GetHandle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    const bool accepted = client.GetHandle() != -1;
    const bool none = !accepted && errno == EAGAIN;
    client.Close();
    OpenSpare();
    if (accepted) {
        m_onRefused();
        return EResult::ACCEPTED;
    }
    return none ? EResult::NONE : EResult::AGAIN_LATER;
}

void Acceptor::OpenSpare() {
    assert(m_spare.GetHandle() == -1);
    m_spare.SetHandle(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace examples
