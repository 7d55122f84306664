#include <gtest/gtest.h>
#include <nx/process/CNxSharedMemory.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "Children.h"

namespace {

class CNxSharedMemoryTest : public ::testing::Test {
protected:
    ~CNxSharedMemoryTest() override { static_cast<void>(CNxSharedMemory::Remove(m_key)); }

    static int& At(const CNxSharedMemory& memory) { return *static_cast<int*>(memory.GetData()); }

    const key_t m_key = 0x4E580000 ^ getpid();
    const CNxTimeValue m_short{0, 20000};
    CNxSharedMemory m_memory;
    CNxSharedMemory m_other;
};

TEST_F(CNxSharedMemoryTest, IsMadeZeroOnceAndFoundWithItsSizeOnly) {
    EXPECT_EQ(NX_ERROR_NOT_FOUND, m_memory.Attach(m_key, 100));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_memory.Open(m_key, 0));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, m_memory.Open(IPC_PRIVATE, 100));
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, 100));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, m_memory.Open(m_key, 100));
    EXPECT_EQ(0, At(m_memory)++);
    EXPECT_EQ(NX_ERROR_UNEXPECTED, m_other.Open(m_key, 101));
    EXPECT_EQ(100u, m_other.GetSize());
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_other.Lock());
    ASSERT_EQ(NX_OK, m_other.Attach(m_key, 100));
    EXPECT_EQ(NX_OK, CNxSharedMemory::Remove(m_key));
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxSharedMemory::Remove(m_key));
    EXPECT_EQ(1, At(m_other));
    EXPECT_EQ(NX_ERROR_NOT_FOUND, m_other.Lock());
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
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, 100));
    ASSERT_EQ(NX_OK, m_other.Open(m_key, 100));
    ASSERT_EQ(NX_OK, m_memory.Lock());
    const CNxTimeValue past(-1, 0);
    EXPECT_EQ(NX_ERROR_TIMEOUT, m_other.Lock(&past));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_other.UnLock());
    InChild([&] { EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_memory.UnLock()); });
    m_memory.Close();
    EXPECT_EQ(NX_OK, m_other.Lock(&m_short));
    EXPECT_EQ(NX_OK, m_other.UnLock());
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_other.UnLock());
}

TEST_F(CNxSharedMemoryTest, AfterAHolderWasKilledTheOtherGoesOnAndIsToldOnce) {
    ASSERT_EQ(NX_OK, m_memory.Open(m_key, 100));
    Child holder([&] {
        static_cast<void>(m_memory.Lock());
        return raise(SIGSTOP);
    });
    ASSERT_EQ(holder.GetPid(), waitpid(holder.GetPid(), nullptr, WUNTRACED));
    EXPECT_EQ(NX_ERROR_TIMEOUT, m_memory.Lock(&m_short));
    holder.Kill();
    EXPECT_EQ(NX_ERROR_PARTIAL_DATA, m_memory.Lock());
    EXPECT_EQ(NX_OK, m_memory.UnLock());
    EXPECT_EQ(NX_OK, m_memory.Lock());
}

}  // namespace
