// Inside the library only: the owner of one descriptor.
#pragma once

#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/high_descriptor.h>
#include <unistd.h>

#include <utility>

// Takes a descriptor as soon as it is made, keeps it above 2, and closes it; errno stays as it is.
class CDescriptor {
public:
    CDescriptor() = default;
    explicit CDescriptor(int fd) : m_fd(ToHighDescriptor(fd)) {}
    CDescriptor(CDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~CDescriptor() {
        if (m_fd >= 0) {
            const CKeptErrno keptErrno;
            close(m_fd);
        }
    }

    int Get() const { return m_fd; }
    int Release() { return std::exchange(m_fd, -1); }
    bool IsOpen() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};
