#include <common/CallEvent.h>
#include <gtest/gtest.h>
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
#include <utility>
#include <vector>

namespace {

using namespace examples;
using namespace reliable_sender;

TEST(ReliableSenderOptions, SaysWhatIsWrong) {
    const std::vector<std::pair<std::vector<const char*>, std::string>> cases = {
        {{}, "one of --port and --listen"},
        {{"--port=1", "--listen=2"}, "one of --port and --listen"},
        {{"--port=1", "--host=localhost"}, "not 'localhost'"},
        {{"--port=1", "--size=60001"}, "--size takes a number from 0 to 60000"},
        {{"--port=1", "--help"}, ""},
    };
    for (auto [arguments, expected] : cases) {
        arguments.insert(arguments.begin(), "reliable_sender");
        Options options;
        const std::string error =
            ParseOptions(static_cast<int>(arguments.size()), arguments.data(), options);
        EXPECT_EQ(error.empty(), expected.empty()) << error;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

TEST(ReliableSenderDatagrams, OnlyWholeNumbersAreRead) {
    unsigned int number = 1;
    EXPECT_TRUE(ReadRequest(MakeRequest(4294967295u, 3), number));
    EXPECT_EQ(number, 4294967295u);
    EXPECT_TRUE(ReadAnswer(MakeAnswer(0) + "\n", number));
    EXPECT_EQ(number, 0u);
    for (const char* bad : {"", "ACK", "ACK ", "ACK -1", "ACK 1x", "ACK 4294967296", "REQ 1 "}) {
        EXPECT_FALSE(ReadAnswer(bad, number)) << bad;
    }
}

// A peer's socket, that the test reads and writes itself.
class BareSocket {
public:
    BareSocket() { m_socket.Open(CNxInetAddr("127.0.0.1", 0)); }

    unsigned short GetPort() const {
        CNxInetAddr address;
        m_socket.GetLocalAddr(address);
        return address.GetPort();
    }
    std::string Receive() {
        char buffer[1000];
        socklen_t length = CNxInetAddr::GetInetAddrSize();
        const ssize_t size =
            recvfrom(m_socket.GetHandle(), buffer, sizeof(buffer), 0, m_last.GetPtr(), &length);
        return std::string(buffer, static_cast<size_t>(size));
    }
    void Reply(const std::string& bytes) { Send(bytes, m_last); }
    void Send(const std::string& bytes, const CNxInetAddr& to) {
        SendTo(m_socket, bytes.data(), bytes.size(), to);
    }
    const CNxInetAddr& GetLast() const { return m_last; }

private:
    CNxSocketUdp m_socket;
    CNxInetAddr m_last;
};

class ReliableSender : public ::testing::Test {
protected:
    ReliableSender() {
        CNxThreadManager::Instance()->CreateNetworkThread(
            NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(), m_network);
    }
    ~ReliableSender() override {
        m_network->Stop(nullptr);
        m_network->Join();
        m_network->Destory(0);
    }

    CNxThread* m_network = nullptr;
};

TEST_F(ReliableSender, SendsAgainWhatWasLostUntilEverythingIsAnswered) {
    constexpr unsigned int c_requests = 20;
    BareSocket peer;
    BareSocket stranger;
    Options options;
    options.port = peer.GetPort();
    options.requests = c_requests;
    options.interval = 10;
    std::promise<void> end;
    Sender sender(options, *m_network->GetReactor(), [&end] { end.set_value(); });
    CallOn(*m_network->GetReactor(), [&sender] { EXPECT_TRUE(sender.Open()); });
    std::set<unsigned int> seen;
    std::set<unsigned int> answered;
    while (answered.size() < c_requests) {
        unsigned int number = 0;
        ASSERT_TRUE(ReadRequest(peer.Receive(), number));
        stranger.Send(MakeAnswer(number), peer.GetLast());
        peer.Reply("NAK");
        if (!seen.insert(number).second || number % 2 == 0) {
            answered.insert(number);
            peer.Reply(MakeAnswer(number));
            peer.Reply(MakeAnswer(number));
        }
    }
    end.get_future().wait();
    CallOn(*m_network->GetReactor(), [&sender] { sender.Close(); });
    EXPECT_EQ(sender.GetProgress().answered, c_requests);
    EXPECT_EQ(sender.GetProgress().posted, c_requests);
    EXPECT_GE(sender.GetProgress().sent, c_requests + c_requests / 2);
}

TEST_F(ReliableSender, PeerAnswersRequestsUnlessItLosesThem) {
    INxReactor& reactor = *m_network->GetReactor();
    Peer good(reactor, 0);
    Peer deaf(reactor, 100);
    BareSocket client;
    for (Peer* peer : {&deaf, &good}) {
        CallOn(reactor, [peer] { EXPECT_TRUE(peer->Open(CNxInetAddr("127.0.0.1", 0))); });
        client.Send("nonsense", peer->GetAddress());
        client.Send(MakeRequest(7, 10), peer->GetAddress());
    }
    EXPECT_EQ(client.Receive(), "ACK 7");
    for (Peer* peer : {&deaf, &good}) {
        std::uint64_t received = 0;
        while (received == 0) {
            CallOn(reactor, [&] { received = peer->GetReceived(); });
        }
        CallOn(reactor, [peer] { peer->Close(); });
        EXPECT_EQ(received, 1u);
    }
    EXPECT_EQ(deaf.GetAnswered(), 0u);
}

}  // namespace
