// Random operations against a model: tests/fuzz/message_chain_fuzz.cpp.
#include <atomic>
#include <climits>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageChain.h>
#include <nx/foundation/CRecycledPlaces.h>

#include "../support/FailingNew.h"

namespace {

using Chain = CNxMessageChain;

// What was recycled up to now is gone, so that what is made needs memory.
void ForgetPlaces() {
    for (size_t size = 0; size < 70000; size += sizeof(void*)) {
        while (void* const place = CRecycledPlaces::Take(size)) {
            ::operator delete(place);
        }
    }
}

// From the n-th on all allocations fail, for every n: the operation changes all or nothing.
void ExpectAllOrNothing(const std::function<void(Chain&)>& operation) {
    for (long n = 0, failed = 1; failed != 0; ++n) {
        Chain chain("first");
        chain.Append(Chain(std::string(600, 'x')));
        const Chain shared = chain.Share();
        const std::string before = chain.ToString();
        bool hasThrown = false;
        ForgetPlaces();
        failing_new::Fail(n, LONG_MAX);
        try {
            operation(chain);
        } catch (const std::bad_alloc&) {
            hasThrown = true;
        }
        failed = failing_new::GetFailed();
        failing_new::Stop();
        EXPECT_EQ(hasThrown, failed != 0);
        EXPECT_TRUE(hasThrown || n > 0);
        EXPECT_EQ(shared.ToString(), before);
        EXPECT_TRUE(!hasThrown || chain.ToString() == before);
    }
}

TEST(MessageChain, WithoutMemoryNothingHasChanged) {
    static const std::string s_long(40000, 'y');
    ExpectAllOrNothing([](Chain& chain) { chain.Append({"a", s_long, "b"}); });
    ExpectAllOrNothing([](Chain& chain) { static_cast<void>(chain.MakeSpace(5000)); });
    ExpectAllOrNothing([](Chain& chain) { EXPECT_EQ(chain.Split(100).GetSize(), 100u); });
    ExpectAllOrNothing([](Chain& chain) { EXPECT_EQ(chain.Share(3, 300).GetSize(), 300u); });
    ExpectAllOrNothing([](Chain& chain) { EXPECT_EQ(chain.Flatten(100).size(), 100u); });
    int released = 0;
    int tried = 0;
    ExpectAllOrNothing([&](Chain& chain) {
        ++tried;
        chain.AppendAdopted(
            s_long.data(), s_long.size(), [](void* count) { ++*static_cast<int*>(count); },
            &released);
    });
    EXPECT_EQ(released, tried);
}

#ifndef __SANITIZE_ADDRESS__  // where nothing is recycled
TEST(MessageChain, SteadyTrafficBetweenThreadsAllocatesNothing) {
    std::atomic<Chain*> handed{nullptr};
    std::atomic<bool> isOver{false};
    std::thread taker([&] {
        for (; !isOver; std::this_thread::yield()) {
            if (handed != nullptr) {
                handed.load()->Clear();
                handed = nullptr;
            }
        }
    });
    const std::string bytes(65536, 'z');
    Chain all;
    for (int round = 0; round < 600; ++round) {
        if (round == 300) {
            failing_new::Fail(0, 0);
        }
        for (const size_t size : {10UL, 3000UL, 20000UL, 65536UL}) {
            Chain chain(std::string_view(bytes).substr(0, size));
            chain.MakeSpace(size);
            chain.Commit(1);
            all.Append(chain.Split(size / 2));
            all.Append(chain.Share());
            chain.Consume(size / 3);
            static_cast<void>(chain.Flatten(5));
            all.Append(std::move(chain));
        }
        for (handed = &all; handed != nullptr;) {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(failing_new::Stop(), 0);
    isOver = true;
    taker.join();
}
#endif

// Whose memory it was sends on from where he is told that it is free.
TEST(MessageChain, MayBeUsedWhileItsMemoryIsReleased) {
    struct Sender {
        Chain chain;
        int left = 2;
        void Send() {
            if (left-- > 0) {
                chain.AppendAdopted("abcd", 4, &Sender::OnFree, this);
            }
            chain.Append("!");
        }
        static void OnFree(void* sender) { static_cast<Sender*>(sender)->Send(); }
    };
    Sender sender;
    sender.Send();
    sender.chain.Consume(4);
    EXPECT_EQ(sender.chain.ToString(), "!abcd!");
    sender.chain.Clear();
    EXPECT_EQ(sender.chain.ToString(), "!");
}

TEST(MessageChain, SpaceThatWasNotNeededIsGivenBack) {
    Chain chain("a");
    static_cast<void>(chain.MakeSpace(1000));
    chain.Commit(0);
    EXPECT_EQ(chain.GetSpaceSize(), 511u);
    chain.Clear();
    static_cast<void>(chain.MakeSpace(0));
    chain.Commit(std::numeric_limits<size_t>::max());
    EXPECT_EQ(chain.GetSize(), 512u);
    EXPECT_THROW(chain.MakeSpace(std::numeric_limits<size_t>::max()), std::bad_alloc);
}

TEST(MessageChain, WhoSharesSeesNeitherWhatIsAppendedNorPaysForIt) {
    Chain chain("one");
    const char* const storage = chain.GetFront().data();
    Chain shared = chain.Share();
    chain.Append(", two");
    EXPECT_EQ(chain.GetFront().data(), storage);
    EXPECT_EQ(chain.GetFront(), "one, two");
    shared.Append("!");
    Chain front = chain.Split(3);
    front.Append("?");
    EXPECT_EQ(shared.ToString(), "one!");
    EXPECT_EQ(front.ToString(), "one?");
    EXPECT_EQ(chain.ToString(), ", two");

    static const char s_constant[] = "constant";
    chain.AppendAdopted(s_constant, 8, nullptr, nullptr);
    chain.Consume(5);
    front = chain.Split(5);
    chain.Clear();
    front.Append("ly");
    EXPECT_EQ(front.ToString(), "constly");
    EXPECT_STREQ(s_constant, "constant");
}

TEST(MessageChain, AnyNumberOfBlocksIsSearchedTakenAndEnded) {
    const Chain piece("ab");
    Chain chain;
    for (int i = 0; i < 200000; ++i) {
        chain.Append(piece.Share());
    }
    chain.Append(Chain("c"));
    EXPECT_EQ(chain.Find("abc"), 399998u);
    CNxMessageBlock* const head = chain.Release();
    Chain copy = Chain::Adopt(head->DuplicateChained());
    Chain tail = Chain::Adopt(head->Disjoint(1));
    head->DestroyChained();
    static_cast<void>(copy.Split(300000));
    EXPECT_EQ(copy.GetSize(), 100001u);
    EXPECT_EQ(tail.GetSize(), 400000u);
}

}  // namespace
