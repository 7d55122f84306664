#include <gtest/gtest.h>
#include <nx/process/CNxSharedMemory.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <random>
#include <thread>

#include "Children.h"

namespace {

// What the processes write: equal as long as nobody was interrupted between the two.
struct Content {
    std::atomic<long> m_first;
    std::atomic<long> m_second;
};

class CNxSharedMemoryTest : public ::testing::Test {
protected:
    ~CNxSharedMemoryTest() override { static_cast<void>(CNxSharedMemory::Remove(m_key)); }

    static Content& At(const CNxSharedMemory& memory) {
        return *static_cast<Content*>(memory.GetData());
    }

    const key_t m_key = 0x4E580000 ^ getpid();
    const CNxTimeValue m_short{0, 20000};
    CNxSharedMemory m_memory;
};

TEST_F(CNxSharedMemoryTest, IsMadeZeroOnceAndFoundWithItsSizeOnly) {
    EXPECT_EQ(NX_ERROR_NOT_FOUND, m_memory.Attach(m_key, 100));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_memory.Open(m_key, 0));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_memory.Open(IPC_PRIVATE, 100));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_memory.Lock());
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, 100));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, m_memory.Open(m_key, 100));
    EXPECT_EQ(0, At(m_memory).m_first);
    At(m_memory).m_first = 7;
    CNxSharedMemory other;
    EXPECT_EQ(NX_ERROR_UNEXPECTED, other.Open(m_key, 101));
    EXPECT_EQ(NX_ERROR_UNEXPECTED, other.Attach(m_key, 99));
    EXPECT_EQ(100u, other.GetSize());
    EXPECT_EQ(nullptr, other.GetData());
    ASSERT_EQ(NX_OK, other.Attach(m_key, 100));
    EXPECT_EQ(7, At(other).m_first);
    EXPECT_EQ(NX_OK, CNxSharedMemory::Remove(m_key));
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxSharedMemory::Remove(m_key));
    EXPECT_EQ(7, At(other).m_first);
    EXPECT_EQ(NX_ERROR_NOT_FOUND, other.Lock());
}

TEST_F(CNxSharedMemoryTest, WithoutItsSemaphoresNoSegmentIsLeft) {
    const int foreign = semget(m_key, 1, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(foreign, 0);
    EXPECT_EQ(NX_ERROR_FAILURE, m_memory.Open(m_key, 100));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, shmget(m_key, 0, 0));
    EXPECT_EQ(0, semctl(foreign, 0, IPC_RMID));
    EXPECT_EQ(NX_OK, m_memory.Open(m_key, 100));
}

TEST_F(CNxSharedMemoryTest, TheLockExcludesAndEndsWithItsHolder) {
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, sizeof(Content)));
    {
        CNxSharedMemory other;
        ASSERT_EQ(NX_OK, other.Open(m_key, sizeof(Content)));
        ASSERT_EQ(NX_OK, m_memory.Lock());
        for (const CNxTimeValue& limit : {m_short, CNxTimeValue(-1, 0)}) {
            EXPECT_EQ(NX_ERROR_TIMEOUT, other.Lock(&limit));
        }
        EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, other.UnLock());
        Child child([&] { return m_memory.UnLock() == NX_ERROR_NOT_INITIALIZED ? 0 : 1; });
        EXPECT_EQ(0, child.Wait());
        EXPECT_EQ(NX_OK, m_memory.UnLock());
        EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_memory.UnLock());
        EXPECT_EQ(NX_OK, other.Lock(&m_short));
    }
    EXPECT_EQ(NX_OK, m_memory.Lock(&m_short));
}

TEST_F(CNxSharedMemoryTest, RemovalWakesWhoWaits) {
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, sizeof(Content)));
    ASSERT_EQ(NX_OK, m_memory.Lock());
    std::thread waiter([&] {
        CNxSharedMemory other;
        EXPECT_EQ(NX_OK, other.Open(m_key, sizeof(Content)));
        EXPECT_EQ(NX_ERROR_NOT_FOUND, other.Lock());
    });
    shmid_ds status{};
    do {
        ASSERT_EQ(0, shmctl(shmget(m_key, 0, 0), IPC_STAT, &status));
    } while (status.shm_nattch < 2);
    EXPECT_EQ(NX_OK, CNxSharedMemory::Remove(m_key));
    waiter.join();
    EXPECT_EQ(NX_ERROR_NOT_FOUND, m_memory.UnLock());
}

// Writes until it is killed; one that stops does so with the first half done, and the lock held.
int Write(CNxSharedMemory& memory, Content& content, bool stops) {
    while (memory.Lock() == NX_OK) {
        ++content.m_first;
        if (stops) {
            raise(SIGSTOP);
        }
        ++content.m_second;
        if (memory.UnLock() != NX_OK) {
            break;
        }
    }
    return 2;
}

TEST_F(CNxSharedMemoryTest, AfterAHolderWasKilledTheOtherGoesOnAndIsToldOnce) {
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, sizeof(Content)));
    Content& content = At(m_memory);
    std::mt19937 random(1);
    for (int round = ShortOr(20, 500); round > 0; --round) {
        const long before = content.m_second;
        const bool stops = round % 2 == 0;
        Child writer([&] { return Write(m_memory, content, stops); });
        if (stops) {
            waitpid(writer.GetPid(), nullptr, WUNTRACED);
        }
        while (!stops && content.m_second == before) {
            usleep(static_cast<useconds_t>(random() % 1000));
        }
        writer.Kill();
        const NxResult result = m_memory.Lock();
        const bool isHalfDone = content.m_first != content.m_second;
        ASSERT_TRUE(result == NX_ERROR_PARTIAL_DATA || (!isHalfDone && result == NX_OK)) << result;
        ASSERT_TRUE(isHalfDone || !stops);
        content.m_second = content.m_first.load();
        for (int again = 0; again < 2; ++again) {
            ASSERT_EQ(NX_OK, m_memory.UnLock());
            ASSERT_EQ(NX_OK, m_memory.Lock());
        }
        ASSERT_EQ(NX_OK, m_memory.UnLock());
    }
}

}  // namespace
