#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>

#include <nx/net/CNxSocket.h>

namespace {

const CNxInetAddr c_loopback("127.0.0.1:0");

CNxInetAddr GetLocal(const CNxSocketBase& socket) {
    CNxInetAddr address;
    EXPECT_EQ(socket.GetLocalAddr(address), 0);
    return address;
}

// Two connected stream sockets; the test keeps the second.
struct Pair {
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
    ~Pair() { close(ends[1]); }

    bool IsOtherEndClosed() const {
        char byte;
        return recv(ends[1], &byte, 1, MSG_DONTWAIT) == 0;
    }

    int ends[2] = {-1, -1};
};

TEST(CNxSocket, ClosesWhatItOwnsExactlyOnce) {
    CNxSocketTcp listener;
    EXPECT_EQ(listener.Close(), 0);
    ASSERT_EQ(listener.Open(0, c_loopback), 0);
    EXPECT_NE(fcntl(listener.GetHandle(), F_GETFD) & FD_CLOEXEC, 0);
    const struct {
        std::function<int(CNxSocketTcp&)> m_open;
        int m_error;
    } cases[] = {
        {[](auto& one) { return one.CNxSocketBase::Open(AF_INET, SOCK_STREAM, 0, 1); }, 0},
        {[](auto& one) { return one.CNxSocketBase::Open(-1, SOCK_STREAM, 0, 0); }, EAFNOSUPPORT},
        {[&](auto& one) { return one.Open(0, GetLocal(listener)); }, EADDRINUSE},
        {[](auto& one) { return one.Open(1, CNxInetAddr("server.invalid", 0)); }, EADDRNOTAVAIL},
        {[](auto& one) { return one.Open(1, CNxInetAddr(AF_UNIX)); }, EFAULT}};
    for (const auto& one : cases) {
        Pair previous;
        CNxSocketTcp socket;
        socket.SetHandle(previous.ends[0]);
        errno = 0;
        EXPECT_EQ(one.m_open(socket), one.m_error == 0 ? 0 : -1);
        EXPECT_EQ(errno, one.m_error);
        EXPECT_TRUE(previous.IsOtherEndClosed());
        EXPECT_EQ(socket.GetHandle() == -1, one.m_error != 0);
        EXPECT_EQ(socket.Close(), 0);
    }
    Pair destroyed;
    CNxSocketBase().SetHandle(destroyed.ends[0]);
    EXPECT_TRUE(destroyed.IsOtherEndClosed());
}

TEST(CNxSocketUdp, PiecesAreOneDatagramOrRefused) {
    CNxSocketUdp receiver;
    CNxSocketUdp sender;
    ASSERT_EQ(receiver.Open(c_loopback), 0);
    ASSERT_EQ(sender.Open(c_loopback), 0);
    const CNxInetAddr peer = GetLocal(receiver);
    char datagram[70000];
    const auto receive = [&] { return recv(receiver.GetHandle(), datagram, sizeof datagram, 0); };
    // Around the size up to which nothing is allocated, and the largest that IPv4 carries.
    for (const size_t total : {5U, 2048U, 2049U, 65507U}) {
        std::string head(2, 'h');
        std::string tail(total - head.size(), 't');
        const iovec pieces[] = {{head.data(), 2}, {nullptr, 0}, {tail.data(), tail.size()}};
        ASSERT_EQ(sender.SendVTo(pieces, 3, peer), static_cast<long>(total));
        ASSERT_EQ(receive(), static_cast<long>(total));
        EXPECT_EQ(std::string(datagram, total), head + tail);
    }
    char bytes[] = "ab";
    const struct {
        iovec m_pieces[2];
        int m_error;
    } refused[] = {{{{bytes, 0}, {nullptr, 0}}, EINVAL},
                   {{{bytes, 2}, {nullptr, 1}}, EFAULT},
                   {{{bytes, 2}, {bytes, SIZE_MAX - 1}}, EMSGSIZE},
                   {{{bytes, 2}, {bytes, 1}}, EADDRNOTAVAIL}};
    for (const auto& one : refused) {
        EXPECT_EQ(sender.SendVTo(one.m_pieces, 2, CNxInetAddr("server.invalid", 1)), -1);
        EXPECT_EQ(errno, one.m_error);
    }
    const iovec whole = {bytes, 2};
    ASSERT_EQ(connect(sender.GetHandle(), peer.GetPtr(), sizeof(sockaddr_in)), 0);
    ASSERT_EQ(sender.SendVTo(&whole, 1, CNxInetAddr(0)), 2);
    EXPECT_EQ(receive(), 2);
}

}  // namespace
