// Inside the library only: says the library's own lines where CNxOwnLines wants them.
#pragma once

// Any thread may call, but no signal handler, and nobody who holds a lock of tracing. errno stays
// as it is. The line, with its line end, is printed as by PrintToStdout and PrintToStderr
// (nx/foundation/standard_streams.h); that is where it goes unless the process says otherwise.
[[gnu::format(printf, 1, 2)]] void SayOnStdout(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void SayOnStderr(const char* format, ...);

// Says "nxbase: cannot ACTION PATH: PROBLEM", once per process and path, for the first 64 of them.
// On standard error unless lines go nowhere: tracing itself may be what cannot go on, so who holds
// its locks may call this one.
void ComplainOnce(const char* action, const char* path, const char* problem);

// For the trace engine: what a line without its line end is handed to from here on, and at once
// those that have waited. It does not throw, and is there until the process is gone.
void SetLineTracer(void (*tracer)(const char* line));
