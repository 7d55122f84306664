// The trace engine of the process: a text is checked against the switch of its level, and becomes a
// stamped record in up to four files in the process's log folder.
//
// Programs trace by NxTrace (nx/trace/NxTrace.h), which comes down to
//
//     CNxT120Trace::instance()->trace_string(NX_TRACE_INFO, "listening", false);
//
// NO FILE IS OPENED UNTIL THE CONFIGURATION ASKS FOR IT: what is switched on stands in the section
// Trace of the process's configuration file, HOME/conf/NAME.cfg unless another folder is given
// (nx/process/trace_setting.h):
//
//     [Trace]
//     Enable=TRUE
//     stdout=TRUE
//     NAME.Info=TRUE
//     NAME.Warning=TRUE
//     NAME.PDU=TRUE
//     NAME=1048576
//     FlushPerLines=20
//
// Enable is the master switch. stdout prints every record, too; it is read at the start only.
// NAME.Info switches the info file and the category Info, NAME.Warning, .Error and .Fatal alike;
// any other name of g_logMapEntry switches a category. NAME is the number of bytes a file may grow
// to, below 1025: 20971520. FlushPerLines is how many records a file collects in memory, from the
// first refresh on.
//
// Every record goes to the info file; those of level 11 also to the warning file, of level 1 to the
// error file, of level 0 to the fatal file. The files are HOME/logs/NAME_info_MMDDYYYY_N.PID.log
// and _warning_, _error_, _fatal_, of the form of nx/trace/CNxT120TraceFile.h. N counts the files
// of a day from 0: a file that is full is followed by the next number, a new day begins with new
// files. A file that is there already and is not empty (the clock was set back, the process number
// has been used before) is not overwritten: its number is passed over, and so is that of one that
// another user may have planted, with a line on stderr.
//
// Switches that were read once STAY IN FORCE while the configuration cannot be read: while it is
// missing, empty or no regular file, or no descriptor is left. A file that could not be opened is
// tried again once a second, and begins with the number of records that were lost meanwhile.
//
// The log folder is made when it is missing, with mode 0755. FileMode, four octal digits, is the
// mode of files (CNxT120TraceFile::SetMode). KernelThreadId has records of all threads carry their
// gettid(2) instead of pthread_self(3). KeepFiles and KeepDays have old files removed when
// one is opened: docs/trace.md.
#pragma once

#include <nx/foundation/CNxMutexThread.h>
#include <nx/trace/Text_Formator.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

class CNxT120TraceFile;
struct CTraceStamp;

// A category: what a level is called, and its switch, which tracing threads read without a lock.
struct CNxT120TraceMapEntry {
    std::uint64_t id;
    const char* name;
    std::atomic<std::uint64_t> enabled;
};

// The built-in categories, by level; in the table "NA" is free. On at first:
inline constexpr unsigned long NX_TRACE_FATAL = 0;
inline constexpr unsigned long NX_TRACE_ERROR = 1;
inline constexpr unsigned long NX_TRACE_SERVER = 2;
inline constexpr unsigned long NX_TRACE_WARNING = 11;
inline constexpr unsigned long NX_TRACE_MEETING = 12;
inline constexpr unsigned long NX_TRACE_SESSION = 13;
inline constexpr unsigned long NX_TRACE_USER = 14;
inline constexpr unsigned long NX_TRACE_STATISTIC = 15;
inline constexpr unsigned long NX_TRACE_INFO = 21;
inline constexpr unsigned long NX_TRACE_STATE = 22;
// Off at first, as is what is free. Detail CANNOT BE SWITCHED ON BY CONFIGURATION.
inline constexpr unsigned long NX_TRACE_PDU = 23;
inline constexpr unsigned long NX_TRACE_FUNC = 24;
inline constexpr unsigned long NX_TRACE_TICK = 25;
inline constexpr unsigned long NX_TRACE_DETAIL = 26;
inline constexpr unsigned long NX_TRACE_LEVELS = 27;
extern CNxT120TraceMapEntry g_logMapEntry[NX_TRACE_LEVELS];

// Any thread may call any operation. Nothing is reported: a file that cannot be opened or written
// drops records, and tracing goes on when it can (nx/trace/CNxT120TraceFile.h). Levels from 27 on
// and null texts are refused silently. A thread is not cancelled inside of an operation.
//
// After a fork(2) the child opens files of its own with its first record - the names hold its
// process id - and leaves the parent's alone.
class CNxT120Trace {
public:
    using Text_Formator = ::Text_Formator;
    using Ordix = ::Text_Formator::Ordix;
    static constexpr Ordix HEX = ::Text_Formator::HEX;
    static constexpr Ordix DEC = ::Text_Formator::DEC;

    // The process has one, instance(); further ones are for tools and tests, and not for a forked
    // child of a process that traces to them. Names and table must outlive it; the table (not null)
    // has 27 rows. Without a name records have no category in them. With a `fileName` all records
    // go to one file, LOGS/fileName.PID, or in shared mode the file "fileName" with a BACKSLASH
    // before its name; its size is then the key `fileName`, and a full file starts anew instead of
    // counting on. In shared mode threads wait in line while one waits for the lock of a file.
    // Reads the switches, and opens the files if the configuration says Enable=TRUE.
    CNxT120Trace(const char* name, CNxT120TraceMapEntry* entries, const char* fileName,
                 unsigned char shared);
    // Leaves the files open; they belong to g_trace_mgr.
    virtual ~CNxT120Trace();

    CNxT120Trace(const CNxT120Trace&) = delete;
    CNxT120Trace& operator=(const CNxT120Trace&) = delete;

    // The engine of the process, made by the first call (trace_setting_init included) and never
    // destroyed: threads may trace while the process exits.
    static CNxT120Trace* instance();

