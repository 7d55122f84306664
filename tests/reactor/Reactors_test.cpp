// What users of any reactor rely on, proved over each of them.
#include <sys/resource.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ReactorSupport.h"

namespace {

template <class Reactor>
class Reactors : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_reactor.Open(), NX_OK); }
    void TearDown() override { m_reactor.Close(); }

    Reactor m_reactor;
    EventCounts m_counts;
};

TYPED_TEST_SUITE(Reactors, AllReactors, ReactorNames);

template <class Reactor>
class ClosedReactors : public ::testing::Test {};
TYPED_TEST_SUITE(ClosedReactors, AllReactors, ReactorNames);

TYPED_TEST(ClosedReactors, ReopeningLeaksNothingAndForgetsOldRegistrations) {
    const long before = CountDescriptors();
    {
        TypeParam reactor;
        End stale;
        EventCounts counts;
        for (int round = 0; round < 20; ++round) {
            ASSERT_EQ(reactor.Open(), NX_OK);
            ASSERT_EQ(reactor.RegisterHandler(&stale, NX_MASK_READ), NX_OK);
            ASSERT_EQ(reactor.Close(), NX_OK);
        }
        ASSERT_EQ(reactor.Open(), NX_OK);
        stale.Send();
        reactor.PostEvent(new CountedEvent(counts, [&] { return reactor.StopEventLoop(); }),
                          c_normal);
        EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
        EXPECT_EQ(stale.m_inputs, 0);
        // The loop has ended: nobody would fire them.
        EXPECT_EQ(reactor.PostEvent(new CountedEvent(counts), c_normal), NX_ERROR_NOT_INITIALIZED);
        EXPECT_TRUE(counts.AllDestroyed());
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TYPED_TEST(ClosedReactors, OpenWithoutDescriptorsFailsAndTakesNone) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    // Not less: Open raises it.
    const rlimit enough{8192, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &enough) != 0) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    // A sanitizer's first look at a type takes descriptors.
    TypeParam first;
    ASSERT_EQ(first.Open(), NX_OK);
    ASSERT_EQ(first.Open(), NX_ERROR_ALREADY_INITIALIZED);
    std::vector<int> taken;
    for (int fd = 0; (fd = dup(STDERR_FILENO)) != -1;) {
        taken.insert(taken.begin(), fd);
    }
    // The lowest first: select(2) takes no others.
    const auto closeTaken = [&](size_t count) {
        for (; count > 0; --count) {
            close(taken.back());
            taken.pop_back();
        }
    };
    TypeParam reactor;
    EventCounts counts;
    std::vector<NxResult> results;
    while ((results.empty() || results.back() != NX_OK) && results.size() < 10) {
        results.push_back(reactor.Open());
        closeTaken(1);
    }
    closeTaken(taken.size());
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(results.back(), NX_OK);
    EXPECT_EQ(results[results.size() - 2], NX_ERROR_NOT_AVAILABLE);
    // Two for the pipe, or one for epoll and one for its wake-ups.
    EXPECT_EQ(results.size(), 3u);
    StopSoon(reactor, counts);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
}

