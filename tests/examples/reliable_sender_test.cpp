#include <gtest/gtest.h>
#include <nx/event/NxCall.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <reliable_sender/Datagrams.h>
#include <reliable_sender/Options.h>
#include <reliable_sender/Peer.h>
#include <reliable_sender/Sender.h>
#include <sys/socket.h>

#include <future>
#include <set>
#include <string>

namespace {

using namespace reliable_sender;

// A socket that the test reads and writes itself.
struct BareSocket : CNxSocketUdp {
    BareSocket() { EXPECT_EQ(0, Open(CNxInetAddr("127.0.0.1", 0))); }
    std::string Receive() {
        char buffer[1000];
        socklen_t length = CNxInetAddr::GetInetAddrSize();
        const ssize_t size =
            recvfrom(GetHandle(), buffer, sizeof(buffer), 0, m_last.GetPtr(), &length);
        return std::string(buffer, static_cast<size_t>(size));
    }
    void Send(const std::string& bytes, const CNxInetAddr& to) {
        SendTo(*this, bytes.data(), bytes.size(), to);
    }

    CNxInetAddr m_last;
};

TEST(ReliableSender, SendsAgainWhatWasLostUntilEverythingIsAnswered) {
    constexpr unsigned int c_requests = 20;
    CNxThread* network = nullptr;
    ASSERT_EQ(CNxThreadManager::Instance()->CreateNetworkThread(
                  NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(), network),
              NX_OK);
    INxReactor& reactor = *network->GetReactor();
    BareSocket peer;
    BareSocket stranger;
    CNxInetAddr address;
    ASSERT_EQ(0, peer.GetLocalAddr(address));
    Options options;
    options.requests = c_requests;
    options.interval = 10;
    std::promise<void> end;
    Sender sender(options, address, reactor, [&end] { end.set_value(); });
    NxSendCall(reactor, [&sender] { EXPECT_TRUE(sender.Open()); });
    std::set<unsigned int> seen;
    std::set<unsigned int> answered;
    while (answered.size() < c_requests) {
        unsigned int number = 0;
        ASSERT_TRUE(ReadRequest(peer.Receive(), number));
        stranger.Send(MakeAnswer(number), peer.m_last);
        peer.Send("NAK", peer.m_last);
        if (!seen.insert(number).second || number % 2 == 0) {
            answered.insert(number);
            peer.Send(MakeAnswer(number), peer.m_last);
            peer.Send(MakeAnswer(number), peer.m_last);
        }
    }
    end.get_future().wait();
    NxSendCall(reactor, [&sender] { sender.Close(); });
    network->Stop(nullptr);
    EXPECT_EQ(NX_OK, network->Join());
    network->Destory(0);
    EXPECT_EQ(sender.GetProgress().answered, c_requests);
    EXPECT_EQ(sender.GetProgress().posted, c_requests);
    EXPECT_GE(sender.GetProgress().sent, c_requests + c_requests / 2);
}

}  // namespace
