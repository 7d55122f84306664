// What users of any reactor rely on, proved over each of them.
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "ReactorSupport.h"

namespace {

template <class Reactor>
class Reactors : public OpenReactor<Reactor> {};
TYPED_TEST_SUITE(Reactors, AllReactors, ReactorNames);

long CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TYPED_TEST(Reactors, ReopeningLeaksNothingAndForgetsOldRegistrations) {
    End stale;
    this->m_reactor.Close();
    const long before = CountDescriptors();
    {
        TypeParam reactor;
        for (int round = 0; round < 20; ++round) {
            ASSERT_EQ(reactor.Open(), NX_OK);
            ASSERT_EQ(reactor.RegisterHandler(&stale, NX_MASK_READ), NX_OK);
            ASSERT_EQ(reactor.Close(), NX_OK);
        }
    }
    EXPECT_EQ(CountDescriptors(), before);
    ASSERT_EQ(this->m_reactor.Open(), NX_OK);
    this->Watch(stale, NX_MASK_READ);
    this->Reopen();
    stale.Send();
    this->StopSoon();
    this->Run();
    EXPECT_EQ(stale.m_inputs, 0);
    // The loop has ended: nobody would fire it.
    EXPECT_EQ(this->m_reactor.PostEvent(new CountedEvent(this->m_counts)),
              NX_ERROR_NOT_INITIALIZED);
    EXPECT_TRUE(this->m_counts.AllDestroyed());
}

TYPED_TEST(Reactors, OpenWithoutDescriptorsFailsAndTakesNone) {
    this->m_reactor.Close();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    // Not less: Open raises it.
    const rlimit enough{8192, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &enough) != 0) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    std::vector<int> taken;
    for (int fd = 0; (fd = dup(STDERR_FILENO)) != -1;) {
        taken.push_back(fd);
    }
    // The lowest first: select(2) takes no others.
    auto next = taken.begin();
    TypeParam reactor;
    const bool isEpoll = reactor.GetReactorType() == INxReactor::TYPE_EPOLL;
    // Two for the pipe, or one for epoll and one for its wake-ups.
    for (const NxResult result :
         {isEpoll ? NX_ERROR_FAILURE : NX_ERROR_NOT_AVAILABLE, NX_ERROR_NOT_AVAILABLE, NX_OK}) {
        EXPECT_EQ(reactor.Open(), result);
        close(*next++);
    }
    std::for_each(next, taken.end(), close);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(reactor.StopEventLoop(), NX_OK);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
}

TYPED_TEST(Reactors, SecondOpenClosesItAndTheLoopOfAClosedOneEnds) {
    auto& reactor = this->m_reactor;
    EXPECT_EQ(reactor.PostEvent(new CountedEvent(this->m_counts)), NX_OK);
    EXPECT_EQ(reactor.StopEventLoop(), NX_OK);
    this->Run();
    EXPECT_EQ(this->m_counts.m_fired, 1);
    this->Reopen();
    EXPECT_EQ(reactor.Open(), NX_ERROR_ALREADY_INITIALIZED);
    this->Run();
    End end;
    EXPECT_NE(reactor.NotifyHandler(&end, NX_MASK_READ), NX_OK);
}

// Two handlers ready in one batch; the first closes the second's descriptor and another handler
// gets its number.
TYPED_TEST(Reactors, ReadinessOfARemovedHandlerIsNotGivenToTheNextOfItsNumber) {
    std::unique_ptr<End> ends[2];
    std::unique_ptr<End> newcomer;
    const auto replaceOther = [&](End& self) {
        self.Drain();
        std::unique_ptr<End>& other = ends[&self == ends[0].get() ? 1 : 0];
        const int number = other->m_fd;
        this->m_reactor.RemoveHandler(other.get(), NX_MASK_ALL_EVENTS);
        other.reset();
        newcomer = std::make_unique<End>();
        EXPECT_EQ(newcomer->m_fd, number);
        this->Watch(*newcomer, NX_MASK_READ);
        this->StopSoon();
        return 0;
    };
    for (auto& end : ends) {
        end = std::make_unique<End>(replaceOther);
        end->Send();
        this->Watch(*end, NX_MASK_READ);
    }
    this->Run();
    ASSERT_NE(newcomer, nullptr);
    EXPECT_EQ(newcomer->m_inputs, 0);
}

