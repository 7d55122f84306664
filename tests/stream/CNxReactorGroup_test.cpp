// How connections are handed out; how a group stops is in the tests of CNxServer.
#include <nx/stream/CNxReactorGroup.h>
#include <sys/prctl.h>
#include <tests/support/Endpoints.h>

#include <atomic>

#include "StreamSupport.h"

namespace {

class ReactorGroup : public ::testing::Test {
protected:
    using Counts = std::vector<size_t>;

    ReactorGroup() {
        CNxReactorGroupOptions options;
        options.loops = 3;
        options.name = "a group's loop";
        options.onePerCpu = true;
        Must(m_group.Start(options));
    }

    CNxEndpoint Listen(ENxDistribution distribution) {
        CNxListenOptions options;
        options.distribution = distribution;
        const auto makeSink = [] { return std::make_unique<Sink>(); };
        Must(m_group.Listen(Parse("127.0.0.1:0"), makeSink, options));
        return m_group.GetEndpoint(m_group.GetListeners() - 1);
    }

    // When there are so many, those of each loop.
    Counts WaitForConnections(size_t count) {
        while (m_group.GetConnections() != count) {
            std::this_thread::yield();
        }
        Counts counts(3);
        Must(m_group.RunOnEach([&](size_t loop) {
            counts[loop] = CNxConnection::GetCount(*m_group.GetReactor(loop));
        }));
        return counts;
    }

    CNxReactorGroup m_group;
};

TEST_F(ReactorGroup, ConnectionsAreHandedOut) {
    for (const auto distribution : {ENxDistribution::ROUND_ROBIN, ENxDistribution::FEWEST}) {
        WaitForConnections(0);
        const CNxEndpoint endpoint = Listen(distribution);
        CNxSocketBase clients[8];
        const auto connect = [&](size_t i, size_t count) {
            clients[i] = Connect(endpoint);
            return WaitForConnections(count);
        };
        for (const size_t i : {0U, 1U, 2U, 3U, 4U}) {
            connect(i, i + 1);
        }
        EXPECT_EQ(connect(5, 6), Counts({2, 2, 2}));
        clients[1].Close();
        clients[4].Close();
        EXPECT_EQ(WaitForConnections(4), Counts({2, 0, 2}));
        connect(6, 5);
        EXPECT_EQ(connect(7, 6),
                  distribution == ENxDistribution::FEWEST ? Counts({2, 2, 2}) : Counts({3, 1, 2}));
    }
    WaitForConnections(0);
    const CNxEndpoint endpoint = Listen(ENxDistribution::SOCKET_FOR_EACH);
    CNxSocketBase clients[20];
    for (CNxSocketBase& client : clients) {
        client = Connect(endpoint);
    }
    WaitForConnections(20);
    EXPECT_EQ(0U, m_group.GetRefused());
    char name[16] = {};
    Must(m_group.RunOnEach([&](size_t) { prctl(PR_GET_NAME, name); }));
    EXPECT_STREQ("a group's loo-2", name);
}

TEST_F(ReactorGroup, WhatCannotBeServedIsRefusedAndTheRestGoesOn) {
    std::atomic<int> made{0};
    const auto makeSecond = [&] { return ++made > 1 ? std::make_unique<Sink>() : nullptr; };
    Must(m_group.Listen(Parse("127.0.0.1:0"), makeSecond, {}));
    const CNxEndpoint endpoint = m_group.GetEndpoint();
    EXPECT_TRUE(IsHungUpOn(Connect(endpoint)));
    const CNxSocketBase served = Connect(endpoint);
    WaitForConnections(1);
    EXPECT_EQ(1U, m_group.GetRefused());
}

}  // namespace
