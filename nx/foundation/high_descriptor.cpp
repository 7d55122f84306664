#include <fcntl.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/high_descriptor.h>
#include <unistd.h>

#include <cassert>

int ToHighDescriptor(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    assert(high < 0 || high > STDERR_FILENO);
    const CKeptErrno keptErrno;
    close(fd);
    return high;
}
