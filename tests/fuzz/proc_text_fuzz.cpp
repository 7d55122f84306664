// What the kernel writes in /proc/PID/stat and cmdline, and what it does not.
#include <nx/process/proc_text.h>

#include <string>

#include "Fuzz.h"

namespace {

void CheckStat(std::string_view text) {
    CProcStat stat;
    if (!ParseProcStat(text, stat)) {
        Require(stat.m_pid == 0 && stat.m_name.empty());
        return;
    }
    // The name stands in it as it is, and with the same fields behind another name they are the
    // same.
    Require(text.find("(" + stat.m_name.GetRawData() + ") ") != std::string_view::npos);
    CProcStat renamed;
    const std::string fields(text.substr(text.rfind(") ")));
    Require(ParseProcStat("1 (a) S (b" + fields, renamed) && renamed.m_name == "a) S (b" &&
            renamed.m_startTicks == stat.m_startTicks && renamed.m_state == stat.m_state &&
            renamed.m_parent >= 0);
}

// No byte is lost but the zero at the end.
void CheckCommandLine(std::string_view text) {
    std::string joined;
    for (const CNxString& argument : SplitCommandLine(text)) {
        joined += argument.GetRawData() + '\0';
    }
    const bool isEnded = text.empty() || text.back() == '\0';
    Require(joined == std::string(text) + (isEnded ? std::string() : std::string(1, '\0')));
}

}  // namespace

void Fuzz(std::string_view input) {
    CheckStat(input);
    CheckCommandLine(input);
}
