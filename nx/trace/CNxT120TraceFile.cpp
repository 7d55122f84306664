#include <fcntl.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CTraceStamp.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr long HEADER_SIZE = 32;
constexpr size_t LINE_SIZE = 2048;
constexpr int MAX_LINES = 65536;
constexpr char MARKER[] =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t MARKER_SIZE = sizeof(MARKER) - 1;

// Locks of fcntl(2) exclude processes only, and closing any descriptor of a file drops them all:
// within the process one mutex orders everything that is done with shared files.
CNxMutexThread& SharedFilesMutex() {
    static auto& s_mutex = *new CNxMutexThread;
    return s_mutex;
}

iovec Part(const char* text, size_t length) {
    return {const_cast<char*>(text), length};
}

// How many bytes reached the file; fewer than given only when the system refuses more.
size_t WriteParts(int fd, iovec* parts, int count, off_t offset) {
    size_t written = 0;
    while (count > 0) {
        const ssize_t n = pwritev(fd, parts, count, offset + static_cast<off_t>(written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<size_t>(n);
        auto left = static_cast<size_t>(n);
        while (count > 0 && left >= parts->iov_len) {
            left -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + left;
            parts->iov_len -= left;
        }
    }
    return written;
}

void Truncate(int fd, long size) {
    // What a refusal leaves there lies beyond the marker, where nobody relies on it.
    while (ftruncate(fd, size) != 0 && errno == EINTR) {
    }
}

long BoundSize(unsigned long maxSize) {
    return static_cast<long>(std::min(maxSize, static_cast<unsigned long>(LONG_MAX)));
}

}  // namespace

struct CNxT120TraceFile::CRecord {
    CRecord(const CTraceStamp& stamp, const char* tag, const char* prefix, const char* text) {
        Add(stamp.m_text, stamp.m_length);
        if (tag != nullptr && prefix != nullptr) {
            Add(prefix, std::strlen(prefix));
            Add(":", 1);
        }
        Add(text, std::strlen(text));
        Add("\n", 1);
    }

    void Add(const char* text, size_t length) {
        assert(m_count < c_maxParts);
        m_parts[m_count++] = Part(text, length);
        m_length += length;
    }

    // Stamp, prefix, colon, text, line end, and the marker after the record.
    static constexpr int c_maxParts = 6;
    iovec m_parts[c_maxParts];
    int m_count = 0;
    size_t m_length = 0;
};

CNxT120TraceFile::CNxT120TraceFile(const char* fileName, unsigned long maxSize,
                                   unsigned char shared, unsigned char create)
    : m_fileName(fileName == nullptr ? "" : fileName),
      m_maxSize(BoundSize(maxSize)),
      m_shared(shared),
      m_buffer(new char[LINE_SIZE]) {
    if (!m_fileName.empty() && create != 0) {
        const CCancelOff cancelOff;
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        static_cast<void>(Open(false));  // is_open() tells
    }
}

CNxT120TraceFile::~CNxT120TraceFile() {
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    Flush();
    if (m_fd >= 0) {
        close(m_fd);
    }
}

CNxMutexThread& CNxT120TraceFile::GetMutex() {
    return m_shared != 0 ? SharedFilesMutex() : m_mutex;
}

bool CNxT120TraceFile::attach() {
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    return m_shared != 0 && m_fd < 0 && !m_fileName.empty() && Open(true);
}

bool CNxT120TraceFile::Open(bool keepsRecords) {
    assert(m_fd < 0 && !m_fileName.empty());
    m_fd =
        ToHighDescriptor(open(m_fileName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666));
    if (m_fd < 0) {
        return false;
    }
    // Emptied under the lock, where no other process is in the middle of a record.
    if (m_shared != 0) {
        // The umask may keep others out. Another user's file stays as its owner made it.
        static_cast<void>(fchmod(m_fd, 0666));
        LockFile(F_WRLCK);
    }
    if (!keepsRecords) {
        Truncate(m_fd, 0);
    }
    if (GetSize() == 0) {
        WriteFirstHeader();
    }
    if (m_shared != 0) {
        LockFile(F_UNLCK);
    }
    return true;
}

bool CNxT120TraceFile::is_same_file(const char* name) const {
    return name != nullptr && !m_fileName.empty() && m_fileName == name;
}

void CNxT120TraceFile::write(const char* tag, const char* prefix, const char* text) {
    const CCancelOff cancelOff;
    write(CurrentTraceStamp(), tag, prefix, text);
}

void CNxT120TraceFile::write(const CTraceStamp& stamp, const char* tag, const char* prefix,
                             const char* text) {
    if (text == nullptr) {
        return;
    }
    const CCancelOff cancelOff;
    const CRecord record(stamp, tag, prefix, text);
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    if (m_shared != 0) {
        WriteShared(record);
    } else {
        Append(record);
    }
}

void CNxT120TraceFile::write_shared(const char* tag, const char* prefix, const char* text) {
    if (text == nullptr) {
        return;
    }
    const CCancelOff cancelOff;
    const CRecord record(CurrentTraceStamp(), tag, prefix, text);
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    WriteShared(record);
}

void CNxT120TraceFile::flush_buffer() {
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    Flush();
}

int CNxT120TraceFile::refresh_settings(unsigned long maxSize, int linesPerFlush) {
    const auto lines = static_cast<unsigned int>(std::clamp(linesPerFlush, 1, MAX_LINES));
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    Flush();
    m_maxSize = BoundSize(maxSize);
    // Records that a full disk holds back keep their buffer.
    if (lines != m_linesPerFlush && m_bufferedBytes == 0) {
        std::unique_ptr<char[]> buffer(new (std::nothrow) char[lines * LINE_SIZE]);
        if (buffer != nullptr) {
            m_linesPerFlush = lines;
            m_bufferedLines = 0;
            m_buffer = std::move(buffer);
        }
    }
    return 1;
}

void CNxT120TraceFile::drain() {
    if (m_shared != 0) {
        return;
    }
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    Flush();
    m_draining = true;
}

void CNxT120TraceFile::LockSharedFiles() NX_NO_THREAD_SAFETY_ANALYSIS {
    // A lock that cannot be taken would not be in the way of the child either.
    static_cast<void>(SharedFilesMutex().Lock());
}

void CNxT120TraceFile::UnlockSharedFiles() NX_NO_THREAD_SAFETY_ANALYSIS {
    SharedFilesMutex().UnLock();
}

void CNxT120TraceFile::BeforeFork() NX_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<void>(m_mutex.Lock());  // as above
    Flush();
}

