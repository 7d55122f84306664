#include <nx/buffer/CNxMessageBlock.h>

#include <string>

#include <gtest/gtest.h>

namespace {

using Block = CNxMessageBlock;

Block* MakeOwned(const std::string& bytes, Block* next = nullptr) {
    auto* block = new Block(bytes.size() + 1, nullptr, Block::DUPLICATED);
    EXPECT_EQ(block->Write(bytes.data(), bytes.size()), NX_OK);
    block->SetNext(next);
    return block;
}

}  // namespace

TEST(CNxMessageBlock, ABlockPassedOverByReclaimingNeverLeadsToADestroyedOne) {
    Block keeper(4);
    Block* full = MakeOwned("x");
    keeper.SetNext(MakeOwned("", MakeOwned("", full)));
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
        head = MakeOwned("x", head);
    }
    Block* copy = head->DuplicateChained();
    EXPECT_EQ(copy->AdvanceChainedWritePtr(blocks), NX_OK);
    Block* tail = copy->Disjoint(blocks);
    EXPECT_EQ(tail->GetChainedLength(), blocks);
    EXPECT_EQ(head->AdvanceChainedReadPtr(blocks), NX_OK);
    EXPECT_EQ(head->ReclaimGarbage(), nullptr);
    copy->DestroyChained();
    tail->DestroyChained();
}
