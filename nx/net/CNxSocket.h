// Owners of one socket each: any kind, TCP and UDP.
//
// They make, bind, query and close; what flows over a socket is the business of whoever has its
// descriptor, but for the gathered datagram of CNxSocketUdp. Operations return -1 with errno when
// they fail, like the system calls. An object belongs to one thread at a time.
#pragma once

#include <nx/net/CNxIPCBase.h>
#include <nx/net/CNxInetAddr.h>

struct iovec;

// Closes its descriptor when it is destroyed, reopened or moved to. Sockets are close-on-exec.
// SetHandle() adopts a descriptor, e.g. one that accept4(2) returned, and gives up the earlier one
// without closing it: SetHandle(-1) leaves it to the caller.
class CNxSocketBase : public CNxIPCBase {
public:
    CNxSocketBase() = default;
    ~CNxSocketBase() { Close(); }

    CNxSocketBase(const CNxSocketBase&) = delete;
    CNxSocketBase& operator=(const CNxSocketBase&) = delete;

    // The source is left without a descriptor.
    CNxSocketBase(CNxSocketBase&& other) noexcept;
    CNxSocketBase& operator=(CNxSocketBase&& other) noexcept;

    // Closes what is open, then socket(family, type, protocol) and, for a non-zero `reuseAddr` and
    // another family than AF_UNIX, SO_REUSEADDR.
    // 0, or -1 with errno of the call that failed and no descriptor.
    [[nodiscard]] int Open(int family, int type, int protocol, int reuseAddr);

    // 0, also when nothing is open, or the result of close(2); the descriptor is gone either way.
    int Close();

    // Overwrites an address of type IPv4 or IPv6, its host name included, with that of the socket;
    // type and size become those that the system reports, also for other families, whose addresses
    // may be longer than what is stored of them.
    // 0, or -1 with the address as it was: errno of getpeername(2) or getsockname(2), or EINVAL
    // when the address that is passed in is of another type.
    [[nodiscard]] int GetRemoteAddr(CNxInetAddr& address) const;
    [[nodiscard]] int GetLocalAddr(CNxInetAddr& address) const;

protected:
    // The Open of the derived classes, which says what is promised.
    [[nodiscard]] int OpenBound(const CNxInetAddr& local, int type, int reuseAddr);
};

class CNxSocketTcp : public CNxSocketBase {
public:
    // Closes what is open, makes a socket of the address's type, and binds it; listen(2) and
    // connect(2) are left to the caller. A non-zero `reuseAddr` sets SO_REUSEADDR.
    // 0, or -1 with errno and no descriptor: EADDRNOTAVAIL for an unresolved address, since bound
    // as it stands it would open the port on every interface; else that of the call that failed.
    [[nodiscard]] int Open(int reuseAddr, const CNxInetAddr& local);
};

class CNxSocketUdp : public CNxSocketBase {
public:
    // As for TCP, without SO_REUSEADDR.
    [[nodiscard]] int Open(const CNxInetAddr& local);

    // Sends the pieces in order as one datagram; empty ones may have a null base.
    // A peer that is neither IPv4 nor IPv6 stands for the one that the socket is connected to.
    // The number of bytes sent, all of them; or -1 with errno and nothing sent: EINVAL when there
    // is not a single byte, EMSGSIZE for more than 65535, EFAULT for null pieces that should have
    // bytes, EADDRNOTAVAIL for an unresolved peer, or that of sendto(2), EAGAIN among them.
    [[nodiscard]] long SendVTo(const iovec* pieces, unsigned long count,
                               const CNxInetAddr& peer) const;
};
