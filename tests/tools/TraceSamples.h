// Trace files made by hand, byte for byte, for what the library's writer does not write.
#pragma once

#include <cstdio>
#include <string>

#include "trace_record.h"

// A line of 11/21/2026 at that second after 09:00:00.
inline std::string RecordLine(int second, const std::string& levelAndText, int pid = 77,
                              int tid = -5) {
    char head[80];
    std::snprintf(head, sizeof(head), "[11/21/2026 09:%02d:%02d.000 pid=%d tid=%d] ", second / 60,
                  second % 60, pid, tid);
    return head + levelAndText + "\n";
}

inline std::string HeaderLine(size_t offset) {
    char header[40];
    std::snprintf(header, sizeof(header), "%-31zu\n", offset);
    return header;
}

// A file whose newer records stand before the marker, and older bytes after it.
inline std::string FileOf(const std::string& newer, const std::string& older = "") {
    return HeaderLine(TRACE_HEADER_SIZE + newer.size()) + newer + std::string(TRACE_MARKER) + older;
}
