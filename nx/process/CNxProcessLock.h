// One instance per name: a lock file that one process at a time holds.
#pragma once

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>
#include <sys/types.h>

// Holds the lock from Lock() to UnLock() or its own end, on behalf of the process that locked; the
// system ends it with the process, however that dies, and whoever comes next gets it. An object
// belongs to one thread at a time; two of them, in one process too, exclude each other.
//
// The file stays when the lock is given up, empty: removing it would let two processes hold two
// files of one name. Whoever else removes it brings that about; IsHeld() tells the one who lost.
//
// A child of fork shares the lock: it lasts until parent and child have both ended or, the child,
// called exec. The child cannot give it up for the parent. A daemon locks after it has become one
// (cnx_daemonise).
//
// The lock is an open-file-description lock (fcntl(2)), so the file has to be on a local disk or on
// a file system that passes locks on.
class CNxProcessLock {
public:
    CNxProcessLock() = default;
    ~CNxProcessLock() { UnLock(); }
    CNxProcessLock(const CNxProcessLock&) = delete;
    CNxProcessLock& operator=(const CNxProcessLock&) = delete;

    // Makes the file if there is none (permissions 0644 less the umask) and writes the process's id
    // into it, as a decimal line. Does not wait.
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when this object holds a lock; NX_ERROR_NOT_AVAILABLE
    // when another one does; NX_ERROR_INVALID_ARG for an empty path, one with a zero byte and one
    // of something else than a regular file (a symbolic link is not followed); NX_ERROR_FAILURE
    // with errno.
    [[nodiscard]] NxResult Lock(const CNxString& path);

    // Empties the file. Nothing happens without a lock.
    void UnLock();

    // Whether this process locked with this object, and the file is still the one of its name. A
    // relative path is followed from the working folder of now, so who changes that locks by a path
    // from the root.
    bool IsHeld() const;

    // Who holds the lock of that file now, without taking it.
    // NX_OK with the id; NX_ERROR_NOT_FOUND when nobody does or there is no such file;
    // NX_ERROR_NOT_AVAILABLE when someone does, and there is no id in it (yet);
    // NX_ERROR_INVALID_ARG as above; NX_ERROR_FAILURE with errno. For a moment after a lock was
    // taken over it is the id of its last holder.
    [[nodiscard]] static NxResult GetHolder(const CNxString& path, pid_t& pid);

private:
    int m_fd = -1;
    pid_t m_holder = 0;
    CNxString m_path;
};
