#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include <nx/net/CNxSocket.h>

namespace {

const CNxInetAddr c_loopback("127.0.0.1:0");

CNxInetAddr GetLocal(const CNxSocketBase& socket) {
    CNxInetAddr address;
    EXPECT_EQ(socket.GetLocalAddr(address), 0);
    return address;
}

// Two connected stream sockets; the test keeps `peer`.
struct Pair {
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
    ~Pair() { close(peer); }

    bool IsOtherEndClosed() const {
        char byte;
        return recv(peer, &byte, 1, MSG_DONTWAIT) == 0;
    }

    int ends[2] = {-1, -1};
    const int& handle = ends[0];
    const int& peer = ends[1];
};

}  // namespace

TEST(CNxSocketBase, ClosesWhatItOwnsExactlyOnce) {
    Pair reopened;
    CNxSocketBase socket;
    EXPECT_EQ(socket.Close(), 0);
    socket.SetHandle(reopened.handle);
    EXPECT_EQ(socket.Open(AF_INET, SOCK_STREAM, 0, 1), 0);
    EXPECT_TRUE(reopened.IsOtherEndClosed());
    EXPECT_NE(fcntl(socket.GetHandle(), F_GETFD) & FD_CLOEXEC, 0);

    const int handle = socket.GetHandle();
    EXPECT_EQ(socket.Close(), 0);
    EXPECT_EQ(fcntl(handle, F_GETFD), -1);
    EXPECT_EQ(socket.GetHandle(), -1);
    EXPECT_EQ(socket.Close(), 0);

    Pair failed;
    socket.SetHandle(failed.handle);
    EXPECT_EQ(socket.Open(-1, SOCK_STREAM, 0, 0), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(socket.GetHandle(), -1);
    EXPECT_TRUE(failed.IsOtherEndClosed());

    Pair destroyed;
    CNxSocketBase().SetHandle(destroyed.handle);
    EXPECT_TRUE(destroyed.IsOtherEndClosed());
}

TEST(CNxSocketTcp, BindRefusedKeepsErrnoAndNoDescriptor) {
    CNxSocketTcp listener;
    ASSERT_EQ(listener.Open(0, c_loopback), 0);
    EXPECT_NE(fcntl(listener.GetHandle(), F_GETFD) & FD_CLOEXEC, 0);
    ASSERT_EQ(listen(listener.GetHandle(), 1), 0);

    Pair previous;
    CNxSocketTcp second;
    second.SetHandle(previous.handle);
    errno = 0;
    EXPECT_EQ(second.Open(0, GetLocal(listener)), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(second.GetHandle(), -1);
    EXPECT_TRUE(previous.IsOtherEndClosed());

    EXPECT_EQ(second.Open(1, CNxInetAddr("server.invalid", 0)), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    EXPECT_EQ(second.Open(1, CNxInetAddr(AF_UNIX)), -1);
    EXPECT_EQ(second.GetHandle(), -1);
}

TEST(CNxSocketBase, FailedAddressQueryLeavesTheAddress) {
    CNxSocketTcp socket;
    CNxInetAddr address("server.invalid", 7);
    EXPECT_EQ(socket.GetLocalAddr(address), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(socket.Open(0, c_loopback), 0);
    EXPECT_EQ(socket.GetRemoteAddr(address), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(address, CNxInetAddr("server.invalid", 7));
    EXPECT_FALSE(address.IsResolved());
}

TEST(CNxSocketUdp, GathersPiecesIntoOneDatagram) {
    CNxSocketUdp receiver;
    CNxSocketUdp sender;
    ASSERT_EQ(receiver.Open(c_loopback), 0);
    ASSERT_EQ(sender.Open(c_loopback), 0);
    const CNxInetAddr peer = GetLocal(receiver);
    const timeval patience = {10, 0};
    setsockopt(receiver.GetHandle(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string datagram(70000, '?');
    const auto receive = [&] {
        return recv(receiver.GetHandle(), datagram.data(), datagram.size(), 0);
    };
    // Around the size up to which nothing is allocated, and the largest that IPv4 carries.
    for (const size_t total : {5U, 2047U, 2048U, 2049U, 65507U}) {
        std::string head(2, 'h');
        std::string tail(total - head.size(), 't');
        const iovec pieces[] = {{head.data(), 2}, {nullptr, 0}, {tail.data(), tail.size()}};
        EXPECT_EQ(sender.SendVTo(pieces, 3, peer), static_cast<long>(total));
        EXPECT_EQ(receive(), static_cast<long>(total));
        EXPECT_EQ(datagram.substr(0, total), head + tail);
    }
    char bytes[] = "ab";
    const iovec piece = {bytes, 2};
    ASSERT_EQ(connect(sender.GetHandle(), peer.GetPtr(), sizeof(sockaddr_in)), 0);
    EXPECT_EQ(sender.SendVTo(&piece, 1, CNxInetAddr(0)), 2);
    EXPECT_EQ(receive(), 2);
    EXPECT_EQ(datagram.substr(0, 2), "ab");
}

TEST(CNxSocketUdp, WhatIsNoDatagramIsRefused) {
    CNxSocketUdp sender;
    ASSERT_EQ(sender.Open(c_loopback), 0);
    char bytes[] = "ab";
    const CNxInetAddr peer = GetLocal(sender);
    const CNxInetAddr unresolved("server.invalid", 1);
    const struct {
        iovec m_pieces[2];
        unsigned long m_count;
        const CNxInetAddr& m_peer;
        int m_error;
    } cases[] = {
        {{{bytes, 0}, {nullptr, 0}}, 2, peer, EINVAL},
        {{{bytes, 0}, {nullptr, 0}}, 0, peer, EINVAL},
        {{{bytes, 2}, {nullptr, 1}}, 2, peer, EFAULT},
        {{{bytes, 2}, {bytes, SIZE_MAX - 1}}, 2, peer, EMSGSIZE},
        {{{bytes, 2}, {bytes, size_t{8} << 30}}, 2, peer, EMSGSIZE},
        {{{bytes, 2}, {bytes, 1}}, 2, unresolved, EADDRNOTAVAIL},
    };
    for (const auto& one : cases) {
        errno = 0;
        EXPECT_EQ(sender.SendVTo(one.m_pieces, one.m_count, one.m_peer), -1);
        EXPECT_EQ(errno, one.m_error);
    }
    EXPECT_EQ(sender.SendVTo(nullptr, 0, peer), -1);
    EXPECT_EQ(errno, EINVAL);
}
