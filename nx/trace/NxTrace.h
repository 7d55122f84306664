// How a program traces: one line, put together from its parts.
//
//     NxTrace(NX_TRACE_WARNING, "client ", id, " refused: ", reason.text);
//
// It goes to the files of nx/trace/CNxT120Trace.h, which are there when the configuration says so
// (docs/trace.md). A line for people at a terminal is nx/trace/log.h's.
#pragma once

#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/Text_Formator.h>

// Writes the line if its level is on. Parts are what Text_Formator takes: numbers, texts, pointers;
// CNxT120Trace::HEX before a number. A line is cut at 959 bytes. While the level is off it costs
// what its parts cost to compute, which is_on may be asked before. Any thread.
template <class... Parts>
void NxTrace(unsigned long level, const Parts&... parts) {
    CNxT120Trace* const engine = CNxT120Trace::instance();
    if (engine->is_on(level)) {
        char buffer[1024];
        Text_Formator text(buffer, sizeof(buffer));
        static_cast<void>((text << ... << parts));
        engine->trace_string(level, text, false);
    }
}
