#include <fcntl.h>
#include <nx/stream/CNxAcceptor.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>
#include <tests/support/TempFolder.h>

#include <chrono>
#include <climits>
#include <future>

#include "../reactor/ReactorSupport.h"
#include "Endpoints.h"

namespace {

// A reactor that runs on a thread of its own, and an acceptor on it that keeps what comes.
template <class Reactor>
class Acceptors : public ::testing::Test {
protected:
    void SetUp() override {
        std::promise<NxResult> opened;
        m_thread = std::thread([&] {
            opened.set_value(m_reactor.Open());
            m_reactor.RunEventLoop();
        });
        ASSERT_EQ(opened.get_future().get(), NX_OK);
    }
    void TearDown() override {
        On([&] { m_acceptor.reset(); });
        m_reactor.StopEventLoop();
        m_thread.join();
    }

    // On the reactor's thread, and waits for it.
    void On(const std::function<void()>& action) {
        const auto run = [&] {
            action();
            return NX_OK;
        };
        EXPECT_EQ(m_reactor.SendEvent(new CountedEvent(m_counts, run)), NX_OK);
    }

    void WaitUntil(const std::function<bool()>& condition) {
        bool isSo = false;
        for (int i = 0; i < 20000 && !isSo; ++i) {
            On([&] { isSo = condition(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(isSo ? 0 : 1));
        }
        EXPECT_TRUE(isSo);
    }
    void WaitUntilDone(size_t count) {
        WaitUntil([&] { return m_acceptor->GetAccepted() + m_acceptor->GetRefused() == count; });
    }

    void Turn(int times) {
        for (int i = 0; i < times; ++i) {
            On([] {});
        }
    }

    // Opens anew, and returns where.
    CNxEndpoint Open(const std::string& text, const CNxAcceptorOptions& options = {}) {
        CNxEndpoint endpoint;
        On([&] {
            m_taken.clear();
            m_acceptor = std::make_unique<CNxAcceptor>(
                m_reactor, [this](CNxConnectedSocket socket, const CNxEndpoint& peer) {
                    m_peers.push_back(peer);
                    m_taken.push_back(std::move(socket));
                    if (m_onAccepted) {
                        m_onAccepted();
                    }
                });
            EXPECT_EQ(m_acceptor->Open(Parse(text), options), NX_OK) << text;
            endpoint = m_acceptor->GetEndpoint();
        });
        return endpoint;
    }

    void ConnectMany(const CNxEndpoint& endpoint, int count) {
        for (int i = 0; i < count; ++i) {
            m_clients.push_back(Connect(endpoint));
            ASSERT_NE(m_clients.back().GetHandle(), -1);
        }
    }

    EventCounts m_counts;
    Reactor m_reactor;
    std::thread m_thread;
    std::unique_ptr<CNxAcceptor> m_acceptor;
    std::function<void()> m_onAccepted;
    std::vector<CNxConnectedSocket> m_taken;
    std::vector<CNxEndpoint> m_peers;
    std::vector<CNxSocketBase> m_clients;
};
TYPED_TEST_SUITE(Acceptors, AllReactors, ReactorNames);

using AcceptorLimits = Acceptors<CNxReactorEpoll>;

// More than are accepted in a turn, all there before the first is accepted.
TYPED_TEST(Acceptors, EveryConnectionComesOnceOverEveryKindOfEndpoint) {
    const CTempFolder folder;
    for (const std::string& text : {std::string("127.0.0.1:0"), std::string("*:0"),
                                    "unix:" + folder.Path("s"), std::string("unix:")}) {
        const CNxEndpoint endpoint = this->Open(text);
        this->On([&] { this->m_acceptor->Pause(); });
        this->ConnectMany(
            endpoint.IsDual() ? Parse("[::1]:" + std::to_string(endpoint.GetPort())) : endpoint,
            300);
        this->Turn(10);
        EXPECT_EQ(this->m_taken.size(), 0U);
        this->On([&] { this->m_acceptor->Resume(); });
        this->WaitUntilDone(300);
        EXPECT_EQ(this->m_taken.size(), 300U);
        EXPECT_EQ(this->m_acceptor->GetConnections(), 300U);
        const int accepted = this->m_taken[0].socket.GetHandle();
        EXPECT_NE(fcntl(accepted, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
        CNxEndpoint client;
        ASSERT_EQ(client.SetLocalOf(this->m_clients[0].GetHandle()), NX_OK);
        EXPECT_EQ(this->m_peers[0], client);
        this->m_clients.clear();
        this->m_peers.clear();
    }
}

TYPED_TEST(Acceptors, IsNeitherDeafNorBusyWhenTheSystemRefuses) {
    const CNxEndpoint endpoint = this->Open("127.0.0.1:0");
    FailingCalls calls;
    size_t done = 0;
    const auto fail = [&](int error, int count) {
        calls.Fail(FailingCalls::ACCEPT4, error, count);
        this->ConnectMany(endpoint, 2);
        this->WaitUntilDone(done += 2);
    };
    for (const int error : {EINTR, EMFILE, ENFILE, ENOBUFS}) {
        fail(error, 1);
        fail(error, 2);
    }
    fail(ECONNABORTED, 150);
    EXPECT_GT(this->m_acceptor->GetRefused(), 0U) << "one for the spare descriptor";

    calls.Fail(FailingCalls::ACCEPT4, ENOBUFS, INT_MAX);
    const int before = calls.Count(FailingCalls::ACCEPT4);
    this->ConnectMany(endpoint, 1);
    this->Turn(1000);
    EXPECT_LT(calls.Count(FailingCalls::ACCEPT4) - before, 500);
}

TYPED_TEST(Acceptors, MayBePausedAndDestroyedWithinItsCall) {
    const CNxEndpoint endpoint = this->Open("127.0.0.1:0");
    this->m_onAccepted = [&] { this->m_acceptor->Pause(); };
    this->ConnectMany(endpoint, 3);
    for (size_t count = 1; count <= 3; ++count) {
        this->WaitUntilDone(count);
        this->Turn(10);
        EXPECT_EQ(this->m_taken.size(), count);
        if (count == 3) {
            this->m_onAccepted = [&] { this->m_acceptor.reset(); };
            this->ConnectMany(endpoint, 2);
        }
        this->On([&] { this->m_acceptor->Resume(); });
    }
    this->WaitUntil([&] { return this->m_acceptor == nullptr; });
    EXPECT_EQ(this->m_taken.size(), 4U);
    EXPECT_EQ(Connect(endpoint).GetHandle(), -1);
    // Counted still by what the acceptor has left, and given up on this thread.
    this->m_taken.clear();
}

TEST_F(AcceptorLimits, CountThoseThatLive) {
    CNxAcceptorOptions options;
    options.maxConnections = 2;
    CNxEndpoint endpoint = Open("127.0.0.1:0", options);
    ConnectMany(endpoint, 3);
    EXPECT_TRUE(IsHungUpOn(m_clients[2]));
    EXPECT_EQ(m_acceptor->GetConnections(), 2U);
    // On another thread than the acceptor's.
    m_taken.clear();
    ConnectMany(endpoint, 1);
    WaitUntil([&] { return m_taken.size() == 1; });
    EXPECT_EQ(m_acceptor->GetRefused(), 1U);

    options = {};
    options.maxPerAddress = 1;
    const std::string port = std::to_string((endpoint = Open("*:0", options)).GetPort());
    const CNxEndpoint v4 = Parse("127.0.0.1:" + port);
    m_clients.clear();
    ConnectMany(v4, 2);
    EXPECT_TRUE(IsHungUpOn(m_clients[1]));
    m_clients.push_back(Connect(v4, Parse("127.0.0.2:0")));
    ConnectMany(Parse("[::1]:" + port), 2);
    EXPECT_TRUE(IsHungUpOn(m_clients[4]));
    EXPECT_EQ(m_acceptor->GetConnections(), 3U);
    m_taken.clear();
    ConnectMany(v4, 1);
    WaitUntil([&] { return m_taken.size() == 1; });

    options = {};
    options.maxPerSecond = 1;
    endpoint = Open("127.0.0.1:0", options);
    On([&] { m_acceptor->Pause(); });
    ConnectMany(endpoint, 100);
    On([&] { m_acceptor->Resume(); });
    WaitUntilDone(100);
    EXPECT_GE(m_acceptor->GetAccepted(), 1U);
    EXPECT_GE(m_acceptor->GetRefused(), 1U);
}

TEST_F(AcceptorLimits, WithoutMemoryConnectionsAreClosedAndCounted) {
    CNxAcceptorOptions options;
    options.maxPerAddress = 100;
    const CNxEndpoint endpoint = Open("127.0.0.1:0", options);
    // The count of the address, the place unless one is recycled, what this test keeps.
    for (long n = 0; n < 3; ++n) {
        const FailingNew failing(n, FailingNew::ONWARDS);
        EXPECT_TRUE(IsHungUpOn(Connect(endpoint)));
    }
    ConnectMany(endpoint, 1);
    WaitUntilDone(4);
    EXPECT_EQ(m_acceptor->GetRefused(), 3U);
    EXPECT_EQ(m_acceptor->GetConnections(), 1U);
}

TEST_F(AcceptorLimits, RefusesToOpenTwiceAndWithoutAnAddress) {
    const CNxEndpoint endpoint = Open("127.0.0.1:0");
    On([&] {
        CNxAcceptor other(m_reactor, [](CNxConnectedSocket, const CNxEndpoint&) {});
        EXPECT_EQ(m_acceptor->Open(endpoint, {}), NX_ERROR_ALREADY_INITIALIZED);
        EXPECT_EQ(other.Open({}, {}), NX_ERROR_INVALID_ARG);
        EXPECT_EQ(other.Open(endpoint, {}), NX_ERROR_FAILURE);
        EXPECT_EQ(errno, EADDRINUSE);
        EXPECT_EQ(CNxAcceptor(m_reactor, nullptr).Open(endpoint, {}), NX_ERROR_INVALID_ARG);
        CNxReactorSelect closed;
        CNxAcceptor deaf(closed, [](CNxConnectedSocket, const CNxEndpoint&) {});
        EXPECT_EQ(deaf.Open(Parse("127.0.0.1:0"), {}), NX_ERROR_FAILURE);
        EXPECT_EQ(errno, EINVAL);
        m_acceptor->Close();
        EXPECT_EQ(m_acceptor->Open(endpoint, {}), NX_OK);
    });
}

}  // namespace
