// NxTrace for programs that trace to a file of several processes, too.
#pragma once

#include <nx/trace/CNxT120Trace.h>

#include <string>

namespace examples {

// Has every further line also written to a trace file that other processes write to as well. Before
// any other thread traces, once.
void ShareTrace(const std::string& file);

// Whether lines of the level go anywhere.
bool IsTraced(unsigned long level);
void TraceText(unsigned long level, const char* text);

// As NxTrace.
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
