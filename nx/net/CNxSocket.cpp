#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/net/CNxSocket.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

namespace {

constexpr size_t c_maxDatagram = 65535;
// A datagram that fits one Ethernet frame, with some room, is gathered without an allocation.
constexpr size_t c_stackDatagram = 2048;

using AddressQuery = int (*)(int, sockaddr*, socklen_t*);

int QueryAddress(AddressQuery query, int handle, CNxInetAddr& address) {
    if (address.GetPtr() == nullptr) {
        errno = EINVAL;
        return -1;
    }
    CNxInetAddr reported(AF_INET6);
    socklen_t length = CNxInetAddr::GetInetAddrSize();
    if (query(handle, reported.GetPtr(), &length) != 0) {
        return -1;
    }
    reported.base_set(reported.GetPtr()->sa_family, static_cast<int>(length));
    // Another family has no port: 0 is kept for it.
    static_cast<void>(reported.SetPort(reported.GetPort()));
    address = std::move(reported);
    return 0;
}

socklen_t GetLength(const CNxInetAddr& address) {
    return static_cast<socklen_t>(std::clamp(address.GetSize(), 0, CNxInetAddr::GetInetAddrSize()));
}

// Or errno is set.
bool CheckResolved(const CNxInetAddr& address) {
    if (!address.IsResolved()) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    return true;
}

// The total, or -1 with errno when the pieces make no datagram.
long SumPieces(const iovec* pieces, unsigned long count) {
    if (pieces == nullptr && count != 0) {
        errno = EFAULT;
        return -1;
    }
    size_t total = 0;
    for (const iovec* piece = pieces; piece != pieces + count; ++piece) {
        assert(total <= c_maxDatagram);
        if (piece->iov_len > c_maxDatagram - total) {
            errno = EMSGSIZE;
            return -1;
        }
        if (piece->iov_base == nullptr && piece->iov_len != 0) {
            errno = EFAULT;
            return -1;
        }
        total += piece->iov_len;
    }
    if (total == 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<long>(total);
}

void Gather(const iovec* pieces, unsigned long count, char* out) {
    for (const iovec* piece = pieces; piece != pieces + count; ++piece) {
        if (piece->iov_len != 0) {
            std::memcpy(out, piece->iov_base, piece->iov_len);
            out += piece->iov_len;
        }
    }
}

// Without the descriptor, and with errno as the failed call left it. Returns -1.
int CloseAfterFailure(CNxSocketBase& socket) {
    const CKeptErrno keptErrno;
    socket.Close();
    return -1;
}

long SendTo(int handle, const void* bytes, size_t size, const CNxInetAddr& peer) {
    return sendto(handle, bytes, size, MSG_NOSIGNAL, peer.GetPtr(), GetLength(peer));
}

}  // namespace

CNxSocketBase::CNxSocketBase(CNxSocketBase&& other) noexcept : CNxIPCBase(other) {
    other.SetHandle(-1);
}

CNxSocketBase& CNxSocketBase::operator=(CNxSocketBase&& other) noexcept {
    if (this != &other) {
        Close();
        SetHandle(other.GetHandle());
        other.SetHandle(-1);
    }
    return *this;
}

int CNxSocketBase::Open(int family, int type, int protocol, int reuseAddr) {
    Close();
    assert(GetHandle() == -1);
    SetHandle(ToHighDescriptor(socket(family, type | SOCK_CLOEXEC, protocol)));
    if (GetHandle() == -1) {
        return -1;
    }
    const int on = 1;
    if (family == AF_UNIX || reuseAddr == 0 ||
        setsockopt(GetHandle(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0) {
        return 0;
    }
    return CloseAfterFailure(*this);
}

int CNxSocketBase::Close() {
    const int handle = GetHandle();
    if (handle == -1) {
        return 0;
    }
    SetHandle(-1);
    return close(handle);
}

int CNxSocketBase::GetRemoteAddr(CNxInetAddr& address) const {
    return QueryAddress(getpeername, GetHandle(), address);
}

int CNxSocketBase::GetLocalAddr(CNxInetAddr& address) const {
    return QueryAddress(getsockname, GetHandle(), address);
}

int CNxSocketBase::OpenBound(const CNxInetAddr& local, int type, int reuseAddr) {
    Close();
    if (!CheckResolved(local) || CNxSocketBase::Open(local.GetType(), type, 0, reuseAddr) != 0) {
        return -1;
    }
    if (bind(GetHandle(), local.GetPtr(), GetLength(local)) == 0) {
        return 0;
    }
    return CloseAfterFailure(*this);
}

int CNxSocketTcp::Open(int reuseAddr, const CNxInetAddr& local) {
    return OpenBound(local, SOCK_STREAM, reuseAddr);
}

int CNxSocketUdp::Open(const CNxInetAddr& local) {
    return OpenBound(local, SOCK_DGRAM, 0);
}

long CNxSocketUdp::SendVTo(const iovec* pieces, unsigned long count,
                           const CNxInetAddr& peer) const {
    const long total = SumPieces(pieces, count);
    if (total == -1 || !CheckResolved(peer)) {
        return -1;
    }
    const auto size = static_cast<size_t>(total);
    if (count == 1) {
        return SendTo(GetHandle(), pieces->iov_base, size, peer);
    }
    char onStack[c_stackDatagram];
    std::unique_ptr<char[]> onHeap;
    if (size > sizeof onStack) {
        onHeap.reset(new char[size]);
    }
    char* const datagram = onHeap ? onHeap.get() : onStack;
    Gather(pieces, count, datagram);
    return SendTo(GetHandle(), datagram, size, peer);
}
