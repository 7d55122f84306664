#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/process/CNxProcess.h>
#include <poll.h>

#include <filesystem>
#include <string>
#include <tuple>

#include "../support/TempFolder.h"
#include "Children.h"

namespace {

CNxProcessStart Shell(const std::string& script) {
    CNxProcessStart start;
    start.m_program = "/bin/sh";
    start.m_arguments = {"-c", script.c_str()};
    return start;
}

// Its exit status, or minus the signal that ended it.
int Await(CNxProcess& process) {
    CNxProcessEnd end;
    EXPECT_EQ(NX_OK, process.Wait(end));
    return end.m_bySignal ? -end.m_number : end.m_number;
}

std::string PrintedBy(CNxProcessStart start) {
    const CTempFolder folder;
    const int file = open(folder.Path("output").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    start.m_descriptors.push_back({1, file});
    CNxProcess process;
    EXPECT_EQ(NX_OK, process.Start(start));
    EXPECT_EQ(0, Await(process));
    close(file);
    return folder.Get("output");
}

// No test leaves a descriptor or a process.
class CNxProcessTest : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(m_descriptors, CountDescriptors());
        EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    }

    static long CountDescriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    const CNxTimeValue m_moment{0, 1000};
    const CNxTimeValue m_minute{60, 0};
    const long m_descriptors = CountDescriptors();
    const CTempFolder m_folder;
    CNxProcess m_process;
    CNxProcessEnd m_end;
};

TEST_F(CNxProcessTest, ArgumentsEnvironmentAndFolderArriveAsTheyAre) {
    CNxEnvironment environment;
    ASSERT_EQ(NX_OK, environment.Set("NAME", "a b"));
    CNxProcessStart start =
        Shell("printf '%s,' \"$0\" \"$@\"; /bin/pwd; /usr/bin/env | /bin/grep ^NAME");
    start.m_arguments.insert(start.m_arguments.end(), {"zero", "", "a b", "$HOME;*'\"\\"});
    start.m_environment = &environment;
    start.m_workingFolder = m_folder.Path().c_str();
    const std::string path = std::filesystem::canonical(m_folder.Path());
    EXPECT_EQ("zero,,a b,$HOME;*'\"\\," + path + "\nNAME=a b\n", PrintedBy(start));
}

TEST_F(CNxProcessTest, HasTheDescriptorsThatItWasGivenAndNoOther) {
    const int leaked = dup(1);  // not close-on-exec
    const int root = open("/", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(50, dup2(leaked, 50));
    ASSERT_EQ(51, dup2(root, 51));
    CNxProcessStart start = Shell("readlink /proc/self/fd/0 /proc/self/fd/50; ls /proc/self/fd");
    start.m_descriptors = {
        {0, CNxRedirection::NULL_DEVICE}, {7, leaked}, {9, 0}, {50, 51}, {51, 50}};
    EXPECT_EQ("/dev/null\n/\n0\n1\n2\n3\n50\n51\n7\n9\n", PrintedBy(start));  // 3: the folder
    for (const int descriptor : {leaked, root, 50, 51}) {
        close(descriptor);
    }
}

TEST_F(CNxProcessTest, SignalsAreAtTheirDefaultsAndUnblocked) {
    InChild([] {
        std::signal(SIGPIPE, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        // The C library has uses of its own for two of those above.
        const char* const script = "grep -c 'Sig[BI].*0000000$' /proc/self/status";
        EXPECT_EQ("2\n", PrintedBy(Shell(script)));
    });
}

TEST_F(CNxProcessTest, WhatCannotBeStartedIsToldAndLeavesNothing) {
    const CNxString text = m_folder.Put("text", "text").c_str();
    const std::tuple<CNxString, CNxRedirection, NxResult, int> cases[] = {
        {"no_such_program_in_path", {2, 1}, NX_ERROR_NOT_FOUND, ENOENT},
        {text, {2, 1}, NX_ERROR_FAILURE, EACCES},
        {CNxString("/bin/sh\0", 8), {2, 1}, NX_ERROR_INVALID_ARG, 0},
        {"/bin/sh", {256, 0}, NX_ERROR_INVALID_ARG, 0},
        {"/bin/sh", {1, 0}, NX_ERROR_INVALID_ARG, 0},
        {"/bin/sh", {2, -1}, NX_ERROR_FAILURE, EBADF},
    };
    for (const auto& [program, descriptor, result, error] : cases) {
        CNxProcessStart start = Shell("exit 0");
        start.m_program = program;
        start.m_descriptors = {{1, CNxRedirection::NULL_DEVICE}, descriptor};
        errno = 0;
        EXPECT_EQ(result, m_process.Start(start)) << program;
        EXPECT_EQ(error, errno) << program;
    }
    EXPECT_EQ(0, m_process.GetPid());
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_process.Wait(m_end));
}

TEST_F(CNxProcessTest, WaitingHasALimitStoppingEndsInSigkillAndTheNextCanBegin) {
    const CNxProcessStart start = Shell("trap '' TERM; kill -STOP $$");
    ASSERT_EQ(NX_OK, m_process.Start(start));
    ASSERT_EQ(m_process.GetPid(), waitpid(m_process.GetPid(), nullptr, WUNTRACED));
    EXPECT_EQ(NX_ERROR_ALREADY_INITIALIZED, m_process.Start(start));
    EXPECT_EQ(NX_ERROR_TIMEOUT, m_process.Wait(m_end, &m_moment));
    EXPECT_EQ(NX_OK, m_process.Stop(m_moment, m_end));
    EXPECT_EQ(-SIGKILL, Await(m_process));
    EXPECT_EQ(NX_ERROR_NOT_INITIALIZED, m_process.Signal(SIGTERM));

    ASSERT_EQ(NX_OK, m_process.Start(Shell("exit 9")));
    pollfd handle{m_process.GetHandle(), POLLIN, 0};
    EXPECT_EQ(1, poll(&handle, 1, -1));
    const CNxTimeValue none;
    EXPECT_EQ(NX_OK, m_process.Wait(m_end, &none));
    EXPECT_EQ(9, Await(m_process));
}

TEST_F(CNxProcessTest, DoesNotOutliveItsObjectUnlessThatIsACopyInAForkedChild) {
    const CNxProcessStart start = Shell("exec sleep 1000");
    ASSERT_EQ(NX_OK, m_process.Start(start));
    InChild([&] { m_process.~CNxProcess(); });
    EXPECT_EQ(NX_OK, m_process.Stop(m_minute, m_end));
    EXPECT_EQ(-SIGTERM, Await(m_process));
    EXPECT_EQ(NX_OK, CNxProcess().Start(start));
}

// The system takes the end away, of some before they are looked for.
TEST_F(CNxProcessTest, IsStartedAlsoWhereSigchldIsIgnored) {
    InChild([&] {
        std::signal(SIGCHLD, SIG_IGN);
        CNxProcessStart start;
        start.m_program = "/bin/true";
        for (int i = 0; i < 500; ++i) {
            CNxProcess process;
            ASSERT_EQ(NX_OK, process.Start(start));
            ASSERT_EQ(NX_ERROR_NOT_AVAILABLE, process.Wait(m_end));
        }
    });
}

}  // namespace
