#include <fcntl.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CNxProcessInfo.h>
#include <nx/process/daemon.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

bool ReplaceStreams(int nullDevice) {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (dup2(nullDevice, stream) < 0) {
            return false;
        }
    }
    return true;
}

// The daemon, alone, comes back from here, and only when all is well; `ready` tells the process
// that was called how it went: an errno.
void BecomeDaemon(int nullDevice, int ready) {
    // The second child leads no session, and so never gets a terminal by opening one.
    const pid_t pid = setsid() < 0 ? -1 : fork();
    if (pid > 0) {
        _exit(0);
    }
    const bool isReady = pid == 0 && chdir("/") == 0 && ReplaceStreams(nullDevice);
    const int error = isReady ? 0 : errno;
    if (write(ready, &error, sizeof(error)) != sizeof(error) || !isReady) {
        _exit(1);
    }
}

// In the process that was called, which comes back only when there is no daemon.
NxResult AwaitDaemon(pid_t child, int ready) {
    int error = ECHILD;
    ssize_t length = 0;
    do {
        length = read(ready, &error, sizeof(error));
    } while (length < 0 && errno == EINTR);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (length == sizeof(error) && error == 0) {
        _exit(0);
    }
    errno = error;
    return NX_ERROR_FAILURE;
}

}  // namespace

NxResult cnx_daemonise() {
    CNxProcessInfo self;
    const NxResult result = CNxProcessInfo::Read(getpid(), self);
    if (result != NX_OK || self.GetThreads() != 1) {
        return result == NX_ERROR_FAILURE ? result : NX_ERROR_UNEXPECTED;
    }
    const CDescriptor nullDevice(open("/dev/null", O_RDWR | O_CLOEXEC));
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
        return AwaitDaemon(child, answer.Get());
    }
    BecomeDaemon(nullDevice.Get(), ready.Get());
    return NX_OK;
}
