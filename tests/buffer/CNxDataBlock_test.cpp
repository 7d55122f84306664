#include <nx/buffer/CNxDataBlock.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>

namespace {

class CCountedBlock : public CNxDataBlock {
public:
    CCountedBlock(char* data, unsigned long size, std::atomic<int>& destroyed)
        : CNxDataBlock(size, data), m_destroyed(destroyed) {}
    ~CCountedBlock() override { ++m_destroyed; }

private:
    std::atomic<int>& m_destroyed;
};

}  // namespace

TEST(CNxDataBlock, StorageSharedByManyThreadsIsDestroyedOnceByTheLast) {
    std::atomic<int> destroyed{0};
    char bytes[] = "shared";
    auto* head =
        new CNxMessageBlock(new CCountedBlock(bytes, 6, destroyed), CNxMessageBlock::DUPLICATED);
    head->AdvanceChainedWritePtr(6);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        CNxMessageBlock* own = head->DuplicateTopLevel();
        threads.emplace_back([own, &wrong] {
            for (int round = 0; round < 2000; ++round) {
                CNxMessageBlock* copy = own->DuplicateChained();
                CNxMessageBlock* tail = copy->Disjoint(3);
                wrong += tail->FlattenChained() == "red" ? 0 : 1;
                tail->DestroyChained();
                copy->DestroyChained();
            }
            own->DestroyChained();
        });
    }
    head->DestroyChained();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(destroyed, 1);
}
