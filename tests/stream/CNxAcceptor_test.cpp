#include <fcntl.h>
#include <nx/stream/CNxAcceptor.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>
#include <tests/support/TempFolder.h>

#include <atomic>
#include <climits>
#include <deque>

#include "StreamSupport.h"

namespace {

// An acceptor on a loop of its own, that keeps what comes; what is left is destroyed after the
// loop's thread has ended.
template <class Reactor>
class Acceptors : public ::testing::Test {
protected:
    void TearDown() override { m_loop.Stop(); }

    void WaitUntilDone(size_t count) {
        m_loop.WaitUntil(
            [&] { return m_acceptor->GetAccepted() + m_acceptor->GetRefused() == count; });
    }

    void Turn(int times) {
        while (times-- > 0) {
            m_loop.Run([] {});
        }
    }

    // Anew, and returns where.
    CNxEndpoint Open(const std::string& text, const CNxAcceptorOptions& options = {}) {
        m_clients.clear();
        m_taken.clear();
        m_loop.Run([&] {
            m_acceptor = std::make_unique<CNxAcceptor>(
                m_loop.GetReactor(), [this](CNxConnectedSocket socket, const CNxEndpoint& peer) {
                    m_lastPeer = peer;
                    m_taken.push_back(std::move(socket));
                    m_onAccepted();
                });
            EXPECT_EQ(m_acceptor->Open(Parse(text), options), NX_OK) << text;
        });
        return m_acceptor->GetEndpoint();
    }

    void ConnectMany(const CNxEndpoint& endpoint, int count) {
        for (int i = 0; i < count; ++i) {
            m_clients.push_back(Connect(endpoint));
            ASSERT_NE(m_clients.back().GetHandle(), -1);
        }
    }

    // While they all wait to be accepted.
    void ConnectManyAtOnce(const CNxEndpoint& endpoint, int count) {
        m_loop.Run([&] { m_acceptor->Pause(); });
        ConnectMany(endpoint, count);
        Turn(10);
        EXPECT_EQ(m_acceptor->GetAccepted(), 0U);
        m_loop.Run([&] { m_acceptor->Resume(); });
        WaitUntilDone(static_cast<size_t>(count));
    }

