#include <nx/config/init_file.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/CNxUtils.h>
#include <nx/foundation/own_lines.h>
#include <nx/foundation/standard_streams.h>
#include <nx/process/trace_setting.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CNxT120TraceFileMgr.h>
#include <nx/trace/CTraceStamp.h>
#include <nx/trace/trace_retention.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace {

using CGuard = CNxMutexGuardT<CNxMutexThreadRecursive>;

// The last level keeps its default.
constexpr unsigned long CONFIGURED_LEVELS = NX_TRACE_LEVELS - 1;

constexpr unsigned long LEVEL_INFO = 21;

constexpr int MIN_SIZE = 1025;
constexpr int DEFAULT_SIZE = 20971520;
constexpr size_t PRINT_SIZE = 2048;

constexpr char SECTION[] = "Trace";

constexpr auto OPEN_INTERVAL = std::chrono::seconds(1);

struct CFileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using CConfig = std::unique_ptr<FILE, CFileCloser>;

unsigned long GetSizeParam(const CConfig& config, const char* key) {
    const int size = get_int_param(config.get(), SECTION, key);
    return static_cast<unsigned long>(size < MIN_SIZE ? DEFAULT_SIZE : size);
}

// 0 for none.
unsigned long GetCountParam(const CConfig& config, const char* key) {
    return static_cast<unsigned long>(std::max(get_int_param(config.get(), SECTION, key), 0));
}

bool GetProcessSwitch(const CConfig& config, const char* name, bool defaultValue) {
    char key[1100];
    std::snprintf(key, sizeof(key), "%s.%s", CNxT120Trace::get_process_name(), name);
    return get_bool_param(config.get(), SECTION, key, defaultValue ? 1 : 0) != 0;
}

// The key's digits are octal. What would keep the process itself out is added; -1 without a mode.
int GetModeParam(const CConfig& config) {
    const int digits = get_int_param(config.get(), SECTION, "FileMode");
    const int user = digits / 100;
    const int group = digits / 10 % 10;
    const int others = digits % 10;
    const bool isMode = digits > 0 && user < 8 && group < 8 && others < 8;
    return isMode ? 0600 | user << 6 | group << 3 | others : -1;
}

// Whether a new file cannot have that path.
bool IsTaken(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return false;
    }
    const bool isSafe = CNxT120TraceFile::IsSafe(status);
    if (!isSafe) {
        ComplainOnce("trace to", path.c_str(), "planted by another user");
    }
    return !isSafe || status.st_size > 0;
}

// Mostly it is there; when it cannot be made, the files cannot be opened, and drop records.
void MakeLogFolder() {
    if (mkdir(g_strLogDir1, 0755) == 0) {
        // The umask may have kept out who reads the traces.
        static_cast<void>(chmod(g_strLogDir1, 0755));
    }
}

void OnBeforeFork() {
    CNxT120Trace::t120_trace.load()->BeforeFork();
}
void OnForkInParent() {
    CNxT120Trace::t120_trace.load()->AfterFork(false);
}
void OnForkInChild() {
    CNxT120Trace::t120_trace.load()->AfterFork(true);
}

void TraceOwnLine(const char* line) {
    CNxT120Trace::t120_trace.load()->trace_string(LEVEL_INFO, line, false);
}

CNxT120Trace* MakeInstance() {
    trace_setting_init();
    auto* const engine = new CNxT120Trace("Log", g_logMapEntry, nullptr, 0);
    CNxT120Trace::t120_trace.store(engine, std::memory_order_release);
    // Registered later than the files' own handlers, so the engine is locked before them. Without
    // the memory for it a forked child may find the engine locked; all else works.
    static_cast<void>(pthread_atfork(&OnBeforeFork, &OnForkInParent, &OnForkInChild));
    SetLineTracer(&TraceOwnLine);
    return engine;
}

struct CTraceDir {
    CTraceDir() {
        const CNxString dir = get_log_dir();
        BufferStringCopy(m_path, sizeof(m_path), dir.empty() ? "/tmp" : dir);
    }
    char m_path[1024] = "";
};

}  // namespace

CNxT120TraceMapEntry g_logMapEntry[NX_TRACE_LEVELS] = {
    {0, "Fatal", {1}},    {1, "Error", {1}},    {2, "Server", {1}},  {3, "NA", {0}},
    {4, "NA", {0}},       {5, "NA", {0}},       {6, "NA", {0}},      {7, "NA", {0}},
    {8, "NA", {0}},       {8, "NA", {0}},       {10, "NA", {0}},     {11, "Warning", {1}},
    {12, "Meeting", {1}}, {13, "Session", {1}}, {14, "User", {1}},   {15, "Statistic", {1}},
    {16, "NA", {0}},      {17, "NA", {0}},      {18, "NA", {0}},     {19, "NA", {0}},
    {20, "NA", {0}},      {21, "Info", {1}},    {22, "State", {1}},  {23, "PDU", {0}},
    {24, "Func", {0}},    {25, "Tick", {0}},    {26, "Detail", {0}},
};

