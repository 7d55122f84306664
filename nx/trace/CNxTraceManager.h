// The way to the trace engine for code that should not know it: an interface with one
// implementation.
#pragma once

// Any thread may call any operation.
class INxTraceManager {
public:
    INxTraceManager() = default;
    INxTraceManager(const INxTraceManager&) = delete;
    INxTraceManager& operator=(const INxTraceManager&) = delete;

    // CNxT120Trace::trace_string, without asking for standard output.
    virtual void TraceString(unsigned long level, const char* text) = 0;

    // CNxT120Trace::FatalTraceString.
    virtual void FatalTraceString(unsigned long level, const char* text) = 0;

    virtual ~INxTraceManager() = default;

    // The CNxTraceManager of the process, made by the first call. Usable until the process is gone.
    static INxTraceManager* Instance();
};

class CNxTraceManager : public INxTraceManager {
public:
    void TraceString(unsigned long level, const char* text) override;
    void FatalTraceString(unsigned long level, const char* text) override;
};

// Does nothing.
void STrace(const char* fmt, ...);
