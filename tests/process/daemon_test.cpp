// Daemons, made by a forked child of the test.
#include <gtest/gtest.h>
#include <nx/process/daemon.h>

#include <filesystem>
#include <string>
#include <thread>

#include "Children.h"

namespace {

// One letter for each thing that is right.
std::string Describe(pid_t caller) {
    namespace fs = std::filesystem;
    std::string text;
    text += getpid() != caller ? 'p' : '-';
    text += getsid(0) != getpid() && getsid(0) != getsid(caller) ? 's' : '-';
    text += fs::current_path() == "/" ? 'f' : '-';
    for (const char* stream : {"0", "1", "2"}) {
        text += fs::read_symlink(fs::path("/proc/self/fd") / stream) == "/dev/null" ? 'n' : '-';
    }
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
    EXPECT_EQ(6, read(ends[0], text, sizeof(text)));
    EXPECT_STREQ("psfnnn", text);
    close(ends[0]);
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
