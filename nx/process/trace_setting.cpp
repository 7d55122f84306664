#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxUtils.h>
#include <nx/foundation/own_lines.h>
#include <nx/process/process_path.h>
#include <nx/process/trace_setting.h>

#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

char g_currentProcessName1[1024];
char g_strTracehome1[2048];
char g_strConfigfile1[1024];
char g_strLogDir1[2048];

namespace {

std::mutex s_initMutex;
std::atomic<bool> s_initialised{false};

// Leaves room for the name of any program in g_strConfigfile1.
constexpr size_t MOST_BYTES = 760;

// What was given, absolute; empty for nothing. With s_initMutex.
struct CDir {
    const char* m_variable;
    char m_path[MOST_BYTES + 1];
};
CDir s_configDir = {"NXBASE_CONF_DIR", ""};
CDir s_logDir = {"NXBASE_LOG_DIR", ""};

NxResult Give(CDir& dir, const char* path) {
    if (path == nullptr || *path == '\0') {
        return NX_ERROR_INVALID_ARG;
    }
    char current[PATH_MAX] = "";
    const bool isAbsolute = *path == '/';
    if (!isAbsolute && getcwd(current, sizeof(current)) == nullptr) {
        return NX_ERROR_FAILURE;
    }
    char absolute[MOST_BYTES + 1];
    const int length =
        std::snprintf(absolute, sizeof(absolute), "%s%s%s", current, isAbsolute ? "" : "/", path);
    if (length < 0 || length > static_cast<int>(MOST_BYTES)) {
        errno = ENAMETOOLONG;
        return NX_ERROR_INVALID_ARG;
    }
    std::memcpy(dir.m_path, absolute, static_cast<size_t>(length) + 1);
    return NX_OK;
}

NxResult GiveBeforeInit(CDir& dir, const char* path) {
    const CCancelOff cancelOff;
    const std::lock_guard<std::mutex> lock(s_initMutex);
    return s_initialised.load() ? NX_ERROR_ALREADY_INITIALIZED : Give(dir, path);
}

// What a call has not given the environment may give.
const char* GetGiven(CDir& dir) {
    const char* const value = dir.m_path[0] == '\0' ? secure_getenv(dir.m_variable) : nullptr;
    if (value != nullptr && *value != '\0' && Give(dir, value) != NX_OK) {
        ComplainOnce("use", dir.m_variable, std::strerror(errno));
    }
    return dir.m_path;
}

CNxString GetConfigDir(const CNxString& home) {
    const char* const given = GetGiven(s_configDir);
    return *given == '\0' ? home + "/conf" : CNxString(given);
}

CNxString GetLogDir(const CNxString& home) {
    const char* const given = GetGiven(s_logDir);
    return *given == '\0' ? home + "/logs" : CNxString(given);
}

// A program needs no configuration, but where one is looked for by request it should be.
void ComplainIfMissing(const char* configFile) {
    if (s_configDir.m_path[0] != '\0' && access(configFile, F_OK) != 0) {
        ComplainOnce("read", configFile, std::strerror(errno));
    }
}

struct CExecName {
    CExecName() { BufferStringCopy(m_path, sizeof(m_path), GetProcessName()); }
    char m_path[1024] = "";
};

// Writes to the texts while they are still all zeros.
void InitOnce() {
    assert(g_strTracehome1[0] == '\0' && g_strConfigfile1[0] == '\0');
    const CNxString name = get_process_name();
    SayOnStdout("name:%s\n", name.c_str());
    if (name.empty()) {
        return;
    }
    // All memory first: without it the next call begins anew.
    const CNxString home = GetBinHomePath();
    const CNxString configFile = GetConfigDir(home) + "/" + name + ".cfg";
    const CNxString logDir = GetLogDir(home) + "/";
    BufferStringCopy(g_currentProcessName1, sizeof(g_currentProcessName1), name);
    BufferStringCopy(g_strTracehome1, sizeof(g_strTracehome1), home);
    BufferStringCopy(g_strConfigfile1, sizeof(g_strConfigfile1), configFile);
    BufferStringCopy(g_strLogDir1, sizeof(g_strLogDir1), logDir);
    SayOnStdout("trace_setting_init, g_strTracehome1=%s\n", g_strTracehome1);
    SayOnStdout("trace_setting_init, g_strConfigfile1=%s\n", g_strConfigfile1);
    SayOnStdout("trace_setting_init, g_strLogDir1=%s\n", g_strLogDir1);
    SayOnStdout("trace_setting_init, g_currentProcessName1=%s\n", g_currentProcessName1);
    ComplainIfMissing(g_strConfigfile1);
    s_initialised.store(true, std::memory_order_release);
}

}  // namespace

NxResult set_config_dir(const char* path) {
    return GiveBeforeInit(s_configDir, path);
}

NxResult set_log_dir(const char* path) {
    return GiveBeforeInit(s_logDir, path);
}

CNxString get_log_dir() {
    const CNxString home = GetBinHomePath();
    const CCancelOff cancelOff;
    const std::lock_guard<std::mutex> lock(s_initMutex);
    const bool isUnknown = home.empty() && *GetGiven(s_logDir) == '\0';
    return isUnknown ? CNxString() : GetLogDir(home);
}

void trace_setting_init() {
    if (s_initialised.load(std::memory_order_acquire)) {
        return;
    }
    const CCancelOff cancelOff;
    const std::lock_guard<std::mutex> lock(s_initMutex);
    if (!s_initialised.load(std::memory_order_relaxed)) {
        InitOnce();
    }
}

char* get_exec_name() {
    static CExecName s_name;
    return s_name.m_path;
}

char* get_process_name() {
    static char s_unknown[] = "defproc";
    char* const path = get_exec_name();
    if (path[0] == '\0') {
        return s_unknown;
    }
    char* const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}
