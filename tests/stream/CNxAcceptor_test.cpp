// That each connection comes once is in the model of connections, limits in the tests of groups.
#include <nx/stream/CNxAcceptor.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>

#include <atomic>
#include <climits>
#include <deque>
#include <thread>

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

// The second call of accept4 is refused, and nothing can be had to try it later.
TYPED_TEST(Acceptors, IsNotDeafWithoutMemoryForATimerAndARegistration) {
    LoopThread<TypeParam> loop;
    FailingCalls calls;
    std::deque<Timer> others;
    std::atomic<bool> isPoor{false};
    const auto spendAll = [&](const CNxConnectedSocket&, const CNxEndpoint&) {
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
            scheduled = loop.GetReactor().ScheduleTimer(&other, nullptr, CNxTimeValue(3600), 1);
            failing_new::Stop();
        }
        failing_new::Fail(0, LONG_MAX);
        isPoor = true;
    };
    CNxAcceptor acceptor(loop.GetReactor(), spendAll);
    loop.Run([&] { Must(acceptor.Open(Parse("127.0.0.1:0"), {})); });
    const CNxSocketBase first = Connect(acceptor.GetEndpoint());
    while (!isPoor || failing_new::GetFailed() == 0) {
        std::this_thread::yield();
    }
    failing_new::Stop();
    loop.Run([] {});
    calls.Fail(FailingCalls::EPOLL_CTL, 0, 0);
    const CNxSocketBase second = Connect(acceptor.GetEndpoint());
    loop.WaitUntil([&] { return acceptor.GetAccepted() == 2; });
    loop.Stop();
}

}  // namespace
