#include <gtest/gtest.h>
#include <nx/foundation/CNxEventThread.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxReactorGroup.h>
#include <pthread.h>
#include <sched.h>
#include <tests/support/Must.h>
#include <tests/support/ServerProcess.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
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
    // Says which loop it is on, by its number, to whatever comes; then echoes. One that got "b" is
    // busy when it is told to stop.
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
        void OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) override {
            const std::lock_guard<std::mutex> guard(m_test.m_mutex);
            m_test.m_closed.push_back(reason.kind);
        }

    private:
        ReactorGroup& m_test;
        bool m_isBusy = false;
    };

    CNxSinkSource MakeSinks() {
        return {[this] { return std::make_unique<Sink>(*this); }};
    }

    void Start(unsigned loops) {
        CNxReactorGroupOptions options;
        options.loops = loops;
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

    std::mutex m_mutex;
    std::vector<ENxClosed> m_closed;
    CNxReactorGroup m_group;
};

TEST_F(ReactorGroup, ConnectionsAreHandedOut) {
    Start(c_loops);
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
}

TEST_F(ReactorGroup, AStopWaitsForWhatIsUnderWayUpToItsLimit) {
    Start(c_loops);
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
    std::sort(m_closed.begin(), m_closed.end());
    EXPECT_EQ((std::vector<ENxClosed>{ENxClosed::BY_US, ENxClosed::BY_PEER, ENxClosed::LOOP_ENDED}),
              m_closed);

    EXPECT_FALSE(Connection(port, std::chrono::seconds(1)).IsConnected());
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_group.RunOnEach([](size_t) { FAIL(); }));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_group.PostToEach([](size_t) { FAIL(); }));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_group.Listen(AnyPort(), MakeSinks(), {}));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, m_group.Start({}));
    EXPECT_EQ(NX_OK, m_group.Stop({600, 0}));
}

TEST_F(ReactorGroup, ABlockedLoopIsReportedAndWaitedForInTheEnd) {
    Start(1);
    CNxEventThread mayGoOn;
    const TestClient client(Listen());
    AskLoop(client);
    Must(m_group.PostToEach([&](size_t) { Must(mayGoOn.Wait()); }));
    EXPECT_EQ(NX_ERROR_TIMEOUT, m_group.Stop({0, 0}));
    mayGoOn.Signal();
    EXPECT_EQ("", client.ReceiveAll());
}

TEST_F(ReactorGroup, ThreadsHaveNamesAndProcessors) {
    Start(2);
    Must(m_group.RunOnEach([](size_t loop) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        EXPECT_EQ("a group's loo-" + std::to_string(loop), name);
        cpu_set_t set;
        EXPECT_EQ(0, sched_getaffinity(0, sizeof(set), &set));
        EXPECT_EQ(1, CPU_COUNT(&set));
    }));
    EXPECT_EQ(nullptr, m_group.GetReactor(2));
}

TEST_F(ReactorGroup, WhatCannotBeIsRefused) {
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_group.Listen(AnyPort(), MakeSinks(), {}));
    CNxReactorGroupOptions tooMany;
    tooMany.loops = 1025;
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_group.Start(tooMany));
    Start(2);
    CNxListenOptions each;
    each.distribution = ENxDistribution::SOCKET_FOR_EACH;
    CNxEndpoint unixName;
    Must(unixName.Set("unix:@nxbase group test"));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_group.Listen(unixName, MakeSinks(), each));
    EXPECT_EQ(NX_ERROR_INVALID_ARG,
              m_group.Listen(AnyPort(), std::function<std::unique_ptr<Sink>()>(), {}));

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
