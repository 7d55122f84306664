// Every operation on chains of three blocks in all their states, beside plain strings.
#include <algorithm>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>

namespace {

using Block = CNxMessageBlock;

std::string Flatten(const Block* head) {
    return head != nullptr ? head->FlattenChained().c_str() : "";
}

size_t Count(const Block* block) {
    return block != nullptr ? 1 + Count(block->GetNext()) : 0;
}

// Of three bytes: wraps memory, has its own or belongs to the chain; up to one byte was consumed,
// and up to two are unread.
constexpr unsigned c_states = 3 * 2 * 3;

struct CWorld {
    explicit CWorld(unsigned number) {
        for (size_t i = 0; i < 3; ++i, number /= c_states) {
            const unsigned kind = number % 3;
            consumed[i] = number / 3 % 2;
            const size_t written = consumed[i] + number / 6 % 3;
            const std::string bytes = std::string("abcdefghi").substr(3 * i, 3);
            unread[i] = bytes.substr(consumed[i], written - consumed[i]);
            space[i] = bytes.substr(written);
            auto* const block = new Block(3, kind == 0 ? &memory[3 * i] : nullptr,
                                          kind == 1 ? Block::DUPLICATED : 0, written);
            bytes.copy(block->GetReadPtr(), 3);
            EXPECT_EQ(block->AdvanceChainedReadPtr(consumed[i]), NX_OK);
            if (kind != 1) {
                kept[i].reset(block);
            }
            if (head != nullptr) {
                head->Append(block);
            } else {
                head = block;
            }
        }
    }
    ~CWorld() {
        while (head != nullptr) {
            Block* const block = head;
            head = block->GetNext();
            if ((block->GetFlags() & Block::DUPLICATED) != 0) {
                delete block;
            }
        }
    }
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    std::string All() const { return unread[0] + unread[1] + unread[2]; }

    std::string memory = std::string(9, '?');
    std::unique_ptr<Block> kept[3];
    Block* head = nullptr;
    size_t consumed[3] = {};
    std::string unread[3];
    std::string space[3];
};

// With every world and every number of bytes.
template <class Check>
void ForEachWorld(Check check) {
    for (unsigned number = 0; number < c_states * c_states * c_states; ++number) {
        for (size_t bytes = 0; bytes < 9 && !testing::Test::HasFailure(); ++bytes) {
            SCOPED_TRACE(testing::Message() << "world " << number << ", bytes " << bytes);
            CWorld world(number);
            check(world, bytes);
        }
    }
}

TEST(CNxMessageBlock, ReadsAcrossBlocksAndConsumesIfToldTo) {
    ForEachWorld([](CWorld& world, size_t count) {
        const std::string all = world.All();
        const NxResult expected = count > all.size() ? NX_ERROR_PARTIAL_DATA : NX_OK;
        for (const int advance : {0, 1}) {
            std::string got(count, '?');
            unsigned long n = 99;
            EXPECT_EQ(world.head->Read(got.data(), count, &n, advance), expected);
            EXPECT_EQ(got.substr(0, n), all.substr(0, count));
            EXPECT_EQ(Flatten(world.head), all.substr(advance != 0 ? n : 0));
        }
        EXPECT_EQ(world.head->GetChainedLength(), all.size() - std::min(count, all.size()));
    });
}

TEST(CNxMessageBlock, WritesIntoOneBlockAndCountsWhatWasFilledBlockByBlock) {
    ForEachWorld([](CWorld& world, size_t count) {
        std::string all;
        size_t left = count;
        bool isFresh = true;
        for (size_t i = 0; i < 3; ++i) {
            isFresh = isFresh && world.consumed[i] == 0;
            const size_t part = isFresh ? std::min(left, world.space[i].size()) : 0;
            all += world.unread[i] + world.space[i].substr(0, part);
            left -= part;
        }
        unsigned long n = 99;
        const unsigned long space = world.head->GetChainedSpace();
        EXPECT_EQ(world.head->AdvanceChainedWritePtr(count, &n),
                  count == 0 || left != 0 ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(n, count - left);
        EXPECT_EQ(Flatten(world.head), all);
        EXPECT_EQ(world.head->GetChainedSpace(), space - n);

        const unsigned long room = world.head->GetSpace();
        const std::string front(world.head->GetReadPtr(), world.head->GetLength());
        EXPECT_EQ(world.head->Write("123456789", count, &n),
                  count > room ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(Flatten(world.head),
                  front + std::string("123456789", n) + all.substr(front.size()));
        EXPECT_EQ(n, std::min(count, room));
    });
}

TEST(CNxMessageBlock, DisjointLeavesEmptyBlocksHereAndGivesAChainOfItsOwnBlocks) {
    ForEachWorld([](CWorld& world, size_t offset) {
        const std::string all = world.All();
        size_t end = 0;
        size_t stay = 0;
        while (stay < 3 && end < std::max<size_t>(offset, 1)) {
            end += world.unread[stay++].size();
        }
        Block* const tail = world.head->Disjoint(offset);
        EXPECT_EQ(Flatten(world.head), all.substr(0, offset));
        EXPECT_EQ(Count(world.head), stay);
        EXPECT_EQ(Flatten(tail), all.substr(std::min(offset, all.size())));
        EXPECT_EQ(Count(tail), 3 - stay + (end > offset ? 1 : 0));
        if (tail != nullptr) {
            tail->DestroyChained();
        }
        EXPECT_EQ(Flatten(world.head), all.substr(0, offset));
    });
}

TEST(CNxMessageBlock, DuplicatesShareAllButMemoryOfTheCaller) {
    ForEachWorld([](CWorld& world, size_t /*bytes*/) {
        Block* const copy = world.head->DuplicateChained();
        const Block* original = world.head;
        for (const Block* block = copy; block != nullptr; block = block->GetNext()) {
            EXPECT_EQ(block->GetFlags(), Block::DUPLICATED);
            EXPECT_EQ(block->GetReadPtr() == original->GetReadPtr(),
                      (original->GetFlags() & Block::DONT_DELETE) == 0);
            EXPECT_EQ(block->GetSpace(), original->GetSpace());
            original = original->GetNext();
        }
        EXPECT_EQ(Flatten(copy), world.All());
        copy->DestroyChained();
        EXPECT_EQ(Flatten(world.head), world.All());
    });
}

TEST(CNxMessageBlock, ReclaimingLeavesNoWayToADestroyedBlock) {
    ForEachWorld([](CWorld& world, size_t count) {
        const std::string all = world.All();
        static_cast<void>(world.head->AdvanceChainedReadPtr(count));
        world.head = world.head->ReclaimGarbage();
        EXPECT_EQ(Flatten(world.head), all.substr(std::min(count, all.size())));
        EXPECT_TRUE(world.head == nullptr || world.head->GetLength() != 0);
        size_t alive = 0;
        for (size_t i = 3; i-- > 0;) {
            const Block* const kept = world.kept[i].get();
            alive += kept != nullptr || i >= 3 - Count(world.head) ? 1 : 0;
            EXPECT_EQ(Count(kept), kept != nullptr ? alive : 0);
        }
    });
}

}  // namespace
