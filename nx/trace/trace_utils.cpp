#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/foundation/CNxUtils.h>
#include <nx/trace/trace_utils.h>

unsigned long get_tick_count() {
    return static_cast<unsigned long>(GetCurrentTimerInMSec());
}

unsigned long calculate_tick_interval(unsigned long start, unsigned long end) {
    return end - start;
}

void ms_sleep(unsigned long ms) {
    cnx_sleep_ms(ms);
}

void CleanLock(CNxMutexThreadBase* mutex) NX_NO_THREAD_SAFETY_ANALYSIS {
    mutex->UnLock();
}

void Assert_Log(const char* /*file*/, const char* /*expr*/, int /*line*/) {}

void log_string(const char* /*text*/) {}

void output_debug_string(const char* /*text*/) {}
