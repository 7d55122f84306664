#include <gtest/gtest.h>
#include <nx/process/CNxProcessLock.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "../support/TempFolder.h"
#include "Children.h"

namespace {

TEST(CNxProcessLock, OneHolderAtATimeWhoseIdStandsInTheFile) {
    const CTempFolder folder;
    const CNxString path = folder.Path("lock").c_str();
    pid_t holder = 0;
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessLock::GetHolder(path, holder));
    {
        CNxProcessLock lock;
        CNxProcessLock other;
        ASSERT_EQ(NX_OK, lock.Lock(path));
        EXPECT_TRUE(lock.IsHeld());
        EXPECT_EQ(std::to_string(getpid()) + "\n", folder.Get("lock"));
        EXPECT_EQ(NX_OK, CNxProcessLock::GetHolder(path, holder));
        EXPECT_EQ(getpid(), holder);
        EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, other.Lock(path));
        EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, lock.Lock(path));
        lock.UnLock();
        EXPECT_FALSE(lock.IsHeld());
        EXPECT_EQ("", folder.Get("lock"));
        EXPECT_EQ(NX_OK, other.Lock(path));
    }
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessLock::GetHolder(path, holder));
}

TEST(CNxProcessLock, WhatIsNoIdIsNotTaken) {
    const CTempFolder folder;
    const CNxString path = folder.Path("lock").c_str();
    CNxProcessLock lock;
    ASSERT_EQ(NX_OK, lock.Lock(path));
    pid_t holder = 7;
    for (const char* text : {"", "12", "12a\n", "0\n", "-1\n", "4294967295\n", " 12\n"}) {
        folder.Put("lock", text);
        EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, CNxProcessLock::GetHolder(path, holder)) << text;
    }
    EXPECT_EQ(7, holder);
}

TEST(CNxProcessLock, OnlyRegularFilesAreLocked) {
    const CTempFolder folder;
    folder.Put("target", "precious");
    ASSERT_EQ(0, symlink(folder.Path("target").c_str(), folder.Path("link").c_str()));
    ASSERT_EQ(0, mkfifo(folder.Path("pipe").c_str(), 0600));
    std::filesystem::current_path(folder.Path());
    const sockaddr address{AF_UNIX, "socket"};
    const int socketFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(socketFd, &address, sizeof(address)));
    close(socketFd);
    std::filesystem::current_path("/");
    pid_t holder = 0;
    for (const char* name : {"link", "pipe", "socket", ""}) {
        const CNxString path = folder.Path(name).c_str();
        EXPECT_EQ(NX_ERROR_INVALID_ARG, CNxProcessLock().Lock(path)) << name;
        EXPECT_NE(NX_OK, CNxProcessLock::GetHolder(path, holder)) << name;
    }
    EXPECT_EQ(NX_ERROR_INVALID_ARG, CNxProcessLock().Lock(""));
    EXPECT_EQ("precious", folder.Get("target"));
    EXPECT_EQ(NX_ERROR_FAILURE, CNxProcessLock().Lock("/proc/no/such"));
    EXPECT_EQ(ENOENT, errno);
}

TEST(CNxProcessLock, AHolderLearnsThatItsFileWasTakenAway) {
    const CTempFolder folder;
    CNxProcessLock first;
    CNxProcessLock second;
    ASSERT_EQ(NX_OK, first.Lock(folder.Path("lock").c_str()));
    ASSERT_EQ(0, unlink(folder.Path("lock").c_str()));
    EXPECT_FALSE(first.IsHeld());
    EXPECT_EQ(NX_OK, second.Lock(folder.Path("lock").c_str()));
    first.UnLock();
    EXPECT_TRUE(second.IsHeld());
}

TEST(CNxProcessLock, AForkedChildGivesNothingUpForItsParent) {
    const CTempFolder folder;
    const CNxString path = folder.Path("lock").c_str();
    CNxProcessLock lock;
    ASSERT_EQ(NX_OK, lock.Lock(path));
    Child child([&] {
        const bool heldInChild = lock.IsHeld();
        lock.UnLock();
        return heldInChild ? 1 : 0;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_TRUE(lock.IsHeld());
    EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, CNxProcessLock().Lock(path));
    EXPECT_NE("", folder.Get("lock"));
}

// What the fighters share. A holder whose mark is overwritten is not alone.
struct Arena {
    std::atomic<pid_t> m_holder{0};
    std::atomic<int> m_taken{0};
    std::atomic<int> m_doubles{0};
};

int Fight(const CNxString& path, Arena& arena) {
    CNxProcessLock lock;
    for (;;) {
        if (lock.Lock(path) != NX_OK) {
            sched_yield();
            continue;
        }
        arena.m_holder.store(getpid());
        ++arena.m_taken;
        for (int i = 0; i < 20; ++i) {
            sched_yield();
            if (arena.m_holder.load() != getpid()) {
                ++arena.m_doubles;
            }
        }
        arena.m_holder.store(0);
        lock.UnLock();
    }
}

TEST(CNxProcessLock, FoughtOverAndHoldersKilledThereIsNeverASecond) {
    const CTempFolder folder;
    const CNxString path = folder.Path("lock").c_str();
    void* const memory =
        mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    Arena& arena = *new (memory) Arena;
    std::vector<Child> fighters;
    const auto start = [&] { fighters.emplace_back([&] { return Fight(path, arena); }); };
    const int count = ShortOr(6, 20);
    for (int i = 0; i < count; ++i) {
        start();
    }
    std::mt19937 random(1);
    int killedHolding = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(ShortOr(1, 10));
    for (int rounds = 0; rounds < 10 || std::chrono::steady_clock::now() < end; ++rounds) {
        usleep(static_cast<useconds_t>(random() % 10000));
        // The holder of this moment, half of the time.
        auto victim = fighters.begin() + static_cast<long>(random() % fighters.size());
        const pid_t holder = arena.m_holder.load();
        for (auto one = fighters.begin(); one != fighters.end() && random() % 2 == 0; ++one) {
            victim = one->GetPid() == holder ? one : victim;
        }
        const pid_t pid = victim->GetPid();
        victim->Kill();
        killedHolding += arena.m_holder.load() == pid ? 1 : 0;
        *victim = Child([&] { return Fight(path, arena); });
    }
    EXPECT_EQ(0, arena.m_doubles.load());
    EXPECT_GT(arena.m_taken.load(), 0);
    std::printf("taken %d times, %d holders killed\n", arena.m_taken.load(), killedHolding);
    fighters.clear();
    munmap(memory, sizeof(Arena));
}

}  // namespace
