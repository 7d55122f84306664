// That each connection comes once is in the model of connections, limits in the tests of groups.
#include <nx/stream/CNxAcceptor.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingCalls.h>

#include <climits>

#include "StreamSupport.h"

namespace {

template <class Reactor>
class Acceptors : public ::testing::Test {};
TYPED_TEST_SUITE(Acceptors, AllReactors, ReactorNames);

TYPED_TEST(Acceptors, IsNeitherDeafNorBusyWhenTheSystemRefuses) {
    LoopThread<TypeParam> loop;
    CNxAcceptor acceptor(loop.GetReactor(), [](const CNxConnectedSocket&, const CNxEndpoint&) {});
    loop.Run([&] { Must(acceptor.Open(Parse("127.0.0.1:0"), {})); });
    std::vector<CNxSocketBase> clients;
    const auto connectOne = [&] {
        clients.push_back(Connect(acceptor.GetEndpoint()));
        EXPECT_NE(clients.back().GetHandle(), -1);
    };
    FailingCalls calls;
    // The last: more than are tried in a turn.
    const std::pair<int, int> failures[] = {
        {EMFILE, 1}, {EMFILE, 2}, {ENOBUFS, 2}, {ECONNABORTED, 150}};
    for (const auto& [error, count] : failures) {
        calls.Fail(FailingCalls::ACCEPT4, error, count);
        connectOne();
        connectOne();
        loop.WaitUntil(
            [&] { return acceptor.GetAccepted() + acceptor.GetRefused() == clients.size(); });
    }
    EXPECT_GT(acceptor.GetRefused(), 0U) << "one for the spare descriptor";

    for (const int error : {ENOBUFS, EMFILE}) {
        calls.Fail(FailingCalls::ACCEPT4, error, INT_MAX);
        const int before = calls.Count(FailingCalls::ACCEPT4);
        connectOne();
        for (int turn = 0; turn < 2000; ++turn) {
            loop.Run([] {});
        }
        EXPECT_LT(calls.Count(FailingCalls::ACCEPT4) - before, 1000);
    }
    loop.Stop();
}

}  // namespace
