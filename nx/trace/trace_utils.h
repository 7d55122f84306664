// Small helpers that came with tracing: milliseconds, sleeping, and hooks that do nothing.
#pragma once

class CNxMutexThreadBase;

// Milliseconds since 1970 of the wall clock, which may be set back.
unsigned long get_tick_count();

// end - start; wraps when `end` is earlier.
unsigned long calculate_tick_interval(unsigned long start, unsigned long end);

// Sleeps in full, also when signals interrupt it.
void ms_sleep(unsigned long ms);

// Unlocks the mutex (no null); fit for pthread_cleanup_push(3).
void CleanLock(CNxMutexThreadBase* mutex);

// These do nothing.
void Assert_Log(const char* file, const char* expr, int line);
void log_string(const char* text);
void output_debug_string(const char* text);
