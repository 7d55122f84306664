#include <dirent.h>
#include <fcntl.h>
#include <nx/trace/trace_retention.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cstring>
#include <ctime>
#include <memory>
#include <tuple>
#include <vector>

namespace {

constexpr time_t DAY_SECONDS = 86400;

struct CFolderCloser {
    void operator()(DIR* folder) const { closedir(folder); }
};

struct CTraceFile {
    std::string m_name;
    timespec m_written;
    // The one last written first.
    bool operator<(const CTraceFile& other) const {
        return std::tie(other.m_written.tv_sec, other.m_written.tv_nsec, other.m_name) <
               std::tie(m_written.tv_sec, m_written.tv_nsec, m_name);
    }
};

// Takes a number off the beginning of the text; false without one.
bool SkipNumber(const char*& text, char end) {
    const char* const start = text;
    while (std::isdigit(static_cast<unsigned char>(*text)) != 0) {
        ++text;
    }
    return text != start && *text++ == end;
}

// Whether the text is MMDDYYYY_N.PID.log.
bool IsNameEnd(const char* text) {
    const char* const date = text;
    return SkipNumber(text, '_') && text - date == 9 && SkipNumber(text, '.') &&
           SkipNumber(text, '.') && std::strcmp(text, "log") == 0;
}

std::vector<CTraceFile> FindFiles(DIR* folder, const std::string& start,
                                  const std::string& current) {
    std::vector<CTraceFile> files;
    while (const dirent* const entry = readdir(folder)) {
        struct stat status {};
        const bool isOne = start.compare(0, start.size(), entry->d_name, 0,
                                         std::min(start.size(), std::strlen(entry->d_name))) == 0 &&
                           IsNameEnd(entry->d_name + start.size()) && current != entry->d_name;
        if (isOne && fstatat(dirfd(folder), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode)) {
            files.push_back({entry->d_name, status.st_mtim});
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void RemoveUnlessInUse(DIR* folder, const std::string& name) {
    const int fd =
        openat(dirfd(folder), name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        // Refused, it is tried again when the next file is opened.
        static_cast<void>(unlinkat(dirfd(folder), name.c_str(), 0));
    }
    close(fd);
}

}  // namespace

void RemoveOldTraceFiles(const std::string& folder, const std::string& start,
                         const std::string& current, const CTraceRetention& keep) {
    if (keep.m_files == 0 && keep.m_days == 0) {
        return;
    }
    const std::unique_ptr<DIR, CFolderCloser> dir(opendir(folder.c_str()));
    if (dir == nullptr) {
        return;
    }
    const std::vector<CTraceFile> files = FindFiles(dir.get(), start, current);
    assert(std::is_sorted(files.begin(), files.end()));
    const auto days = static_cast<time_t>(keep.m_days);
    const time_t oldest = keep.m_days == 0 ? 0 : time(nullptr) - days * DAY_SECONDS;
    for (size_t i = 0; i < files.size(); ++i) {
        // The current one is not in the list.
        const bool isBeyond = keep.m_files != 0 && i + 1 >= keep.m_files;
        if (isBeyond || files[i].m_written.tv_sec < oldest) {
            RemoveUnlessInUse(dir.get(), files[i].m_name);
        }
    }
}
