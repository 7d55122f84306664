#include <common/AddressText.h>
#include <fcntl.h>
#include <kv_server/Acceptor.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace kv_server {

namespace {

constexpr int c_acceptsAtOnce = 128;
constexpr long c_retryUsec = 100000;

}  // namespace

Acceptor::Acceptor(INxReactor& reactor, std::function<void(int)> onAccepted,
                   std::function<void()> onRefused)
    : m_reactor(reactor), m_onAccepted(std::move(onAccepted)), m_onRefused(std::move(onRefused)) {}

std::string Acceptor::Open(const CNxInetAddr& address) {
    if (m_socket.Open(1, address) != 0 || m_socket.Enable(CNxIPCBase::NON_BLOCK) != 0 ||
        listen(m_socket.GetHandle(), SOMAXCONN) != 0 ||
        m_reactor.RegisterHandler(this, NX_MASK_ACCEPT) != NX_OK) {
        return "cannot listen on " + examples::ToText(address) + ": " +
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

CNxInetAddr Acceptor::GetAddress() const {
    CNxInetAddr address;
    // Without a socket: no address, port 0.
    static_cast<void>(m_socket.GetLocalAddr(address));
    return address;
}

int Acceptor::OnInput(int /*fd*/) {
    for (int i = 0; i < c_acceptsAtOnce; ++i) {
        const EResult result = AcceptOne();
        if (result == EResult::NONE) {
            return 0;
        }
        if (result == EResult::AGAIN_LATER) {
            m_reactor.ScheduleTimer(this, nullptr, CNxTimeValue(0, c_retryUsec), 1);
            return 0;
        }
    }
    // The clients have their turn first.
    m_reactor.ScheduleTimer(this, nullptr, CNxTimeValue::s_tvZero(), 1);
    return 0;
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
    m_spare.SetHandle(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace kv_server
