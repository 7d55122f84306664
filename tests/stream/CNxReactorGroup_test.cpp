// How connections are handed out; how a group stops is in the tests of CNxServer.
#include <gtest/gtest.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxReactorGroup.h>
#include <sys/prctl.h>
#include <tests/support/Endpoints.h>
#include <tests/support/Must.h>
#include <tests/support/ServerProcess.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace {

constexpr size_t c_loops = 3;

class ReactorGroup : public ::testing::Test {
protected:
    // Answers with the number of its loop.
    struct Sink : INxConnectionSink {
        explicit Sink(CNxReactorGroup& group) : m_group(group) {}
        void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
            received.Clear();
            size_t loop = 0;
            while (m_group.GetReactor(loop) != &connection.GetReactor()) {
                ++loop;
            }
            connection.Send(std::to_string(loop));
        }
        CNxReactorGroup& m_group;
    };

    ReactorGroup() {
        CNxReactorGroupOptions options;
        options.loops = c_loops;
        options.name = "a group's loop";
        options.onePerCpu = true;
        Must(m_group.Start(options));
    }

    unsigned short Listen(ENxDistribution distribution) {
        CNxListenOptions options;
        options.distribution = distribution;
        Must(m_group.Listen(Parse("127.0.0.1:0"), m_sink, options));
        return m_group.GetEndpoint(m_group.GetListeners() - 1).GetPort();
    }

    // The loop that serves it.
    static size_t AskLoop(const TestClient& client) {
        client.Send("?");
        return static_cast<size_t>(std::stoul(client.Receive(1)));
    }

    void WaitForConnections(size_t count) const {
        while (m_group.GetConnections() != count) {
            std::this_thread::yield();
        }
    }

    CNxReactorGroup m_group;
    Sink m_sink{m_group};
};

TEST_F(ReactorGroup, ConnectionsAreHandedOut) {
    for (const auto distribution : {ENxDistribution::ROUND_ROBIN, ENxDistribution::FEWEST}) {
        const unsigned short port = Listen(distribution);
        std::array<std::vector<TestClient>, c_loops> clients;
        const auto connect = [&] {
            TestClient client(port);
            clients.at(AskLoop(client)).push_back(std::move(client));
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

TEST_F(ReactorGroup, WhatCannotBeServedIsRefusedAndTheRestGoesOn) {
    // Its first connection is hung up on.
    std::atomic<int> made{0};
    const auto makeSecond = [&] { return ++made > 1 ? std::make_unique<Sink>(m_group) : nullptr; };
    Must(m_group.Listen(Parse("127.0.0.1:0"), makeSecond, {}));
    const CNxEndpoint endpoint = m_group.GetEndpoint(m_group.GetListeners() - 1);
    EXPECT_EQ("", TestClient(endpoint.GetPort()).ReceiveAll());
    AskLoop(TestClient(endpoint.GetPort()));
    EXPECT_EQ(1U, m_group.GetRefused());

    CNxListenOptions each;
    each.distribution = ENxDistribution::SOCKET_FOR_EACH;
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_group.Listen(Parse("unix:@nxbase group"), m_sink, each));
    EXPECT_EQ(NX_ERROR_FAILURE, m_group.Listen(endpoint, m_sink, each));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_EQ(AF_UNSPEC, m_group.GetEndpoint(m_group.GetListeners() - 1).GetFamily());
}

}  // namespace
