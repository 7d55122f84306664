#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/foundation/standard_streams.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

namespace {

// Standard output leads to a reader through a pipe, a pair of sockets or a terminal, until the end
// of the scope.
class CStdout {
public:
    explicit CStdout(const std::string& kind) {
        if (kind == "pipe") {
            EXPECT_EQ(pipe(m_ends), 0);
        } else if (kind == "socket") {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0);
        } else {
            m_ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
            EXPECT_EQ(grantpt(m_ends[0]) + unlockpt(m_ends[0]), 0);
            m_ends[1] = open(ptsname(m_ends[0]), O_RDWR | O_NOCTTY);
        }
        std::fflush(stdout);
        dup2(m_ends[1], STDOUT_FILENO);
        close(m_ends[1]);
    }
    ~CStdout() {
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        CloseReader();
    }
    CStdout(const CStdout&) = delete;
    CStdout& operator=(const CStdout&) = delete;

    void CloseReader() {
        close(m_ends[0]);
        m_ends[0] = -1;
    }
    // What is there now, without line ends.
    std::string Read() const {
        std::string text;
        char buffer[4096];
        pollfd poll = {m_ends[0], POLLIN, 0};
        while (::poll(&poll, 1, 50) == 1) {
            const ssize_t n = read(m_ends[0], buffer, sizeof(buffer));
            text.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
        }
        text.erase(text.find_last_not_of("\r\n") + 1);
        return text;
    }

private:
    const int m_saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    // To read from, to write to.
    int m_ends[2] = {-1, -1};
};

class StandardStreams : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(, StandardStreams, testing::Values("pipe", "socket", "terminal"));

TEST_P(StandardStreams, AStalledReaderIsWaitedForOnceServedWhenItReadsAndMayGo) {
    CStdout out(GetParam());
    // 4 MB fit into none of the three. If each line waited, that would take longer than a test may.
    const std::string line(2000, 'x');
    for (int i = 0; i < 2000; ++i) {
        PrintToStdout("%s\n", line.c_str());
    }
    EXPECT_GT(out.Read().size(), line.size());
    PrintToStdout("heard\n");
    const std::string text = out.Read();
    EXPECT_EQ(text.substr(text.size() - std::min<size_t>(text.size(), 5)), "heard");
    EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK, 0) << "others use it, too";

    out.CloseReader();
    errno = 77;
    PrintToStdout("lost\n");
    EXPECT_EQ(errno, 77);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(StandardOutput, KeepsTheOrderOfTheProgramsLinesAndItsOwn) {
    const CStdout out("pipe");
    std::printf("1");
    PrintToStdout("%d", 2);
    std::printf("3");
    PrintToStdout("%s", std::string(5000, '4').c_str());
    EXPECT_EQ(out.Read(), "123" + std::string(4096, '4'));
}

}  // namespace
