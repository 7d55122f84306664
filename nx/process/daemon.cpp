#include <fcntl.h>
#include <nx/foundation/CNoSigPipe.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CNxProcessInfo.h>
#include <nx/process/daemon.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace {

// Of a daemon that is waited for: where it says that it is ready, and what replaces its streams.
CDescriptor s_ready;
CDescriptor s_nullDevice;

// Output that is kept is replaced where there is none: else the next file would be it.
bool ReplaceStreams(int nullDevice, int first, bool keepsOutput) {
    for (int stream = first; stream <= STDERR_FILENO; ++stream) {
        const bool isKept = keepsOutput && stream != STDIN_FILENO && fcntl(stream, F_GETFD) != -1;
        if (!isKept && dup2(nullDevice, stream) < 0) {
            return false;
        }
    }
    return true;
}

// `ready` tells the process that was called how it went: an errno.
bool Tell(int ready, int error) {
    return write(ready, &error, sizeof(error)) == sizeof(error);
}

// ECHILD when the daemon has ended without telling.
int Hear(int answer) {
    int error = 0;
    ssize_t length = 0;
    do {
        length = read(answer, &error, sizeof(error));
    } while (length < 0 && errno == EINTR);
    return length == sizeof(error) ? error : ECHILD;
}

// The daemon, alone, comes back from here, and only when all is well.
void BecomeDaemon(int nullDevice, bool keepsOutput, int ready) {
    // The second child leads no session, and so never gets a terminal by opening one.
    const pid_t pid = setsid() < 0 ? -1 : fork();
    if (pid > 0) {
        _exit(0);
    }
    const bool isReady =
        pid == 0 && chdir("/") == 0 && ReplaceStreams(nullDevice, STDIN_FILENO, keepsOutput);
    if (!Tell(ready, isReady ? 0 : errno) || !isReady) {
        _exit(1);
    }
}

// In the process that was called, which comes back only when there is no daemon.
NxResult AwaitDaemon(pid_t child, int answer, bool isToBeReady) {
    const int error = Hear(answer);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (error == 0) {
        _exit(isToBeReady && Hear(answer) != 0 ? 1 : 0);
    }
    errno = error;
    return NX_ERROR_FAILURE;
}

NxResult Daemonise(bool isToBeReady) {
    CNxProcessInfo self;
    const NxResult result = CNxProcessInfo::Read(getpid(), self);
    if (result != NX_OK || self.GetThreads() != 1) {
        return result == NX_ERROR_FAILURE ? result : NX_ERROR_UNEXPECTED;
    }
    CDescriptor nullDevice(open("/dev/null", O_RDWR | O_CLOEXEC));
    int ends[2];
    if (!nullDevice.IsOpen() || pipe2(ends, O_CLOEXEC) != 0) {
        return NX_ERROR_FAILURE;
    }
    const CDescriptor answer(ends[0]);
    CDescriptor ready(ends[1]);
    std::fflush(nullptr);  // or both processes print what is in the buffers
    const pid_t child = answer.IsOpen() && ready.IsOpen() ? fork() : -1;
    if (child < 0) {
        return NX_ERROR_FAILURE;
    }
    if (child > 0) {
        ready = CDescriptor();  // the end of the child's is then the end
        return AwaitDaemon(child, answer.Get(), isToBeReady);
    }
    BecomeDaemon(nullDevice.Get(), isToBeReady, ready.Get());
    if (isToBeReady) {
        s_nullDevice = std::move(nullDevice);
        s_ready = std::move(ready);
    }
    return NX_OK;
}

}  // namespace

NxResult cnx_daemonise() {
    return Daemonise(false);
}

NxResult cnx_daemonise_until_ready() {
    return Daemonise(true);
}

void cnx_daemon_ready() {
    if (!s_ready.IsOpen()) {
        return;
    }
    // Who has started it, and who reads its output, may be gone.
    const CNoSigPipe noSigPipe;
    std::fflush(nullptr);
    // Neither fails otherwise, with descriptors that are open.
    static_cast<void>(ReplaceStreams(s_nullDevice.Get(), STDOUT_FILENO, false));
    static_cast<void>(Tell(s_ready.Get(), 0));
    s_ready = CDescriptor();
    s_nullDevice = CDescriptor();
}
