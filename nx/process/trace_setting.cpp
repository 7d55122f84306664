#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxUtils.h>
#include <nx/foundation/standard_streams.h>
#include <nx/process/process_path.h>
#include <nx/process/trace_setting.h>

#include <atomic>
#include <cassert>
#include <cstring>
#include <mutex>

char g_currentProcessName1[1024];
char g_strTracehome1[2048];
char g_strConfigfile1[1024];
char g_strLogDir1[2048];

namespace {

std::mutex s_initMutex;
std::atomic<bool> s_initialised{false};

struct CExecName {
    CExecName() { BufferStringCopy(m_path, sizeof(m_path), GetProcessName()); }
    char m_path[1024] = "";
};

// Writes to the texts while they are still all zeros.
void InitOnce() {
    assert(g_strTracehome1[0] == '\0' && g_strConfigfile1[0] == '\0');
    const CNxString name = get_process_name();
    PrintToStdout("name:%s\n", name.c_str());
    if (name.empty()) {
        return;
    }
    // All memory first: without it the next call begins anew.
    const CNxString home = GetBinHomePath();
    const CNxString configFile = home + "/conf/" + name + ".cfg";
    const CNxString logDir = home + "/logs/";
    BufferStringCopy(g_currentProcessName1, sizeof(g_currentProcessName1), name);
    BufferStringCopy(g_strTracehome1, sizeof(g_strTracehome1), home);
    BufferStringCopy(g_strConfigfile1, sizeof(g_strConfigfile1), configFile);
    BufferStringCopy(g_strLogDir1, sizeof(g_strLogDir1), logDir);
    PrintToStdout("trace_setting_init, g_strTracehome1=%s\n", g_strTracehome1);
    PrintToStdout("trace_setting_init, g_strConfigfile1=%s\n", g_strConfigfile1);
    PrintToStdout("trace_setting_init, g_strLogDir1=%s\n", g_strLogDir1);
    PrintToStdout("trace_setting_init, g_currentProcessName1=%s\n", g_currentProcessName1);
    s_initialised.store(true, std::memory_order_release);
}

}  // namespace

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
