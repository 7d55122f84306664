#include <fcntl.h>
#include <nx/stream/CNxAcceptor.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/Endpoints.h>
#include <tests/support/TempFolder.h>

#include "StreamSupport.h"

namespace {

// That it is neither deaf nor busy when the system refuses is seen by scripts/sweep.
//
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
        const CNxEndpoint endpoint = this->Open(text);
        this->m_loop.Run([&] { this->ConnectMany(endpoint, 300); });
        this->WaitUntilDone(300);
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

TYPED_TEST(Acceptors, MayBePausedAndDestroyedWithinItsCall) {
    const CNxEndpoint endpoint = this->Open("127.0.0.1:0");
    this->m_onAccepted = [&] { this->m_acceptor->Pause(); };
    this->ConnectMany(endpoint, 3);
    this->WaitUntilDone(1);
    // Turns in which the others could come.
    for (int i = 0; i < 10; ++i) {
        this->m_loop.Run([&] { EXPECT_EQ(this->m_taken.size(), 1U); });
    }
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
    const CNxEndpoint busy = Open("127.0.0.1:0", options);
    m_loop.Run([&] { ConnectMany(busy, 100); });
    WaitUntilDone(100);
    EXPECT_GE(m_acceptor->GetAccepted(), 1U);
    EXPECT_GE(m_acceptor->GetRefused(), 1U);
}

}  // namespace
