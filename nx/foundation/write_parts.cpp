#include <nx/foundation/write_parts.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

size_t WriteParts(int fd, iovec* parts, int count, off_t offset) {
    size_t written = 0;
    while (count > 0) {
        const auto at = offset + static_cast<off_t>(written);
        // The system takes one part quicker that way.
        const ssize_t n = count == 1 ? pwrite(fd, parts->iov_base, parts->iov_len, at)
                                     : pwritev(fd, parts, count, at);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
        auto left = static_cast<size_t>(n);
        while (count > 0 && left >= parts->iov_len) {
            left -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + left;
            parts->iov_len -= left;
        }
    }
    return written;
}
