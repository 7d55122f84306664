#include "CTraceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr size_t LAST_BYTES = 256;
constexpr int MAX_TRIES = 5;

class CDescriptor {
public:
    explicit CDescriptor(const std::string& path)
        : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~CDescriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;
    int Get() const { return m_fd; }

private:
    int m_fd;
};

// Reads up to `size` bytes; fewer at the file's end. False with errno.
bool ReadAt(int fd, size_t offset, size_t size, std::string& out) {
    out.resize(size);
    size_t have = 0;
    while (have < size) {
        const ssize_t n =
            pread(fd, out.data() + have, size - have, static_cast<off_t>(offset + have));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        have += static_cast<size_t>(n);
    }
    out.resize(have);
    return true;
}

// The bytes of the file, such that no record in front of the header's offset is torn; `later` is
// the header's offset after the reading.
bool ReadWhole(int fd, std::string& content, size_t& later) {
    std::string after;
    for (int i = 0; i < MAX_TRIES; ++i) {
        struct stat status {};
        if (fstat(fd, &status) != 0 ||
            !ReadAt(fd, 0, static_cast<size_t>(status.st_size), content) ||
            !ReadAt(fd, 0, TRACE_HEADER_SIZE, after)) {
            return false;
        }
        later = ParseTraceHeader(after);
        if (later >= ParseTraceHeader(content)) {
            break;
        }
    }
    return true;
}

}  // namespace

CTraceFile::EResult CTraceFile::ReadNew(CTraceBatch& batch) {
    const CDescriptor fd(m_path);
    struct stat status {};
    if (fd.Get() < 0 || fstat(fd.Get(), &status) != 0) {
        return SYSTEM_ERROR;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return SYSTEM_ERROR;
    }
    std::string header;
    if (!ReadAt(fd.Get(), 0, TRACE_HEADER_SIZE, header)) {
        return SYSTEM_ERROR;
    }
    const bool isSame = !m_lastHeader.empty() && header == m_lastHeader &&
                        status.st_mtim.tv_sec == m_lastWrite.tv_sec &&
                        status.st_mtim.tv_nsec == m_lastWrite.tv_nsec;
    if (isSame) {
        return UNCHANGED;
    }
    m_lastWrite = status.st_mtim;
    batch.m_records.clear();
    const bool hasGrown = ParseTraceHeader(header) <= static_cast<size_t>(status.st_size) &&
                          ReadGrowth(fd.Get(), header, batch);
    return hasGrown ? READ : ReadAll(fd.Get(), batch);
}

// The common case of a file that is followed: it has grown behind what was read. False when it is
// not so, or the file changed during the reading.
bool CTraceFile::ReadGrowth(int fd, std::string_view header, CTraceBatch& batch) {
    const size_t end = ParseTraceHeader(header);
    if (m_lastBytes.empty() || end < m_lastEnd) {
        return false;
    }
    const size_t start = m_lastEnd - m_lastBytes.size();
    std::string after;
    const bool isRead = ReadAt(fd, start, end - start, batch.m_content) &&
                        batch.m_content.size() == end - start &&
                        ReadAt(fd, 0, TRACE_HEADER_SIZE, after);
    if (!isRead || ParseTraceHeader(after) < end ||
        batch.m_content.compare(0, m_lastBytes.size(), m_lastBytes) != 0) {
        return false;
    }
    SplitRecords(std::string_view(batch.m_content).substr(m_lastBytes.size()), batch.m_records);
    Remember(header, end, batch.m_content);
    return true;
}

CTraceFile::EResult CTraceFile::ReadAll(int fd, CTraceBatch& batch) {
    size_t later = 0;
    CTraceLayout layout;
    if (!ReadWhole(fd, batch.m_content, later)) {
        return SYSTEM_ERROR;
    }
    if (!ReadLayout(batch.m_content, layout)) {
        return NO_TRACE_FILE;
    }
    // What was written during the reading has gone over the oldest records.
    if (later > layout.m_end && layout.m_end == ParseTraceHeader(batch.m_content)) {
        layout.m_older.remove_prefix(std::min(later - layout.m_end, layout.m_older.size()));
    }
    TakeNew(layout, batch);
    return READ;
}

bool CTraceFile::IsSeenPartThere(std::string_view content) const {
    return !m_lastBytes.empty() && m_lastEnd <= content.size() &&
           content.substr(m_lastEnd - m_lastBytes.size(), m_lastBytes.size()) == m_lastBytes;
}

void CTraceFile::TakeNew(const CTraceLayout& layout, CTraceBatch& batch) {
    const std::string_view content = batch.m_content;
    std::string_view older = layout.m_older;
    std::string_view newer = layout.m_newer;
    if (IsSeenPartThere(content)) {
        if (m_lastEnd <= layout.m_end) {
            older = {};
            newer = content.substr(m_lastEnd, layout.m_end - m_lastEnd);
        } else {
            older = content.substr(m_lastEnd);
        }
    }
    SplitRecords(older, batch.m_records);
    SplitRecords(newer, batch.m_records);
    Remember(content.substr(0, TRACE_HEADER_SIZE), layout.m_end, layout.m_newer);
}

// `bytes` stand in front of the offset `end`.
void CTraceFile::Remember(std::string_view header, size_t end, std::string_view bytes) {
    const std::string_view last = bytes.substr(bytes.size() - std::min(LAST_BYTES, bytes.size()));
    m_lastBytes = last;
    m_lastHeader = header;
    m_lastEnd = end;
}
