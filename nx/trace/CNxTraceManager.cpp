#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxTraceManager.h>

INxTraceManager* INxTraceManager::Instance() {
    // Never destroyed: threads may trace while the process exits.
    static auto* const s_manager = new CNxTraceManager;
    return s_manager;
}

void CNxTraceManager::TraceString(unsigned long level, const char* text) {
    CNxT120Trace::instance()->trace_string(level, text, false);
}

void CNxTraceManager::FatalTraceString(unsigned long level, const char* text) {
    CNxT120Trace::instance()->FatalTraceString(level, text);
}

void STrace(const char* /*fmt*/, ...) {}
