// Daemons, made by a forked child of the test.
#include <gtest/gtest.h>
#include <nx/process/daemon.h>
#include <sys/stat.h>

#include <string>
#include <thread>

#include "Children.h"

namespace {

bool IsNullDevice(int fd) {
    struct stat status {};
    struct stat null {};
    return fstat(fd, &status) == 0 && stat("/dev/null", &null) == 0 &&
           status.st_rdev == null.st_rdev;
}

// One letter for each thing that is right.
std::string Describe(pid_t caller) {
    char folder[8] = "";
    std::string text;
    text += getpid() != caller ? 'p' : '-';
    text += getsid(0) != getpid() && getsid(0) != getsid(caller) ? 's' : '-';
    text += getcwd(folder, sizeof(folder)) != nullptr && std::string(folder) == "/" ? 'f' : '-';
    text += IsNullDevice(0) && IsNullDevice(1) && IsNullDevice(2) ? 'n' : '-';
    return text;
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
        const std::string text = Describe(caller);
        return write(ends[1], text.data(), text.size()) > 0 ? 2 : 3;
    });
    close(ends[1]);
    EXPECT_EQ(0, child.Wait());
    char text[8] = "";
    EXPECT_EQ(4, read(ends[0], text, sizeof(text)));
    EXPECT_STREQ("psfn", text);
    close(ends[0]);
}

TEST(Daemon, IsRefusedToAProcessWithThreads) {
    Child child([] {
        int ends[2];
        if (pipe(ends) != 0) {
            return 2;
        }
        std::thread thread([&] {
            char c = 0;
            static_cast<void>(read(ends[0], &c, 1) == 1);
        });
        const NxResult result = cnx_daemonise();
        close(ends[1]);
        thread.join();
        return result == NX_ERROR_UNEXPECTED ? 0 : 1;
    });
    EXPECT_EQ(0, child.Wait());
}

}  // namespace
