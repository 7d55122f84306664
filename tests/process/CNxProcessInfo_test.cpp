#include <gtest/gtest.h>
#include <nx/process/CNxProcessInfo.h>
#include <nx/process/proc_text.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <string>
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
    std::vector<CNxProcessInfo> found;
    EXPECT_EQ(NX_OK, CNxProcessInfo::FindByName(name, found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessInfo::FindByName("no such process", found));
    ASSERT_EQ(1u, found.size());
    const CNxProcessInfo& info = found[0];
    EXPECT_EQ(pid, info.GetPid());
    EXPECT_EQ(getpid(), info.GetParent());
    EXPECT_EQ(name, info.GetName());
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
    const CNxProcessInfo zombie = Read(pid);
    EXPECT_EQ('Z', zombie.GetState());
    EXPECT_TRUE(zombie.GetCommandLine().empty());
    EXPECT_EQ(info.GetStartTicks(), zombie.GetStartTicks());

    child.Wait();
    CNxProcessInfo gone;
    EXPECT_EQ(NX_ERROR_NOT_FOUND, CNxProcessInfo::Read(pid, gone));
    for (const pid_t none : {0, -1}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, CNxProcessInfo::Read(none, gone));
    }
    EXPECT_EQ(0, gone.GetPid());
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

TEST(CNxProcessInfo, ListsWhileProcessesComeAndGo) {
    const Child spawner([]() -> int {
        for (;;) {
            Child([] { return 0; }).Wait();
        }
    });
    for (int i = ShortOr(20, 500); i > 0; --i) {
        std::vector<CNxProcessInfo> infos;
        EXPECT_EQ(NX_OK, CNxProcessInfo::List(infos));
        EXPECT_EQ(1, std::count_if(infos.begin(), infos.end(), [](const CNxProcessInfo& info) {
                      return info.GetPid() == getpid();
                  }));
    }
}

TEST(ProcText, StatIsReadByItsLastParenthesisOrNotAtAll) {
    const std::string tail = " S 7 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 3 0 999 4096 5 1 2\n";
    CProcStat stat;
    ASSERT_TRUE(ParseProcStat("42 (a) S 1 (b c)) " + tail.substr(1), stat));
    EXPECT_EQ("a) S 1 (b c)", stat.m_name);
    EXPECT_EQ(42, stat.m_pid);
    EXPECT_EQ('S', stat.m_state);
    EXPECT_EQ(7, stat.m_parent);
    EXPECT_EQ(3u, stat.m_threads);
    EXPECT_EQ(999u, stat.m_startTicks);
    EXPECT_EQ(5u, stat.m_residentPages);
    for (const std::string& text :
         {std::string(), "42" + tail, "x (a)" + tail, "99999999999 (a)" + tail,
          "42 (a) SS" + tail.substr(2), "42 (a) S -7" + tail.substr(4),
          "42 (a)" + tail.substr(0, 50), "42 (a)  " + tail}) {
        EXPECT_FALSE(ParseProcStat(text, stat)) << text;
    }
    EXPECT_EQ(42, stat.m_pid);
    EXPECT_EQ((std::vector<CNxString>{"a", "", "b c", "title"}),
              SplitCommandLine(std::string_view("a\0\0b c\0title", 12)));
}

}  // namespace