TYPED_TEST(Reactors, WhatItsLoopLeavesIsClearedUpOnAnyThread) {
    auto& reactor = this->m_reactor;
    End end;
    CNxTimedCall call;
    this->Watch(end, NX_MASK_READ);
    EXPECT_EQ(call.RunAfter(reactor, CNxTimeValue(60, 0), [] {}), NX_OK);
    const auto removeElsewhere = [&] {
        std::thread([&] { reactor.RemoveHandler(&end, NX_MASK_ALL_EVENTS); }).join();
    };
#ifdef NXBASE_CHECK_THREADS
    NxPostCall(reactor, [&] { EXPECT_DEATH(removeElsewhere(), "belongs to thread"); });
#endif
    this->StopSoon();
    this->Run();
    removeElsewhere();
    std::thread([&] { call.Cancel(); }).join();
    reactor.Close();
    removeElsewhere();
}

// Posts, sends, notifications and the stop against the end and the closing of the loop, on the same
// reactor opened again and again.
TYPED_TEST(Reactors, NothingIsLostOrWrittenElsewhereWhileTheReactorClosesAndReopens) {
    auto& reactor = this->m_reactor;
    EventCounts& counts = this->m_counts;
    std::atomic<bool> finished{false};
    const auto use = [&] {
        while (!finished.load()) {
            reactor.PostEvent(new CountedEvent(counts));
            // Has no room, or nobody to wake, from time to time.
            static_cast<void>(reactor.NotifyHandler(nullptr, NX_MASK_EVENT_QUEUE));
            const NxResult result =
                reactor.SendEvent(new CountedEvent(counts, [] { return NX_ERROR_FOUND; }));
            EXPECT_TRUE(result == NX_ERROR_FOUND || result == NX_ERROR_NOT_INITIALIZED ||
                        result == NX_ERROR_NOT_AVAILABLE)
                << result;
            std::this_thread::yield();
        }
    };
    std::thread others[] = {std::thread(use), std::thread(use), std::thread(use)};
    for (int round = 0; round < 100; ++round) {
        std::thread stopper([&] {
            while (this->Stop() != 0) {
                std::this_thread::yield();
            }
        });
        this->Run();
        stopper.join();
        EXPECT_EQ(reactor.Close(), NX_OK);
        // A descriptor that takes the pipe's number must see nothing of the wake-ups.
        End bystander;
        std::this_thread::yield();
        EXPECT_EQ(bystander.Drain(), 0);
        EXPECT_EQ(reactor.Open(), NX_OK);
    }
    reactor.Close();
    finished = true;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_GT(counts.m_fired, 0);
    EXPECT_TRUE(counts.AllDestroyed());
}

// An event that posts its own successor, until a handler has had its turn.
TYPED_TEST(Reactors, FloodOfPostedEventsDoesNotStarveInput) {
    End end;
    std::function<NxResult()> repost = [&] {
        return end.m_inputs > 0
                   ? this->m_reactor.StopEventLoop()
                   : this->m_reactor.PostEvent(new CountedEvent(this->m_counts, repost));
    };
    this->Watch(end, NX_MASK_READ);
    repost();
    end.Send();
    this->Run();
    EXPECT_GT(end.m_inputs, 0);
}

// Clients on another thread send a byte and wait for the answer, round after round.
TYPED_TEST(Reactors, EveryClientIsAnsweredInEveryRound) {
    this->EchoClients(50, 40);
}

}  // namespace
