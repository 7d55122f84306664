// Daemons, made by a forked child of the test.
#include <gtest/gtest.h>
#include <nx/process/daemon.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "Children.h"

namespace {

bool IsDaemon(pid_t caller) {
    namespace fs = std::filesystem;
    bool isRight = getpid() != caller && getsid(0) != getpid() && getsid(0) != getsid(caller) &&
                   fs::current_path() == "/";
    for (const char* stream : {"0", "1", "2"}) {
        isRight &= fs::read_symlink(fs::path("/proc/self/fd") / stream) == "/dev/null";
    }
    return isRight;
}

TEST(Daemon, GoesOnByItselfWhenTheOneThatWasCalledHasEnded) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "it has a thread of its own";
#endif
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    Child child([&] {
        const pid_t caller = getpid();
        if (cnx_daemonise() != NX_OK) {
            return 1;
        }
        return write(ends[1], IsDaemon(caller) ? "+" : "-", 1) > 0 ? 2 : 3;
    });
    close(ends[1]);
    EXPECT_EQ(0, child.Wait());
    char answer = 0;
    EXPECT_EQ(1, read(ends[0], &answer, 1));
    EXPECT_EQ('+', answer);
    close(ends[0]);
}

TEST(Daemon, ThatIsWaitedForTellsWhetherItsStartHasSucceeded) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "it has a thread of its own";
#endif
    for (const bool isReady : {true, false}) {
        int ends[2];
        ASSERT_EQ(0, pipe(ends));
        Child child([&] {
            const pid_t caller = getpid();
            const std::string output = std::filesystem::read_symlink("/proc/self/fd/1");
            close(STDERR_FILENO);
            if (cnx_daemonise_until_ready() != NX_OK ||
                output != std::filesystem::read_symlink("/proc/self/fd/1") ||
                std::filesystem::read_symlink("/proc/self/fd/2") != "/dev/null") {
                return 2;
            }
            if (isReady) {
                // Whoever reads it has gone.
                int unread[2];
                if (pipe(unread) != 0 || close(unread[0]) != 0 ||
                    dup2(unread[1], STDOUT_FILENO) < 0) {
                    return 5;
                }
                std::printf("ready\n");
                cnx_daemon_ready();
                cnx_daemon_ready();
            }
            const bool isRight = IsDaemon(caller) == isReady;
            return write(ends[1], isRight ? "+" : "-", 1) > 0 ? 3 : 4;
        });
        close(ends[1]);
        EXPECT_EQ(isReady ? 0 : 1, child.Wait());
        char answer = 0;
        EXPECT_EQ(1, read(ends[0], &answer, 1));
        EXPECT_EQ('+', answer);
        close(ends[0]);
    }
}

// One that became a daemon all the same would end with 0.
TEST(Daemon, IsRefusedToAProcessWithThreads) {
    Child child([] {
        std::thread(pause).detach();
        return cnx_daemonise() == NX_ERROR_UNEXPECTED ? 2 : 1;
    });
    EXPECT_EQ(2, child.Wait());
}

}  // namespace
