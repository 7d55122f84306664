#include <nx/buffer/CNxMessageBlock.h>

#include <climits>
#include <new>
#include <string>

#include <gtest/gtest.h>

namespace {

// The library allocates blocks and storage with nothrow new only; the one that brings this to 0
// fails. 0: none does.
thread_local int t_failingAllocation = 0;

}  // namespace

// Weak, so that a tool that links its own does not collide with it.
__attribute__((weak)) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (t_failingAllocation != 0 && --t_failingAllocation == 0) {
        return nullptr;
    }
    return ::operator new(size);
}

namespace {

using Block = CNxMessageBlock;

Block* MakeOwned(const std::string& bytes, unsigned long space = 0) {
    auto* block = new Block(bytes.size() + space, nullptr, Block::DUPLICATED);
    block->Write(bytes.data(), bytes.size());
    return block;
}

// Not where a tool brings an operator new of its own.
bool CanFailAllocations() {
    t_failingAllocation = 1;
    void* memory = ::operator new(1, std::nothrow);
    t_failingAllocation = 0;
    ::operator delete(memory);
    return memory == nullptr;
}

std::string Flatten(const Block* chain) {
    const CNxString bytes = chain->FlattenChained();
    return std::string(bytes.data(), bytes.size());
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
    full->AdvanceChainedReadPtr(1);
    EXPECT_EQ(keeper.ReclaimGarbage(), nullptr);
    EXPECT_EQ(keeper.GetNext(), nullptr);
}

TEST(CNxMessageBlockDeathTest, DestroyingABlockThatTheChainDoesNotOwnIsCaught) {
    Block foreign(4);
    foreign.SetNext(MakeOwned("x"));
    EXPECT_DEBUG_DEATH(foreign.DestroyChained(), "does not own");
    EXPECT_EQ(Flatten(foreign.GetNext()), "x");
    foreign.GetNext()->DestroyChained();
}

TEST(CNxMessageBlock, WithoutMemoryNothingIsDuplicatedSplitOrLeaked) {
    if (!CanFailAllocations()) {
        GTEST_SKIP() << "allocations cannot be made to fail here";
    }
    t_failingAllocation = 1;
    EXPECT_EQ(Block(16).GetCapacity(), 0U);
    char memory[] = "cdef";
    Block foreign(4, memory, 0, 4), last(2);
    last.Write("gh", 2);
    Block* head = MakeOwned("ab");
    head->Append(&foreign);
    head->Append(&last);
    // One for each block, one more for the storage of the caller's memory.
    for (int failing = 1; failing <= 4; ++failing) {
        t_failingAllocation = failing;
        EXPECT_EQ(head->DuplicateChained(), nullptr) << failing;
        t_failingAllocation = failing;
        EXPECT_EQ(head->Disjoint(1), nullptr) << failing;
        EXPECT_EQ(Flatten(head), "abcdefgh");
        EXPECT_EQ(head->GetNext(), &foreign);
        EXPECT_EQ(foreign.GetNext(), &last);
    }
    t_failingAllocation = 5;
    Block* tail = head->Disjoint(1);
    EXPECT_EQ(t_failingAllocation, 1);
    t_failingAllocation = 0;
    ASSERT_NE(tail, nullptr);
    EXPECT_EQ(Flatten(tail), "bcdefgh");
    tail->DestroyChained();
    head->DestroyChained();
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
