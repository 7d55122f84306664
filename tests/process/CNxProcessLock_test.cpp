#include <gtest/gtest.h>
#include <nx/process/CNxProcessLock.h>
#include <sys/stat.h>

#include "../support/TempFolder.h"
#include "Children.h"

namespace {

class CNxProcessLockTest : public ::testing::Test {
protected:
    const CTempFolder m_folder;
    const CNxString m_path = m_folder.Path("lock").c_str();
    CNxProcessLock m_lock;
    CNxProcessLock m_other;
};

TEST_F(CNxProcessLockTest, OneHolderAtATimeWhoseIdStandsInTheFile) {
    pid_t holder = 7;
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessLock::GetHolder(m_path, holder));
    ASSERT_EQ(NX_OK, m_lock.Lock(m_path));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, m_lock.Lock(m_path));
    InChild([&] {
        EXPECT_FALSE(m_lock.IsHeld());
        m_lock.UnLock();
    });
    EXPECT_EQ(NX_OK, CNxProcessLock::GetHolder(m_path, holder));
    EXPECT_EQ(getpid(), holder);
    EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, m_other.Lock(m_path));
    for (const char* text : {"12", "12a\n", "-1\n", "4294967295\n"}) {
        m_folder.Put("lock", text);
        EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, CNxProcessLock::GetHolder(m_path, holder)) << text;
    }
    m_lock.UnLock();
    EXPECT_FALSE(m_lock.IsHeld());
    EXPECT_EQ("", m_folder.Get("lock"));

    // One whose file was taken away learns it, and takes nothing from the next.
    ASSERT_EQ(NX_OK, m_lock.Lock(m_path));
    ASSERT_EQ(0, unlink(m_path.c_str()));
    EXPECT_FALSE(m_lock.IsHeld());
    EXPECT_EQ(NX_OK, m_other.Lock(m_path));
    m_lock.UnLock();
    EXPECT_TRUE(m_other.IsHeld());
}

TEST_F(CNxProcessLockTest, OnlyRegularFilesAreLocked) {
    m_folder.Put("target", "precious");
    ASSERT_EQ(0, symlink("target", m_folder.Path("link").c_str()));
    ASSERT_EQ(0, mknod(m_folder.Path("pipe").c_str(), S_IFIFO | 0600, 0));
    ASSERT_EQ(0, mknod(m_folder.Path("socket").c_str(), S_IFSOCK | 0600, 0));
    for (const char* name : {"link", "pipe", "socket", ""}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, m_lock.Lock(m_folder.Path(name).c_str())) << name;
    }
    EXPECT_EQ("precious", m_folder.Get("target"));
    EXPECT_EQ(NX_ERROR_FAILURE, m_lock.Lock("/proc/no/such"));
}

}  // namespace