void CNxT120TraceFile::AfterFork(bool isChild) NX_NO_THREAD_SAFETY_ANALYSIS {
    if (isChild) {
        m_bufferedBytes = 0;
        m_bufferedLines = 0;
    }
    m_mutex.UnLock();
}

void CNxT120TraceFile::LockFile(short type) {
    assert(m_fd >= 0);
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    // Any other refusal means that this file cannot be locked: the record counts more.
    while (fcntl(m_fd, F_SETLKW, &lock) != 0 && (errno == EINTR || errno == EAGAIN)) {
    }
}

void CNxT120TraceFile::Append(const CRecord& record) {
    if (m_fd < 0) {
        return;
    }
    // One byte less than the buffer has: its 2048 bytes a record count a terminator.
    const size_t capacity = m_linesPerFlush * LINE_SIZE - 1;
    assert(m_bufferedBytes <= capacity && (m_bufferedBytes == 0) == (m_bufferedLines == 0));
    if (record.m_length > capacity - m_bufferedBytes) {
        Flush();
        if (m_bufferedBytes > 0) {
            return;
        }
    }
    size_t room = capacity - m_bufferedBytes;
    const bool isCut = record.m_length > room;
    for (int i = 0; i < record.m_count; ++i) {
        const iovec& part = record.m_parts[i];
        const size_t length = std::min(part.iov_len, room);
        std::memcpy(&m_buffer[m_bufferedBytes], part.iov_base, length);
        m_bufferedBytes += length;
        room -= length;
    }
    assert(m_bufferedBytes <= capacity);
    if (isCut) {
        m_buffer[m_bufferedBytes - 1] = '\n';
    }
    ++m_bufferedLines;
    if (m_linesPerFlush <= m_bufferedLines || m_draining) {
        Flush();
    }
}

