#include <nx/buffer/CNxMessageBlock.h>

#include <string>

#include <gtest/gtest.h>

namespace {

using Block = CNxMessageBlock;

Block* MakeOwned(const std::string& bytes, unsigned long space = 0) {
    auto* block = new Block(bytes.size() + space, nullptr, Block::DUPLICATED);
    EXPECT_EQ(block->Write(bytes.data(), bytes.size()), NX_OK);
    return block;
}

}  // namespace

TEST(CNxMessageBlock, ABlockPassedOverByReclaimingNeverLeadsToADestroyedOne) {
    Block keeper(4);
    keeper.Append(MakeOwned("", 4));
    keeper.Append(MakeOwned(""));
    Block* full = MakeOwned("x");
    keeper.Append(full);
    EXPECT_EQ(keeper.ReclaimGarbage(), full);
    EXPECT_EQ(keeper.GetNext(), full);
    EXPECT_EQ(full->AdvanceChainedReadPtr(1), NX_OK);
    EXPECT_EQ(keeper.ReclaimGarbage(), nullptr);
    EXPECT_EQ(keeper.GetNext(), nullptr);
}

TEST(CNxMessageBlockDeathTest, DestroyingABlockThatTheChainDoesNotOwnIsCaught) {
    Block foreign(4);
    foreign.SetNext(MakeOwned("x"));
    EXPECT_DEBUG_DEATH(foreign.DestroyChained(), "does not own");
    EXPECT_EQ(foreign.GetNext()->FlattenChained(), "x");
    foreign.GetNext()->DestroyChained();
}

TEST(CNxMessageBlock, AChainOfTwoHundredThousandBlocksNeedsNoStack) {
    constexpr unsigned long blocks = 200000;
    Block* head = nullptr;
    for (unsigned long i = 0; i < blocks; ++i) {
        Block* block = MakeOwned("x", 1);
        block->SetNext(head);
        head = block;
    }
    Block* copy = head->DuplicateChained();
    unsigned long n = 0;
    EXPECT_EQ(copy->AdvanceChainedWritePtr(blocks, &n), NX_OK);
    EXPECT_EQ(copy->GetChainedLength(), 2 * blocks);
    Block* tail = copy->Disjoint(blocks);
    EXPECT_EQ(tail->GetChainedLength(), blocks);
    EXPECT_EQ(head->Read(nullptr, blocks + 1, &n), NX_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, blocks);
    EXPECT_EQ(head->ReclaimGarbage(), nullptr);
    copy->DestroyChained();
    tail->DestroyChained();
}
