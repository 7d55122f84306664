// Where a stream or datagram socket listens or is connected to: an IPv4 or IPv6 address with its
// port, or the path or abstract name of a unix socket (unix(7)).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include <nx/foundation/NxResult.h>
#include <nx/net/CNxInetAddr.h>

// A plain value, ready for the socket calls. Holds no host names: those are resolved by whoever
// connects.
//
// As text, which Set takes and GetText gives:
//     10.0.0.1:80   [fe80::1%eth0]:80   IPv4, IPv6
//     *:80                              IPv4 and IPv6 on every interface, to listen
//     unix:/run/server.sock             a path of at most 107 bytes
//     unix:@name                        an abstract name of at most 107 bytes
//     unix:                             a unix socket without a name, as clients have
class CNxEndpoint {
public:
    // Of no family: GetFamily() is AF_UNSPEC, the text "".
    CNxEndpoint() = default;
    explicit CNxEndpoint(const CNxInetAddr& address);

    // NX_OK, or NX_ERROR_INVALID_ARG, with nothing changed, for any other text, a host name too,
    // and for null. A port is required, 0 to 65535.
    [[nodiscard]] NxResult Set(const char* text);

    // Copies what a socket call has given. NX_OK, or NX_ERROR_INVALID_ARG, with nothing changed,
    // for another family, a size that does not fit it, and null. An IPv4 address in an IPv6 one
    // (::ffff:10.0.0.1) becomes the IPv4 address.
    [[nodiscard]] NxResult SetAddress(const sockaddr* address, socklen_t size);

    // getsockname(2), getpeername(2). NX_OK; NX_ERROR_FAILURE with errno and nothing changed;
    // NX_ERROR_INVALID_ARG as SetAddress.
    [[nodiscard]] NxResult SetLocalOf(int socket);
    [[nodiscard]] NxResult SetPeerOf(int socket);

    // AF_INET, AF_INET6, AF_UNIX or AF_UNSPEC.
    int GetFamily() const { return m_address.base.sa_family; }
    const sockaddr* GetAddress() const { return &m_address.base; }
    socklen_t GetSize() const { return m_size; }

    // "*:80": an IPv6 socket that serves IPv4 as well.
    bool IsDual() const { return m_isDual; }

    // Host order; 0 for a unix socket.
    unsigned short GetPort() const;
    void SetPort(unsigned short port);

    // Path or "@name" of a unix socket; "" for other families.
    std::string GetUnixName() const;

    // The address without the port; a unix socket's name; "".
    std::string GetHost() const;
    std::string GetText() const;

    bool operator==(const CNxEndpoint& other) const;
    bool operator!=(const CNxEndpoint& other) const { return !(*this == other); }

private:
    union Address {
        sockaddr base;
        sockaddr_in v4;
        sockaddr_in6 v6;
        sockaddr_un unixName;
    };
    Address m_address{};
    socklen_t m_size = 0;
    bool m_isDual = false;
};