std::atomic<CNxT120Trace*> CNxT120Trace::t120_trace{nullptr};

CNxT120Trace* CNxT120Trace::instance() {
    CNxT120Trace* const engine = t120_trace.load(std::memory_order_acquire);
    if (engine != nullptr) {
        return engine;
    }
    const CCancelOff cancelOff;
    static CNxT120Trace* const s_engine = MakeInstance();
    return s_engine;
}

CNxT120Trace::CNxT120Trace(const char* name, CNxT120TraceMapEntry* entries, const char* fileName,
                           unsigned char shared)
    : m_name(name), m_mapEntries(entries), m_fileName(fileName), m_shared(shared) {
    const CCancelOff cancelOff;
    {
        CGuard guard(m_mutex);
        const CTraceStamp& stamp = CurrentTraceStamp();
        m_day = stamp.m_day;
        m_month = stamp.m_month;
        m_pid = getpid();
        m_forks = CNxProcessWide::CountForks();
    }
    read_config();
    m_enabled = get_bool_param(SECTION, "Enable", 0) != 0;
    if (m_enabled) {
        load(nullptr);
    }
    m_toStdout = get_bool_param(SECTION, "stdout", 0) != 0;
}

CNxT120Trace::~CNxT120Trace() = default;

void CNxT120Trace::read_config() {
    const CCancelOff cancelOff;
    // The files are read without holding up those who trace.
    CNxMutexGuardT<CNxMutexThread> guard(m_configMutex);
    const CConfig config(open_config_file());
    if (config == nullptr && m_hasConfig) {
        return;
    }
    m_hasConfig = config != nullptr;
    const int lines = std::max(get_int_param(config.get(), SECTION, "FlushPerLines"), 1);
    CNxT120TraceFile::SetMode(GetModeParam(config));
    SetKernelThreadIds(get_bool_param(config.get(), SECTION, "KernelThreadId", 0) != 0);
    CNxT120TraceFileMgr::Instance().refresh_settings(GetSizeParam(config, get_process_name()),
                                                     lines);
    m_enabled = get_bool_param(config.get(), SECTION, "Enable", 1) != 0;
    for (unsigned long i = 0; i < CONFIGURED_LEVELS; ++i) {
        CNxT120TraceMapEntry& entry = m_mapEntries[i];
        if (entry.name != nullptr) {
            entry.enabled = GetProcessSwitch(config, entry.name, entry.enabled != 0) ? 1 : 0;
        }
    }
}

int CNxT120Trace::load(void* file) {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    const CTraceStamp& stamp = CurrentTraceStamp();
    NoticeFork(stamp);
    if (file != nullptr || m_files[FILE_INFO].m_handle == nullptr) {
        Open(file, stamp);
    }
    return 1;
}

bool CNxT120Trace::IsToOpen(const CFile& candidate, const void* file) const {
    return file == nullptr || candidate.m_handle == file;
}

// Memory may run out on the way. The records are not the fault of who traces: they are counted.
void CNxT120Trace::Open(void* file, const CTraceStamp& stamp) {
    m_isOpening = true;
    m_nextOpening = std::chrono::steady_clock::now() + OPEN_INTERVAL;
    try {
        OpenFiles(file, stamp);
        m_isOpening = false;
    } catch (const std::bad_alloc&) {
        assert(m_isOpening);
    }
}

void CNxT120Trace::OpenFiles(void* file, const CTraceStamp& stamp) {
    MakeLogFolder();
    SetDate(stamp);
    ReadFileSettings();
    bool isToOpen[FILE_COUNT];
    std::string paths[FILE_COUNT];
    for (int i = 0; i < FILE_COUNT; ++i) {
        isToOpen[i] = IsToOpen(m_files[i], file);
        if (isToOpen[i]) {
            paths[i] = NextPath(m_files[i], stamp);
        }
    }
    for (int i = 0; i < FILE_COUNT; ++i) {
        if (isToOpen[i]) {
            Close(m_files[i].m_handle);
        }
    }
    for (int i = 0; i < FILE_COUNT; ++i) {
        if (isToOpen[i]) {
            OpenFile(static_cast<TFile>(i), paths[i]);
        }
    }
}

