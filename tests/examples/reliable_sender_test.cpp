#include <gtest/gtest.h>
#include <nx/net/CNxSocket.h>
#include <poll.h>
#include <sys/socket.h>
#include <tests/support/TempFolder.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>

namespace {

// A socket that the test reads and writes itself.
struct BareSocket : CNxSocketUdp {
    BareSocket() { EXPECT_EQ(0, Open(CNxInetAddr("127.0.0.1", 0))); }

    unsigned short GetPort() const {
        CNxInetAddr address;
        EXPECT_EQ(0, GetLocalAddr(address));
        return address.GetPort();
    }
    // "" when nothing came for a minute.
    std::string Receive() {
        char buffer[1000];
        pollfd ready{GetHandle(), POLLIN, 0};
        socklen_t length = CNxInetAddr::GetInetAddrSize();
        const ssize_t size =
            poll(&ready, 1, 60000) == 1
                ? recvfrom(GetHandle(), buffer, sizeof(buffer), 0, m_last.GetPtr(), &length)
                : 0;
        return std::string(buffer, static_cast<size_t>(size));
    }
    void Send(const std::string& bytes, const CNxInetAddr& to) {
        sendto(GetHandle(), bytes.data(), bytes.size(), 0, to.GetPtr(),
               static_cast<socklen_t>(to.GetSize()));
    }

    CNxInetAddr m_last;
};

TEST(ReliableSender, SendsAgainWhatWasLostUntilEverythingIsAnswered) {
    constexpr unsigned c_requests = 20;
    BareSocket peer;
    BareSocket stranger;
    std::string output;
    int status = -1;
    std::thread sender([&, port = peer.GetPort()] {
        output = OutputOf(RELIABLE_SENDER " --requests 20 --interval 10 --again 100 --port " +
                              std::to_string(port),
                          &status);
    });
    std::set<std::string> seen;
    std::set<std::string> answered;
    while (answered.size() < c_requests) {
        const std::string request = peer.Receive();
        const std::string number = request.substr(4, request.find(' ', 4) - 4);
        ASSERT_EQ("REQ " + number + " " + std::string(32, 'x'), request);
        stranger.Send("ACK " + number, peer.m_last);
        peer.Send("NAK", peer.m_last);
        // The first time every other one is lost.
        if (!seen.insert(number).second || seen.size() % 2 == 0) {
            answered.insert(number);
            peer.Send("ACK " + number, peer.m_last);
            peer.Send("ACK " + number, peer.m_last);
        }
    }
    sender.join();
    EXPECT_EQ(0, status);
    EXPECT_EQ(0U, output.find("requests   20 of 20 answered")) << output;
}

TEST(ReliableSender, EndsWhenTheTimeIsOverAndFindsItsPeer) {
    int status = -1;
    const BareSocket deaf;
    const std::string port = std::to_string(deaf.GetPort());
    const std::string output =
        OutputOf(RELIABLE_SENDER " --requests 3 --interval 1 --timeout 1 --port " + port, &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ("requests   0 of 3 answered", output.substr(0, 26));
}

}  // namespace
