#include <fcntl.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CatchBadAlloc.h>
#include <nx/stream/CUnixPath.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace {

// It is held for as long as a few system calls take.
constexpr int c_lockTries = 50;
constexpr unsigned long c_lockTryMs = 10;

constexpr mode_t c_permissions = 0777;

std::string GetFolder(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

class CFolderLock {
public:
    explicit CFolderLock(const std::string& folder)
        : m_folder(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
    // Not by the close alone: a child that was forked meanwhile would still hold it.
    ~CFolderLock() {
        const CKeptErrno keptErrno;
        flock(m_folder.Get(), LOCK_UN);
    }
    CFolderLock(const CFolderLock&) = delete;
    CFolderLock& operator=(const CFolderLock&) = delete;

    // Or errno is set.
    [[nodiscard]] bool Lock() {
        for (int i = 0; m_folder.IsOpen() && i < c_lockTries; ++i) {
            if (flock(m_folder.Get(), LOCK_EX | LOCK_NB) == 0) {
                return true;
            }
            if (errno != EWOULDBLOCK && errno != EINTR) {
                return false;
            }
            const CKeptErrno keptErrno;
            cnx_sleep_ms(c_lockTryMs);
        }
        return false;
    }

private:
    CDescriptor m_folder;
};

// Nobody answers there; or errno is set.
bool IsStale(const CNxEndpoint& endpoint) {
    const CDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!probe.IsOpen()) {
        return false;
    }
    const int connected = connect(probe.Get(), endpoint.GetAddress(), endpoint.GetSize());
    // A datagram socket that is alive answers that it is of another type.
    if (connected == -1 && errno == ECONNREFUSED) {
        return true;
    }
    errno = EADDRINUSE;
    return false;
}

// Removes what a dead process has left; or errno is set.
bool MakeRoom(const std::string& path, const CNxEndpoint& endpoint) {
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0) {
        // Whatever else it is, bind(2) says it as well.
        return true;
    }
    if (!S_ISSOCK(file.st_mode)) {
        errno = EADDRINUSE;
        return false;
    }
    return IsStale(endpoint) && (unlink(path.c_str()) == 0 || errno == ENOENT);
}

}  // namespace

bool CUnixPath::HasPath(const CNxEndpoint& endpoint) {
    static_assert(offsetof(sockaddr, sa_data) == offsetof(sockaddr_un, sun_path));
    return endpoint.GetFamily() == AF_UNIX &&
           endpoint.GetSize() > offsetof(sockaddr_un, sun_path) &&
           endpoint.GetAddress()->sa_data[0] != '\0';
}

NxResult CUnixPath::Bind(int socket, const CNxEndpoint& endpoint, unsigned mode, int backlog) {
    assert(HasPath(endpoint) && m_path.empty());
    return CatchBadAlloc([&] {
        std::string path = endpoint.GetUnixName();
        CFolderLock lock(GetFolder(path));
        if (!lock.Lock() || !MakeRoom(path, endpoint) ||
            !BindTo(path, socket, endpoint, mode & c_permissions, backlog)) {
            return NX_ERROR_FAILURE;
        }
        m_path = std::move(path);
        return NX_OK;
    });
}

bool CUnixPath::BindTo(const std::string& path, int socket, const CNxEndpoint& endpoint,
                       unsigned mode, int backlog) {
    // Without more permissions than it is to have, less those of the umask, which is the process's.
    if (fchmod(socket, mode) != 0 || bind(socket, endpoint.GetAddress(), endpoint.GetSize()) != 0) {
        return false;
    }
    if (NoteFile(path) && chmod(path.c_str(), mode) == 0 &&
        (backlog == c_datagram || listen(socket, backlog) == 0)) {
        return true;
    }
    const CKeptErrno keptErrno;
    unlink(path.c_str());
    return false;
}

bool CUnixPath::NoteFile(const std::string& path) {
    struct stat file {};
    m_forks = CNxProcessWide::CountForks();
    if (lstat(path.c_str(), &file) != 0) {
        return false;
    }
    m_device = file.st_dev;
    m_inode = file.st_ino;
    return true;
}

void CUnixPath::Remove() {
    const std::string path = std::exchange(m_path, {});
    struct stat file {};
    if (!path.empty() && m_forks == CNxProcessWide::CountForks() &&
        lstat(path.c_str(), &file) == 0 && file.st_dev == m_device && file.st_ino == m_inode) {
        unlink(path.c_str());
    }
}
