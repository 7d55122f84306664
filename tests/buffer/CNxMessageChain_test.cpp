// Random operations against a model: tests/fuzz/message_chain_fuzz.cpp.
#include <array>
#include <atomic>
#include <cstdint>
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
    const size_t header = sizeof(CNxDataBlock);
    for (const size_t size : {sizeof(CNxMessageBlock), header + 16, header + 512, header + 4096,
                              header + 16384, header + 65536}) {
        while (void* const place = CRecycledPlaces::Take(size)) {
            ::operator delete(place);
        }
    }
}

// The n-th allocation fails, for every n: what the operation changes is all or nothing.
void ExpectAllOrNothing(const std::function<void(Chain&)>& operation) {
    long tries = 0;
    for (long failed = 1; failed != 0; ++tries) {
        Chain chain("first");
        chain.Append(Chain(std::string(600, 'x')));
        const Chain shared = chain.Share();
        const std::string before = chain.ToString();
        bool hasThrown = false;
        ForgetPlaces();
        {
            const FailingNew failing(tries, FailingNew::ONWARDS);
            try {
                operation(chain);
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
            failed = FailingNew::CountFailed();
        }
        EXPECT_EQ(shared.ToString(), before);
        if (hasThrown) {
            EXPECT_EQ(chain.ToString(), before);
            EXPECT_EQ(chain.GetSize(), before.size());
        } else {
            EXPECT_EQ(failed, 0);
        }
    }
    EXPECT_GT(tries, 1);
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
// One that hands chains over and one that ends them, in turns.
class CTwoThreads {
public:
    // How many allocations the last of the rounds made.
    long Run(int warmUp, int rounds) {
        std::thread taker([this] {
            for (int turn = 1; turn != c_over; turn += 2) {
                if (!Await(turn)) {
                    return;
                }
                m_handed = {};
                m_turn = turn + 1;
            }
        });
        long made = 0;
        for (int i = 0; i < warmUp + rounds; ++i) {
            if (i == warmUp) {
                failing_new::Fail(0, 0);
            }
            MakeSome();
            m_turn = 2 * i + 1;
            static_cast<void>(Await(2 * i + 2));
        }
        made = failing_new::Stop();
        m_turn = c_over;
        taker.join();
        return made;
    }

private:
    static constexpr int c_over = std::numeric_limits<int>::max();

    bool Await(int turn) {
        int now = m_turn;
        while (now != turn && now != c_over) {
            std::this_thread::yield();
            now = m_turn;
        }
        return now == turn;
    }

    void MakeSome() {
        static const std::string s_bytes(65536, 'z');
        for (const size_t size : {10UL, 3000UL, 20000UL, 65536UL}) {
            Chain chain(std::string_view(s_bytes).substr(0, size));
            chain.MakeSpace(size)[0] = 'a';
            chain.Commit(1);
            m_handed[0].Append(chain.Split(size / 2));
            m_handed[1].Append(chain.Share());
            chain.Consume(size / 3);
            static_cast<void>(chain.Flatten(5));
            m_handed[2].Append(std::move(chain));
        }
    }

    std::array<Chain, 3> m_handed;
    std::atomic<int> m_turn{0};
};

TEST(MessageChain, SteadyTrafficBetweenThreadsAllocatesNothing) {
    EXPECT_EQ(CTwoThreads().Run(300, 300), 0);
}
#endif

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
    EXPECT_GE(chain.GetSpaceSize(), 1000u);
    chain.Commit(0);
    EXPECT_EQ(chain.GetSpaceSize(), 0u);
    chain.Consume(1);
    static_cast<void>(chain.MakeSpace(0));
    chain.Commit(std::numeric_limits<size_t>::max());
    EXPECT_EQ(chain.GetSize(), 512u);
    chain.Clear();
    EXPECT_EQ(chain.Release(), nullptr);
    EXPECT_THROW(chain.MakeSpace(std::numeric_limits<size_t>::max()), std::bad_alloc);
}

TEST(MessageChain, IntegersComeInBothOrdersAndAcrossBlocks) {
    Chain chain;
    chain.AppendInteger(std::uint16_t{0x0102});
    chain.AppendInteger(std::int32_t{-2}, ENxByteOrder::LITTLE);
    chain.AppendIntegerOf(3, 0x01020304);
    chain.AppendIntegerOf(9, 1);
    EXPECT_EQ(chain.ToString(), std::string_view("\1\2\xFE\xFF\xFF\xFF\2\3\4", 9));
    Chain pieces;
    while (!chain.IsEmpty()) {
        pieces.Append(chain.Split(1));
    }
    std::int32_t number = 0;
    EXPECT_TRUE(pieces.Peek(number, 2, ENxByteOrder::LITTLE));
    EXPECT_EQ(number, -2);
    EXPECT_FALSE(pieces.Peek(number, 6));
    std::uint64_t wide = 0;
    EXPECT_TRUE(pieces.PeekIntegerOf(3, wide, 6));
    EXPECT_EQ(wide, 0x020304u);
    EXPECT_FALSE(pieces.PeekIntegerOf(9, wide));
}

TEST(MessageChain, AnyNumberOfBlocksIsSearchedTakenAndEnded) {
    const Chain piece("ab");
    Chain chain;
    for (int i = 0; i < 200000; ++i) {
        chain.Append(piece.Share());
    }
    chain.Append(Chain("c"));
    EXPECT_EQ(chain.Find("abc"), 399998u);
    Chain taken = Chain::Adopt(chain.Release());
    EXPECT_TRUE(chain.IsEmpty());
    EXPECT_EQ(taken.GetSize(), 400001u);
    static_cast<void>(taken.Split(300000));
    EXPECT_EQ(taken.GetSize(), 100001u);
}

}  // namespace
