#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/process/CNxProcess.h>
#include <nx/process/CNxProcessInfo.h>
#include <poll.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "../support/TempFolder.h"
#include "Children.h"

namespace {

const CNxTimeValue c_moment(0, 1000);

CNxProcessStart Shell(const char* script) {
    CNxProcessStart start;
    start.m_program = "/bin/sh";
    start.m_arguments = {"-c", script};
    return start;
}

// Its exit status, or minus the signal that ended it.
int Await(CNxProcess& process) {
    CNxProcessEnd end;
    EXPECT_EQ(NX_OK, process.Wait(end));
    return end.m_bySignal ? -end.m_number : end.m_number;
}

// What it prints.
std::string PrintedBy(CNxProcessStart start, int number = 1) {
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    start.m_descriptors.push_back({number, ends[1]});
    CNxProcess process;
    const NxResult result = process.Start(start);
    EXPECT_EQ(NX_OK, result);
    close(ends[1]);
    std::string output;
    char c = 0;
    while (read(ends[0], &c, 1) == 1) {
        output += c;
    }
    close(ends[0]);
    EXPECT_EQ(0, result == NX_OK ? Await(process) : 0);
    return output;
}

long CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// A process that has ended and was not waited for.
bool HasZombie() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

TEST(CNxProcess, ArgumentsEnvironmentAndFolderArriveAsTheyAre) {
    const CTempFolder folder;
    CNxEnvironment environment;
    ASSERT_EQ(NX_OK, environment.Set("NAME", "a b"));
    CNxProcessStart start =
        Shell("printf '%s,' \"$0\" \"$@\"; /bin/pwd; /usr/bin/env | /bin/grep ^NAME");
    start.m_arguments.insert(start.m_arguments.end(), {"zero", "", "a b", "$HOME;*'\"\\"});
    start.m_environment = &environment;
    start.m_workingFolder = folder.Path().c_str();
    const std::string path = std::filesystem::canonical(folder.Path());
    EXPECT_EQ("zero,,a b,$HOME;*'\"\\," + path + "\nNAME=a b\n", PrintedBy(start));
}

TEST(CNxProcess, HasTheDescriptorsThatItWasGivenAndNoOther) {
    const int leaked = dup(1);  // not close-on-exec
    CNxProcessStart start;
    start.m_program = "ls";
    start.m_arguments = {"/proc/self/fd"};
    start.m_descriptors = {{0, CNxRedirection::NULL_DEVICE}, {5, leaked}, {7, 0}};
    EXPECT_EQ("0\n1\n2\n3\n5\n7\n", PrintedBy(start));  // 3 is that of the folder
    close(leaked);
    EXPECT_EQ("to 9", PrintedBy(Shell("echo -n 'to 9' >&9"), 9));
}

TEST(CNxProcess, DescriptorsCanChangePlaces) {
    const CTempFolder folder;
    const int a = open(folder.Path("a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int b = open(folder.Path("b").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    CNxProcessStart start =
        Shell(("echo -n 1 >&" + std::to_string(a) + "; echo -n 2 >&" + std::to_string(b)).c_str());
    start.m_descriptors = {{a, b}, {b, a}};
    CNxProcess process;
    ASSERT_EQ(NX_OK, process.Start(start));
    EXPECT_EQ(0, Await(process));
    close(a);
    close(b);
    EXPECT_EQ("2", folder.Get("a"));
    EXPECT_EQ("1", folder.Get("b"));
}

TEST(CNxProcess, ExitAndSignalAreToldApartAsOftenAsAsked) {
    CNxProcess process;
    CNxProcessEnd end;
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, process.Wait(end));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, process.Signal(SIGTERM));
    ASSERT_EQ(NX_OK, process.Start(Shell("exit 9")));
    pollfd handle{process.GetHandle(), POLLIN, 0};
    EXPECT_EQ(1, poll(&handle, 1, -1));
    const CNxTimeValue none;
    EXPECT_EQ(NX_OK, process.Wait(end, &none));
    EXPECT_EQ(9, Await(process));
    EXPECT_EQ(9, Await(process));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, process.Signal(SIGTERM));
    ASSERT_EQ(NX_OK, process.Start(Shell("kill -9 $$")));
    EXPECT_EQ(-9, Await(process));
}

