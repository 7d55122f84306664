// One trace line, put together from its parts.
#pragma once

#include <nx/trace/CNxT120Trace.h>

#include <string>

namespace examples {

// Levels of g_logMapEntry.
constexpr unsigned long c_traceError = 1;
constexpr unsigned long c_traceWarning = 11;
constexpr unsigned long c_traceInfo = 21;

// Has every further line also written to a trace file that other processes write to as well. Before
// any other thread traces, once.
void ShareTrace(const std::string& file);

// Whether lines of the level go anywhere.
bool IsTraced(unsigned long level);
void TraceText(unsigned long level, const char* text);

// Parts are what Text_Formator takes: numbers and C strings. Costs next to nothing while the level
// is off. Any thread.
template <class... Parts>
void Trace(unsigned long level, const Parts&... parts) {
    if (IsTraced(level)) {
        char buffer[1024];
        Text_Formator text(buffer, sizeof(buffer));
        (text << ... << parts);
        TraceText(level, buffer);
    }
}

}  // namespace examples
