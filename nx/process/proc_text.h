// Inside the library only: reads the texts that the kernel writes in /proc/PID (proc(5)).
#pragma once

#include <nx/foundation/CNxString.h>
#include <sys/types.h>

#include <string_view>
#include <vector>

// What /proc/PID/stat says, as far as it is wanted.
struct CProcStat {
    pid_t m_pid = 0;
    CNxString m_name;  // at most 15 bytes, any but zero
    char m_state = '?';
    pid_t m_parent = 0;
    unsigned long m_threads = 0;
    unsigned long m_startTicks = 0;  // since boot
    unsigned long m_residentPages = 0;
};

// False, with `stat` unchanged, when the text is not one.
[[nodiscard]] bool ParseProcStat(std::string_view text, CProcStat& stat);

// The pieces of /proc/PID/cmdline. Each ends with a zero byte, but the process may have written
// over it: then the last one may lack it.
std::vector<CNxString> SplitCommandLine(std::string_view text);
