#include <fcntl.h>
#include <nx/foundation/has_zero_byte.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CNxProcessLock.h>
#include <nx/process/CatchBadAlloc.h>
#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <charconv>
#include <cstdio>

namespace {

constexpr int c_openFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

struct flock WholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

NxResult Open(const CNxString& path, int flags, CDescriptor& file) {
    if (path.empty() || HasZeroByte(path)) {
        return NX_ERROR_INVALID_ARG;
    }
    file = CDescriptor(open(path.c_str(), flags | c_openFlags, 0644));
    if (!file.IsOpen()) {
        // A link, a folder, a socket or a device that is not there.
        const bool isOther = errno == ELOOP || errno == EISDIR || errno == ENXIO;
        return isOther ? NX_ERROR_INVALID_ARG : NX_ERROR_FAILURE;
    }
    struct stat status {};
    if (fstat(file.Get(), &status) != 0) {
        return NX_ERROR_FAILURE;
    }
    return S_ISREG(status.st_mode) ? NX_OK : NX_ERROR_INVALID_ARG;
}

bool IsStillNamed(int fd, const CNxString& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

NxResult WriteId(int fd) {
    char line[32];
    const int length = std::snprintf(line, sizeof(line), "%d\n", getpid());
    assert(length > 0 && length < static_cast<int>(sizeof(line)));
    const bool isWritten = ftruncate(fd, 0) == 0 && pwrite(fd, line, static_cast<size_t>(length),
                                                           0) == static_cast<ssize_t>(length);
    return isWritten ? NX_OK : NX_ERROR_FAILURE;
}

// A file that was removed between opening and locking is nobody's any more: the next is tried.
NxResult OpenLocked(const CNxString& path, CDescriptor& file) {
    do {
        const NxResult result = Open(path, O_RDWR | O_CREAT, file);
        if (result != NX_OK) {
            return result;
        }
        struct flock lock = WholeFile();
        if (fcntl(file.Get(), F_OFD_SETLK, &lock) != 0) {
            return errno == EAGAIN || errno == EACCES ? NX_ERROR_NOT_AVAILABLE : NX_ERROR_FAILURE;
        }
    } while (!IsStillNamed(file.Get(), path));
    return NX_OK;
}

}  // namespace

NxResult CNxProcessLock::Lock(const CNxString& path) {
    if (m_fd >= 0) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    return CatchBadAlloc([&] {
        m_path = path;
        CDescriptor file;
        NxResult result = OpenLocked(path, file);
        if (result == NX_OK) {
            result = WriteId(file.Get());
        }
        if (result == NX_OK) {
            m_fd = file.Release();
            m_holder = getpid();
        }
        return result;
    });
}

void CNxProcessLock::UnLock() {
    const CDescriptor file(m_fd);
    m_fd = -1;
    // Empty says that nobody holds it; that it cannot be emptied hides nothing. Closing unlocks it,
    // unless in a child: there the parent has the same open file.
    if (file.IsOpen() && m_holder == getpid()) {
        static_cast<void>(ftruncate(file.Get(), 0));
    }
    m_holder = 0;
}

bool CNxProcessLock::IsHeld() const {
    return m_fd >= 0 && m_holder == getpid() && IsStillNamed(m_fd, m_path);
}

NxResult CNxProcessLock::GetHolder(const CNxString& path, pid_t& pid) {
    CDescriptor file;
    const NxResult result = Open(path, O_RDONLY, file);
    if (result != NX_OK) {
        return result == NX_ERROR_FAILURE && errno == ENOENT ? NX_ERROR_NOT_FOUND : result;
    }
    struct flock lock = WholeFile();
    if (fcntl(file.Get(), F_OFD_GETLK, &lock) != 0) {
        return NX_ERROR_FAILURE;
    }
    if (lock.l_type == F_UNLCK) {
        return NX_ERROR_NOT_FOUND;
    }
    char line[32] = "";
    const ssize_t length = pread(file.Get(), line, sizeof(line) - 1, 0);
    if (length < 0) {
        return NX_ERROR_FAILURE;
    }
    // Whoever may write the file may have written anything: -1, say, is no process but all of them.
    pid_t id = 0;
    const auto read = std::from_chars(line, line + length, id);
    if (read.ec != std::errc() || *read.ptr != '\n' || id <= 0) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    pid = id;
    return NX_OK;
}
