#include "CTraceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <thread>

namespace {

constexpr size_t LAST_BYTES = 256;
constexpr int MAX_TRIES = 20;
// A record of the trace engine is shorter than 2048 bytes; other users' records may be longer.
constexpr size_t LARGEST_WRITE = 4096;
// Of st_blocks.
constexpr off_t STAT_BLOCK = 512;
constexpr off_t SMALL_HOLE = 1 << 20;

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
        assert(have <= size);
    }
    out.resize(have);
    return true;
}

// Whether a part of the file that is worth leaving out is not on the disk. The library makes no
// holes; others can make them of any size.
bool IsSparse(const struct stat& status) {
    return status.st_size - status.st_blocks * STAT_BLOCK > SMALL_HOLE;
}

// Reads what is on the disk, as lines of their own before and after each hole. False with errno.
bool ReadBetweenHoles(int fd, off_t size, std::string& out) {
    out.clear();
    off_t hole = 0;
    while (hole < size) {
        const off_t data = lseek(fd, hole, SEEK_DATA);
        hole = data < 0 ? data : lseek(fd, data, SEEK_HOLE);
        if (hole < 0) {
            return errno == ENXIO;  // nothing more
        }
        assert(data < hole);
        std::string piece;
        if (!ReadAt(fd, static_cast<size_t>(data), static_cast<size_t>(hole - data), piece)) {
            return false;
        }
        piece.erase(piece.find_last_not_of('\0') + 1);
        piece.erase(0, piece.find_first_not_of('\0'));
        out += out.empty() ? piece : "\n" + piece;
    }
    return true;
}

// A reading of the whole file, beside writers that do not wait for it.
struct CSnapshot {
    std::string m_content;
    // How many bytes after the header's offset may have been overwritten meanwhile; 0 when
    // nothing was.
    size_t m_overwritten = 0;
};

enum class EConsistency { ERROR, NONE, NEWER_PART, FULL };

bool IsSameAt(std::string_view content, size_t offset, std::string_view bytes) {
    return offset <= content.size() && content.substr(offset, bytes.size()) == bytes;
}

// Every write begins with destroying the marker where the header points. So when both are still
// there after the reading, nothing was written during it. When not, the records in front of the
// header's offset are good as long as the writers have not come round to them.
EConsistency Check(int fd, CSnapshot& snapshot) {
    const std::string_view content = snapshot.m_content;
    const size_t end = ParseTraceHeader(content);
    const size_t last = end - std::min(end, LAST_BYTES);
    std::string start;
    std::string lastBytes;
    std::string marker;
    if (!ReadAt(fd, last, end - last, lastBytes) || !ReadAt(fd, end, TRACE_MARKER.size(), marker) ||
        !ReadAt(fd, 0, LAST_BYTES, start)) {
        return EConsistency::ERROR;
    }
    const size_t later = ParseTraceHeader(start);
    snapshot.m_overwritten = later - std::min(end, later) + LARGEST_WRITE;
    if (later == end && marker == TRACE_MARKER && IsSameAt(content, last, lastBytes) &&
        IsSameAt(content, end, marker)) {
        return EConsistency::FULL;
    }
    start.erase(0, TRACE_HEADER_SIZE);
    const bool isGood = end >= TRACE_HEADER_SIZE && later >= end &&
                        IsSameAt(content, end - lastBytes.size(), lastBytes) &&
                        IsSameAt(content, TRACE_HEADER_SIZE,
                                 std::string_view(start).substr(0, end - TRACE_HEADER_SIZE));
    return isGood ? EConsistency::NEWER_PART : EConsistency::NONE;
}

