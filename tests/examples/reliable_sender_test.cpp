#include <gtest/gtest.h>
#include <nx/net/CNxSocket.h>
#include <sys/socket.h>
#include <tests/support/TempFolder.h>

#include <set>
#include <string>
#include <thread>

namespace {

// A socket that the test reads and writes itself.
struct BareSocket : CNxSocketUdp {
    BareSocket() { EXPECT_EQ(0, Open(CNxInetAddr("127.0.0.1", 0))); }

    std::string Receive() {
        char buffer[1000] = "";
        socklen_t length = CNxInetAddr::GetInetAddrSize();
        recvfrom(GetHandle(), buffer, sizeof(buffer) - 1, 0, m_last.GetPtr(), &length);
        return buffer;
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
    CNxInetAddr address;
    ASSERT_EQ(0, peer.GetLocalAddr(address));
    std::string output;
    int status = -1;
    std::thread sender([&] {
        output = OutputOf(RELIABLE_SENDER " --requests 20 --interval 10 --again 100 --port " +
                              std::to_string(address.GetPort()),
                          &status);
    });
    std::set<std::string> seen;
    std::set<std::string> answered;
    while (answered.size() < c_requests && !testing::Test::HasFailure()) {
        const std::string request = peer.Receive();
        const std::string number = request.substr(4, request.find(' ', 4) - 4);
        EXPECT_EQ("REQ " + number + " " + std::string(32, 'x'), request);
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

}  // namespace