TEST(CNxProcess, SignalsAreAtTheirDefaultsAndUnblocked) {
    sigset_t terminate;
    sigset_t before;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &terminate, &before);
    const auto handler = std::signal(SIGPIPE, SIG_IGN);
    CNxProcess process;
    EXPECT_EQ(NX_OK, process.Start(Shell("kill -PIPE $$")));
    EXPECT_EQ(-SIGPIPE, Await(process));
    EXPECT_EQ(NX_OK, process.Start(Shell("kill -TERM $$")));
    EXPECT_EQ(-SIGTERM, Await(process));
    std::signal(SIGPIPE, handler);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(CNxProcess, WhatCannotBeStartedIsToldAndLeavesNothing) {
    const CTempFolder folder;
    const std::string file = folder.Put("no_program", "text");
    const long before = CountDescriptors();
    CNxProcess process;
    CNxProcessStart start = Shell("exit 0");
    start.m_descriptors = {{1, CNxRedirection::NULL_DEVICE}};
    const auto startWith = [&](const CNxString& program) {
        start.m_program = program;
        return process.Start(start);
    };
    EXPECT_EQ(NX_ERROR_NOT_FOUND, startWith("/no/such/program"));
    EXPECT_EQ(NX_ERROR_NOT_FOUND, startWith("no_such_program_in_path"));
    EXPECT_EQ(NX_ERROR_FAILURE, startWith(file.c_str()));
    EXPECT_EQ(EACCES, errno);
    ASSERT_EQ(0, chmod(file.c_str(), 0700));
    EXPECT_EQ(NX_ERROR_FAILURE, startWith(file.c_str()));
    EXPECT_EQ(ENOEXEC, errno);
    EXPECT_EQ(NX_ERROR_INVALID_ARG, startWith(""));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, startWith(CNxString("/bin/sh\0", 8)));
    start.m_workingFolder = "/no/such/folder";
    EXPECT_EQ(NX_ERROR_NOT_FOUND, startWith("/bin/sh"));
    start.m_workingFolder = "";
    const CNxRedirection bad[] = {{-1, 0}, {256, 0}, {1, 0}};
    for (const CNxRedirection& redirection : bad) {
        start.m_descriptors = {{1, CNxRedirection::NULL_DEVICE}, redirection};
        EXPECT_EQ(NX_ERROR_INVALID_ARG, startWith("/bin/sh")) << redirection.m_number;
    }
    start.m_descriptors = {{1, -1}};
    EXPECT_EQ(NX_ERROR_FAILURE, startWith("/bin/sh"));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(0, process.GetPid());
    EXPECT_FALSE(HasZombie());
    EXPECT_EQ(before, CountDescriptors());
}

TEST(CNxProcess, WaitingHasALimitAndStoppingEndsInSigkill) {
    CNxProcessEnd end;
    CNxProcess process;
    // Says when the signal is ignored.
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    CNxProcessStart start = Shell("trap '' TERM; echo; kill -STOP $$");
    start.m_descriptors = {{1, ends[1]}};
    ASSERT_EQ(NX_OK, process.Start(start));
    char c = 0;
    EXPECT_EQ(1, read(ends[0], &c, 1));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, process.Start(start));
    EXPECT_EQ(NX_ERROR_TIMEOUT, process.Wait(end, &c_moment));
    EXPECT_LT(2, process.GetHandle());
    EXPECT_EQ(NX_OK, process.Stop(c_moment, end));
    EXPECT_TRUE(end.m_bySignal);
    EXPECT_EQ(SIGKILL, end.m_number);
    EXPECT_EQ(-1, process.GetHandle());
    close(ends[0]);
    close(ends[1]);

    ASSERT_EQ(NX_OK, process.Start(Shell("exec sleep 1000")));
    const CNxTimeValue minute(60, 0);
    EXPECT_EQ(NX_OK, process.Stop(minute, end));
    EXPECT_EQ(SIGTERM, end.m_number);
}

TEST(CNxProcess, DoesNotOutliveItsObjectUnlessThatIsACopyInAForkedChild) {
    CNxProcessInfo info;
    {
        CNxProcess process;
        ASSERT_EQ(NX_OK, process.Start(Shell("exec sleep 1000")));
        ASSERT_EQ(NX_OK, CNxProcessInfo::Read(process.GetPid(), info));
        Child child([&] {
            process.~CNxProcess();
            return 0;
        });
        EXPECT_EQ(0, child.Wait());
        EXPECT_TRUE(info.IsAlive());
    }
    EXPECT_FALSE(info.IsAlive());
    EXPECT_FALSE(HasZombie());
}

TEST(CNxProcess, AnEndThatSomebodyElseTookIsNotMadeUp) {
    CNxProcess process;
    CNxProcessEnd end;
    ASSERT_EQ(NX_OK, process.Start(Shell("exit 3")));
    ASSERT_EQ(process.GetPid(), waitpid(process.GetPid(), nullptr, 0));
    EXPECT_EQ(NX_OK, process.Signal(SIGTERM));
    EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, process.Wait(end));
    EXPECT_EQ(NX_ERROR_NOT_AVAILABLE, process.Wait(end));
}

// The system takes the end away, of some before they are looked for.
TEST(CNxProcess, IsStartedAlsoWhereSigchldIsIgnored) {
    Child child([] {
        std::signal(SIGCHLD, SIG_IGN);
        for (int i = 0; i < 500; ++i) {
            CNxProcess process;
            CNxProcessEnd end;
            CNxProcessStart start;
            start.m_program = "/bin/true";
            if (process.Start(start) != NX_OK || process.Wait(end) != NX_ERROR_NOT_AVAILABLE) {
                return 1;
            }
        }
        return 0;
    });
    EXPECT_EQ(0, child.Wait());
}

TEST(CNxProcess, ManyFromManyThreadsAllEndAsTheyShould) {
    const long before = CountDescriptors();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    const int count = ShortOr(25, 250);
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&, number] {
            for (int i = 0; i < count; ++i) {
                const int status = (number * 31 + i) % 256;
                CNxProcess process;
                CNxProcessEnd end;
                const bool isRight =
                    process.Start(Shell(("exit " + std::to_string(status)).c_str())) == NX_OK &&
                    process.Wait(end) == NX_OK && !end.m_bySignal && end.m_number == status;
                wrong += isRight ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
    EXPECT_FALSE(HasZombie());
    EXPECT_EQ(before, CountDescriptors());
    std::printf("%d processes, %d wrong, %ld descriptors before and %ld after\n", 8 * count,
                wrong.load(), before, CountDescriptors());
}

}  // namespace
