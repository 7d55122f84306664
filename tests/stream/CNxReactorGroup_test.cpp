#include <gtest/gtest.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxReactorGroup.h>
#include <sys/prctl.h>
#include <tests/support/Must.h>
#include <tests/support/ServerProcess.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr size_t c_loops = 3;

CNxEndpoint AnyPort() {
    CNxEndpoint endpoint;
    Must(endpoint.Set("127.0.0.1:0"));
    return endpoint;
}

class ReactorGroup : public ::testing::Test {
protected:
    // Answers with the number of its loop. One that got "b" is busy when it is told to stop.
    class Sink : public INxConnectionSink {
    public:
        explicit Sink(ReactorGroup& test) : m_test(test) {}
        void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
            m_isBusy = received.GetFront() == "b";
            received.Clear();
            size_t loop = 0;
            while (m_test.m_group.GetReactor(loop) != &connection.GetReactor()) {
                ++loop;
            }
            connection.Send(std::to_string(loop));
        }
        void OnStop(CNxConnection& connection) override {
            if (!m_isBusy) {
                INxConnectionSink::OnStop(connection);
            }
        }

    private:
        ReactorGroup& m_test;
        bool m_isBusy = false;
    };

    CNxSinkSource MakeSinks() {
        return {[this] { return std::make_unique<Sink>(*this); }};
    }

    void Start() {
        CNxReactorGroupOptions options;
        options.loops = c_loops;
        options.name = "a group's loop";
        options.onePerCpu = true;
        Must(m_group.Start(options));
    }
    unsigned short Listen(ENxDistribution distribution = ENxDistribution::ROUND_ROBIN) {
        CNxListenOptions options;
        options.distribution = distribution;
        Must(m_group.Listen(AnyPort(), MakeSinks(), options));
        return m_group.GetEndpoint(m_group.GetListeners() - 1).GetPort();
    }

    // The loop that serves it.
    static size_t AskLoop(const TestClient& client, const std::string& request = "?") {
        client.Send(request);
        return static_cast<size_t>(std::stoul(client.Receive(1)));
    }

    void WaitForConnections(size_t count) const {
        while (m_group.GetConnections() != count) {
            std::this_thread::yield();
        }
    }

    CNxReactorGroup m_group;
};

TEST_F(ReactorGroup, ConnectionsAreHandedOut) {
    Start();
    for (const auto distribution : {ENxDistribution::ROUND_ROBIN, ENxDistribution::FEWEST}) {
        const unsigned short port = Listen(distribution);
        std::array<std::vector<std::unique_ptr<TestClient>>, c_loops> clients;
        const auto connect = [&] {
            auto client = std::make_unique<TestClient>(port);
            auto& loop = clients.at(AskLoop(*client));
            loop.push_back(std::move(client));
        };
        for (size_t i = 0; i < 2 * c_loops; ++i) {
            connect();
        }
        EXPECT_TRUE(clients[0].size() == 2 && clients[1].size() == 2 && clients[2].size() == 2);
        if (distribution == ENxDistribution::FEWEST) {
            clients[1].clear();
            WaitForConnections(4);
            connect();
            connect();
            EXPECT_EQ(2U, clients[1].size());
        }
        clients = {};
        WaitForConnections(0);
    }
    const unsigned short port = Listen(ENxDistribution::SOCKET_FOR_EACH);
    for (int i = 0; i < 20; ++i) {
        EXPECT_LT(AskLoop(TestClient(port)), c_loops);
    }
    EXPECT_EQ(0U, m_group.GetRefused());
    char name[16] = {};
    Must(m_group.RunOnEach([&](size_t) { prctl(PR_GET_NAME, name); }));
    EXPECT_STREQ("a group's loo-2", name);
}

TEST_F(ReactorGroup, AStopWaitsForWhatIsUnderWayUpToItsLimit) {
    Start();
    const unsigned short port = Listen();
    const TestClient idle(port);
    const TestClient busy(port);
    const TestClient finishing(port);
    AskLoop(idle);
    AskLoop(busy, "b");
    AskLoop(finishing, "b");
    m_group.BeginStop();
    EXPECT_EQ("", idle.ReceiveAll());
    idle.EndSending();
    // Still served; and done, when it likes.
    AskLoop(finishing);
    finishing.EndSending();
    EXPECT_EQ("", finishing.ReceiveAll());
    WaitForConnections(1);
    EXPECT_EQ(NX_OK, m_group.Stop({0, 100000}));
    EXPECT_EQ("", busy.ReceiveAll());

    EXPECT_FALSE(Connection(port, std::chrono::seconds(1)).IsConnected());
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_group.RunOnEach([](size_t) { FAIL(); }));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_group.Listen(AnyPort(), MakeSinks(), {}));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, m_group.Start({}));
}

TEST_F(ReactorGroup, WhatCannotBeIsRefused) {
    Start();
    CNxListenOptions each;
    each.distribution = ENxDistribution::SOCKET_FOR_EACH;
    CNxEndpoint unixName;
    Must(unixName.Set("unix:@nxbase group test"));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_group.Listen(unixName, MakeSinks(), each));

    // Its first connection is hung up on, and the next one served.
    std::atomic<int> made{0};
    const auto makeSecond = [&] { return ++made > 1 ? std::make_unique<Sink>(*this) : nullptr; };
    Must(m_group.Listen(AnyPort(), makeSecond, {}));
    const CNxEndpoint endpoint = m_group.GetEndpoint(m_group.GetListeners() - 1);
    EXPECT_EQ("", TestClient(endpoint.GetPort()).ReceiveAll());
    AskLoop(TestClient(endpoint.GetPort()));
    EXPECT_EQ(1U, m_group.GetRefused());

    for (const CNxListenOptions& options : {CNxListenOptions(), each}) {
        EXPECT_EQ(NX_ERROR_FAILURE, m_group.Listen(endpoint, MakeSinks(), options));
        EXPECT_EQ(EADDRINUSE, errno);
        EXPECT_EQ(AF_UNSPEC, m_group.GetEndpoint(m_group.GetListeners() - 1).GetFamily());
    }
}

}  // namespace