bool IsUnchanged(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Tries for a reading that no write disturbed, then is content with less: a busy file is never
// still, and a damaged one, though still, never consistent. False with errno.
bool ReadWhole(int fd, CSnapshot& snapshot) {
    struct stat first {};
    struct stat now {};
    if (fstat(fd, &first) != 0) {
        return false;
    }
    for (int i = 0; i < MAX_TRIES; ++i) {
        if (fstat(fd, &now) != 0) {
            return false;
        }
        const bool isRead =
            IsSparse(now) ? ReadBetweenHoles(fd, now.st_size, snapshot.m_content)
                          : ReadAt(fd, 0, static_cast<size_t>(now.st_size), snapshot.m_content);
        if (!isRead) {
            return false;
        }
        const EConsistency consistency = Check(fd, snapshot);
        if (consistency == EConsistency::ERROR || fstat(fd, &now) != 0) {
            return false;
        }
        // A file that grew since its size was asked for was read without its end.
        const bool isWhole = static_cast<size_t>(now.st_size) == snapshot.m_content.size();
        if (consistency == EConsistency::FULL && isWhole) {
            snapshot.m_overwritten = 0;
            return true;
        }
        if (consistency >= EConsistency::NEWER_PART && !IsUnchanged(first, now) &&
            i >= MAX_TRIES / 2) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    if (IsUnchanged(first, now)) {
        snapshot.m_overwritten = 0;
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
        errno = EISDIR;
        return S_ISDIR(status.st_mode) ? SYSTEM_ERROR : NO_TRACE_FILE;
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
    const bool hasGrown = !IsSparse(status) &&
                          ParseTraceHeader(header) <= static_cast<size_t>(status.st_size) &&
                          ReadGrowth(fd.Get(), header, batch);
    return hasGrown ? READ : ReadAll(fd.Get(), batch);
}

// The common case of a file that is followed: it has grown after what was read. False when it is
// not so, or the file changed during the reading.
bool CTraceFile::ReadGrowth(int fd, std::string_view header, CTraceBatch& batch) {
    const size_t end = ParseTraceHeader(header);
    if (m_lastBytes.empty() || end < m_lastEnd) {
        return false;
    }
    assert(m_lastBytes.size() <= m_lastEnd);
    const size_t start = m_lastEnd - m_lastBytes.size();
    std::string after;
    std::string lastAfter;
    const bool isRead =
        ReadAt(fd, start, end - start, batch.m_content) && batch.m_content.size() == end - start &&
        ReadAt(fd, start, m_lastBytes.size(), lastAfter) && ReadAt(fd, 0, TRACE_HEADER_SIZE, after);
    // Writers that come round to the new part come through the last bytes first.
    if (!isRead || ParseTraceHeader(after) < end || lastAfter != m_lastBytes ||
        batch.m_content.compare(0, m_lastBytes.size(), m_lastBytes) != 0) {
        return false;
    }
    SplitRecords(std::string_view(batch.m_content).substr(m_lastBytes.size()), batch.m_records);
    Remember(header, end, batch.m_content);
    return true;
}

CTraceFile::EResult CTraceFile::ReadAll(int fd, CTraceBatch& batch) {
    CSnapshot snapshot;
    CTraceLayout layout;
    if (!ReadWhole(fd, snapshot)) {
        return SYSTEM_ERROR;
    }
    batch.m_content = std::move(snapshot.m_content);
    if (!ReadLayout(batch.m_content, layout)) {
        return NO_TRACE_FILE;
    }
    const std::string_view content = batch.m_content;
    const size_t end = ParseTraceHeader(content);
    if (snapshot.m_overwritten > 0 && end >= TRACE_HEADER_SIZE && end <= content.size()) {
        // After the offset may stand half of anything, a marker that is not the last one too.
        const size_t older = std::min(end + snapshot.m_overwritten, content.size());
        const size_t lastLine = std::min(content.rfind('\n'), content.size());
        layout = {end, content.substr(older, std::max(older, lastLine) - older),
                  content.substr(TRACE_HEADER_SIZE, end - TRACE_HEADER_SIZE)};
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
        assert(layout.m_end <= content.size());
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
    assert(bytes.size() <= end);
    const std::string_view last = bytes.substr(bytes.size() - std::min(LAST_BYTES, bytes.size()));
    m_lastBytes = last;
    m_lastHeader = header;
    m_lastEnd = end;
}