void CNxT120Trace::ReadFileSettings() {
    const CConfig config(open_config_file());
    if (config == nullptr && m_hasConfig) {
        return;
    }
    m_hasConfig = config != nullptr;
    m_maxSize = GetSizeParam(config, m_fileName != nullptr ? m_fileName : get_process_name());
    m_keepFiles = GetCountParam(config, "KeepFiles");
    m_keepDays = GetCountParam(config, "KeepDays");
    CNxT120TraceFile::SetMode(GetModeParam(config));
    m_enabled = get_bool_param(config.get(), SECTION, "Enable", 0) != 0;
    for (CFile& file : m_files) {
        file.m_isWanted = GetProcessSwitch(config, file.m_key, false);
    }
}

void CNxT120Trace::OpenFile(TFile which, const std::string& path) {
    CFile& file = m_files[which];
    if (!file.m_isWanted) {
        file.m_lost = 0;
        return;
    }
    file.m_handle = static_cast<CNxT120TraceFile*>(
        CNxT120TraceFileMgr::Instance().open(path.c_str(), m_maxSize, m_shared, m_enabled ? 1 : 0));
    file.m_handle->AddLost(std::exchange(file.m_lost, 0));
    if (m_fileName == nullptr && m_enabled) {
        RemoveOldTraceFiles(g_strLogDir1, NameStart(file), path.substr(path.rfind('/') + 1),
                            {m_keepFiles, m_keepDays});
    }
}

void CNxT120Trace::FinishOpening(const CTraceStamp& stamp) {
    if (m_isOpening && std::chrono::steady_clock::now() >= m_nextOpening) {
        Open(nullptr, stamp);
    }
}

// A fixed file name gives one file for all kinds of lines.
void CNxT120Trace::Close(CNxT120TraceFile* file) {
    if (file == nullptr) {
        return;
    }
    for (CFile& candidate : m_files) {
        if (candidate.m_handle == file) {
            candidate.m_lost += file->TakeLost();
            candidate.m_handle = nullptr;
        }
    }
    CNxT120TraceFileMgr::Instance().close(file);
}

// What the names of a kind of files have in common, up to the date.
std::string CNxT120Trace::NameStart(const CFile& file) const {
    return std::string(get_process_name()) + "_" + file.m_tag + "_";
}

std::string CNxT120Trace::NextPath(CFile& file, const CTraceStamp& stamp) {
    const std::string dir = g_strLogDir1;
    if (m_fileName != nullptr) {
        return m_shared != 0 ? dir + "\\" + m_fileName
                             : dir + "/" + m_fileName + "." + std::to_string(m_pid);
    }
    char date[48];
    std::snprintf(date, sizeof(date), "%02d%02d%04d_", stamp.m_month, stamp.m_day, stamp.m_year);
    // The folder's text ends in a slash of its own; one more does no harm.
    const std::string start = dir + "/" + NameStart(file) + date;
    std::string path;
    do {
        path = start + std::to_string(file.m_sequence) + "." + std::to_string(m_pid) + ".log";
        ++file.m_sequence;
    } while (IsTaken(path));
    return path;
}

void CNxT120Trace::Trace(unsigned long level, const char* text, bool toStdout) {
    const CCancelOff cancelOff;
    if (toStdout) {
        Print(level, text);
    }
    CGuard guard(m_mutex);
    WriteToFiles(level, text);
}

void CNxT120Trace::FatalTraceString(unsigned long level, const char* text) {
    if (level >= NX_TRACE_LEVELS || text == nullptr) {
        return;
    }
    if (is_on(level)) {
        Trace(level, text, true);
        return;
    }
    const CCancelOff cancelOff;
    Print(level, text);
}

void CNxT120Trace::Print(unsigned long level, const char* text) const {
    assert(level < NX_TRACE_LEVELS);
    char line[PRINT_SIZE];
    line[0] = '\0';
    const char* const category = m_mapEntries[level].name;
    if (m_name != nullptr && category != nullptr) {
        std::snprintf(line, sizeof(line), "%s%s:%s\n", CurrentTraceStamp().m_text, category, text);
    }
    PrintToStdout("%s\n", line);
}

const CNxT120Trace::CLevelFile CNxT120Trace::LEVEL_FILES[] = {
    {11, FILE_WARNING}, {0, FILE_FATAL}, {1, FILE_ERROR}};

