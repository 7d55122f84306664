#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/foundation/standard_streams.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>

namespace {

// Puts a descriptor in the place of standard output until the end of the scope.
class CStdout {
public:
    explicit CStdout(int fd) : m_saved(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
        std::fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }
    ~CStdout() {
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
    }
    CStdout(const CStdout&) = delete;
    CStdout& operator=(const CStdout&) = delete;

private:
    const int m_saved;
};

// What leads from a writer to a reader: a pipe, a pair of sockets, a terminal.
struct CWay {
    explicit CWay(const std::string& kind) {
        if (kind == "pipe") {
            EXPECT_EQ(pipe(m_ends), 0);
        } else if (kind == "socket") {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends), 0);
        } else {
            m_ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
            EXPECT_EQ(grantpt(m_ends[0]) + unlockpt(m_ends[0]), 0);
            m_ends[1] = open(ptsname(m_ends[0]), O_RDWR | O_NOCTTY);
        }
    }
    ~CWay() {
        for (const int fd : m_ends) {
            close(fd);
        }
    }
    CWay(const CWay&) = delete;
    CWay& operator=(const CWay&) = delete;

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

    // To read from, to write to.
    int m_ends[2] = {-1, -1};
};

class StandardStreams : public testing::TestWithParam<const char*> {
protected:
    CWay m_way{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(, StandardStreams, testing::Values("pipe", "socket", "terminal"));

TEST_P(StandardStreams, AReaderThatHasGoneRaisesNothing) {
    m_way.CloseReader();
    const CStdout out(m_way.m_ends[1]);
    errno = 77;
    PrintToStdout("lost\n");
    EXPECT_EQ(errno, 77);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST_P(StandardStreams, AStalledReaderIsWaitedForOnceAndServedWhenItReadsAgain) {
    const CStdout out(m_way.m_ends[1]);
    const std::string line(2000, 'x');
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        PrintToStdout("%s\n", line.c_str());
    }
    // 2 MB fit into none of the three.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_GT(m_way.Read().size(), line.size());
    PrintToStdout("heard\n");
    const std::string text = m_way.Read();
    EXPECT_EQ(text.substr(text.size() - std::min<size_t>(text.size(), 5)), "heard");
    EXPECT_EQ(fcntl(m_way.m_ends[1], F_GETFL) & O_NONBLOCK, 0) << "others use it, too";
}

TEST(StandardOutput, KeepsTheOrderOfTheProgramsLinesAndItsOwn) {
    const CWay way("pipe");
    {
        const CStdout out(way.m_ends[1]);
        std::printf("1");
        PrintToStdout("%d", 2);
        std::printf("3");
        PrintToStdout("%s", std::string(5000, '4').c_str());
        std::fflush(stdout);
    }
    EXPECT_EQ(way.Read(), "123" + std::string(4096, '4'));
}

TEST(HighDescriptor, TakesTheNumbersOfStandardStreamsFromNobody) {
    const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    const int fd = ToHighDescriptor(open("/dev/null", O_RDWR));
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_EQ(ToHighDescriptor(fd), fd);
    close(fd);
    dup2(saved, STDIN_FILENO);
    close(saved);
    errno = ENOENT;
    EXPECT_EQ(ToHighDescriptor(-1), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
