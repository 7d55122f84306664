// Inside the library only: sockets on "*:PORT", which serve IPv4 and IPv6 where the system has
// both.
#pragma once

#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>

#include <cerrno>

// `openAt(endpoint)` opens a socket there, or returns false with errno. Where the system has no
// IPv6, one for both families is opened for IPv4 alone.
template <class OpenAt>
[[nodiscard]] bool OpenAtEither(const CNxEndpoint& endpoint, const OpenAt& openAt) {
    if (openAt(endpoint)) {
        return true;
    }
    if (!endpoint.IsDual() || (errno != EAFNOSUPPORT && errno != EADDRNOTAVAIL)) {
        return false;
    }
    CNxEndpoint v4{CNxInetAddr(AF_INET)};
    v4.SetPort(endpoint.GetPort());
    return openAt(v4);
}

// Where the socket that was bound to `asked` is: with its port, and for both families, which the
// system does not tell. False with errno and `bound` as it was.
[[nodiscard]] inline bool FindBound(int socket, const CNxEndpoint& asked, CNxEndpoint& bound) {
    CNxEndpoint local;
    if (local.SetLocalOf(socket) != NX_OK) {
        return false;
    }
    bound = asked.IsDual() ? asked : local;
    bound.SetPort(local.GetPort());
    return true;
}