void CNxT120Trace::WriteToFiles(unsigned long level, const char* text) {
    assert(level < NX_TRACE_LEVELS);
    const CTraceStamp& stamp = CurrentTraceStamp();
    NoticeFork(stamp);
    FinishOpening(stamp);
    WriteToFile(FILE_INFO, stamp, m_mapEntries[level].name, text);
    NoticeNewDay(stamp);
    ReopenIfFull(FILE_INFO, stamp);
    for (const CLevelFile& own : LEVEL_FILES) {
        if (own.m_level == level) {
            WriteToFile(own.m_file, stamp, m_files[own.m_file].m_key, text);
            ReopenIfFull(own.m_file, stamp);
        }
    }
}

void CNxT120Trace::WriteToFile(TFile which, const CTraceStamp& stamp, const char* prefix,
                               const char* text) {
    CFile& file = m_files[which];
    if (file.m_handle == nullptr) {
        file.m_lost += m_isOpening ? 1 : 0;
        return;
    }
    if (file.m_handle->is_to_open()) {
        MakeLogFolder();
    }
    file.m_handle->write(stamp, m_name, prefix, text);
}

void CNxT120Trace::ReopenIfFull(TFile which, const CTraceStamp& stamp) {
    CNxT120TraceFile* const file = m_files[which].m_handle;
    if (file != nullptr && file->is_wrapped()) {
        Open(file, stamp);
    }
}

void CNxT120Trace::NoticeFork(const CTraceStamp& stamp) {
    if (m_forks == CNxProcessWide::CountForks()) {
        return;
    }
    m_forks = CNxProcessWide::CountForks();
    m_pid = getpid();
    ResetSequences();
    if (HasFile()) {
        Open(nullptr, stamp);
    }
}

bool CNxT120Trace::HasFile() const {
    return std::any_of(std::begin(m_files), std::end(m_files),
                       [](const CFile& file) { return file.m_handle != nullptr; });
}

bool CNxT120Trace::HasOpenFile() const {
    return std::any_of(std::begin(m_files), std::end(m_files), [](const CFile& file) {
        return file.m_handle != nullptr && file.m_handle->is_open();
    });
}

bool CNxT120Trace::SetDate(const CTraceStamp& stamp) {
    assert(stamp.m_month >= 1 && stamp.m_month <= 12 && stamp.m_day >= 1);
    if (stamp.m_day == m_day && stamp.m_month == m_month) {
        return false;
    }
    m_day = stamp.m_day;
    m_month = stamp.m_month;
    ResetSequences();
    return true;
}

void CNxT120Trace::ResetSequences() {
    for (CFile& file : m_files) {
        file.m_sequence = 0;
    }
}

void CNxT120Trace::NoticeNewDay(const CTraceStamp& stamp) {
    if (!SetDate(stamp)) {
        return;
    }
    // Only without an info file does the new day open files that were closed.
    if (m_files[FILE_INFO].m_handle == nullptr) {
        Open(nullptr, stamp);
        return;
    }
    bool wasOpen[FILE_COUNT];
    for (int i = 0; i < FILE_COUNT; ++i) {
        wasOpen[i] = m_files[i].m_handle != nullptr;
    }
    for (int i = 0; i < FILE_COUNT; ++i) {
        if (wasOpen[i] && m_files[i].m_handle != nullptr) {
            Open(m_files[i].m_handle, stamp);
        }
    }
}

void CNxT120Trace::OpenIfSwitchedOn() {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    const CTraceStamp& stamp = CurrentTraceStamp();
    NoticeFork(stamp);
    if (!HasOpenFile() && get_bool_param(SECTION, "Enable", 0) != 0) {
        Open(nullptr, stamp);
    }
}

// A lock that cannot be taken would not be in the way of the child either.
void CNxT120Trace::BeforeFork() NX_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<void>(m_configMutex.Lock());
    static_cast<void>(m_mutex.Lock());
}

void CNxT120Trace::AfterFork(bool isChild) NX_NO_THREAD_SAFETY_ANALYSIS {
    if (isChild) {
        // The lock's owner is the parent's thread, which is not the child's to unlock.
        new (&m_mutex) CNxMutexThreadRecursive;
    } else {
        m_mutex.UnLock();
    }
    m_configMutex.UnLock();
}

char* CNxT120Trace::get_trace_dir() {
    static CTraceDir s_dir;
    return s_dir.m_path;
}

char* CNxT120Trace::get_process_name() {
    static char s_unknown[] = "bztrace";
    return get_exec_name()[0] == '\0' ? s_unknown : ::get_process_name();
}

void refresh_trace_config() {
    trace_setting_init();
    CNxT120Trace* const engine = CNxT120Trace::instance();
    engine->read_config();
    engine->OpenIfSwitchedOn();
}
