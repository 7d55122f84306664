// A text log file of bounded size that says itself where its newest record ends.
//
//     offset 0    "%-31ld\n"            the offset of the marker: where the next record goes
//     offset 32   one record a line     "[MM/DD/YYYY hh:mm:ss.mmm pid=P tid=T] PREFIX:TEXT\n"
//                                       without tag or prefix: "[...] TEXT\n"
//     after the newest record           "************************* Current Trace Point
//                                       *************************\n\n" (in one line)
//     after the marker                  in a shared file that has wrapped: what is left of the
//                                       older records, the first one cut
//
// A new file is a header holding 32. Every write goes records and marker first, header last, so
// the header is right whenever a writer dies. tools/nxtrace reads these files.
//
// A private file belongs to this process: records collect in a buffer of N times 2048 bytes and are
// written every N records; a full file (header offset >= maximum when a flush begins) still takes
// that flush and from then on is_wrapped(). A shared file is written by any number of processes,
// each record at once, under an fcntl(2) lock of the whole file; a full one goes on at offset 32.
#pragma once

#include <nx/foundation/CNxMutexThread.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

struct CTraceStamp;
struct iovec;
struct stat;

// One file, as a rule owned by a CNxT120TraceFileMgr. Any thread may call any operation; locks
// inside serialise them. A thread is not cancelled inside of one.
//
// NOBODY LEARNS BY A RESULT THAT A RECORD IS LOST: records that are dropped are counted, and the
// count, "7 records lost" with the prefix Warning, is the first record that is written again.
// - A file that cannot be opened drops records, and tries again with one of them a second.
// - When a write fails (a full disk, say), or the header cannot be read, the header stays where it
//   is and the marker is put back: what was on disk stays readable. A private file keeps the
//   records in its buffer and tries again with each further one; while the buffer is full new
//   records are dropped. A shared file drops the record.
// - A record waits 200 ms for another process that has the lock of a shared file, then it is
//   dropped; later ones try, but do not wait, until one has got through. Other threads' records go
//   on meanwhile.
// A file that was not asked to be opened drops records, too; these are not counted.
//
// Other users may write to the folder of the file: links are not followed, and a file is refused
// that is not regular, has more names than one, or belongs to neither the process's user nor root.
// One line on stderr tells of a file that is refused or cannot be opened (CNxOwnLines).
//
// Whoever meddles with the file: a header that is no number, lies below 32 or beyond the end of
// the file counts as 32. In a private file that is so only for its first flush and after a fork(2):
// otherwise the header IS NOT READ BACK, and a file that somebody else has emptied goes on at the
// offset where it was, after zeros.
class CNxT120TraceFile {
public:
    // With a name and a non-zero `create` the file is made anew - emptied if it exists, in shared
    // mode under the lock. `maxSize` in bytes, 0 for unlimited.
    // To leave in place what other processes wrote to a shared file, pass 0 for `create` and call
    // attach().
    CNxT120TraceFile(const char* fileName, unsigned long maxSize, unsigned char shared,
                     unsigned char create);
    // Flushes.
    ~CNxT120TraceFile();

    CNxT120TraceFile(const CNxT120TraceFile&) = delete;
    CNxT120TraceFile& operator=(const CNxT120TraceFile&) = delete;

    // Opens the file as it is; makes it when it is missing. False when it has no name, is open
    // already, is not shared or cannot be opened now; it is then tried again.
    [[nodiscard]] bool attach();

    // Whether a file with that status would not be refused.
    [[nodiscard]] static bool IsSafe(const struct stat& status);

    // The access mode of files that this process makes from now on, whatever its umask; -1, which
    // it is at first: 0666 for shared files, the umask's choice for private ones. Files that are
    // there already keep theirs. The trace engine sets it whenever it reads its configuration.
    static void SetMode(int mode);

    // Whether the name is exactly this; false for null and for a file without a name.
    bool is_same_file(const char* name) const;

