#include <netinet/tcp.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/stream/CListeningSocket.h>
#include <nx/stream/dual_endpoint.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>

NxResult CListeningSocket::Open(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options) {
    assert(GetHandle() == -1);
    const auto openAt = [&](const CNxEndpoint& at) { return OpenAt(at, options); };
    return OpenAtEither(endpoint, openAt) ? NX_OK : NX_ERROR_FAILURE;
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
    if (SetOptions(endpoint, options) && Bind(endpoint, options) &&
        FindBound(GetHandle(), endpoint, m_endpoint)) {
        return true;
    }
    const CKeptErrno keptErrno;
    Close();
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
