// Inside the library only: the path that a unix socket is bound to, from the bind to its removal.
#pragma once

#include <sys/types.h>

#include <string>

#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>

// One thread at a time.
//
// The system leaves the file of a socket behind when its process dies, and refuses to bind to it
// again. Such a file is taken over when a connect to it is refused; one that lives sees that
// connect come and go. Two that start at once must not both find it left: whoever binds holds a
// lock (flock(2)) on the folder from before it looks until its socket answers, which ends with the
// process too and leaves no file. A socket is not connected to before it listens, so nobody gets in
// between the bind and the change of permissions.
//
// What another program binds by itself is outside of the lock: between its bind and its listen it
// looks left.
class CUnixPath {
public:
    // The backlog of sockets that do not listen.
    static constexpr int c_datagram = -1;

    CUnixPath() = default;
    ~CUnixPath() { Remove(); }
    CUnixPath(const CUnixPath&) = delete;
    CUnixPath& operator=(const CUnixPath&) = delete;

    // An abstract name and none at all are no paths.
    static bool HasPath(const CNxEndpoint& endpoint);

    // Binds the socket to the path, which gets exactly the permissions of `mode` (its lowest nine
    // bits), and has it listen unless it is a datagram socket. The endpoint has a path; nothing is
    // bound yet.
    // NX_OK; NX_ERROR_FAILURE, with the path as it was or, if it was stale, gone, and errno:
    // EADDRINUSE when somebody listens there and when the file is none of a socket, a symbolic link
    // among them; EWOULDBLOCK when the lock cannot be had for half a second; else that of the call
    // that failed. The folder must be readable.
    [[nodiscard]] NxResult Bind(int socket, const CNxEndpoint& endpoint, unsigned mode,
                                int backlog);

    // Removes the file, if it is still that of the bind and this process is not a fork. Before the
    // socket is closed: else it could be another's by then. A relative path is followed from the
    // working folder of now.
    void Remove();

private:
    bool BindTo(const std::string& path, int socket, const CNxEndpoint& endpoint, unsigned mode,
                int backlog);
    bool NoteFile(const std::string& path);

    std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    unsigned m_forks = 0;
};