    // Nothing, when switches were read once and now the configuration cannot be read. Otherwise
    // reads the switches anew, flushes EVERY file of g_trace_mgr and gives it the size and the
    // records per flush of the configuration. Here a missing Enable counts as TRUE, which lets
    // records through to standard output even if no file is open.
    void read_config();

    // Opens files: for null all four, unless the info file is open already; else the one with that
    // handle anew, under its next number. A file that the configuration no longer wants stays
    // closed. Here a missing Enable counts as FALSE. Returns 1, always.
    int load(void* file);

    // Whether texts of that level become records.
    bool is_on(unsigned long level) const {
        return level < NX_TRACE_LEVELS && m_enabled.load(std::memory_order_relaxed) &&
               m_mapEntries[level].enabled.load(std::memory_order_relaxed) != 0;
    }

    // Writes a record if the level is on. `toStdout`, or the key stdout, also prints it: at most
    // 2047 bytes, and an empty line after it.
    void trace_string(unsigned long level, const char* text, bool toStdout) {
        if (is_on(level) && text != nullptr) {
            Trace(level, text, toStdout || m_toStdout.load(std::memory_order_relaxed));
        }
    }

    // The same, but always prints the record, also when the level or all tracing is switched off.
    void FatalTraceString(unsigned long level, const char* text);

    // The log folder (get_log_dir), at most 1023 bytes; "/tmp" when it is not known. Do not write
    // to it.
    static char* get_trace_dir();

    // The executable's base name, "bztrace" when it is unknown (the free get_process_name returns
    // "defproc"). Do not write to it.
    static char* get_process_name();

    static std::atomic<CNxT120Trace*> t120_trace;

    // Around a fork(2), for the engine of the process.
    void BeforeFork();
    void AfterFork(bool isChild);

private:
    enum TFile { FILE_INFO, FILE_WARNING, FILE_ERROR, FILE_FATAL, FILE_COUNT };
    struct CFile {
        // As in the configuration key, and the prefix of records.
        const char* m_key;
        // As in the file's name.
        const char* m_tag;
        CNxT120TraceFile* m_handle;
        unsigned int m_sequence;
        bool m_isWanted;
        // Records that no file has told of yet.
        unsigned long m_lost;
    };
    // Records of these levels also go to a file of their own.
    struct CLevelFile {
        unsigned long m_level;
        TFile m_file;
    };
    static const CLevelFile LEVEL_FILES[3];

    void Trace(unsigned long level, const char* text, bool toStdout);
    void Print(unsigned long level, const char* text) const;
    void WriteToFiles(unsigned long level, const char* text) NX_REQUIRES(m_mutex);
    void WriteToFile(TFile which, const CTraceStamp& stamp, const char* prefix, const char* text)
        NX_REQUIRES(m_mutex);
    void ReopenIfFull(TFile which, const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void NoticeFork(const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void NoticeNewDay(const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void ResetSequences() NX_REQUIRES(m_mutex);
    bool SetDate(const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void Open(void* file, const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void OpenFiles(void* file, const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void OpenFile(TFile which, const std::string& path) NX_REQUIRES(m_mutex);
    void FinishOpening(const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void ReadFileSettings() NX_REQUIRES(m_mutex);
    bool IsToOpen(const CFile& candidate, const void* file) const;
    bool HasFile() const NX_REQUIRES(m_mutex);
    bool HasOpenFile() const NX_REQUIRES(m_mutex);
    std::string NameStart(const CFile& file) const;
    std::string NextPath(CFile& file, const CTraceStamp& stamp) NX_REQUIRES(m_mutex);
    void Close(CNxT120TraceFile* file) NX_REQUIRES(m_mutex);
    void OpenIfSwitchedOn();
    friend void refresh_trace_config();

    const char* const m_name;
    CNxT120TraceMapEntry* const m_mapEntries;
    const char* const m_fileName;
    const unsigned char m_shared;
    std::atomic<bool> m_enabled{false};
    std::atomic<bool> m_toStdout{false};
    // Puts readers of the configuration in order. Taken before m_mutex, or without it.
    CNxMutexThread m_configMutex;
    CNxMutexThreadRecursive m_mutex;
    CFile m_files[FILE_COUNT] NX_GUARDED_BY(m_mutex) = {
        {"Info", "info", nullptr, 0, false, 0},
        {"Warning", "warning", nullptr, 0, false, 0},
        {"Error", "error", nullptr, 0, false, 0},
        {"Fatal", "fatal", nullptr, 0, false, 0}};
    // Of the configuration, as it was read last.
    unsigned long m_maxSize NX_GUARDED_BY(m_mutex) = 0;
    unsigned long m_keepFiles NX_GUARDED_BY(m_mutex) = 0;
    unsigned long m_keepDays NX_GUARDED_BY(m_mutex) = 0;
    std::atomic<bool> m_hasConfig{false};
    // Memory ran out while files were being opened: all are opened once more, at that time.
    bool m_isOpening NX_GUARDED_BY(m_mutex) = false;
    std::chrono::steady_clock::time_point m_nextOpening NX_GUARDED_BY(m_mutex);
    // The date of the open files.
    int m_day NX_GUARDED_BY(m_mutex);
    int m_month NX_GUARDED_BY(m_mutex);
    int m_pid NX_GUARDED_BY(m_mutex);
    unsigned int m_forks NX_GUARDED_BY(m_mutex);
};

// Reads the switches of the process's engine anew (making it if need be): read_config, and if the
// configuration now says Enable=TRUE while no file is open, the files are opened. Any thread, while
// others trace; not from a signal handler.
void refresh_trace_config();
