#include <common/Trace.h>
#include <nx/trace/CNxT120TraceFileMgr.h>

namespace examples {

namespace {

constexpr unsigned long c_sharedSize = 1UL << 20;

void* s_shared = nullptr;

}  // namespace

void ShareTrace(const std::string& file) {
    s_shared = T120_Attach_Trace_Dev(file.c_str(), c_sharedSize);
}

bool IsTraced(unsigned long level) {
    return CNxT120Trace::instance()->is_on(level) || s_shared != nullptr;
}

void TraceText(unsigned long level, const char* text) {
    CNxT120Trace::instance()->trace_string(level, text, false);
    if (s_shared != nullptr) {
        T120_Write_Trace_Dev(s_shared, "Log", g_logMapEntry[level].name, text);
    }
}

}  // namespace examples
