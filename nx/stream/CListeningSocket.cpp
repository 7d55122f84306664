#include <netinet/tcp.h>
#include <nx/stream/CListeningSocket.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>

namespace {

// On every interface by IPv4.
CNxEndpoint MakeV4(const CNxEndpoint& dual) {
    CNxEndpoint v4{CNxInetAddr(AF_INET)};
    v4.SetPort(dual.GetPort());
    return v4;
}

}  // namespace

NxResult CListeningSocket::Open(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options) {
    assert(GetHandle() == -1);
    bool isOpen = OpenAt(endpoint, options);
    if (!isOpen && endpoint.IsDual() && (errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL)) {
        isOpen = OpenAt(MakeV4(endpoint), options);
    }
    return isOpen ? NX_OK : NX_ERROR_FAILURE;
}

void CListeningSocket::Close() {
    m_path.Remove();
    m_socket.Close();
    m_endpoint = CNxEndpoint();
}

bool CListeningSocket::OpenAt(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options) {
    if (m_socket.Open(endpoint.GetFamily(), SOCK_STREAM | SOCK_NONBLOCK, 0, 1) != 0) {
        return false;
    }
    if (SetOptions(endpoint, options) && Bind(endpoint, options) && NoteEndpoint(endpoint)) {
        return true;
    }
    const int savedErrno = errno;
    Close();
    errno = savedErrno;
    return false;
}

bool CListeningSocket::SetOptions(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options) {
    if (endpoint.GetFamily() == AF_UNIX) {
        return true;
    }
    const auto deferSeconds = static_cast<int>(std::min<unsigned>(options.deferSeconds, INT_MAX));
    return (endpoint.GetFamily() != AF_INET6 ||
            SetOption(IPPROTO_IPV6, IPV6_V6ONLY, endpoint.IsDual() ? 0 : 1)) &&
           (!options.reusePort || SetOption(SOL_SOCKET, SO_REUSEPORT, 1)) &&
           (deferSeconds == 0 || SetOption(IPPROTO_TCP, TCP_DEFER_ACCEPT, deferSeconds));
}

bool CListeningSocket::SetOption(int level, int option, int value) {
    return setsockopt(GetHandle(), level, option, &value, sizeof value) == 0;
}

bool CListeningSocket::Bind(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options) {
    const int backlog = std::max(options.backlog, 0);
    if (CUnixPath::HasPath(endpoint)) {
        return m_path.Bind(GetHandle(), endpoint, options.unixMode, backlog) == NX_OK;
    }
    return bind(GetHandle(), endpoint.GetAddress(), endpoint.GetSize()) == 0 &&
           listen(GetHandle(), backlog) == 0;
}

bool CListeningSocket::NoteEndpoint(const CNxEndpoint& endpoint) {
    CNxEndpoint local;
    if (local.SetLocalOf(GetHandle()) != NX_OK) {
        return false;
    }
    // The system does not say that it serves IPv4 as well.
    m_endpoint = endpoint.IsDual() ? endpoint : local;
    m_endpoint.SetPort(local.GetPort());
    return true;
}
