// How connections are handed out; how a group stops is in the tests of CNxServer.
#include <nx/stream/CNxReactorGroup.h>
#include <sys/prctl.h>
#include <tests/support/Endpoints.h>

#include <algorithm>
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

    // Connections are greeted.
    CNxEndpoint Listen(const CNxListenOptions& options, const std::string& at = "127.0.0.1:0") {
        const auto makeSink = [] {
            auto sink = std::make_unique<Sink>();
            sink->m_onOpen = [](CNxConnection& connection) { connection.Send("+"); };
            return sink;
        };
        Must(m_group.Listen(Parse(at), makeSink, options));
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
    CNxListenOptions options;
    for (const auto distribution : {ENxDistribution::ROUND_ROBIN, ENxDistribution::FEWEST}) {
        WaitForConnections(0);
        options.distribution = distribution;
        const CNxEndpoint endpoint = Listen(options);
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
    options.distribution = ENxDistribution::SOCKET_FOR_EACH;
    const CNxEndpoint endpoint = Listen(options);
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

// Those that come at once are more than are accepted in a turn.
TEST_F(ReactorGroup, LimitsCountThoseThatLive) {
    const struct {
        size_t CNxAcceptorOptions::*limit;
        size_t value, clients, least, most;
    } rows[] = {{&CNxAcceptorOptions::maxConnections, 0, 300, 300, 300},
                {&CNxAcceptorOptions::maxConnections, 2, 3, 2, 2},
                {&CNxAcceptorOptions::maxPerAddress, 1, 2, 1, 1},
                {&CNxAcceptorOptions::maxPerSecond, 1, 300, 0, 299}};
    for (const auto& row : rows) {
        CNxListenOptions options;
        options.acceptor.*row.limit = row.value;
        const std::string port = std::to_string(Listen(options, "*:0").GetPort());
        for (const char* host : {"127.0.0.1:", "[::1]:"}) {
            const CNxEndpoint where = Parse(host + port);
            // Served, when what was there before has gone.
            while (IsHungUpOn(Connect(where))) {
            }
            WaitForConnections(0);
            std::vector<CNxSocketBase> clients(row.clients);
            Must(m_group.RunOnEach([&](size_t loop) {
                for (size_t i = 0; loop == 0 && i < clients.size(); ++i) {
                    clients[i] = Connect(where);
                }
            }));
            const auto hungUp = std::count_if(clients.begin(), clients.end(), IsHungUpOn);
            const size_t served = clients.size() - static_cast<size_t>(hungUp);
            EXPECT_TRUE(served >= row.least && served <= row.most) << served;
        }
    }
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

    CNxListenOptions each;
    each.distribution = ENxDistribution::SOCKET_FOR_EACH;
    for (const CNxListenOptions& options : {CNxListenOptions(), each}) {
        EXPECT_EQ(NX_ERROR_FAILURE, m_group.Listen(endpoint, makeSecond, options));
        EXPECT_EQ(EADDRINUSE, errno);
        EXPECT_EQ(AF_UNSPEC, m_group.GetEndpoint(m_group.GetListeners() - 1).GetFamily());
    }
}

}  // namespace
