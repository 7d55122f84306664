#include <gtest/gtest.h>
#include <nx/process/CNxProcessInfo.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <thread>
#include <vector>

#include "Children.h"

namespace {

CNxProcessInfo Read(pid_t pid) {
    CNxProcessInfo info;
    EXPECT_EQ(NX_OK, CNxProcessInfo::Read(pid, info));
    return info;
}

TEST(CNxProcessInfo, TellsOfAChildByNameToItsEnd) {
    const char* const name = ") R 1 (nx ) S";  // looks like the end of a name
    Child child([&] {
        prctl(PR_SET_NAME, name);
        return raise(SIGSTOP);
    });
    const pid_t pid = child.GetPid();
    ASSERT_EQ(pid, waitpid(pid, nullptr, WUNTRACED));
    // While others come and go.
    const Child spawner([]() -> int {
        for (;;) {
            Child([] { return 0; }).Wait();
        }
    });
    std::vector<CNxProcessInfo> found;
    for (int i = 0; i < 20; ++i) {
        found.clear();
        EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessInfo::FindByName("no such process", found));
        EXPECT_EQ(NX_OK, CNxProcessInfo::FindByName(name, found));
        ASSERT_EQ(1u, found.size());
    }
    const CNxProcessInfo& info = found[0];
    EXPECT_EQ(pid, info.GetPid());
    EXPECT_EQ(getpid(), info.GetParent());
    EXPECT_EQ('T', info.GetState());
    EXPECT_LT(100000u, info.GetResidentBytes());
    ASSERT_FALSE(info.GetCommandLine().empty());
    EXPECT_NE(CNxString::npos, info.GetCommandLine()[0].find("process_test"));
    // Started before now, after what this test is a descendant of.
    EXPECT_GE(CNxTimeValue::GetTimeOfDay(), info.GetStartTime() - CNxTimeValue(1, 0));
    EXPECT_GT(info.GetStartTime(), Read(1).GetStartTime() - CNxTimeValue(1, 0));
    EXPECT_TRUE(info.IsAlive());

    kill(pid, SIGKILL);
    siginfo_t ended{};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT));
    EXPECT_FALSE(info.IsAlive());
    EXPECT_EQ('Z', Read(pid).GetState());
    child.Wait();
    CNxProcessInfo gone;
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessInfo::Read(pid, gone));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, CNxProcessInfo::Read(-1, gone));
    EXPECT_FALSE(info.IsAlive());
}

TEST(CNxProcessInfo, IsAliveWithoutItsFirstThread) {
    const Child child([]() -> int {
        std::thread(pause).detach();
        return static_cast<int>(syscall(SYS_exit, 0));  // of this thread alone
    });
    while (Read(child.GetPid()).GetState() != 'Z') {
        std::this_thread::yield();
    }
    EXPECT_TRUE(Read(child.GetPid()).IsAlive());
    EXPECT_LE(2u, Read(child.GetPid()).GetThreads());
}

}  // namespace