void CNxT120TraceFile::Flush() {
    if (m_fd < 0 || m_bufferedBytes == 0) {
        return;
    }
    const long offset = ReadOffset();
    const bool isFull = m_maxSize != 0 && m_maxSize <= offset;
    if (isFull) {
        Truncate(m_fd, offset);
    }
    iovec parts[] = {Part(m_buffer.get(), m_bufferedBytes), Part(MARKER, MARKER_SIZE)};
    if (Put(offset, parts, 2, m_bufferedBytes)) {
        m_bufferedBytes = 0;
        m_bufferedLines = 0;
        if (isFull) {
            m_wrapped.store(true, std::memory_order_relaxed);
        }
    }
}

void CNxT120TraceFile::WriteShared(const CRecord& record) {
    if (m_fd < 0) {
        return;
    }
    LockFile(F_WRLCK);
    long offset = ReadOffset();
    if (m_maxSize != 0 && m_maxSize <= offset) {
        Truncate(m_fd, offset);
        offset = HEADER_SIZE;
    }
    CRecord whole = record;
    whole.Add(MARKER, MARKER_SIZE);
    // What cannot be written is dropped.
    static_cast<void>(Put(offset, whole.m_parts, whole.m_count, record.m_length));
    LockFile(F_UNLCK);
}

long CNxT120TraceFile::ReadOffset() {
    char text[HEADER_SIZE + 1] = {};
    ssize_t n = 0;
    do {
        n = pread(m_fd, text, HEADER_SIZE, 0);
    } while (n < 0 && errno == EINTR);
    const long offset = std::strtol(text, nullptr, 10);
    if (offset < HEADER_SIZE || (offset != m_lastOffset && offset > GetSize())) {
        return HEADER_SIZE;
    }
    return offset;
}

bool CNxT120TraceFile::Put(long offset, iovec* parts, int count, size_t recordBytes) {
    assert(offset >= HEADER_SIZE && recordBytes > 0);
    const long end = offset + static_cast<long>(recordBytes);
    const size_t written = WriteParts(m_fd, parts, count, offset);
    if (written == recordBytes + MARKER_SIZE && WriteHeader(end)) {
        m_lastOffset = end;
        return true;
    }
    if (written > 0) {
        RestoreMarker(offset, written);
    }
    return false;
}

// After a write of which only `written` bytes reached the file.
void CNxT120TraceFile::RestoreMarker(long offset, size_t written) {
    assert(offset >= HEADER_SIZE && written > 0);
    const bool isAtTheEnd = GetSize() <= offset + static_cast<long>(std::max(written, MARKER_SIZE));
    iovec marker = Part(MARKER, MARKER_SIZE);
    const bool isRestored = WriteParts(m_fd, &marker, 1, offset) == MARKER_SIZE;
    if (isAtTheEnd) {
        Truncate(m_fd, offset + (isRestored ? static_cast<long>(MARKER_SIZE) : 0));
    }
}

bool CNxT120TraceFile::WriteHeader(long offset) {
    assert(offset >= HEADER_SIZE);
    char text[HEADER_SIZE + 1];
    std::snprintf(text, sizeof(text), "%-31ld\n", offset);
    assert(text[HEADER_SIZE - 1] == '\n');
    iovec header = Part(text, HEADER_SIZE);
    return WriteParts(m_fd, &header, 1, 0) == static_cast<size_t>(HEADER_SIZE);
}

// The disk may have room for a part of it only; then it comes with the first record.
void CNxT120TraceFile::WriteFirstHeader() {
    if (!WriteHeader(HEADER_SIZE)) {
        Truncate(m_fd, 0);
    }
}

long CNxT120TraceFile::GetSize() const {
    struct stat status {};
    return fstat(m_fd, &status) == 0 ? static_cast<long>(status.st_size) : 0;
}