TYPED_TEST(Reactors, SecondOpenClosesItAndTheLoopOfAClosedOneEnds) {
    auto& reactor = this->m_reactor;
    EXPECT_EQ(reactor.PostEvent(new CountedEvent(this->m_counts), c_normal), NX_OK);
    EXPECT_EQ(reactor.StopEventLoop(), NX_OK);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(this->m_counts.m_fired, 1);
    ASSERT_EQ(reactor.Close(), NX_OK);
    ASSERT_EQ(reactor.Open(), NX_OK);
    EXPECT_EQ(reactor.Open(), NX_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    End end;
    EXPECT_NE(reactor.NotifyHandler(&end, NX_MASK_READ), NX_OK);
}

// Two handlers ready in one batch; the first closes the second's descriptor and another handler
// gets its number.
TYPED_TEST(Reactors, ReadinessOfARemovedHandlerIsNotGivenToTheNextOfItsNumber) {
    auto& reactor = this->m_reactor;
    std::vector<std::unique_ptr<End>> ends;
    std::unique_ptr<End> newcomer;
    const auto replaceOther = [&](End& self) {
        self.Drain();
        std::unique_ptr<End>& other = ends[&self == ends[0].get() ? 1 : 0];
        const int number = other->GetHandle();
        reactor.RemoveHandler(other.get(), NX_MASK_ALL_EVENTS);
        other.reset();
        newcomer = std::make_unique<End>();
        EXPECT_EQ(newcomer->GetHandle(), number);
        EXPECT_EQ(reactor.RegisterHandler(newcomer.get(), NX_MASK_READ), NX_OK);
        StopSoon(reactor, this->m_counts);
        return 0;
    };
    ends.push_back(std::make_unique<End>(replaceOther));
    ends.push_back(std::make_unique<End>(replaceOther));
    for (const auto& end : ends) {
        end->Send();
        ASSERT_EQ(reactor.RegisterHandler(end.get(), NX_MASK_READ), NX_OK);
    }
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    ASSERT_NE(newcomer, nullptr);
    EXPECT_EQ(newcomer->m_inputs, 0);
}

// Posts, sends, notifications and the stop against the end and the closing of the loop, on the same
// reactor opened again and again.
TYPED_TEST(ClosedReactors, NothingIsLostOrWrittenElsewhereWhileTheReactorClosesAndReopens) {
    TypeParam reactor;
    EventCounts counts;
    std::atomic<bool> finished{false};
    const auto post = [&] {
        while (!finished.load()) {
            reactor.PostEvent(new CountedEvent(counts), c_normal);
            // Has no room, or nobody to wake, from time to time.
            static_cast<void>(reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
            std::this_thread::yield();
        }
    };
    const auto send = [&] {
        while (!finished.load()) {
            const NxResult result =
                reactor.SendEvent(new CountedEvent(counts, [] { return NX_ERROR_FOUND; }));
            EXPECT_TRUE(result == NX_ERROR_FOUND || result == NX_ERROR_NOT_INITIALIZED ||
                        result == NX_ERROR_NOT_AVAILABLE)
                << result;
            std::this_thread::yield();
        }
    };
    ASSERT_EQ(reactor.Open(), NX_OK);
    std::vector<std::thread> others;
    others.emplace_back(post);
    others.emplace_back(send);
    others.emplace_back(send);
    for (int round = 0; round < 100; ++round) {
        if (round > 0) {
            ASSERT_EQ(reactor.Open(), NX_OK);
        }
        std::thread stopper([&] {
            while (reactor.StopEventLoop() != NX_OK) {
                std::this_thread::yield();
            }
        });
        EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
        stopper.join();
        EXPECT_EQ(reactor.Close(), NX_OK);
        // A descriptor that takes the pipe's number must see nothing of the wake-ups.
        End bystander;
        std::this_thread::yield();
        char byte = 0;
        EXPECT_EQ(recv(bystander.GetHandle(), &byte, 1, MSG_DONTWAIT), -1);
    }
    finished = true;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_GT(counts.m_fired, 0);
    EXPECT_TRUE(counts.AllDestroyed());
}

// An event that posts its own successor, until a handler has had its turn.
TYPED_TEST(Reactors, FloodOfPostedEventsDoesNotStarveInput) {
    auto& reactor = this->m_reactor;
    End end;
    std::function<NxResult()> repost = [&] {
        return end.m_inputs > 0
                   ? reactor.StopEventLoop()
                   : reactor.PostEvent(new CountedEvent(this->m_counts, repost), c_normal);
    };
    ASSERT_EQ(reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    repost();
    end.Send();
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    EXPECT_GT(end.m_inputs, 0);
}

// Clients on another thread send a byte and wait for the answer, round after round.
TYPED_TEST(Reactors, EveryClientIsAnsweredInEveryRound) {
    EchoClients(this->m_reactor, 50, 40);
}

}  // namespace
