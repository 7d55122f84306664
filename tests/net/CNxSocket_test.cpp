#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>

#include <nx/net/CNxSocket.h>

namespace {

const CNxInetAddr c_loopback("127.0.0.1:0");

bool IsOpen(int handle) {
    return fcntl(handle, F_GETFD) != -1;
}
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

class CNxSocketUdpTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(m_receiver.Open(c_loopback), 0);
        ASSERT_EQ(m_sender.Open(c_loopback), 0);
        m_peer = GetLocal(m_receiver);
        timeval patience = {10, 0};
        ASSERT_EQ(
            setsockopt(m_receiver.GetHandle(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience),
            0);
    }

    std::string Receive() {
        std::string datagram(70000, '?');
        const ssize_t size = recv(m_receiver.GetHandle(), &datagram[0], datagram.size(), 0);
        datagram.resize(size < 0 ? 0 : static_cast<size_t>(size));
        return datagram;
    }

    CNxSocketUdp m_receiver;
    CNxSocketUdp m_sender;
    CNxInetAddr m_peer;
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
    EXPECT_FALSE(IsOpen(handle));
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

TEST_F(CNxSocketUdpTest, GathersPiecesIntoOneDatagram) {
    char ab[] = "ab";
    char cde[] = "cde";
    const iovec pieces[] = {{ab, 2}, {nullptr, 0}, {cde, 3}};
    EXPECT_EQ(m_sender.SendVTo(pieces, 3, m_peer), 5);
    EXPECT_EQ(Receive(), "abcde");

    // Around the size up to which nothing is allocated, and the largest that IPv4 carries.
    for (size_t total : {2047U, 2048U, 2049U, 65507U}) {
        std::string head(1000, 'h');
        std::string tail(total - head.size(), 't');
        const iovec parts[] = {{&head[0], head.size()}, {&tail[0], tail.size()}};
        EXPECT_EQ(m_sender.SendVTo(parts, 2, m_peer), static_cast<long>(total));
        EXPECT_EQ(Receive(), head + tail);
    }

    ASSERT_EQ(connect(m_sender.GetHandle(), m_peer.GetPtr(), sizeof(sockaddr_in)), 0);
    EXPECT_EQ(m_sender.SendVTo(pieces, 1, CNxInetAddr(0)), 2);
    EXPECT_EQ(Receive(), "ab");
}

TEST_F(CNxSocketUdpTest, WhatIsNoDatagramIsRefused) {
    char bytes[] = "ab";
    const iovec empty[] = {{bytes, 0}, {nullptr, 0}};
    const std::pair<const iovec*, unsigned long> nothing[] = {{empty, 2}, {empty, 0}, {nullptr, 0}};
    for (const auto& [pieces, count] : nothing) {
        errno = 0;
        EXPECT_EQ(m_sender.SendVTo(pieces, count, m_peer), -1);
        EXPECT_EQ(errno, EINVAL);
    }

    const CNxInetAddr unresolved("server.invalid", 1);
    const std::tuple<iovec, const CNxInetAddr&, int> cases[] = {
        {{nullptr, 1}, m_peer, EFAULT},
        {{bytes, SIZE_MAX - 1}, m_peer, EMSGSIZE},
        {{bytes, size_t{8} << 30}, m_peer, EMSGSIZE},
        {{bytes, 1}, unresolved, EADDRNOTAVAIL},
    };
    for (const auto& [second, peer, error] : cases) {
        const iovec pieces[] = {{bytes, 2}, second};
        EXPECT_EQ(m_sender.SendVTo(pieces, 2, peer), -1);
        EXPECT_EQ(errno, error);
    }
}
