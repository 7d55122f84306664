#include <fcntl.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/foundation/own_lines.h>
#include <nx/foundation/write_parts.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CTraceStamp.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

namespace {

constexpr long HEADER_SIZE = 32;
constexpr long UNKNOWN = -1;
constexpr size_t LINE_SIZE = 2048;
constexpr int MAX_LINES = 65536;
constexpr char MARKER[] =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t MARKER_SIZE = sizeof(MARKER) - 1;

constexpr auto OPEN_INTERVAL = std::chrono::seconds(1);
constexpr auto MAX_LOCK_WAIT = std::chrono::milliseconds(200);
constexpr auto MAX_LOCK_PAUSE = std::chrono::microseconds(1000);

std::atomic<int> s_mode{-1};

// Locks of fcntl(2) exclude processes only, and closing any descriptor of a file drops them all:
// within the process one mutex orders everything that is done with shared files.
CNxMutexThread& SharedFilesMutex() {
    static auto& s_mutex = *new CNxMutexThread;
    return s_mutex;
}

iovec Part(const char* text, size_t length) {
    return {const_cast<char*>(text), length};
}

void Truncate(int fd, long size) {
    // What a refusal leaves there lies beyond the marker, where nobody relies on it.
    while (ftruncate(fd, size) != 0 && errno == EINTR) {
    }
}

long BoundSize(unsigned long maxSize) {
    return static_cast<long>(std::min(maxSize, static_cast<unsigned long>(LONG_MAX)));
}

// The largest when the system does not tell: what is there is not taken for nothing.
long GetSize(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? static_cast<long>(status.st_size) : LONG_MAX;
}

bool WriteHeader(int fd, long offset) {
    assert(offset >= HEADER_SIZE);
    char text[HEADER_SIZE];
    std::memset(text, ' ', sizeof(text) - 1);
    std::to_chars(text, text + sizeof(text) - 1, offset);
    text[sizeof(text) - 1] = '\n';
    iovec header = Part(text, sizeof(text));
    return WriteParts(fd, &header, 1, 0) == static_cast<size_t>(HEADER_SIZE);
}

// The disk may have room for a part of it only; then it comes with the first record.
void WriteFirstHeader(int fd) {
    if (!WriteHeader(fd, HEADER_SIZE)) {
        Truncate(fd, 0);
    }
}

// Tells whether this call made the file. -1 with errno; ELOOP when a link is in its place.
int OpenOrMake(const char* path, bool& isNew) {
    // O_NONBLOCK, for a FIFO in its place would be waited for.
    constexpr int FLAGS = O_RDWR | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;
    int fd = open(path, FLAGS | O_CREAT | O_EXCL, 0666);
    isNew = fd >= 0;
    if (fd < 0 && errno == EEXIST) {
        fd = open(path, FLAGS);
    }
    return ToHighDescriptor(fd);
}

void SetLock(struct flock& lock, short type) {
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
}

// False only while another process has it: a file that cannot be locked is written without.
bool TryLockFile(int fd) {
    struct flock lock {};
    SetLock(lock, F_WRLCK);
    return fcntl(fd, F_SETLK, &lock) == 0 || (errno != EAGAIN && errno != EACCES && errno != EINTR);
}

void UnlockFile(int fd) {
    struct flock lock {};
    SetLock(lock, F_UNLCK);
    while (fcntl(fd, F_SETLK, &lock) != 0 && errno == EINTR) {
    }
}

// Of this process and of those that it comes from: parent and child may both write to a file that
// was open before. Without the memory for the handler they must not.
std::atomic<unsigned int> s_forks{0};
[[maybe_unused]] const int s_forkNotice = pthread_atfork([] { ++s_forks; }, nullptr, nullptr);

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
      m_buffer(new char[LINE_SIZE + MARKER_SIZE]),
      m_forks(s_forks.load()),
      m_isAlone(shared == 0) {
    if (!m_fileName.empty() && create != 0) {
        const CCancelOff cancelOff;
        CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
        m_opening = ANEW;
        static_cast<void>(EnsureOpen(CClock::now() + MAX_LOCK_WAIT));  // is_open() tells
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

bool CNxT120TraceFile::IsSafe(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           (status.st_uid == geteuid() || status.st_uid == 0);
}

void CNxT120TraceFile::SetMode(int mode) {
    s_mode.store(mode, std::memory_order_relaxed);
}

bool CNxT120TraceFile::attach() {
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    if (m_shared == 0 || m_fd >= 0 || m_fileName.empty()) {
        return false;
    }
    m_opening = KEEPING_RECORDS;
    m_nextTry = {};
    return EnsureOpen(CClock::now() + MAX_LOCK_WAIT);
}

bool CNxT120TraceFile::is_to_open() const {
    return m_fd < 0 && m_opening != NOT_ASKED && CClock::now() >= m_nextTry;
}

bool CNxT120TraceFile::EnsureOpen(CClock::time_point deadline) {
    if (is_to_open()) {
        // First, for other threads come by while this one waits for the file's lock.
        m_nextTry = CClock::now() + OPEN_INTERVAL;
        const bool isOpened = Open(deadline);
        // A later try finds records that came after the wish to empty the file.
        m_opening = KEEPING_RECORDS;
        return isOpened;
    }
    return m_fd >= 0;
}

bool CNxT120TraceFile::Open(CClock::time_point deadline) {
    assert(m_fd < 0 && !m_fileName.empty());
    bool isNew = false;
    const int fd = OpenOrMake(m_fileName.c_str(), isNew);
    if (fd < 0) {
        Complain(std::strerror(errno));
        return false;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0 || !IsSafe(status)) {
        Complain("not a regular file with one name and an owner to trust");
        close(fd);
        return false;
    }
    const int mode = s_mode.load(std::memory_order_relaxed);
    if (isNew && (mode >= 0 || m_shared != 0)) {
        // As it was made, if the file system knows no modes.
        static_cast<void>(fchmod(fd, mode >= 0 ? static_cast<mode_t>(mode) : 0666));
    }
    if (m_shared == 0) {
        // For who removes old files; unlike the lock of a shared file it lasts as long as the file
        // is open. Refused, it is told from its name alone.
        static_cast<void>(flock(fd, LOCK_SH | LOCK_NB));
    }
    if (!Prepare(fd, deadline)) {
        close(fd);
        return false;
    }
    m_fd = fd;
    return true;
}

// Empties a file that is to be anew, and gives an empty one its header; a shared file under the
// lock, when no other process is in the middle of a record.
bool CNxT120TraceFile::Prepare(int fd, CClock::time_point deadline) {
    const bool isLocked = m_shared != 0;
    if (isLocked && !LockFile(fd, deadline)) {
        Complain("another process keeps its lock");
        return false;
    }
    // Another thread may have opened it meanwhile.
    const bool isFirst = m_fd < 0;
    if (isFirst && m_opening == ANEW) {
        Truncate(fd, 0);
    }
    if (isFirst && GetSize(fd) == 0) {
        WriteFirstHeader(fd);
    }
    if (isLocked) {
        UnlockFile(fd);
    }
    return isFirst;
}

void CNxT120TraceFile::Complain(const char* problem) const {
    ComplainOnce("trace to", m_fileName.c_str(), problem);
}

bool CNxT120TraceFile::is_same_file(const char* name) const {
    return name != nullptr && !m_fileName.empty() && m_fileName == name;
}

void CNxT120TraceFile::write(const char* tag, const char* prefix, const char* text) {
    const CCancelOff cancelOff;
    Write(CurrentTraceStamp(), tag, prefix, text, m_shared != 0);
}

void CNxT120TraceFile::write(const CTraceStamp& stamp, const char* tag, const char* prefix,
                             const char* text) {
    const CCancelOff cancelOff;
    Write(stamp, tag, prefix, text, m_shared != 0);
}

void CNxT120TraceFile::write_shared(const char* tag, const char* prefix, const char* text) {
    const CCancelOff cancelOff;
    Write(CurrentTraceStamp(), tag, prefix, text, true);
}

void CNxT120TraceFile::Write(const CTraceStamp& stamp, const char* tag, const char* prefix,
                             const char* text, bool isShared) {
    if (text == nullptr) {
        return;
    }
    const auto deadline = isShared ? CClock::now() + MAX_LOCK_WAIT : CClock::time_point();
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    if (m_opening == NOT_ASKED) {
        return;
    }
    // The one place that lets other threads by; what follows is not parted.
    if (!EnsureOpen(deadline) || (isShared && !LockFile(m_fd, deadline))) {
        ++m_lost;
        return;
    }
    WriteAfterLost(stamp, tag, prefix, text, isShared);
    if (isShared) {
        UnlockFile(m_fd);
    }
}

void CNxT120TraceFile::WriteAfterLost(const CTraceStamp& stamp, const char* tag, const char* prefix,
                                      const char* text, bool isShared) {
    if (m_lost > 0) {
        char lost[48];
        std::snprintf(lost, sizeof(lost), "%lu records lost", m_lost);
        const char* const lostPrefix = prefix == nullptr ? nullptr : "Warning";
        m_lost = Take(CRecord(stamp, tag, lostPrefix, lost), isShared) ? 0 : m_lost;
    }
    const bool isTaken = m_lost == 0 && Take(CRecord(stamp, tag, prefix, text), isShared);
    m_lost += isTaken ? 0 : 1;
}

bool CNxT120TraceFile::Take(const CRecord& record, bool isShared) {
    return isShared ? WriteShared(record) : Append(record);
}

unsigned long CNxT120TraceFile::TakeLost() {
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    Flush();
    const unsigned long lost = m_lost + m_bufferedLines;
    m_lost = 0;
    m_bufferedBytes = 0;
    m_bufferedLines = 0;
    return lost;
}

void CNxT120TraceFile::AddLost(unsigned long count) {
    const CCancelOff cancelOff;
    CNxMutexGuardT<CNxMutexThread> guard(GetMutex());
    m_lost += count;
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
        std::unique_ptr<char[]> buffer(new (std::nothrow) char[lines * LINE_SIZE + MARKER_SIZE]);
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
        m_lost = 0;
        m_bufferedBytes = 0;
        m_bufferedLines = 0;
    }
    m_mutex.UnLock();
}

// Called, and returns, with the mutex held, but lets go of it between its tries.
bool CNxT120TraceFile::LockFile(int fd, CClock::time_point deadline) NX_NO_THREAD_SAFETY_ANALYSIS {
    assert(fd >= 0);
    auto pause = std::chrono::microseconds(20);
    while (!TryLockFile(fd)) {
        if (m_isLockStuck || CClock::now() >= deadline) {
            m_isLockStuck = true;
            return false;
        }
        GetMutex().UnLock();
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, MAX_LOCK_PAUSE);
        static_cast<void>(GetMutex().Lock());  // it was held before
    }
    m_isLockStuck = false;
    return true;
}

bool CNxT120TraceFile::Append(const CRecord& record) {
    assert(m_fd >= 0);
    // One byte less than the buffer has: its 2048 bytes a record count a terminator.
    const size_t capacity = m_linesPerFlush * LINE_SIZE - 1;
    assert(m_bufferedBytes <= capacity && (m_bufferedBytes == 0) == (m_bufferedLines == 0));
    if (record.m_length > capacity - m_bufferedBytes) {
        Flush();
        if (m_bufferedBytes > 0) {
            return false;
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
    return true;
}

void CNxT120TraceFile::Flush() {
    if (m_fd < 0 || m_bufferedBytes == 0) {
        return;
    }
    const bool isAlone = m_isAlone && m_forks == s_forks.load();
    const long offset = isAlone && m_lastOffset != 0 ? m_lastOffset : ReadOffset();
    if (offset == UNKNOWN) {
        return;
    }
    const bool isFull = m_maxSize != 0 && m_maxSize <= offset;
    if (isFull) {
        Truncate(m_fd, offset);
    }
    std::memcpy(&m_buffer[m_bufferedBytes], MARKER, MARKER_SIZE);
    iovec recordsAndMarker = Part(m_buffer.get(), m_bufferedBytes + MARKER_SIZE);
    if (Put(offset, &recordsAndMarker, 1, m_bufferedBytes)) {
        m_bufferedBytes = 0;
        m_bufferedLines = 0;
        if (isFull) {
            m_wrapped.store(true, std::memory_order_relaxed);
        }
    }
}

// Under the lock of the file.
bool CNxT120TraceFile::WriteShared(const CRecord& record) {
    assert(m_fd >= 0);
    m_isAlone = false;
    long offset = ReadOffset();
    if (offset == UNKNOWN) {
        return false;
    }
    if (m_maxSize != 0 && m_maxSize <= offset) {
        Truncate(m_fd, offset);
        offset = HEADER_SIZE;
    }
    CRecord whole = record;
    whole.Add(MARKER, MARKER_SIZE);
    return Put(offset, whole.m_parts, whole.m_count, record.m_length);
}

// UNKNOWN when the system refuses to read: nothing may be written then, for it would be written
// over the records that are there.
long CNxT120TraceFile::ReadOffset() {
    char text[HEADER_SIZE + 1] = {};
    ssize_t n = 0;
    do {
        n = pread(m_fd, text, HEADER_SIZE, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return UNKNOWN;
    }
    const long offset = std::strtol(text, nullptr, 10);
    if (offset < HEADER_SIZE || (offset != m_lastOffset && offset > GetSize(m_fd))) {
        return HEADER_SIZE;
    }
    return offset;
}

bool CNxT120TraceFile::Put(long offset, iovec* parts, int count, size_t recordBytes) {
    assert(offset >= HEADER_SIZE && recordBytes > 0);
    const long end = offset + static_cast<long>(recordBytes);
    const size_t written = WriteParts(m_fd, parts, count, offset);
    if (written == recordBytes + MARKER_SIZE && WriteHeader(m_fd, end)) {
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
    const bool isAtTheEnd =
        GetSize(m_fd) <= offset + static_cast<long>(std::max(written, MARKER_SIZE));
    iovec marker = Part(MARKER, MARKER_SIZE);
    const bool isRestored = WriteParts(m_fd, &marker, 1, offset) == MARKER_SIZE;
    if (isAtTheEnd) {
        Truncate(m_fd, offset + (isRestored ? static_cast<long>(MARKER_SIZE) : 0));
    }
}