    LoopThread<Reactor> m_loop;
    std::unique_ptr<CNxAcceptor> m_acceptor;
    std::function<void()> m_onAccepted = [] {};
    std::vector<CNxConnectedSocket> m_taken;
    CNxEndpoint m_lastPeer;
    std::vector<CNxSocketBase> m_clients;
};
TYPED_TEST_SUITE(Acceptors, AllReactors, ReactorNames);

using AcceptorLimits = Acceptors<CNxReactorEpoll>;

// More than are accepted in a turn.
TYPED_TEST(Acceptors, EveryConnectionComesOnceOverEveryKindOfEndpoint) {
    const CTempFolder folder;
    for (const std::string& text :
         {std::string("127.0.0.1:0"), "unix:" + folder.Path("s"), std::string("unix:")}) {
        this->ConnectManyAtOnce(this->Open(text), 300);
        ASSERT_EQ(this->m_taken.size(), 300U);
        EXPECT_EQ(this->m_acceptor->GetConnections(), 300U);
        const int accepted = this->m_taken[0].socket.GetHandle();
        EXPECT_NE(fcntl(accepted, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(fcntl(accepted, F_GETFL) & O_NONBLOCK, 0);
        CNxEndpoint client;
        ASSERT_EQ(client.SetLocalOf(this->m_clients.back().GetHandle()), NX_OK);
        EXPECT_EQ(this->m_lastPeer, client);
    }
}

TYPED_TEST(Acceptors, IsNeitherDeafNorBusyWhenTheSystemRefuses) {
    const CNxEndpoint endpoint = this->Open("127.0.0.1:0");
    FailingCalls calls;
    size_t done = 0;
    // The last: more than are tried in a turn.
    const std::pair<int, int> failures[] = {
        {EMFILE, 1}, {EMFILE, 2}, {ENOBUFS, 2}, {ECONNABORTED, 150}};
    for (const auto& [error, count] : failures) {
        calls.Fail(FailingCalls::ACCEPT4, error, count);
        this->ConnectMany(endpoint, 2);
        this->WaitUntilDone(done += 2);
    }
    EXPECT_GT(this->m_acceptor->GetRefused(), 0U) << "one for the spare descriptor";

    for (const int error : {ENOBUFS, EMFILE}) {
        calls.Fail(FailingCalls::ACCEPT4, error, INT_MAX);
        const int before = calls.Count(FailingCalls::ACCEPT4);
        this->ConnectMany(endpoint, 1);
        this->Turn(2000);
        EXPECT_LT(calls.Count(FailingCalls::ACCEPT4) - before, 1000);
    }
}

// The second call of accept4 is refused, and nothing can be had to try it later.
TYPED_TEST(Acceptors, IsNotDeafWithoutMemoryForATimerAndARegistration) {
    const CNxEndpoint endpoint = this->Open("127.0.0.1:0");
    auto& reactor = this->m_loop.GetReactor();
    FailingCalls calls;
    std::deque<Timer> others;
    std::atomic<bool> isPoor{false};
    this->m_onAccepted = [&] {
        if (isPoor) {
            return;
        }
        calls.Fail(FailingCalls::ACCEPT4, ENOBUFS, 1);
        calls.Fail(FailingCalls::EPOLL_CTL, ENOMEM, INT_MAX);
        // Until the timer queue has no room for another handler.
        NxResult scheduled = NX_OK;
        while (scheduled == NX_OK) {
            Timer& other = others.emplace_back([] { return 0; });
            failing_new::Fail(0, LONG_MAX);
            scheduled = reactor.ScheduleTimer(&other, nullptr, CNxTimeValue(3600), 1);
            failing_new::Stop();
        }
        failing_new::Fail(0, LONG_MAX);
        isPoor = true;
    };
    this->m_clients.reserve(2);
    this->ConnectMany(endpoint, 1);
    while (!isPoor || failing_new::GetFailed() == 0) {
        std::this_thread::yield();
    }
    failing_new::Stop();
    this->Turn(1);
    calls.Fail(FailingCalls::EPOLL_CTL, 0, 0);
    this->ConnectMany(endpoint, 1);
    this->WaitUntilDone(2);
    this->m_loop.Stop();
}

TYPED_TEST(Acceptors, MayBePausedAndDestroyedWithinItsCall) {
    const CNxEndpoint endpoint = this->Open("127.0.0.1:0");
    this->m_onAccepted = [&] { this->m_acceptor->Pause(); };
    this->ConnectMany(endpoint, 3);
    this->WaitUntilDone(1);
    this->Turn(10);
    EXPECT_EQ(this->m_taken.size(), 1U);
    this->m_loop.Run([&] {
        this->m_onAccepted = [&] { this->m_acceptor.reset(); };
        this->m_acceptor->Resume();
    });
    this->m_loop.WaitUntil([&] { return this->m_acceptor == nullptr; });
    EXPECT_EQ(Connect(endpoint).GetHandle(), -1);
    // Places given up after their acceptor, on another thread.
    this->m_taken.clear();
}

TEST_F(AcceptorLimits, CountThoseThatLive) {
    CNxAcceptorOptions options;
    options.maxConnections = 2;
    const CNxEndpoint endpoint = Open("127.0.0.1:0", options);
    ConnectMany(endpoint, 3);
    EXPECT_TRUE(IsHungUpOn(m_clients[2]));
    WaitUntilDone(3);
    m_taken.clear();
    ConnectMany(endpoint, 1);
    WaitUntilDone(4);
    EXPECT_EQ(m_acceptor->GetConnections(), 1U);

    options = {};
    options.maxPerAddress = 1;
    const std::string port = std::to_string(Open("*:0", options).GetPort());
    for (const char* host : {"127.0.0.1:", "[::1]:"}) {
        ConnectMany(Parse(host + port), 2);
        EXPECT_TRUE(IsHungUpOn(m_clients.back()));
    }
    WaitUntilDone(4);
    m_taken.clear();
    ConnectMany(Parse("127.0.0.1:" + port), 1);
    WaitUntilDone(5);
    EXPECT_EQ(m_acceptor->GetConnections(), 1U);

    options = {};
    options.maxPerSecond = 1;
    ConnectManyAtOnce(Open("127.0.0.1:0", options), 100);
    EXPECT_GE(m_acceptor->GetAccepted(), 1U);
    EXPECT_GE(m_acceptor->GetRefused(), 1U);
}

}  // namespace
