// The fuzzer's input as a file, for readers that only take files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

class CFuzzFile {
public:
    CFuzzFile(const uint8_t* data, size_t size) : m_fd(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (m_fd < 0 || write(m_fd, data, size) != static_cast<ssize_t>(size)) {
            std::abort();
        }
        m_path = "/proc/self/fd/" + std::to_string(m_fd);
    }
    ~CFuzzFile() { close(m_fd); }
    CFuzzFile(const CFuzzFile&) = delete;
    CFuzzFile& operator=(const CFuzzFile&) = delete;

    const std::string& Path() const { return m_path; }

private:
    int m_fd;
    std::string m_path;
};
