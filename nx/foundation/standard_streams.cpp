#include <fcntl.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNoSigPipe.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/foundation/standard_streams.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>

namespace {

using CClock = std::chrono::steady_clock;

// A pipe takes that much whole or not at all.
constexpr size_t MAX_LINE = PIPE_BUF;
constexpr auto MAX_WAIT = std::chrono::milliseconds(100);

// The last line did not get through in time.
std::atomic<bool> s_isStalled[STDERR_FILENO + 1];

// A way to a standard stream on which no write waits. O_NONBLOCK belongs to the open file that the
// process may share with others, its shell for one: a pipe or terminal is opened once more.
class CStream {
public:
    explicit CStream(int stream) : m_fd(stream) {
        struct stat status {};
        if (fstat(stream, &status) != 0) {
            return;
        }
        m_isSocket = S_ISSOCK(status.st_mode);
        if (S_ISFIFO(status.st_mode) || (S_ISCHR(status.st_mode) && isatty(stream) != 0)) {
            char path[32];
            std::snprintf(path, sizeof(path), "/proc/self/fd/%d", stream);
            m_own = ToHighDescriptor(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
            // Else, when another user's terminal say, a write comes after a poll at least.
            m_fd = m_own >= 0 ? m_own : stream;
        }
    }
    ~CStream() {
        if (m_own >= 0) {
            close(m_own);
        }
    }
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;

    // Whether a write now does something; also true when that is to fail.
    bool IsReady(CClock::time_point deadline) const {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - CClock::now());
        pollfd poll = {m_fd, POLLOUT, 0};
        const int ready = ::poll(&poll, 1, static_cast<int>(std::max<long>(left.count(), 0)));
        return ready > 0 || (ready < 0 && errno == EINTR);
    }

    // False when there was no room for all of it until the deadline.
    bool Write(const char* text, size_t length, CClock::time_point deadline) const {
        while (length > 0) {
            if (!IsReady(deadline)) {
                return false;
            }
            const ssize_t n = m_isSocket ? send(m_fd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL)
                                         : write(m_fd, text, length);
            if (n < 0 && errno != EAGAIN && errno != EINTR) {
                return true;
            }
            if (n > 0) {
                assert(static_cast<size_t>(n) <= length);
                text += n;
                length -= static_cast<size_t>(n);
            } else if (CClock::now() >= deadline) {
                return false;
            }
        }
        return true;
    }

private:
    int m_fd;
    int m_own = -1;
    bool m_isSocket = false;
};

// Lets what the program has printed go first, unless that has to wait: for a thread that is
// printing, or for more room than a stream that is ready is known to have.
void FlushStdout(const CStream& stream, CClock::time_point deadline) {
    if (ftrylockfile(stdout) != 0) {
        return;
    }
    const size_t pending = __fpending(stdout);
    if (pending > 0 && pending <= PIPE_BUF && stream.IsReady(deadline)) {
        fflush_unlocked(stdout);  // what it cannot write is the program's to notice
    }
    funlockfile(stdout);
}

[[gnu::format(printf, 2, 0)]] void PrintTo(int stream, const char* format, va_list args) {
    assert(stream == STDOUT_FILENO || stream == STDERR_FILENO);
    const int callersErrno = errno;
    const CCancelOff cancelOff;
    const CNoSigPipe noSigPipe;
    char line[MAX_LINE + 1];
    const int length = std::vsnprintf(line, sizeof(line), format, args);
    const CStream target(stream);
    std::atomic<bool>& isStalled = s_isStalled[stream];
    const auto deadline =
        CClock::now() + (isStalled.load() ? CClock::duration::zero() : CClock::duration(MAX_WAIT));
    if (stream == STDOUT_FILENO) {
        FlushStdout(target, deadline);
    }
    if (length > 0) {
        isStalled = !target.Write(line, std::min(static_cast<size_t>(length), MAX_LINE), deadline);
    }
    errno = callersErrno;
}

}  // namespace

void PrintToStdout(const char* format, ...) {
    va_list args;
    va_start(args, format);
    PrintTo(STDOUT_FILENO, format, args);
    va_end(args);
}

void PrintToStderr(const char* format, ...) {
    va_list args;
    va_start(args, format);
    PrintTo(STDERR_FILENO, format, args);
    va_end(args);
}
