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
//     10.0.0.1:80   [fe80::1%2]:80      IPv4, IPv6; Set takes the name of an interface (%eth0) too
//     *:80                              IPv4 and IPv6 on every interface, to listen
//     unix:/run/server.sock             a path of at most 107 bytes
//     unix:@name                        an abstract name of at most 107 bytes
//     unix:                             a unix socket without a name, as clients have
//
// Two of them are equal when the system takes them for the same: nothing else is kept of what a
// socket call has given (no flow label of IPv6, no padding).
class CNxEndpoint {
public:
    // Of no family: GetFamily() is AF_UNSPEC, the text "".
    CNxEndpoint() = default;

    // An address that is not resolved makes one of no family.
    explicit CNxEndpoint(const CNxInetAddr& address);

    // NX_OK, or NX_ERROR_INVALID_ARG, with nothing changed, for any other text, a host name too,
    // and for null. A port is required, 0 to 65535.
    [[nodiscard]] NxResult Set(const char* text);

    // Copies what a socket call has given. NX_OK, or NX_ERROR_INVALID_ARG, with nothing changed,
    // for another family, a size that does not fit it (0, as recvmsg(2) gives it for a sender
    // without a name, is one), and null. An IPv4 address in an IPv6 one (::ffff:10.0.0.1) becomes
    // the IPv4 address, here as in the other ways to set one.
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

    // Host order; 0 for a unix socket, for which SetPort does nothing.
    unsigned short GetPort() const;
    void SetPort(unsigned short port);

    // Path or "@name" of a unix socket; "" for other families. A path that begins with '@' gets
    // "./" before it. A name that a peer has chosen may have any byte, zero included.
    std::string GetUnixName() const;

    // The address without the port; a unix socket's name; "".
    std::string GetHost() const;
    std::string GetText() const;

    bool operator==(const CNxEndpoint& other) const;
    bool operator!=(const CNxEndpoint& other) const { return !(*this == other); }

private:
    // The largest first: it is what gets zeroed.
    union Address {
        sockaddr_un unixName;
        sockaddr base;
        sockaddr_in v4;
        sockaddr_in6 v6;
    };

    bool IsInet() const { return GetFamily() == AF_INET || GetFamily() == AF_INET6; }
    [[nodiscard]] NxResult SetUnixName(const char* name);
    void SetV4(in_addr address, in_port_t port);
    void TakeInet(const sockaddr* address, socklen_t size);
    void TakeUnix(const sockaddr* address, socklen_t size);
    CNxString GetInetText() const;

    Address m_address{};
    socklen_t m_size = 0;
    bool m_isDual = false;
};