    // Adds a record, stamped with now. With tag and prefix it takes the prefixed form; the tag
    // itself is never printed. Nothing happens without a text.
    // A private file's record that does not fit what is left of the buffer has the buffer flushed
    // first; one longer than the whole buffer is cut and still ends its line.
    void write(const char* tag, const char* prefix, const char* text);
    void write(const CTraceStamp& stamp, const char* tag, const char* prefix, const char* text);

    // Adds a record the way shared files do, whatever the file is.
    void write_shared(const char* tag, const char* prefix, const char* text);

    // Writes what the buffer holds.
    void flush_buffer();

    // Flushes, then sets the maximum size in bytes and the number of records per flush (below 1
    // counts as 1, above 65536 as 65536). That number stays as it is while a full disk holds
    // records back, and when there is no memory for them, 2 KiB a record. Returns 1, always.
    int refresh_settings(unsigned long maxSize, int linesPerFlush);

    // Whether a private file has reached its maximum size.
    bool is_wrapped() const { return m_wrapped.load(std::memory_order_relaxed); }

    bool is_shared() const { return m_shared != 0; }

    // Not while another thread attaches or writes.
    bool is_open() const { return m_fd >= 0; }

    // Whether the next record is going to open the file.
    bool is_to_open() const;

    // Flushes, and hands over how many records have been dropped: the file that takes this one's
    // place tells. Those that could not be flushed are among them.
    [[nodiscard]] unsigned long TakeLost();
    void AddLost(unsigned long count);

    // The process ends: flushes a private file and from now on writes each record at once.
    void drain();

    // Around a fork(2), called on every file of the process: a flushed buffer and free locks are
    // what both processes start from. A child drops what could not be flushed; it is the parent's.
    static void LockSharedFiles();
    static void UnlockSharedFiles();
    void BeforeFork();
    void AfterFork(bool isChild);

private:
    using CClock = std::chrono::steady_clock;
    struct CRecord;
    enum TOpening { NOT_ASKED, ANEW, KEEPING_RECORDS };

    CNxMutexThread& GetMutex();
    void Write(const CTraceStamp& stamp, const char* tag, const char* prefix, const char* text,
               bool isShared);
    void WriteAfterLost(const CTraceStamp& stamp, const char* tag, const char* prefix,
                        const char* text, bool isShared);
    [[nodiscard]] bool EnsureOpen(CClock::time_point deadline);
    [[nodiscard]] bool Open(CClock::time_point deadline);
    [[nodiscard]] bool Prepare(int fd, CClock::time_point deadline);
    void Complain(const char* problem) const;
    [[nodiscard]] bool LockFile(int fd, CClock::time_point deadline);
    [[nodiscard]] bool Take(const CRecord& record, bool isShared);
    [[nodiscard]] bool Append(const CRecord& record);
    void Flush();
    [[nodiscard]] bool WriteShared(const CRecord& record);
    [[nodiscard]] long ReadOffset();
    [[nodiscard]] bool Put(long offset, iovec* parts, int count, size_t recordBytes);
    void RestoreMarker(long offset, size_t written);

    const std::string m_fileName;
    long m_maxSize;
    const unsigned char m_shared;
    int m_fd = -1;
    // What is to be done as long as there is no descriptor.
    TOpening m_opening = NOT_ASKED;
    CClock::time_point m_nextTry;
    // Another process kept the lock longer than a record waits.
    bool m_isLockStuck = false;
    unsigned long m_lost = 0;
    unsigned int m_linesPerFlush = 1;
    unsigned int m_bufferedLines = 0;
    size_t m_bufferedBytes = 0;
    // With room for a marker behind the records.
    std::unique_ptr<char[]> m_buffer;
    // What this object put into the header last; such an offset needs no checking.
    long m_lastOffset = 0;
    // Nobody else can have written to the file unless there were further forks: then the header
    // still holds that.
    const unsigned int m_forks;
    bool m_isAlone;
    bool m_draining = false;
    std::atomic<bool> m_wrapped{false};
    CNxMutexThread m_mutex;
};
