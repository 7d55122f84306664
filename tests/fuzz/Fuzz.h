// What the fuzzing programs share.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

// One input. Each program defines it; what goes wrong ends in an abort.
void Fuzz(std::string_view input);

inline void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// An input that says what to do.
struct CFuzzBytes {
    // 0 when there is none left.
    unsigned TakeByte() { return m_left.empty() ? 0 : static_cast<unsigned char>(Take(1)[0]); }
    std::string_view Take(size_t count) {
        const std::string_view taken = m_left.substr(0, count);
        m_left.remove_prefix(taken.size());
        return taken;
    }
    // Up to that byte, which is left out.
    std::string_view TakeUntil(char end) {
        const std::string_view taken = Take(std::min(m_left.find(end), m_left.size()));
        Take(1);
        return taken;
    }

    std::string_view m_left;
};

// Bytes as a file, for readers that only take files.
class CFuzzFile {
public:
    explicit CFuzzFile(std::string_view content) : m_fd(memfd_create("fuzz", MFD_CLOEXEC)) {
        Put(content);
    }
    ~CFuzzFile() { close(m_fd); }
    CFuzzFile(const CFuzzFile&) = delete;
    CFuzzFile& operator=(const CFuzzFile&) = delete;

    void Put(std::string_view content) {
        Require(ftruncate(m_fd, 0) == 0);
        Require(pwrite(m_fd, content.data(), content.size(), 0) ==
                static_cast<ssize_t>(content.size()));
    }

    const std::string& Path() const { return m_path; }

private:
    const int m_fd;
    const std::string m_path = "/proc/self/fd/" + std::to_string(m_fd);
};
